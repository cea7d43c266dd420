// The JSON transport's request rate on one thread, whose easy handle keeps its connection to the
// loopback fake host alive: a REST GET (reading the "Link" header) and a GraphQL POST, each with a
// small answer (large/0) and with a page of 100 pull requests of about 60 KB (large/1), so that
// the cost of decoding shows; and decoding those answers alone, without HTTP.
//
// Every run checks with the fake host that all its requests came over one connection. The fake
// host answers on its own thread, so on a two-core machine it shares the processor with the
// client: the figures are the transport and a minimal server together. Run with
// --benchmark_repetitions=5: the "median" rows are typical, "max" has the best requests per second.

#include "fakehost/fake_host.h"
#include "transport/answer.h"
#include "transport/host.h"

#include <benchmark/benchmark.h>
#include <boost/json/serialize.hpp>
#include <boost/url/parse.hpp>

#include <algorithm>
#include <string>
#include <vector>

namespace {

using vt::fake::FakeHost;
using vt::fake::Request;
using vt::fake::Response;

constexpr int kPageSize = 100;

// One pull request as a GraphQL page lists it: about 600 bytes with a short description.
boost::json::object pullRequest(int index) {
    const std::string number = std::to_string(1000 + index);
    const std::string login = "reviewer-" + std::to_string(index % 17);
    return {
        {"id", "PR_kwDOBx" + std::to_string(9000000 + index)},
        {"number", 1000 + index},
        {"title", "Scan the Link header once per page (#" + number + ")"},
        {"body",
         "The paging loop read the header twice and rebuilt the address each time. This keeps "
         "the scan in one place and stops when a host repeats a cursor. Closes #" +
             number + "."},
        {"url", "https://github.com/veldtrack/hosts/pull/" + number},
        {"createdAt", "2024-03-05T10:11:12Z"},
        {"baseRefName", "main"},
        {"headRefName", "fix/link-scan-" + number},
        {"isDraft", index % 7 == 0},
        {"author",
         {{"login", login},
          {"avatarUrl", "https://avatars.githubusercontent.com/u/" +
                            std::to_string(5000 + index % 17) + "?v=4"}}},
        {"labels", {{"nodes", boost::json::array{{{"name", "bug"}, {"color", "d73a4a"}}}}}},
        {"assignees", {{"nodes", boost::json::array{{{"login", login}}}}}},
    };
}

boost::json::array pullRequests() {
    boost::json::array nodes;
    for (int index = 0; index < kPageSize; ++index) {
        nodes.push_back(pullRequest(index));
    }
    return nodes;
}

std::string restAnswer(bool large) {
    if (!large) {
        return R"({"login":"octo","id":5000,"type":"User","site_admin":false})";
    }
    return boost::json::serialize(pullRequests());
}

std::string graphQlAnswer(bool large) {
    if (!large) {
        return R"({"data":{"viewer":{"login":"octo"}}})";
    }
    boost::json::object connection{
        {"pageInfo", {{"hasNextPage", true}, {"endCursor", "Y3Vyc29yOnYyOpK5MjAyNC0wMy0wNQ=="}}},
        {"nodes", pullRequests()}};
    return boost::json::serialize(
        boost::json::object{{"data", {{"repository", {{"pullRequests", std::move(connection)}}}}}});
}

const boost::json::value kQuery{
    {"query",
     "query($owner: String!, $name: String!, $after: String) { repository(owner: $owner, name: "
     "$name) { pullRequests(first: 100, after: $after, states: OPEN) { pageInfo { hasNextPage "
     "endCursor } nodes { id number title body url createdAt baseRefName headRefName "
     "isDraft author { login avatarUrl } labels(first: 10) { nodes { name color } } "
     "assignees(first: 10) { nodes { login } } } } } }"},
    {"variables", {{"owner", "veldtrack"}, {"name", "hosts"}, {"after", nullptr}}}};

const VTToken kToken{{"token_type", "Bearer"}, {"access_token", "gho_0123456789abcdef"}};

// On a shared machine the best repetition is the least disturbed one; "min" holds the shortest
// time per request, "max" the highest rate.
double smallest(const std::vector<double>& values) {
    return *std::min_element(values.begin(), values.end());
}
double largest(const std::vector<double>& values) {
    return *std::max_element(values.begin(), values.end());
}

enum class Verb { Get, Post };

void Transport(benchmark::State& state, Verb verb) {
    const bool large = state.range(0) != 0;
    FakeHost host;
    Response response =
        Response::json(verb == Verb::Get ? restAnswer(large) : graphQlAnswer(large));
    if (verb == Verb::Get) {
        response.headers.emplace_back(
            "Link", "<" + host.url("/repos/veldtrack/hosts/pulls?page=2") + ">; rel=\"next\", <" +
                        host.url("/repos/veldtrack/hosts/pulls?page=5") + ">; rel=\"last\"");
    }
    const std::size_t answerBytes = response.body.size();
    host.setHandler([response](const Request&) { return response; });

    const VTUrl url(
        boost::urls::parse_absolute_uri(
            host.url(verb == Verb::Get ? "/repos/veldtrack/hosts/pulls?per_page=100" : "/graphql"))
            .value());
    const VTHost adapter;
    VTToken token = kToken;
    std::string link;
    auto request = [&]() -> bool {
        VTError error;
        auto answer = verb == Verb::Get ? adapter.jsonGetWithUrl(url, token, &link, &error)
                                        : adapter.jsonPostWithUrl(url, kQuery, token, &error);
        benchmark::DoNotOptimize(answer);
        return answer.has_value() && (verb == Verb::Post || !link.empty());
    };

    // The first request opens the connection that the timed ones reuse.
    if (!request()) {
        state.SkipWithError("the first request failed");
        return;
    }
    for (auto _ : state) {
        if (!request()) {
            state.SkipWithError("a request failed");
            return;
        }
    }
    const auto requests = static_cast<std::size_t>(state.iterations()) + 1;
    if (host.requestCount() != requests || host.connectionCount() != 1) {
        state.SkipWithError("the requests did not all reuse one connection");
        return;
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(answerBytes));
    state.counters["answer_bytes"] = static_cast<double>(answerBytes);
    state.counters["connections"] = static_cast<double>(host.connectionCount());
}
// Small and large answers; wall-clock time, since the client mostly waits for the host.
void smallAndLargeAnswers(benchmark::internal::Benchmark* benchmark) {
    benchmark->ArgName("large")
        ->Arg(0)
        ->Arg(1)
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond)
        ->ComputeStatistics("min", smallest)
        ->ComputeStatistics("max", largest);
}
BENCHMARK_CAPTURE(Transport, Get, Verb::Get)->Apply(smallAndLargeAnswers);
BENCHMARK_CAPTURE(Transport, GraphQlPost, Verb::Post)->Apply(smallAndLargeAnswers);

// The decoding share of a request: the same answers decoded from memory.
void DecodeAnswer(benchmark::State& state) {
    const std::string body = graphQlAnswer(state.range(0) != 0);
    for (auto _ : state) {
        auto answer = vt::decodeAnswerBody(body, nullptr);
        if (!answer) {
            state.SkipWithError("the answer did not decode");
            return;
        }
        benchmark::DoNotOptimize(answer);
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(body.size()));
}
BENCHMARK(DecodeAnswer)->Apply(smallAndLargeAnswers);

}  // namespace
