#pragma once

// SampleBitbucket: a believable Bitbucket Cloud account on a loopback FakeHost, for the
// demonstration, the benchmarks and the tests of the path they take. It answers the REST 2.0 API
// below http://api.bitbucket.test/2.0 the way Bitbucket does: paged lists with "next" members,
// the "fields" and "pagelen" query parameters, Bitbucket's error objects
// ({"type": "error", "error": {"message": ...}}), and the OAuth token endpoint
// http://bitbucket.test/site/oauth2/access_token, which renews an access token for the refresh
// token and the client's Basic credentials and hands out a new refresh token each time (the old
// one stops working).
//
// The signed-in user is mara-lindqvist, who works in the workspaces tidewater, northwind-tools,
// harbour-ops and lakeside-labs. The open pull requests are those of tidewater/tilestream; every
// pull request has threaded comments (deleted ones with and without answers), commits over
// several days by several authors, and a diffstat. Pull request, comment, repository and SSH key
// changes are kept.
//
// Credentials it accepts: the Bearer access token kSampleBitbucketToken and the tokens it renews;
// Basic with the user's e-mail address and the API token kSampleBitbucketApiToken. The Bearer
// token kSampleBitbucketExpiredToken gets Bitbucket's "Access token expired" answer, and
// kSampleBitbucketRefreshToken renews it once.
//
// Reach it by routing both of its names with VELDTRACK_CONNECT_TO=connectTo().

#include "fakehost/fake_host.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace vt::sample {

// Public demonstration values, not secrets: the sample is their only user.
inline constexpr std::string_view kSampleBitbucketToken = "sample-bitbucket-demo-token";
inline constexpr std::string_view kSampleBitbucketExpiredToken = "sample-bitbucket-expired-token";
inline constexpr std::string_view kSampleBitbucketRefreshToken = "sample-bitbucket-refresh-token";
inline constexpr std::string_view kSampleBitbucketEmail = "mara@example.org";
inline constexpr std::string_view kSampleBitbucketApiToken = "sample-bitbucket-api-token";
// The OAuth client the sample's token endpoint knows, unless told another.
inline constexpr std::string_view kSampleBitbucketClientId = "veldtrack-demo-bitbucket-client";
inline constexpr std::string_view kSampleBitbucketClientSecret = "veldtrack-demo-bitbucket-secret";
// The sample's web address, and the repository whose pull requests it lists.
inline constexpr std::string_view kSampleBitbucketSite = "http://bitbucket.test";
inline constexpr std::string_view kSampleBitbucketRepository =
    "http://bitbucket.test/tidewater/tilestream";

struct BitbucketScale {
    int pullRequests = 6;  // open pull requests of tidewater/tilestream
    // Of every pull request: comments (replies and deleted ones included), commits, and the
    // files of its diffstat. Pull requests with a conflict have it among the files after the
    // 200th where there are that many, so on the second page of the adapter's diffstat.
    int comments = 10;
    int commits = 9;
    int diffstatFiles = 240;
    // Repositories of harbour-ops beside the named ones, to make the repository list longer.
    int extraRepositories = 0;
    // SSH keys of the user: the first three are real keys, further ones are made up.
    int sshKeys = 3;
    // Added to every answer, as a distant host's latency.
    std::chrono::milliseconds delay{0};
    // The OAuth client whose Basic credentials the token endpoint takes.
    std::string clientId{kSampleBitbucketClientId};
    std::string clientSecret{kSampleBitbucketClientSecret};
};

class SampleBitbucket {
public:
    explicit SampleBitbucket(BitbucketScale scale = {});
    ~SampleBitbucket();
    SampleBitbucket(const SampleBitbucket&) = delete;
    SampleBitbucket& operator=(const SampleBitbucket&) = delete;

    // The loopback host: its port, and every request it answered with the times it took.
    fake::FakeHost& host() { return *host_; }
    std::uint16_t port() const { return host_->port(); }
    // The VELDTRACK_CONNECT_TO value that routes the sample's names to this host:
    // "api.bitbucket.test:80:127.0.0.1:<port>,bitbucket.test:80:127.0.0.1:<port>".
    std::string connectTo() const;

    // Ids of generated pull requests of tidewater/tilestream: the newest, the newest from a fork,
    // and the newest with a merge conflict (0 when there is none).
    std::int64_t newestPullRequest() const;
    std::int64_t forkPullRequest() const;
    std::int64_t conflictPullRequest() const;

    // Lets every access token handed out so far expire, as two hours would.
    void expireAccessTokens();

private:
    struct State;
    std::unique_ptr<State> state_;
    // Declared after the state it answers from, so that it stops serving first.
    std::unique_ptr<fake::FakeHost> host_;
};

}  // namespace vt::sample
