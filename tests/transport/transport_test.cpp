#include "fakehost/fake_host.h"
#include "transport/host.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/json/parse.hpp>
#include <boost/url/parse.hpp>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

namespace {

using boost::json::parse;
using testing::IsEmpty;
using vt::fake::FakeHost;
using vt::fake::Response;

VTUrl urlOf(const std::string& text) {
    return VTUrl(boost::urls::parse_absolute_uri(text).value());
}

VTToken bearer(const char* access) {
    return VTToken{{"token_type", "Bearer"}, {"access_token", access}};
}

VTToken refreshable() {
    return VTToken{{"token_type", "Bearer"}, {"access_token", "old"}, {"refresh_token", "r"}};
}

// An adapter whose refresh hook hands out a new token (or none) and counts its calls.
class RenewingHost : public VTHost {
public:
    std::optional<VTToken> refreshedToken(const VTToken& token, const VTUrl&,
                                          VTError* error) const override {
        ++calls;
        seenRefreshToken = token.at("refresh_token").as_string().c_str();
        if (!renews) {
            VTSetError(error, VTError(VTGitErrorDomain, 1, "refresh refused"));
            return std::nullopt;
        }
        return VTToken{{"token_type", "Bearer"}, {"access_token", "new"}, {"refresh_token", "r2"}};
    }
    bool renews = true;
    mutable int calls = 0;
    mutable std::string seenRefreshToken;
};

const char* kExpired = R"({"type":"error","error":{"message":"Access token expired. Renew it."}})";

class TheTransport : public testing::Test {
protected:
    void TearDown() override { EXPECT_THAT(host.problems(), IsEmpty()); }
    FakeHost host;
    VTHost adapter;
};

TEST_F(TheTransport, DecodesAnEmptyGetAnswerAsAnEmptyObjectAndSendsTheCommonHeaders) {
    host.expect("GET", "/user", Response{});
    VTToken token = bearer("abc");
    VTError error(VTGitErrorDomain, 9, "stale");
    auto answer = adapter.jsonGetWithUrl(urlOf(host.url("/user")), token, nullptr, &error);
    ASSERT_TRUE(answer);
    EXPECT_EQ(*answer, boost::json::object());
    EXPECT_FALSE(error);
    auto request = host.requests().at(0);
    EXPECT_EQ(request.header("Authorization"), "Bearer abc");
    EXPECT_EQ(request.header("Accept"), "application/json");
    EXPECT_THAT(*request.header("User-Agent"), testing::StartsWith("Veldtrack/"));
    EXPECT_FALSE(request.header("Content-Type"));
}

TEST_F(TheTransport, PostsCompactJsonWithItsLengthAndType) {
    host.expect("POST", "/graphql", Response::json(R"({"data":{"ok":true}})"));
    VTToken token;
    auto answer = adapter.jsonPostWithUrl(
        urlOf(host.url("/graphql")), parse(R"({"query":"query{viewer{login}}"})"), token, nullptr);
    ASSERT_TRUE(answer);
    auto request = host.requests().at(0);
    EXPECT_EQ(request.body, R"({"query":"query{viewer{login}}"})");
    EXPECT_EQ(request.header("Content-Type"), "application/json");
    EXPECT_EQ(request.header("Content-Length"), std::to_string(request.body.size()));
    EXPECT_FALSE(request.header("Authorization")) << "no token, no Authorization header";
}

TEST_F(TheTransport, KeepsOneConnectionAliveAcrossRequestsAndFailedAnswers) {
    host.expect("GET", "/user", Response::json(R"({"login":"octo"})"));
    host.expect("POST", "/graphql", Response::json(R"({"errors":[{"message":"bad query"}]})"));
    host.expect("DELETE", "/k/1", Response::json(R"({"message":"Not Found"})", 404));
    host.expect("GET", "/user", Response::json(R"({"login":"octo"})"));
    VTToken token = bearer("t");
    const VTUrl user = urlOf(host.url("/user"));
    EXPECT_TRUE(adapter.jsonGetWithUrl(user, token, nullptr, nullptr));
    EXPECT_FALSE(adapter.jsonPostWithUrl(urlOf(host.url("/graphql")), parse("{}"), token, nullptr));
    EXPECT_FALSE(adapter.jsonDeleteWithUrl(urlOf(host.url("/k/1")), token, nullptr));
    EXPECT_TRUE(adapter.jsonGetWithUrl(user, token, nullptr, nullptr));
    EXPECT_EQ(host.connectionCount(), 1u);
}

// Requests of different clients run on different threads at once: each thread keeps its own
// connection, and what the threads share (DNS answers, TLS sessions) stays consistent.
TEST_F(TheTransport, ServesThreadsAtOnceEachOnItsOwnKeptConnection) {
    host.setHandler([](const vt::fake::Request& request) -> std::optional<Response> {
        if (request.target != "/user") {
            return std::nullopt;
        }
        return Response::json(R"({"login":"octo"})");
    });
    constexpr int kThreads = 4;
    constexpr int kRequests = 25;
    std::atomic<int> answered{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([&] {
            VTHost own;
            VTToken token = bearer("t");
            const VTUrl user = urlOf(host.url("/user"));
            for (int request = 0; request < kRequests; ++request) {
                if (own.jsonGetWithUrl(user, token, nullptr, nullptr)) {
                    ++answered;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(answered, kThreads * kRequests);
    EXPECT_EQ(host.connectionCount(), static_cast<std::size_t>(kThreads));
}

TEST_F(TheTransport, AcceptsAnEmpty204OnlyForDelete) {
    Response empty;
    empty.status = 204;
    host.expect("DELETE", "/k/1", empty);
    host.expect("PUT", "/k/1", empty);
    host.expect("POST", "/k", empty);
    VTToken token = bearer("t");
    VTError error;
    EXPECT_TRUE(adapter.jsonDeleteWithUrl(urlOf(host.url("/k/1")), token, &error));
    EXPECT_FALSE(error);
    EXPECT_FALSE(adapter.jsonPutWithUrl(urlOf(host.url("/k/1")), parse("{}"), token, &error));
    EXPECT_EQ(error.code, 204);
    EXPECT_EQ(error.description(), "HTTP status code 204 (No Content)");
    EXPECT_FALSE(adapter.jsonPostWithUrl(urlOf(host.url("/k")), parse("{}"), token, &error));
    EXPECT_EQ(error.code, 204);
}

TEST_F(TheTransport, TurnsAnHtmlErrorPageIntoTheStatusWithThePageAsSuggestion) {
    Response page;
    page.status = 502;
    page.body = "<html><body>upstream down</body></html>";
    host.expect("GET", "/x", page);
    VTToken token;
    VTError error;
    std::string link = "stale";
    EXPECT_FALSE(adapter.jsonGetWithUrl(urlOf(host.url("/x")), token, &link, &error));
    EXPECT_EQ(error.domain, VTHTTPErrorDomain);
    EXPECT_EQ(error.code, 502);
    EXPECT_EQ(error.description(), "HTTP status code 502 (Bad Gateway)");
    EXPECT_EQ(error.recoverySuggestion(), page.body);
    EXPECT_EQ(link, "");
}

TEST_F(TheTransport, FailsAGraphQlAnswerThatCarriesErrorsBesideData) {
    host.expect(
        "POST", "/graphql",
        Response::json(R"({"data":{"viewer":null},"errors":[{"message":"no such field"}]})"));
    VTToken token;
    VTError error;
    EXPECT_FALSE(adapter.jsonPostWithUrl(urlOf(host.url("/graphql")), parse("{}"), token, &error));
    EXPECT_EQ(error.code, 200);
    EXPECT_EQ(error.description(), "no such field");
    EXPECT_FALSE(error.recoverySuggestion());
}

TEST_F(TheTransport, ReportsBadCredentialsWithTheHostsMessage) {
    host.expect("GET", "/user", Response::json(R"({"message":"Bad credentials"})", 401));
    VTToken token = bearer("wrong");
    VTError error;
    EXPECT_FALSE(adapter.jsonGetWithUrl(urlOf(host.url("/user")), token, nullptr, &error));
    EXPECT_EQ(error.code, 401);
    EXPECT_EQ(error.description(), "HTTP status code 401 (Unauthorized)");
    EXPECT_EQ(error.recoverySuggestion(), "Bad credentials");
}

TEST_F(TheTransport, RefreshesAnExpiredTokenOnceAndHandsTheNewOneBack) {
    host.expect("GET", "/repos", Response::json(kExpired, 401));
    host.expect("GET", "/repos", Response::json(R"({"values":[]})"));
    RenewingHost renewing;
    VTToken token = refreshable();
    VTError error;
    auto answer = renewing.jsonGetWithUrl(urlOf(host.url("/repos")), token, nullptr, &error);
    ASSERT_TRUE(answer) << error.description();
    EXPECT_EQ(renewing.calls, 1);
    EXPECT_EQ(renewing.seenRefreshToken, "r");
    EXPECT_EQ(token.at("access_token"), "new");
    auto requests = host.requests();
    EXPECT_EQ(requests.at(0).header("Authorization"), "Bearer old");
    EXPECT_EQ(requests.at(1).header("Authorization"), "Bearer new");
}

TEST_F(TheTransport, KeepsTheOldTokenWhenTheRepetitionFailsAgain) {
    host.expect("POST", "/graphql", Response::json(kExpired, 401));
    host.expect("POST", "/graphql", Response::json(kExpired, 401));
    RenewingHost renewing;
    VTToken token = refreshable();
    VTError error;
    EXPECT_FALSE(renewing.jsonPostWithUrl(urlOf(host.url("/graphql")), parse("{}"), token, &error));
    EXPECT_EQ(renewing.calls, 1) << "never a second refresh in one call";
    EXPECT_EQ(error.code, 401);
    EXPECT_EQ(token, refreshable());
}

TEST_F(TheTransport, PassesOnTheRefreshHooksErrorWhenItYieldsNoToken) {
    host.expect("GET", "/r", Response::json(kExpired, 401));
    RenewingHost renewing;
    renewing.renews = false;
    VTToken token = refreshable();
    VTError error;
    EXPECT_FALSE(renewing.jsonGetWithUrl(urlOf(host.url("/r")), token, nullptr, &error));
    EXPECT_EQ(error.domain, VTGitErrorDomain);
    EXPECT_EQ(error.description(), "refresh refused");
    EXPECT_EQ(token, refreshable());
}

TEST_F(TheTransport, NeverRefreshesWithoutARefreshTokenOrAnExpiryMessage) {
    host.expect("GET", "/a", Response::json(kExpired, 401));
    host.expect("GET", "/b", Response::json(R"({"error":{"message":"forbidden"}})", 401));
    host.expect("GET", "/c", Response::json(R"({"error":"access token expired"})", 401));
    RenewingHost renewing;
    VTToken plain = bearer("p");
    VTToken token = refreshable();
    EXPECT_FALSE(renewing.jsonGetWithUrl(urlOf(host.url("/a")), plain, nullptr, nullptr));
    EXPECT_FALSE(renewing.jsonGetWithUrl(urlOf(host.url("/b")), token, nullptr, nullptr));
    EXPECT_FALSE(renewing.jsonGetWithUrl(urlOf(host.url("/c")), token, nullptr, nullptr));
    EXPECT_EQ(renewing.calls, 0);
}

TEST_F(TheTransport, ReadsTheNextAddressFromTheLinkHeader) {
    Response first = Response::json("[1]");
    first.headers.emplace_back("Link", "<" + host.url("/k?page=2") + ">; rel=\"next\", <" +
                                           host.url("/k?page=5") + ">; rel=\"last\"");
    Response last = Response::json("[5]");
    last.headers.emplace_back("Link", "<" + host.url("/k?page=1") + ">; rel=\"first\"");
    host.expect("GET", "/k", first);
    host.expect("GET", "/k?page=5", last);
    host.expect("GET", "/k?page=6", Response::json("[]"));
    VTToken token;
    std::string link;
    ASSERT_TRUE(adapter.jsonGetWithUrl(urlOf(host.url("/k")), token, &link, nullptr));
    EXPECT_EQ(link, host.url("/k?page=2"));
    ASSERT_TRUE(adapter.jsonGetWithUrl(urlOf(host.url("/k?page=5")), token, &link, nullptr));
    EXPECT_EQ(link, "");
    link = "stale";
    ASSERT_TRUE(adapter.jsonGetWithUrl(urlOf(host.url("/k?page=6")), token, &link, nullptr));
    EXPECT_EQ(link, "");
}

TEST_F(TheTransport, ReportsADroppedConnectionAsALostConnection) {
    Response dropped;
    dropped.drop = true;
    host.expect("GET", "/gone", dropped);
    VTToken token;
    VTError error;
    EXPECT_FALSE(adapter.jsonGetWithUrl(urlOf(host.url("/gone")), token, nullptr, &error));
    EXPECT_EQ(error.domain, VTURLErrorDomain);
    EXPECT_EQ(error.code, -1005);
}

TEST_F(TheTransport, ReportsARefusedConnection) {
    VTToken token;
    VTError error;
    // Port 1 on loopback is closed on any sane test machine.
    EXPECT_FALSE(adapter.jsonGetWithUrl(urlOf("http://127.0.0.1:1/"), token, nullptr, &error));
    EXPECT_EQ(error.domain, VTURLErrorDomain);
    EXPECT_EQ(error.code, -1004);
}

TEST_F(TheTransport, RoutesHostNamesWithConnectTo) {
    host.expect("GET", "/user/keys", Response::json("[]"));
    ::setenv("VELDTRACK_CONNECT_TO",
             ("api.example.test:80:127.0.0.1:" + std::to_string(host.port())).c_str(), 1);
    VTToken token = bearer("t");
    auto answer =
        adapter.jsonGetWithUrl(urlOf("http://api.example.test/user/keys"), token, nullptr, nullptr);
    ::unsetenv("VELDTRACK_CONNECT_TO");
    ASSERT_TRUE(answer);
    EXPECT_EQ(host.requests().at(0).header("Host"), "api.example.test");
}

TEST_F(TheTransport, NeverSendsTheTokenToAnotherHost) {
    FakeHost elsewhere;
    Response first = Response::json("[1]");
    first.headers.emplace_back("Link", "<" + elsewhere.url("/page2") + ">; rel=\"next\"");
    host.expect("GET", "/keys", first);
    elsewhere.expect("GET", "/page2", Response::json("[2]"));
    VTToken token = bearer("secret");
    std::string link;
    ASSERT_TRUE(adapter.jsonGetWithUrl(urlOf(host.url("/keys")), token, &link, nullptr));
    ASSERT_TRUE(adapter.jsonGetWithUrl(urlOf(link), token, &link, nullptr));
    EXPECT_EQ(host.requests().at(0).header("Authorization"), "Bearer secret");
    EXPECT_FALSE(elsewhere.requests().at(0).header("Authorization"));
    EXPECT_THAT(elsewhere.problems(), IsEmpty());
}

}  // namespace
