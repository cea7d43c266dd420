// Any bytes as a "Link" header. The scan answers the empty string or an address that stood in the
// header between "<" and ">;" and whose entry's relation is "next"; once a prefix of the header
// that ends with a quote yields an address, nothing appended after it changes the answer. The input
// also serves as an address (without ">" and leading blanks) placed among other relations, where it
// must come back exactly. Headers are copied to buffers of their exact size so that ASan sees any
// read past them.
#include "transport/answer.h"

#include <algorithm>
#include <memory>
#include <string>

namespace {

void check(bool holds) {
    if (!holds) {
        __builtin_trap();
    }
}

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

std::string scan(std::string_view header) {
    const auto copy = std::make_unique<char[]>(header.size());
    std::copy(header.begin(), header.end(), copy.get());
    return vt::nextLinkFromHeader(std::string_view(copy.get(), header.size()));
}

// Whether `address` stands in `header` as "<" [blanks] address ">;" followed by a first rel="
// whose value, after blanks, is exactly next.
bool standsAsNext(std::string_view header, std::string_view address) {
    const std::string entry = std::string(address) + ">;";
    for (std::size_t at = header.find(entry); at != std::string_view::npos;
         at = header.find(entry, at + 1)) {
        std::size_t before = at;
        while (before > 0 && isBlank(header[before - 1])) {
            --before;
        }
        if (before == 0 || header[before - 1] != '<') {
            continue;
        }
        std::size_t rel = header.find("rel=\"", at + entry.size());
        if (rel == std::string_view::npos) {
            continue;
        }
        rel += 5;
        while (rel < header.size() && isBlank(header[rel])) {
            ++rel;
        }
        if (header.substr(rel, 5) == "next\"" || header.substr(rel) == "next") {
            return true;
        }
    }
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view header(reinterpret_cast<const char*>(data), size);
    const std::string next = scan(header);
    if (!next.empty()) {
        check(!isBlank(next.front()) && next.find(">;") == std::string::npos);
        check(standsAsNext(header, next));
    }

    // A prefix that already yields an address decides the answer, once the prefix ends with a
    // quote (a relation cut off by the end of the header reads to the end: rel="next is next).
    if (size > 0) {
        const std::size_t quote = header.find('"', data[0] % size);
        if (quote != std::string_view::npos) {
            const std::string prefixNext = scan(header.substr(0, quote + 1));
            check(prefixNext.empty() || prefixNext == next);
        }
    }

    std::string address(header);
    address.erase(std::remove(address.begin(), address.end(), '>'), address.end());
    address.erase(address.begin(), std::find_if_not(address.begin(), address.end(), isBlank));
    check(scan("<" + address + ">; rel=\"next\"") == address);
    check(scan("<https://h/k?page=1>; rel=\"prev\", <" + address +
               ">; rel=\"next\", <https://h/k?page=9>; rel=\"last\"") == address);
    check(scan("<" + address + ">; rel=\"last\"").empty());

    // The start of the input as a relation: only exactly next (after blanks) is taken.
    std::string relation(header.substr(0, 8));
    relation.erase(std::remove(relation.begin(), relation.end(), '"'), relation.end());
    const auto word = std::find_if_not(relation.begin(), relation.end(), isBlank);
    const std::string expected =
        std::string(word, relation.end()) == "next" ? "https://h/k?page=3" : "";
    check(scan("<https://h/k?page=3>; rel=\"" + relation +
               "\", <https://h/k?page=9>; rel=\"last\"") == expected);
    return 0;
}
