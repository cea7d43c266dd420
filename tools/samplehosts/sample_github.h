#pragma once

// SampleGitHub: a believable GitHub account on a loopback FakeHost, for the demonstration, the
// benchmarks and the tests of the path they take. It answers GitHub's GraphQL API (POST /graphql:
// the viewer, the profile with organizations, repositories of the user and of organizations,
// privacy, forks, open pull requests, a pull request's conversation, and the pull request,
// comment and repository mutations, whose changes it keeps) and the REST SSH key list
// (GET /user/keys with "Link" paging, POST, DELETE), the way GitHub does: exactly the fields a
// query asks for, GraphQL "errors" for anything unknown, and 401 {"message":"Bad credentials"}
// for a request without the sample token.
//
// The signed-in user is mara-lindqvist, member of the organizations openkiln, northwind-tools and
// lakeside-labs. The open pull requests are those of openkiln/kiln; every pull request has a
// conversation of the configured size, spread over several days, with several authors.
//
// Reach it as http://github.test (API http://api.github.test) by routing the API's name with
// VELDTRACK_CONNECT_TO=connectTo().

#include "fakehost/fake_host.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace vt::sample {

struct GitHubScale {
    int pullRequests = 6;  // open pull requests of openkiln/kiln
    // Of every pull request's conversation:
    int assignees = 2;
    int labels = 3;
    int comments = 6;
    int commits = 9;
    // SSH keys of the user: the first three are real keys, further ones are made up.
    int sshKeys = 3;
    // Added to every answer, as a distant host's latency.
    std::chrono::milliseconds delay{0};
};

// The token the sample accepts, as "Authorization: Bearer <token>" (or "token <token>").
inline constexpr std::string_view kSampleGitHubToken = "sample-github-demo-token";
// The sample's web address, and the repository whose pull requests it lists.
inline constexpr std::string_view kSampleGitHubSite = "http://github.test";
inline constexpr std::string_view kSampleGitHubRepository = "http://github.test/openkiln/kiln";

class SampleGitHub {
public:
    explicit SampleGitHub(GitHubScale scale = {});
    ~SampleGitHub();
    SampleGitHub(const SampleGitHub&) = delete;
    SampleGitHub& operator=(const SampleGitHub&) = delete;

    // The loopback host: its port, and every request it answered with the times it took.
    fake::FakeHost& host() { return *host_; }
    std::uint16_t port() const { return host_->port(); }
    // The VELDTRACK_CONNECT_TO value that routes the sample's API name to this host:
    // "api.github.test:80:127.0.0.1:<port>".
    std::string connectTo() const;

    // Numbers of the generated pull requests of openkiln/kiln: the newest, and the newest whose
    // head lives in a fork (0 when there is none).
    std::int64_t newestPullRequest() const;
    std::int64_t forkPullRequest() const;

private:
    struct State;
    std::unique_ptr<State> state_;
    // Declared after the state it answers from, so that it stops serving first.
    std::unique_ptr<fake::FakeHost> host_;
};

}  // namespace vt::sample
