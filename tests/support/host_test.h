#pragma once

// An adapter test against the strict fake host: the fake answers under a real host name (routed
// with VELDTRACK_CONNECT_TO), the date settings are fixed (UTC, en_US) so that localized dates are
// the same on every machine, and a test fails when a request went unanswered or a scripted
// answer was never asked for.

#include "fakehost/fake_host.h"
#include "records/values.h"

#include <gtest/gtest.h>
#include <boost/json/parse.hpp>
#include <boost/url/parse.hpp>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vt::test {

inline VTUrl urlOf(std::string_view text) {
    return VTUrl(boost::urls::parse_uri(text).value());
}

// The whole text of a file.
inline std::string fileText(const std::string& path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// Sets the date settings the expected texts are written for.
inline void useFixedDateSettings() {
    setenv("TZ", "UTC", 1);
    setenv("LANG", "en_US.UTF-8", 1);
    unsetenv("LC_ALL");
    unsetenv("LC_TIME");
}

// The GraphQL "pageInfo" member text of a page.
inline std::string pageInfo(bool hasNextPage, std::string_view cursor = "") {
    return R"("pageInfo":{"endCursor":")" + std::string(cursor) + R"(","hasNextPage":)" +
           (hasNextPage ? "true" : "false") + "}";
}

// A public key line from tests/fixtures/keys and the fingerprint ssh-keygen gave for it.
struct KeyFixture {
    std::string key;
    std::string fingerprint;  // 16 colon-separated pairs, without "MD5:"
};

inline KeyFixture keyFixture(const std::string& name) {
    std::ifstream pub(std::string(VT_KEY_FIXTURES) + "/" + name + ".pub");
    std::ifstream md5(std::string(VT_KEY_FIXTURES) + "/" + name + ".md5");
    KeyFixture fixture;
    std::getline(pub, fixture.key);
    std::string bits;
    md5 >> bits >> fixture.fingerprint;  // "256 MD5:ff:ae:... comment"
    fixture.fingerprint.erase(0, 4);
    return fixture;
}

class FakeHostTest : public ::testing::Test {
protected:
    // `hostName` is the name the adapter under test uses on port 80.
    explicit FakeHostTest(std::string hostName) : hostName_(std::move(hostName)) {}

    void SetUp() override {
        useFixedDateSettings();
        const std::string route = hostName_ + ":80:127.0.0.1:" + std::to_string(fake.port());
        setenv("VELDTRACK_CONNECT_TO", route.c_str(), 1);
    }

    void TearDown() override {
        for (const std::string& problem : fake.problems()) {
            ADD_FAILURE() << "fake host: " << problem;
        }
    }

    // The "query" texts of every POST to `target`, in order.
    std::vector<std::string> queriesPostedTo(std::string_view target) const {
        std::vector<std::string> queries;
        for (const vt::fake::Request& request : fake.requests()) {
            if (request.method == "POST" && request.target == target) {
                queries.emplace_back(boost::json::parse(request.body).at("query").as_string());
            }
        }
        return queries;
    }

    vt::fake::FakeHost fake;

private:
    std::string hostName_;
};

}  // namespace vt::test
