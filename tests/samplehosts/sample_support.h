#pragma once

// What the sample hosts' tests share: addresses, counting the requests a call made, and the key
// fixtures.

#include "fakehost/fake_host.h"
#include "records/values.h"

#include <boost/url/parse.hpp>

#include <cstddef>
#include <fstream>
#include <string>
#include <string_view>
#include <utility>

namespace vt::test {

inline VTUrl urlOf(std::string_view text) {
    return VTUrl(boost::urls::parse_uri(text).value());
}

// Counts the requests that reached a host since the last count.
class RequestMark {
public:
    explicit RequestMark(const fake::FakeHost& host) : host_(host), mark_(host.requestCount()) {}
    std::size_t since() {
        const std::size_t now = host_.requestCount();
        return now - std::exchange(mark_, now);
    }

private:
    const fake::FakeHost& host_;
    std::size_t mark_;
};

// The first line of a file of tests/fixtures/keys.
inline std::string keyFixture(const std::string& name) {
    std::ifstream in(std::string(VT_KEY_FIXTURES) + "/" + name);
    std::string line;
    std::getline(in, line);
    return line;
}

}  // namespace vt::test
