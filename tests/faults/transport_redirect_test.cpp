// Redirects: 307 and 308 repeat the method and body, 301, 302 and 303 repeat as a GET without a
// body, the token stays with the origin it was meant for, and a sixth redirect fails.

#include "github_test_support.h"
#include "transport_support.h"

#include "fakehost/fake_host.h"
#include "transport/host.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/json/parse.hpp>

#include <string>

namespace {

using testing::IsEmpty;
using vt::fake::FakeHost;
using vt::fake::Request;
using vt::fake::Response;
using vt::faults::urlOf;

constexpr const char* kContent = R"({"query":"mutation{x}"})";

struct RedirectCase {
    int status;
    const char* method;
    bool toOtherHost;
};

class ARedirect : public testing::TestWithParam<RedirectCase> {
protected:
    void TearDown() override {
        EXPECT_THAT(first.problems(), IsEmpty());
        EXPECT_THAT(second.problems(), IsEmpty());
    }
    FakeHost first;
    FakeHost second;
    VTHost adapter;
    VTToken token{{"token_type", "Bearer"}, {"access_token", "secret"}};
};

TEST_P(ARedirect, RepeatsTheRightMethodAndBodyAndKeepsTheTokenWithItsOrigin) {
    const RedirectCase& redirect = GetParam();
    FakeHost& target = redirect.toOtherHost ? second : first;
    first.expect(redirect.method, "/start",
                 Response::redirect(redirect.status, target.url("/end?page=2")));
    const bool repeats = redirect.status == 307 || redirect.status == 308;
    const std::string method = repeats ? redirect.method : "GET";
    target.expect(method, "/end?page=2", Response::json(R"({"ok":true})"));

    const boost::json::value content = boost::json::parse(kContent);
    const bool posts = std::string_view(redirect.method) == "POST";
    VTError error;
    auto answer = adapter.jsonWithContent(posts ? &content : nullptr, redirect.method,
                                          urlOf(first.url("/start")), token, nullptr, &error);
    ASSERT_TRUE(answer) << error.description();
    EXPECT_EQ(*answer, boost::json::parse(R"({"ok":true})"));

    const Request sent = first.requests().at(0);
    EXPECT_EQ(sent.body, posts ? kContent : "");
    const Request repeated = target.requests().back();
    const bool carriesBody = posts && repeats;
    EXPECT_EQ(repeated.body, carriesBody ? kContent : "");
    EXPECT_EQ(repeated.header("Content-Length"),
              carriesBody ? std::optional(std::to_string(std::string_view(kContent).size()))
                          : std::nullopt);
    EXPECT_EQ(repeated.header("Content-Type").has_value(), carriesBody);
    EXPECT_EQ(repeated.header("Authorization"),
              redirect.toOtherHost ? std::nullopt : std::optional<std::string>("Bearer secret"));
    EXPECT_EQ(repeated.header("Accept"), "application/json");
}

std::vector<RedirectCase> allRedirects() {
    std::vector<RedirectCase> cases;
    for (int status : {301, 302, 303, 307, 308}) {
        for (const char* method : {"GET", "POST"}) {
            for (bool other : {false, true}) {
                cases.push_back({status, method, other});
            }
        }
    }
    return cases;
}

INSTANTIATE_TEST_SUITE_P(OfEveryKind, ARedirect, testing::ValuesIn(allRedirects()),
                         [](const testing::TestParamInfo<RedirectCase>& info) {
                             return std::to_string(info.param.status) + info.param.method +
                                    (info.param.toOtherHost ? "ToAnotherHost" : "ToTheSameHost");
                         });

class RedirectChains : public testing::Test {
protected:
    // /hop0 redirects to /hop1 and so on; /hop<length> answers.
    void chain(int length) {
        for (int hop = 0; hop < length; ++hop) {
            fake.expect("GET", "/hop" + std::to_string(hop),
                        Response::redirect(302, "/hop" + std::to_string(hop + 1)));
        }
    }
    FakeHost fake;
    VTHost adapter;
    VTToken token;
    VTError error;
};

TEST_F(RedirectChains, OfFiveHopsAreFollowedWithRelativeTargets) {
    chain(5);
    fake.expect("GET", "/hop5", Response::json(R"({"end":5})"));
    auto answer = adapter.jsonGetWithUrl(urlOf(fake.url("/hop0")), token, nullptr, &error);
    ASSERT_TRUE(answer) << error.description();
    EXPECT_EQ(*answer, boost::json::parse(R"({"end":5})"));
    EXPECT_THAT(fake.problems(), IsEmpty());
}

TEST_F(RedirectChains, FailAtTheSixthRedirectWithoutFollowingIt) {
    chain(6);
    EXPECT_FALSE(adapter.jsonGetWithUrl(urlOf(fake.url("/hop0")), token, nullptr, &error));
    EXPECT_EQ(error, VTError(VTURLErrorDomain, -1007, "too many redirects"));
    EXPECT_EQ(fake.requestCount(), 6u);
    EXPECT_THAT(fake.problems(), IsEmpty());
}

using GitHubRedirects = vt::testing::GitHubTest;

TEST_F(GitHubRedirects, APostMovedFor302IsAskedAgainAsAGetAndAnswered) {
    fake.expect("POST", "/graphql", Response::redirect(302, "/graphql-moved"));
    fake.expect("GET", "/graphql-moved",
                Response::json(R"({"errors":[{"message":"Use POST for queries"}]})"));
    EXPECT_FALSE(host.repositoriesWithToken(token, &error));
    EXPECT_EQ(error, VTError(VTHTTPErrorDomain, 200, "Use POST for queries"));
    EXPECT_EQ(fake.requests().at(1).header("Content-Length"), std::nullopt);
}

TEST_F(GitHubRedirects, AQueryMovedFor307IsPostedAgainWhole) {
    fake.expect("POST", "/graphql", Response::redirect(307, "/graphql-moved"));
    fake.expect("POST", "/graphql-moved",
                Response::json(R"({"data":{"viewer":{"login":"octo","repositories":{"nodes":[)"
                               R"({"owner":{"login":"octo"},"name":"r"}],)" +
                               vt::testing::pageInfo(false) + "}}}}"));
    auto owners = host.repositoriesWithToken(token, &error);
    ASSERT_TRUE(owners) << error.description();
    EXPECT_EQ(owners->at("octo").at("repositories").as_array().size(), 1u);
    const auto requests = fake.requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[1].body, requests[0].body);
    EXPECT_EQ(requests[1].header("Authorization"), "Bearer secret");
}

}  // namespace
