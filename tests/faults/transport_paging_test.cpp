// Hosts that never stop paging: every page says more follow, with a fresh cursor or a fresh
// next-page address each time. Paging stops after the bound with an error.

#include "github_test_support.h"
#include "transport_support.h"

#include "fakehost/fake_host.h"
#include "transport/limits.h"
#include "transport/paging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>

namespace {

using vt::fake::Request;
using vt::fake::Response;
using vt::limits::kMaxPages;

const VTError kTooManyPages(VTHTTPErrorDomain, 200,
                            "The host sent more than 1000 pages; paging stopped.");

// Answers page after page, each naming a new next one, until `pages` pages were sent. A limit a
// little above the bound keeps a transport without the bound from running for ever.
class EndlessPaging : public vt::testing::GitHubTest {
protected:
    void SetUp() override {
        GitHubTest::SetUp();
        fake.setHandler([this](const Request& request) -> std::optional<Response> {
            const std::size_t page = ++served;
            const bool more = page < pages;
            if (request.method == "POST" && request.target == "/graphql") {
                return Response::json(
                    R"({"data":{"viewer":{"login":"octo","repositories":{"nodes":[{"owner":)"
                    R"({"login":"octo"},"name":"r)" +
                    std::to_string(page) + R"("}],)" +
                    vt::testing::pageInfo(more, "cursor-" + std::to_string(page)) + "}}}}");
            }
            // The next page is named both ways: in the "Link" header and in a "next" member.
            const std::string next =
                "http://api.github.test/user/keys?page=" + std::to_string(page + 1);
            Response response = Response::json(more ? R"({"next":")" + next + "\"}" : "{}");
            if (more) {
                response.headers.emplace_back("Link", "<" + next + ">; rel=\"next\"");
            }
            return response;
        });
    }

    std::size_t pages = kMaxPages + 10;
    std::atomic<std::size_t> served{0};
};

TEST_F(EndlessPaging, ByCursorStopsAfterTheBound) {
    EXPECT_FALSE(host.repositoriesWithToken(token, &error));
    EXPECT_EQ(error, kTooManyPages);
    EXPECT_EQ(fake.requestCount(), kMaxPages);
}

TEST_F(EndlessPaging, ByLinkStopsAfterTheBound) {
    EXPECT_FALSE(host.sshKeysWithToken(token, &error));
    EXPECT_EQ(error, kTooManyPages);
    EXPECT_EQ(fake.requestCount(), kMaxPages);
}

TEST_F(EndlessPaging, ByNextMemberStopsAfterTheBound) {
    const auto readOn = [](const boost::json::value&, VTError*) { return vt::PageStep::more; };
    EXPECT_FALSE(vt::pageNext(host, vt::testing::urlOf("http://api.github.test/user/keys"), readOn,
                              token, &error));
    EXPECT_EQ(error, kTooManyPages);
    EXPECT_EQ(fake.requestCount(), kMaxPages);
}

TEST_F(EndlessPaging, EndingAtTheBoundIsReadWhole) {
    pages = kMaxPages;
    auto owners = host.repositoriesWithToken(token, &error);
    ASSERT_TRUE(owners) << error.description();
    EXPECT_EQ(owners->at("octo").at("repositories").as_array().size(), kMaxPages);
    served = 0;
    EXPECT_TRUE(host.sshKeysWithToken(token, &error)) << error.description();
    EXPECT_EQ(fake.requestCount(), 2 * kMaxPages);
}

}  // namespace
