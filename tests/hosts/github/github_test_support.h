#pragma once

// A GitHub adapter talking to a scripted fake host under the name api.github.test, with the date
// settings fixed (UTC, en_US) so that localized dates are the same on every machine.

#include "fakehost/fake_host.h"
#include "hosts/github/github_host.h"

#include <gtest/gtest.h>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/url/parse.hpp>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace vt::testing {

inline VTUrl urlOf(std::string_view text) {
    return VTUrl(boost::urls::parse_uri(text).value());
}

inline std::string fixtureText(std::string_view name) {
    std::ifstream file(std::string(VT_GITHUB_FIXTURES) + "/" + std::string(name));
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// Sets the date settings the expected texts are written for.
inline void useFixedDateSettings() {
    setenv("TZ", "UTC", 1);
    setenv("LANG", "en_US.UTF-8", 1);
    unsetenv("LC_ALL");
    unsetenv("LC_TIME");
}

// The GraphQL "pageInfo" member text of a page.
inline std::string pageInfo(bool hasNextPage, std::string_view cursor = "") {
    return R"("pageInfo":{"endCursor":")" + std::string(cursor) + R"(","hasNextPage":)" +
           (hasNextPage ? "true" : "false") + "}";
}

// Pull request 7 of owner/repo as the client sends it back: address, host type and number.
inline VTPullRequest pullRequestSeven(const char* remoteUrl) {
    VTPullRequest pullRequest;
    pullRequest.remoteUrl = remoteUrl;
    pullRequest.hostType = 1;
    pullRequest.number = 7;
    return pullRequest;
}

class GitHubTest : public ::testing::Test {
protected:
    void SetUp() override {
        useFixedDateSettings();
        const std::string route = "api.github.test:80:127.0.0.1:" + std::to_string(fake.port());
        setenv("VELDTRACK_CONNECT_TO", route.c_str(), 1);
    }

    void TearDown() override {
        for (const std::string& problem : fake.problems()) {
            ADD_FAILURE() << "fake host: " << problem;
        }
    }

    // Scripts the answer to the next GraphQL post.
    void answer(std::string body, int status = 200) {
        fake.expect("POST", "/graphql", vt::fake::Response::json(std::move(body), status));
    }

    // The "query" texts of every GraphQL post, in order.
    std::vector<std::string> sentQueries() const {
        std::vector<std::string> queries;
        for (const vt::fake::Request& request : fake.requests()) {
            if (request.method == "POST" && request.target == "/graphql") {
                queries.emplace_back(boost::json::parse(request.body).at("query").as_string());
            }
        }
        return queries;
    }

    vt::fake::FakeHost fake;
    VTGitHubHost host{urlOf("http://github.test/owner/repo")};
    VTToken token{{"token_type", "Bearer"}, {"access_token", "secret"}};
    VTError error;
};

}  // namespace vt::testing
