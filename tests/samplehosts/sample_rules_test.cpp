// The rules the sample hosts share where the two hosts differ: how a GraphQL connection pages
// under GitHub's and GitLab's rules, and the "Link" headers of REST lists.

#include "samplehosts/graphql.h"
#include "samplehosts/text.h"

#include <gtest/gtest.h>
#include <boost/json/serialize.hpp>
#include <boost/url/parse.hpp>

#include <string>

namespace {

namespace json = boost::json;
using vt::sample::graphql::Dialect;

const Dialect kGitHub{};
const Dialect kGitLab{.defaultPage = 100,
                      .refusesLargePages = false,
                      .emptyCursorStarts = true,
                      .countField = "count"};

// Runs `query` against a root whose "items" are the numbers 0 to size - 1, wrapped in objects,
// and whose "errors" is a list of strings.
json::object run(const std::string& query, const Dialect& dialect, std::size_t size = 150) {
    json::array items;
    for (std::size_t index = 0; index < size; ++index) {
        items.push_back(json::object{{"n", static_cast<std::int64_t>(index)}});
    }
    const std::string body = json::serialize(json::object{{"query", query}});
    auto answer = vt::sample::graphql::answerRequest(
        body,
        [&](const json::object&, const vt::sample::graphql::Field& field,
            std::optional<vt::sample::graphql::Failure>&)
            -> std::optional<vt::sample::graphql::Built> {
            if (field.name == "items") {
                return json::value(items);
            }
            if (field.name == "errors") {
                return json::value(json::array{"one", "two"});
            }
            return std::nullopt;
        },
        dialect);
    return answer.value_or(json::object{});
}

struct PageCase {
    const char* name;
    const char* query;
    bool gitlab;
    // What the answer holds: the first and last "n" shown, or the first error's message.
    std::int64_t first;
    std::int64_t last;
    const char* error;
};

class AConnection : public ::testing::TestWithParam<PageCase> {};

TEST_P(AConnection, PagesByItsHostsRules) {
    const PageCase& given = GetParam();
    const json::object answer = run(given.query, given.gitlab ? kGitLab : kGitHub);
    if (given.error != nullptr) {
        ASSERT_TRUE(answer.contains("errors")) << json::serialize(answer);
        EXPECT_NE(
            std::string(answer.at("errors").at(0).at("message").as_string()).find(given.error),
            std::string::npos)
            << json::serialize(answer);
        return;
    }
    ASSERT_FALSE(answer.contains("errors")) << json::serialize(answer);
    const json::object& items = answer.at("data").at("items").as_object();
    const json::array& nodes =
        items.contains("nodes") ? items.at("nodes").as_array() : items.at("edges").as_array();
    auto numberOf = [](const json::value& node) {
        return (node.as_object().contains("node") ? node.at("node") : node).at("n").as_int64();
    };
    ASSERT_FALSE(nodes.empty());
    EXPECT_EQ(numberOf(nodes.front()), given.first);
    EXPECT_EQ(numberOf(nodes.back()), given.last);
}

INSTANTIATE_TEST_SUITE_P(
    , AConnection,
    ::testing::Values(
        PageCase{"GitHubNeedsFirst", "{items{nodes{n}}}", false, 0, 0,
                 "You must provide a `first`"},
        PageCase{"GitLabServesItsDefaultPage", "{items{nodes{n}}}", true, 0, 99, nullptr},
        PageCase{"GitHubRefusesLargePages", "{items(first:150){nodes{n}}}", false, 0, 0,
                 "exceeds the `first` limit of 100"},
        PageCase{"GitLabCapsLargePages", "{items(first:150){nodes{n}}}", true, 0, 99, nullptr},
        PageCase{"GitHubRefusesAnEmptyCursor", "{items(first:2,after:\"\"){nodes{n}}}", false, 0, 0,
                 "not a valid cursor"},
        PageCase{"GitLabStartsAtAnEmptyCursor", "{items(first:2,after:\"\"){nodes{n}}}", true, 0, 1,
                 nullptr},
        PageCase{"EdgesFollowTheirCursors",
                 "{items(first:3,after:\"Y3Vyc29yOnYyOjk=\"){edges{node{n}cursor}}}", true, 10, 12,
                 nullptr}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(AConnectionAnswer, NamesItsCountAsTheHostDoesAndServesScalarListsAsLeaves) {
    const json::object gitlab = run("{items{count}errors}", kGitLab);
    EXPECT_EQ(gitlab.at("data").at("items").at("count"), 150);
    EXPECT_EQ(gitlab.at("data").at("errors"), (json::array{"one", "two"}));
    const json::object github = run("{items{totalCount}}", kGitHub);
    EXPECT_EQ(github.at("data").at("items").at("totalCount"), 150);
    EXPECT_TRUE(run("{items{count}}", kGitHub).contains("errors"));
}

// Edges carry the same cursors "after" reads: following endCursor walks the whole list once.
TEST(AConnectionAnswer, WalksTheWholeListByItsEndCursors) {
    std::string after;
    std::int64_t expected = 0;
    for (int page = 0; page < 10; ++page) {
        const std::string argument = after.empty() ? "" : ",after:\"" + after + "\"";
        const json::object answer =
            run("{items(first:40" + argument + "){edges{node{n}}pageInfo{endCursor,hasNextPage}}}",
                kGitLab);
        const json::object& items = answer.at("data").at("items").as_object();
        for (const json::value& edge : items.at("edges").as_array()) {
            EXPECT_EQ(edge.at("node").at("n").as_int64(), expected++);
        }
        if (!items.at("pageInfo").at("hasNextPage").as_bool()) {
            break;
        }
        after = std::string(items.at("pageInfo").at("endCursor").as_string());
    }
    EXPECT_EQ(expected, 150);
}

struct LinkCase {
    const char* name;
    const char* target;
    vt::sample::LinkStyle style;
    const char* expected;
};

class ALinkHeader : public ::testing::TestWithParam<LinkCase> {};

TEST_P(ALinkHeader, NamesTheNeighbouringPagesInTheHostsOrder) {
    const auto target = boost::urls::parse_origin_form(GetParam().target).value();
    const auto page = vt::sample::PageRequest::of(target, 20, 100);
    EXPECT_EQ(vt::sample::linkHeader("http://host.test", target, page, 45, GetParam().style),
              GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    , ALinkHeader,
    ::testing::Values(
        LinkCase{"OnePageHasNone", "/keys?per_page=50", vt::sample::LinkStyle::gitlab, ""},
        LinkCase{"GitLabMiddlePage", "/keys?per_page=20&page=2", vt::sample::LinkStyle::gitlab,
                 "<http://host.test/keys?per_page=20&page=1>; rel=\"prev\", "
                 "<http://host.test/keys?per_page=20&page=3>; rel=\"next\", "
                 "<http://host.test/keys?per_page=20&page=1>; rel=\"first\", "
                 "<http://host.test/keys?per_page=20&page=3>; rel=\"last\""},
        LinkCase{"GitHubLastPage", "/keys?page=3", vt::sample::LinkStyle::github,
                 "<http://host.test/keys?page=2&per_page=20>; rel=\"prev\", "
                 "<http://host.test/keys?page=1&per_page=20>; rel=\"first\""},
        LinkCase{"OtherArgumentsAreKept", "/projects?archived=false&per_page=10",
                 vt::sample::LinkStyle::gitlab,
                 "<http://host.test/projects?archived=false&per_page=10&page=2>; rel=\"next\", "
                 "<http://host.test/projects?archived=false&per_page=10&page=1>; rel=\"first\", "
                 "<http://host.test/projects?archived=false&per_page=10&page=5>; rel=\"last\""},
        LinkCase{"PerPageIsCapped", "/projects?per_page=500", vt::sample::LinkStyle::gitlab, ""}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
