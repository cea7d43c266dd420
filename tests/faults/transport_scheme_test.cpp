// Addresses a host hands out (next-page links, redirect targets) that lead outside http and
// https are never fetched: no local file is read, no other local port gets a byte.

#include "github_test_support.h"
#include "scratch.h"
#include "transport_support.h"

#include "fakehost/fake_host.h"
#include "transport/host.h"
#include "transport/paging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using testing::HasSubstr;
using testing::Not;
using vt::fake::FakeHost;
using vt::fake::Response;
using vt::faults::Listener;
using vt::faults::urlOf;

constexpr const char* kSecret = "the-contents-of-a-local-file";

// An address of each scheme that must not be fetched: a local file with a secret, and two that
// would send host-chosen bytes to the listener's port.
std::vector<std::string> foreignAddresses(const std::string& file, const Listener& listener) {
    const std::string port = std::to_string(listener.port());
    return {"file://" + file, "gopher://127.0.0.1:" + port + "/_QUIT%0D%0A",
            "ftp://127.0.0.1:" + port + "/pub/file", "FILE://" + file};
}

class ForeignAddresses : public vt::testing::GitHubTest {
protected:
    vt::test::TemporaryFolder folder;
    const std::string file = folder.write("secret.txt", kSecret);
    Listener listener;
};

TEST_F(ForeignAddresses, InNextPageLinksAreRefusedUnfetched) {
    for (const std::string& address : foreignAddresses(file, listener)) {
        SCOPED_TRACE(address);
        Response page = Response::json("[]");
        page.headers.emplace_back("Link", "<" + address + ">; rel=\"next\"");
        fake.expect("GET", "/user/keys?per_page=50", std::move(page));
        const std::size_t before = fake.requestCount();

        EXPECT_FALSE(host.sshKeysWithToken(token, &error));
        EXPECT_EQ(error, VTError(VTURLErrorDomain, -1002, "unsupported URL"));
        EXPECT_THAT(error.recoverySuggestion().value_or(""), Not(HasSubstr(kSecret)));
        EXPECT_EQ(fake.requestCount(), before + 1);
        EXPECT_FALSE(listener.connected());
    }
}

TEST_F(ForeignAddresses, AsRedirectTargetsAreRefusedUnfetched) {
    for (const int status : {301, 302, 307}) {
        for (const std::string& address : foreignAddresses(file, listener)) {
            SCOPED_TRACE(std::to_string(status) + " to " + address);
            fake.expect("POST", "/graphql", Response::redirect(status, address));
            const std::size_t before = fake.requestCount();

            EXPECT_FALSE(host.profileWithToken(token, &error));
            EXPECT_EQ(error, VTError(VTURLErrorDomain, -1002, "unsupported URL"));
            EXPECT_EQ(fake.requestCount(), before + 1);
            EXPECT_FALSE(listener.connected());
        }
    }
}

TEST(ForeignFirstAddresses, AreRefusedBeforeAnythingIsSent) {
    Listener listener;
    VTHost adapter;
    VTToken token{{"token_type", "Bearer"}, {"access_token", "secret"}};
    const std::string port = std::to_string(listener.port());
    for (const std::string& address :
         std::vector<std::string>{"file:///etc/hostname", "gopher://127.0.0.1:" + port + "/_x",
                                  "dict://127.0.0.1:" + port + "/d:x", "telnet://127.0.0.1:" + port,
                                  "ftp://127.0.0.1:" + port + "/x"}) {
        SCOPED_TRACE(address);
        VTError error;
        EXPECT_FALSE(adapter.jsonGetWithUrl(urlOf(address), token, nullptr, &error));
        EXPECT_EQ(error, VTError(VTURLErrorDomain, -1002, "unsupported URL"));
        EXPECT_FALSE(listener.connected());
    }
}

TEST(WebAddresses, OfEitherLetterCaseAreFetched) {
    FakeHost fake;
    fake.expect("GET", "/ok", Response::json("{}"));
    VTHost adapter;
    VTToken token;
    VTError error;
    const std::string port = std::to_string(fake.port());
    EXPECT_TRUE(
        adapter.jsonGetWithUrl(urlOf("HTTP://127.0.0.1:" + port + "/ok"), token, nullptr, &error))
        << error.description();
    fake.expect("GET", "/moved", Response::redirect(302, "Http://127.0.0.1:" + port + "/after"));
    fake.expect("GET", "/after", Response::json("{}"));
    EXPECT_TRUE(adapter.jsonGetWithUrl(urlOf(fake.url("/moved")), token, nullptr, &error))
        << error.description();
    EXPECT_THAT(fake.problems(), testing::IsEmpty());
}

}  // namespace
