#pragma once

// SampleGitLab: a believable GitLab account on a loopback FakeHost, for the demonstration, the
// benchmarks and the tests of the path they take. It answers, the way GitLab does:
// - GraphQL (POST /api/graphql): the current user and their group memberships, projects with
//   their visibility, open merge requests, a merge request's details, assignees, labels,
//   discussions (threads with replies, system notes) and commits, and the note and merge request
//   mutations, whose changes it keeps; exactly the fields a query asks for, GraphQL "errors" for
//   anything unknown;
// - REST v4 (/api/v4): the user, projects (list with "Link" paging, one project, creation), a
//   merge request's commits (merge commits included, "Link" paging), merge requests created from
//   a fork, and the SSH key list, upload and removal;
// - OAuth (POST /oauth/token): the refresh grant for the configured client, issuing tokens with
//   "created_at" and "expires_in" and rotating refresh tokens (a refresh token works once).
// A request with an expired access token gets 401 with an "error" object whose "message" says
// that the access token expired; any other unknown token gets 401.
//
// The signed-in user is ines-moreau, member of the groups tidewater, harbor-ops and Quayside.
// The open merge requests are those of tidewater/tideline; every merge request has a
// conversation of the configured size, over several days, with several authors.
//
// Reach it as http://gitlab.test by routing that name with VELDTRACK_CONNECT_TO=connectTo().

#include "fakehost/fake_host.h"

#include <boost/json/object.hpp>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace vt::sample {

struct GitLabScale {
    int mergeRequests = 105;  // open merge requests of tidewater/tideline
    // Of every merge request's conversation:
    int assignees = 2;
    int labels = 3;
    int discussions = 55;  // system notes, single comments and threads with replies
    int longThread = 60;   // the notes of the one long thread (none when below 2)
    int commits = 12;      // merge commits included
    // SSH keys of the user: the first three are real keys, further ones are made up.
    int sshKeys = 3;
    // Added to every answer, as a distant host's latency.
    std::chrono::milliseconds delay{0};
    // The lifetime of the access tokens the token endpoint issues.
    std::chrono::seconds tokenLifetime{7200};
    // The OAuth client the token endpoint accepts (public demonstration values by default).
    std::string clientId = "veldtrack-demo-gitlab-client";
    std::string clientSecret = "veldtrack-demo-gitlab-secret";
};

// A token the sample always accepts, as "Authorization: Bearer <token>" (a personal access
// token: it never expires and cannot be refreshed).
inline constexpr std::string_view kSampleGitLabToken = "sample-gitlab-demo-token";
// The sample's web address, and the project whose merge requests it lists.
inline constexpr std::string_view kSampleGitLabSite = "http://gitlab.test";
inline constexpr std::string_view kSampleGitLabProject = "http://gitlab.test/tidewater/tideline";

class SampleGitLab {
public:
    explicit SampleGitLab(GitLabScale scale = {});
    ~SampleGitLab();
    SampleGitLab(const SampleGitLab&) = delete;
    SampleGitLab& operator=(const SampleGitLab&) = delete;

    // The loopback host: its port, and every request it answered with the times it took.
    fake::FakeHost& host() { return *host_; }
    std::uint16_t port() const { return host_->port(); }
    // The VELDTRACK_CONNECT_TO entry that routes the sample's name to this host:
    // "gitlab.test:80:127.0.0.1:<port>".
    std::string connectTo() const;

    // A new OAuth token as the token endpoint hands it out ("access_token", "token_type",
    // "refresh_token", "scope", "created_at", "expires_in"), issued `age` ago and living
    // `lifetime` from then: a token with age >= lifetime has expired.
    boost::json::object issueToken(std::chrono::seconds lifetime,
                                   std::chrono::seconds age = std::chrono::seconds(0));
    // Refresh grants the token endpoint granted, and those it refused.
    std::size_t refreshesGranted() const;
    std::size_t refreshesRefused() const;

    // The iids of generated merge requests of tidewater/tideline: the newest, the newest whose
    // source branch lives in a fork, and the one with the long thread.
    std::int64_t newestMergeRequest() const;
    std::int64_t forkMergeRequest() const;

private:
    struct State;
    std::unique_ptr<State> state_;
    // Declared after the state it answers from, so that it stops serving first.
    std::unique_ptr<fake::FakeHost> host_;
};

}  // namespace vt::sample
