// Hosts that keep a request waiting: silence after the headers ends with the exchange's
// time-out, and all exchanges of one service request share one deadline. The bounds are
// shortened here so that the tests end quickly.

#include "transport_support.h"

#include "fakehost/fake_host.h"
#include "transport/host.h"
#include "transport/http.h"
#include "transport/paging.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

namespace {

using namespace std::chrono_literals;
using vt::fake::FakeHost;
using vt::fake::Request;
using vt::fake::Response;
using vt::faults::urlOf;

class SlowHosts : public testing::Test {
protected:
    void TearDown() override { vt::http::setTimeoutsForTesting(0ms, 0ms); }

    FakeHost fake;
    VTHost adapter;
    VTToken token;
    VTError error;
};

TEST_F(SlowHosts, ThatFallSilentAfterTheHeadersTimeOut) {
    vt::http::setTimeoutsForTesting(300ms, 0ms);
    Response silent = Response::json("{\"never\":\"sent\"}");
    silent.silentAfterHeaders = true;
    fake.expect("GET", "/silent", std::move(silent));
    EXPECT_FALSE(adapter.jsonGetWithUrl(urlOf(fake.url("/silent")), token, nullptr, &error));
    EXPECT_EQ(error.domain, VTURLErrorDomain);
    EXPECT_EQ(error.code, -1001);
    EXPECT_THAT(fake.problems(), testing::IsEmpty());
}

TEST_F(SlowHosts, ShareOneDeadlineAcrossTheExchangesOfARequest) {
    // Each page takes 100 ms and names a next one; the request has 350 ms in all, while each
    // exchange alone would be allowed far longer.
    vt::http::setTimeoutsForTesting(0ms, 350ms);
    std::atomic<int> pages{0};
    fake.setHandler([&](const Request&) -> std::optional<Response> {
        const int page = ++pages;
        Response response = Response::json("[]");
        response.delay = 100ms;
        if (page < 50) {
            response.headers.emplace_back(
                "Link", "<" + fake.url("/page/" + std::to_string(page + 1)) + ">; rel=\"next\"");
        }
        return response;
    });
    vt::http::RequestScope request;
    const bool read = vt::pageLinks(
        adapter, urlOf(fake.url("/page/1")),
        [](const boost::json::value&, VTError*) { return true; }, token, &error);
    EXPECT_FALSE(read);
    EXPECT_EQ(error.domain, VTURLErrorDomain);
    EXPECT_EQ(error.code, -1001);
    EXPECT_GE(fake.requestCount(), 1u);
    EXPECT_LE(fake.requestCount(), 4u);
}

TEST_F(SlowHosts, GetNothingSentOnceTheDeadlineHasPassedEvenFromAnInnerScope) {
    vt::http::setTimeoutsForTesting(0ms, 5ms);
    vt::http::RequestScope outer;
    std::this_thread::sleep_for(10ms);
    vt::http::setTimeoutsForTesting(0ms, 0ms);
    vt::http::RequestScope inner;  // would allow ten minutes on its own
    EXPECT_FALSE(adapter.jsonGetWithUrl(urlOf(fake.url("/late")), token, nullptr, &error));
    EXPECT_EQ(error.code, -1001);
    EXPECT_EQ(fake.requestCount(), 0u);
}

TEST_F(SlowHosts, AreWaitedForWhenNoScopeIsOpenOrItHasTimeLeft) {
    fake.expect("GET", "/slow", [] {
        Response response = Response::json("{}");
        response.delay = 50ms;
        return response;
    }());
    {
        vt::http::RequestScope request;
        EXPECT_TRUE(adapter.jsonGetWithUrl(urlOf(fake.url("/slow")), token, nullptr, &error))
            << error.description();
    }
    fake.expect("GET", "/slow", Response::json("{}"));
    EXPECT_TRUE(adapter.jsonGetWithUrl(urlOf(fake.url("/slow")), token, nullptr, &error))
        << error.description();
    EXPECT_THAT(fake.problems(), testing::IsEmpty());
}

}  // namespace
