// Every REST path and method the adapter can send, captured by driving each operation against the
// fake host, must be an operation of Bitbucket's published OpenAPI description
// (tests/schemas/bitbucket-openapi.json.gz). Operations the description marks deprecated are
// printed, not failed. The OAuth token endpoint is not part of that description and is left out.

#include "bitbucket_test_support.h"

#include <boost/json/parse.hpp>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <zlib.h>

#include <algorithm>
#include <array>
#include <iostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace {

using vt::fake::Response;
using vt::test::BitbucketTest;
using vt::test::urlOf;

std::vector<std::string> segmentsOf(std::string_view path) {
    std::vector<std::string> segments;
    std::size_t from = 1;
    while (from <= path.size()) {
        const std::size_t slash = std::min(path.find('/', from), path.size());
        segments.emplace_back(path.substr(from, slash - from));
        from = slash + 1;
    }
    return segments;
}

// The description's path template that `path` falls under: every "{name}" stands for one
// segment, and among several matches the one with the most literal segments wins
// (".../pullrequests/activity" before ".../pullrequests/{pull_request_id}").
std::optional<std::string> templateOf(const boost::json::object& paths, std::string_view path) {
    const std::vector<std::string> segments = segmentsOf(path);
    std::optional<std::string> best;
    int bestLiterals = -1;
    for (const auto& [key, operations] : paths) {
        const std::vector<std::string> pattern = segmentsOf(key);
        if (pattern.size() != segments.size()) {
            continue;
        }
        int literals = 0;
        bool matches = true;
        for (std::size_t index = 0; index < pattern.size() && matches; ++index) {
            const std::string& part = pattern[index];
            if (part.size() > 2 && part.front() == '{' && part.back() == '}') {
                matches = !segments[index].empty();
            } else {
                matches = part == segments[index];
                ++literals;
            }
        }
        if (matches && literals > bestLiterals) {
            best = std::string(key);
            bestLiterals = literals;
        }
    }
    return best;
}

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

// The whole text of a gzip file (the description is kept compressed), or empty when unreadable.
std::string gunzippedFile(const char* path) {
    std::string text;
    gzFile file = gzopen(path, "rb");
    if (file == nullptr) {
        return text;
    }
    std::array<char, 1 << 16> buffer{};
    int read = 0;
    while ((read = gzread(file, buffer.data(), buffer.size())) > 0) {
        text.append(buffer.data(), static_cast<std::size_t>(read));
    }
    gzclose(file);
    return read < 0 ? std::string() : text;
}

using BitbucketOpenApi = BitbucketTest;

TEST_F(BitbucketOpenApi, EveryPathAndMethodTheAdapterSendsIsDescribed) {
    const std::string text = gunzippedFile(VT_BITBUCKET_OPENAPI);
    ASSERT_FALSE(text.empty()) << "cannot read " << VT_BITBUCKET_OPENAPI;
    const boost::json::value description = boost::json::parse(text);
    const boost::json::object& paths = description.at("paths").as_object();
    const std::string base(description.at("servers").as_array().at(0).at("url").as_string());
    ASSERT_EQ(base, "https://api.bitbucket.org/2.0");

    // One answer leads every operation as far as it goes: a user, empty lists, a parent to
    // follow and a diffstat to read.
    fake.setHandler([](const vt::fake::Request&) {
        return Response::json(R"({"username":"alice","uuid":"{me}","values":[],
            "parent":{"links":{"self":{
                "href":"http://api.bitbucket.test/2.0/repositories/upstream/project"}}},
            "links":{"clone":[],"diffstat":{"href":
                "http://api.bitbucket.test/2.0/repositories/team/project/diffstat/a1%0Db2?x=1"}}})");
    });
    const VTUrl url = urlOf("ssh://git@bitbucket.test/team/project.git");
    VTPullRequest pullRequest = vt::test::bitbucketPullRequestSeven();
    host.userWithToken(token, &error);
    host.profileWithToken(token, &error);
    host.repositoriesWithToken(token, &error);
    host.createRepositoryWithToken(token, {{"name", "alice"}}, "tool", "Tool", "", 0, &error);
    host.isPrivateRepositoryAtUrl(url, token, &error);
    host.forksForUrl(url, token, &error);
    host.sshKeysWithToken(token, &error);
    host.addSshKey("ssh-ed25519 AAAA", "title", token, &error);
    host.deleteSshKey("k-1", token, &error);
    host.pullRequestsWithUrl(url, token, &error);
    host.commentsForPullRequest(pullRequest, token, &error);
    host.createPullRequestWithUrl(url, "main", "feature", "T", "D", token, &error);
    host.editPullRequest(pullRequest, "D", token, &error);
    host.addComment("C", pullRequest, token, &error);
    host.replyTo("1", "R", pullRequest, token, &error);
    host.editComment("1", "E", pullRequest, token, &error);
    host.deleteComment("1", pullRequest, token, &error);
    host.mergePullRequest(pullRequest, 0, {}, "", token, &error);
    host.closePullRequest(pullRequest, token, &error);

    std::set<std::pair<std::string, std::string>> operations;  // (template, method)
    for (const vt::fake::Request& request : fake.requests()) {
        const std::string path = request.target.substr(0, request.target.find('?'));
        ASSERT_TRUE(path.starts_with("/2.0/")) << request.target;
        auto found = templateOf(paths, std::string_view(path).substr(4));
        ASSERT_TRUE(found) << request.method << " " << path << " is not described";
        const boost::json::value* operation =
            paths.at(*found).as_object().if_contains(lowerCase(request.method));
        ASSERT_NE(operation, nullptr) << request.method << " " << *found << " is not described";
        if (operations.emplace(*found, request.method).second) {
            const boost::json::value* deprecated = operation->as_object().if_contains("deprecated");
            if (deprecated != nullptr && deprecated->is_bool() && deprecated->get_bool()) {
                std::cout << "deprecated: " << request.method << " " << *found << "\n";
            }
        }
    }
    const std::set<std::pair<std::string, std::string>> expected = {
        {"/user", "GET"},
        {"/workspaces", "GET"},
        {"/repositories", "GET"},
        {"/repositories/{workspace}/{repo_slug}", "GET"},
        {"/repositories/{workspace}/{repo_slug}", "POST"},
        {"/users/{selected_user}/ssh-keys", "GET"},
        {"/users/{selected_user}/ssh-keys", "POST"},
        {"/users/{selected_user}/ssh-keys/{key_id}", "DELETE"},
        {"/repositories/{workspace}/{repo_slug}/pullrequests", "GET"},
        {"/repositories/{workspace}/{repo_slug}/pullrequests", "POST"},
        {"/repositories/{workspace}/{repo_slug}/pullrequests/{pull_request_id}", "GET"},
        {"/repositories/{workspace}/{repo_slug}/pullrequests/{pull_request_id}", "PUT"},
        {"/repositories/{workspace}/{repo_slug}/diffstat/{spec}", "GET"},
        {"/repositories/{workspace}/{repo_slug}/pullrequests/{pull_request_id}/comments", "GET"},
        {"/repositories/{workspace}/{repo_slug}/pullrequests/{pull_request_id}/comments", "POST"},
        {"/repositories/{workspace}/{repo_slug}/pullrequests/{pull_request_id}/comments/"
         "{comment_id}",
         "PUT"},
        {"/repositories/{workspace}/{repo_slug}/pullrequests/{pull_request_id}/comments/"
         "{comment_id}",
         "DELETE"},
        {"/repositories/{workspace}/{repo_slug}/pullrequests/{pull_request_id}/commits", "GET"},
        {"/repositories/{workspace}/{repo_slug}/pullrequests/{pull_request_id}/merge", "POST"},
        {"/repositories/{workspace}/{repo_slug}/pullrequests/{pull_request_id}/decline", "POST"},
    };
    EXPECT_EQ(operations, expected);
}

}  // namespace
