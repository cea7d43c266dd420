#include "transport/paging.h"
#include "fakehost/fake_host.h"
#include "github_test_support.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/json/parse.hpp>

#include <string>
#include <vector>

namespace {

using ::testing::ElementsAre;
using vt::fake::Response;
using vt::testing::pageInfo;
using vt::testing::urlOf;

// A connection page under data.items with one node per name.
std::string itemsPage(std::initializer_list<const char*> names, bool more, const char* cursor) {
    std::string nodes;
    for (const char* name : names) {
        nodes += std::string(nodes.empty() ? "" : ",") + R"({"name":")" + name + R"("})";
    }
    return R"({"data":{"items":{"nodes":[)" + nodes + "]," + pageInfo(more, cursor) + "}}}";
}

class Paging : public ::testing::Test {
protected:
    void TearDown() override {
        for (const std::string& problem : fake.problems()) {
            ADD_FAILURE() << "fake host: " << problem;
        }
    }

    // Pages the items connection from the fake host, collecting node names.
    bool pageItems(std::vector<std::string>& names) {
        auto followUp = [](const std::string& cursor) { return "next after " + cursor; };
        auto page = [&names](const boost::json::object& connection, const boost::json::value&,
                             VTError*) {
            if (const auto* nodes = connection.if_contains("nodes")) {
                for (const auto& node : nodes->as_array()) {
                    names.emplace_back(node.at("name").as_string());
                }
            }
            return true;
        };
        return vt::pageGraphQl(host, urlOf(fake.url("/graphql")), "first", followUp,
                               vt::connectionAt({"data", "items"}), page, token, &error);
    }

    std::vector<std::string> sentQueries() const {
        std::vector<std::string> queries;
        for (const auto& request : fake.requests()) {
            queries.emplace_back(boost::json::parse(request.body).at("query").as_string());
        }
        return queries;
    }

    vt::fake::FakeHost fake;
    VTHost host;
    VTToken token;
    VTError error;
};

TEST_F(Paging, CursorPagesAreFollowedUntilTheLastOne) {
    fake.expect("POST", "/graphql", Response::json(itemsPage({"a", "b"}, true, "c1")));
    fake.expect("POST", "/graphql", Response::json(itemsPage({"c"}, true, "c2")));
    fake.expect("POST", "/graphql", Response::json(itemsPage({"d"}, false, "c3")));
    std::vector<std::string> names;
    ASSERT_TRUE(pageItems(names)) << error.description();
    EXPECT_THAT(names, ElementsAre("a", "b", "c", "d"));
    EXPECT_THAT(sentQueries(), ElementsAre("first", "next after c1", "next after c2"));
}

TEST_F(Paging, AnAnswerWithoutTheConnectionIsOneEmptyPage) {
    fake.expect("POST", "/graphql", Response::json(R"({"data":{"items":null}})"));
    std::vector<std::string> names;
    EXPECT_TRUE(pageItems(names));
    EXPECT_TRUE(names.empty());
}

TEST_F(Paging, ARepeatedCursorStopsWithAnError) {
    fake.expect("POST", "/graphql", Response::json(itemsPage({"a"}, true, "c1")));
    fake.expect("POST", "/graphql", Response::json(itemsPage({"b"}, true, "c2")));
    fake.expect("POST", "/graphql", Response::json(itemsPage({"c"}, true, "c1")));
    std::vector<std::string> names;
    EXPECT_FALSE(pageItems(names));
    EXPECT_EQ(error.domain, VTHTTPErrorDomain);
    EXPECT_EQ(error.code, 200);
    EXPECT_EQ(error.description(), "The host sent the same page cursor twice; paging stopped.");
    EXPECT_EQ(fake.requestCount(), 3u);
}

TEST_F(Paging, MorePagesWithoutACursorStopWithAnError) {
    fake.expect(
        "POST", "/graphql",
        Response::json(R"({"data":{"items":{"nodes":[],"pageInfo":{"hasNextPage":true}}}})"));
    std::vector<std::string> names;
    EXPECT_FALSE(pageItems(names));
    EXPECT_EQ(error.description(), "The host said more pages follow but sent no page cursor.");
}

TEST_F(Paging, AFailedPageFailsTheWholePagingWithItsError) {
    fake.expect("POST", "/graphql", Response::json(itemsPage({"a"}, true, "c1")));
    fake.expect("POST", "/graphql", Response::json(R"({"message":"Server Error"})", 502));
    std::vector<std::string> names;
    EXPECT_FALSE(pageItems(names));
    EXPECT_EQ(error.code, 502);
    EXPECT_EQ(error.recoverySuggestion(), "Server Error");
}

TEST_F(Paging, LinkPagesAreFollowedAndARepeatedAddressStops) {
    auto linked = [this](const char* body, const std::string& next) {
        Response response = Response::json(body);
        response.headers.emplace_back("Link", "<" + fake.url(next) + R"(>; rel="next", <)" +
                                                  fake.url("/k?page=9") + R"(>; rel="last")");
        return response;
    };
    fake.expect("GET", "/k?page=1", linked("[1]", "/k?page=2"));
    fake.expect("GET", "/k?page=2", linked("[2]", "/k?page=3"));
    fake.expect("GET", "/k?page=3", Response::json("[3]"));
    std::vector<std::int64_t> seen;
    auto page = [&seen](const boost::json::value& answer, VTError*) {
        seen.push_back(answer.as_array().at(0).as_int64());
        return true;
    };
    ASSERT_TRUE(vt::pageLinks(host, urlOf(fake.url("/k?page=1")), page, token, &error));
    EXPECT_THAT(seen, ElementsAre(1, 2, 3));

    fake.expect("GET", "/k?page=4", linked("[4]", "/k?page=5"));
    fake.expect("GET", "/k?page=5", linked("[5]", "/k?page=4"));
    EXPECT_FALSE(vt::pageLinks(host, urlOf(fake.url("/k?page=4")), page, token, &error));
    EXPECT_EQ(error.description(),
              "The host sent the same next-page address twice; paging stopped.");
}

TEST_F(Paging, ACallbackThatRefusesAPageStopsThePaging) {
    fake.expect("GET", "/k", Response::json("[]"));
    auto page = [](const boost::json::value&, VTError* pageError) {
        VTSetError(pageError, VTError(VTSecurityErrorDomain, -50, "bad key"));
        return false;
    };
    EXPECT_FALSE(vt::pageLinks(host, urlOf(fake.url("/k")), page, token, &error));
    EXPECT_EQ(error.description(), "bad key");
}

}  // namespace
