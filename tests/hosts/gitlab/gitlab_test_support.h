#pragma once

// A GitLab adapter talking to a scripted fake host under the name gitlab.test, for the project
// group/project.

#include "host_test.h"
#include "hosts/gitlab/gitlab_host.h"

#include <gtest/gtest.h>
#include <boost/json/parse.hpp>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace vt::gitlab::testing {

using vt::test::pageInfo;
using vt::test::urlOf;

inline constexpr const char* kProjectUrl = "http://gitlab.test/group/project.git";

// The seconds since 1970 of now, for tokens that expire relative to it.
inline std::int64_t secondsNow() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// An OAuth token issued `age` seconds ago that lives for two hours.
inline VTToken oauthToken(std::int64_t age, const char* accessToken = "old-access") {
    return {{"token_type", "Bearer"},
            {"access_token", accessToken},
            {"refresh_token", "old-refresh"},
            {"created_at", secondsNow() - age},
            {"expires_in", 7200}};
}

// Merge request 7 of group/project as the client sends it back.
inline VTPullRequest mergeRequestSeven() {
    VTPullRequest pullRequest;
    pullRequest.remoteUrl = kProjectUrl;
    pullRequest.hostType = 2;
    pullRequest.number = 7;
    pullRequest.identifier = "gid://gitlab/MergeRequest/70";
    return pullRequest;
}

class GitLabTest : public vt::test::FakeHostTest {
protected:
    GitLabTest() : FakeHostTest("gitlab.test") {}

    // Scripts the answer to the next GraphQL post.
    void answer(std::string body, int status = 200) {
        fake.expect("POST", "/api/graphql", vt::fake::Response::json(std::move(body), status));
    }

    // Scripts the answer to the next REST request, with a "Link" header to `next` when given.
    void answerRest(std::string method, std::string target, std::string body,
                    const std::string& next = "", int status = 200) {
        vt::fake::Response response = vt::fake::Response::json(std::move(body), status);
        if (!next.empty()) {
            response.headers.emplace_back("Link", "<" + next + ">; rel=\"next\"");
        }
        fake.expect(std::move(method), std::move(target), std::move(response));
    }

    // The "query" texts of every GraphQL post, in order.
    std::vector<std::string> sentQueries() const { return queriesPostedTo("/api/graphql"); }

    // The decoded body of the `index`-th request.
    boost::json::value sentBody(std::size_t index) const {
        return boost::json::parse(fake.requests().at(index).body);
    }

    VTGitLabHost host{urlOf(kProjectUrl)};
    VTToken token{{"token_type", "Bearer"}, {"access_token", "secret"}};
    VTError error;
};

}  // namespace vt::gitlab::testing
