#pragma once

// A GitHub adapter talking to a scripted fake host under the name api.github.test.

#include "host_test.h"
#include "hosts/github/github_host.h"

#include <gtest/gtest.h>
#include <boost/json/serialize.hpp>

#include <string>
#include <string_view>
#include <vector>

namespace vt::testing {

using vt::test::pageInfo;
using vt::test::urlOf;
using vt::test::useFixedDateSettings;

inline std::string fixtureText(std::string_view name) {
    return vt::test::fileText(std::string(VT_GITHUB_FIXTURES) + "/" + std::string(name));
}

// Pull request 7 of owner/repo as the client sends it back: address, host type and number.
inline VTPullRequest pullRequestSeven(const char* remoteUrl) {
    VTPullRequest pullRequest;
    pullRequest.remoteUrl = remoteUrl;
    pullRequest.hostType = 1;
    pullRequest.number = 7;
    return pullRequest;
}

class GitHubTest : public vt::test::FakeHostTest {
protected:
    GitHubTest() : FakeHostTest("api.github.test") {}

    // Scripts the answer to the next GraphQL post.
    void answer(std::string body, int status = 200) {
        fake.expect("POST", "/graphql", vt::fake::Response::json(std::move(body), status));
    }

    // The "query" texts of every GraphQL post, in order.
    std::vector<std::string> sentQueries() const { return queriesPostedTo("/graphql"); }

    VTGitHubHost host{urlOf("http://github.test/owner/repo")};
    VTToken token{{"token_type", "Bearer"}, {"access_token", "secret"}};
    VTError error;
};

}  // namespace vt::testing
