#pragma once

// What the service fault tests share: the service in-process with its real adapters, on a private
// bus, against the fake host under GitHub's test name (api.github.test), with gates for answers the
// test holds back.

#include "fakehost/fake_host.h"
#include "harness.h"

#include <gtest/gtest.h>

#include <string>

namespace vt::test {

class ServiceAgainstFakeGitHub : public ::testing::Test {
public:
    // A repository on the fake GitHub; its GraphQL goes to http://api.github.test/graphql.
    static constexpr char kRemote[] = "http://github.test/octocat/hello";

protected:
    void TearDown() override {
        for (const std::string& problem : fake.problems()) {
            ADD_FAILURE() << "fake host: " << problem;
        }
    }

    // First, so that they outlive the fake host's answers that wait at them.
    Gates gates;
    vt::fake::FakeHost fake;
    ScopedVariable route{"VELDTRACK_CONNECT_TO",
                         "api.github.test:80:127.0.0.1:" + std::to_string(fake.port())};
    PrivateBus bus{withoutActivation()};
    InProcessService service{optionsWithHostAdapters()};
};

}  // namespace vt::test
