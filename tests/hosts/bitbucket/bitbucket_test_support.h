#pragma once

// A Bitbucket adapter talking to a scripted fake host that answers for the API host
// api.bitbucket.test, for the site bitbucket.test (where tokens are renewed) and for
// elsewhere.test (a host the token must never reach).

#include "host_test.h"
#include "hosts/bitbucket/bitbucket_host.h"

#include <gtest/gtest.h>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>

#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vt::test {

// Pull request 7 of team/project as the client sends it back: address, host type and number.
inline VTPullRequest bitbucketPullRequestSeven() {
    VTPullRequest pullRequest;
    pullRequest.remoteUrl = "http://bitbucket.test/team/project.git";
    pullRequest.hostType = 3;
    pullRequest.number = 7;
    pullRequest.title = "Add the widget";
    return pullRequest;
}

class BitbucketTest : public FakeHostTest {
protected:
    BitbucketTest() : FakeHostTest("api.bitbucket.test") {}

    void SetUp() override {
        FakeHostTest::SetUp();
        const std::string port = std::to_string(fake.port());
        const std::string routes = "api.bitbucket.test:80:127.0.0.1:" + port +
                                   ",bitbucket.test:80:127.0.0.1:" + port +
                                   ",elsewhere.test:80:127.0.0.1:" + port;
        setenv("VELDTRACK_CONNECT_TO", routes.c_str(), 1);
    }

    // Scripts the answer to the next request with this method and target ("/2.0/..." with its
    // query).
    void answer(std::string method, std::string target, std::string body, int status = 200) {
        fake.expect(std::move(method), std::move(target),
                    vt::fake::Response::json(std::move(body), status));
    }
    void answerGet(std::string target, std::string body, int status = 200) {
        answer("GET", std::move(target), std::move(body), status);
    }

    // "METHOD target" of every request, in order.
    std::vector<std::string> sent() const {
        std::vector<std::string> lines;
        for (const vt::fake::Request& request : fake.requests()) {
            lines.push_back(request.method + " " + request.target);
        }
        return lines;
    }

    // The decoded body of the request at `index`.
    boost::json::value bodyOf(std::size_t index) const {
        return boost::json::parse(fake.requests().at(index).body);
    }

    VTBitbucketbHost host{urlOf("http://bitbucket.test/team/project.git")};
    VTToken token{{"token_type", "Bearer"}, {"access_token", "secret"}};
    VTError error;
};

// The address of the second page of a list, as the host names it in "next".
inline std::string nextPage(std::string_view pathAndQuery) {
    return R"("next":"http://api.bitbucket.test)" + std::string(pathAndQuery) + R"(")";
}

}  // namespace vt::test
