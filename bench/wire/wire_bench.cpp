// Marshalling a 2,000-item conversation into a reply dictionary: written straight into the
// message, and through the value form for comparison; and reading the reply back on the client.
// longTexts/0 has one-line comments, longTexts/1 comments of a few paragraphs (about 1.3 MB).

#include "records/wire.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

constexpr int kItems = 2000;

std::string repeated(std::string_view text, std::size_t times) {
    std::string result;
    for (std::size_t i = 0; i < times; ++i) {
        result.append(text);
    }
    return result;
}

VTPullRequestComment comment(int index, bool longTexts) {
    VTPullRequestComment record;
    record.identifier = "IC_kwDOBx" + std::to_string(1000000 + index);
    record.author = index % 3 == 0 ? "octo" : "reviewer-" + std::to_string(index % 17);
    record.avatarUrl =
        "https://avatars.githubusercontent.com/u/" + std::to_string(5000 + index % 17) + "?v=4";
    record.date = "2024-03-" + std::to_string(10 + index % 18) + "T12:34:56Z";
    record.editable = index % 3 == 0;
    record.deletable = index % 3 == 0;
    record.replyTo = "";
    // Long review comments run to a few paragraphs with a code block; short ones are a line.
    record.content =
        longTexts
            ? "Thanks! A note on `parse()`: " +
                  repeated("the Link header may carry several relations; ", 2 + index % 9) +
                  (index % 4 == 0 ? "\n\n```cpp\nauto next = links.find(\"next\");\n```\n" : "")
            : "LGTM, but please rename `next` (#" + std::to_string(index) + ").";
    return record;
}

VTPullRequestCommit commit(int index) {
    VTPullRequestCommit record;
    record.author = "octo";
    record.avatarUrl = "https://avatars.githubusercontent.com/u/5000?v=4";
    record.oid = std::string(40, "0123456789abcdef"[index % 16]);
    record.date = "2024-03-" + std::to_string(10 + index % 18) + "T09:00:00Z";
    record.message = "Handle the next relation of the Link header (#" + std::to_string(index) + ")";
    return record;
}

// The pull request, its description, then comments (every fifth with replies) and commit groups
// of one to four commits, and the flag: kItems entries in all.
VTConversation conversation(bool longTexts) {
    VTPullRequest pullRequest;
    pullRequest.remoteUrl = "https://github.com/veldtrack/hosts.git";
    pullRequest.hostType = 1;
    pullRequest.identifier = "PR_kwDOBx1347";
    pullRequest.author = "octo";
    pullRequest.avatarUrl = "https://avatars.githubusercontent.com/u/5000?v=4";
    pullRequest.title = "Scan the Link header once";
    pullRequest.number = 1347;
    pullRequest.date = "2024-03-05T10:11:12Z";
    pullRequest.baseReference = "main";
    pullRequest.headReference = "fix/link-scan";
    pullRequest.assignees = boost::json::array{
        boost::json::object{{"login", "octo"}, {"avatarUrl", *pullRequest.avatarUrl}}};
    pullRequest.labels =
        boost::json::array{boost::json::object{{"name", "bug"}, {"color", "d73a4a"}}};
    pullRequest.webUrl = "https://github.com/veldtrack/hosts/pull/1347";
    pullRequest.commentable = true;
    pullRequest.mergeable = 0;

    VTConversation result{pullRequest, comment(0, longTexts)};
    for (int index = 1; static_cast<int>(result.size()) < kItems - 1; ++index) {
        if (index % 2 == 0) {
            VTPullRequestCommits group;
            for (int n = 0; n <= index % 4; ++n) {
                group.addCommit(commit(index * 4 + n));
            }
            result.emplace_back(std::move(group));
        } else {
            VTPullRequestComment thread = comment(index, longTexts);
            if (index % 5 == 0) {
                thread.comments =
                    std::vector{comment(index + 1, longTexts), comment(index + 2, longTexts)};
            }
            result.emplace_back(std::move(thread));
        }
    }
    result.emplace_back(true);
    return result;
}

// On a shared machine the fastest repetition is the least disturbed one.
double fastest(const std::vector<double>& times) {
    return *std::min_element(times.begin(), times.end());
}

const boost::json::object kToken{{"token_type", "Bearer"}, {"access_token", "gho_0123456789"}};

// The reply dictionary of GetCommentsForPullRequest, with `writeConversation` filling the variant.
template <typename Write>
sdbus::PlainMessage reply(Write writeConversation) {
    sdbus::PlainMessage message = vt::wire::standaloneMessage();
    message.openContainer("{sv}");
    message.openDictEntry("sv");
    message << "conversation";
    writeConversation(message);
    message.closeDictEntry();
    message.openDictEntry("sv");
    message << "refreshedToken";
    vt::wire::appendVariant(message, kToken);
    message.closeDictEntry();
    message.closeContainer();
    return message;
}

void WriteConversationDirectly(benchmark::State& state) {
    const VTConversation items = conversation(state.range(0) != 0);
    for (auto _ : state) {
        sdbus::PlainMessage message = reply([&items](sdbus::Message& m) {
            m.openVariant("av");
            vt::wire::appendConversation(m, items);
            m.closeVariant();
        });
        message.seal();
        benchmark::DoNotOptimize(message);
    }
    state.counters["items"] = static_cast<double>(items.size());
}
BENCHMARK(WriteConversationDirectly)
    ->ArgName("longTexts")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->ComputeStatistics("min", fastest);

void WriteConversationThroughValueForm(benchmark::State& state) {
    const VTConversation items = conversation(state.range(0) != 0);
    for (auto _ : state) {
        sdbus::PlainMessage message = reply([&items](sdbus::Message& m) {
            vt::wire::appendVariant(m, VTConversationToValue(items));
        });
        message.seal();
        benchmark::DoNotOptimize(message);
    }
    state.counters["items"] = static_cast<double>(items.size());
}
BENCHMARK(WriteConversationThroughValueForm)
    ->ArgName("longTexts")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->ComputeStatistics("min", fastest);

// What a client pays: reading the reply and decoding the conversation with its checks.
void ReadAndDecodeConversation(benchmark::State& state) {
    const VTConversation items = conversation(state.range(0) != 0);
    sdbus::PlainMessage message = reply([&items](sdbus::Message& m) {
        m.openVariant("av");
        vt::wire::appendConversation(m, items);
        m.closeVariant();
    });
    message.seal();
    for (auto _ : state) {
        message.rewind(true);
        boost::json::object dictionary;
        std::string fault;
        if (!vt::wire::readDictionary(message, dictionary, &fault)) {
            state.SkipWithError(fault.c_str());
            break;
        }
        std::optional<VTConversation> decoded =
            VTConversationFromValue(dictionary.at("conversation"), &fault);
        if (!decoded || decoded->size() != items.size()) {
            state.SkipWithError(("decoding failed: " + fault).c_str());
            break;
        }
        benchmark::DoNotOptimize(decoded);
    }
}
BENCHMARK(ReadAndDecodeConversation)
    ->ArgName("longTexts")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->ComputeStatistics("min", fastest);

}  // namespace
