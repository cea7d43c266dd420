#include "samplehosts/text.h"

#include "transport/utilities/utilities.h"

#include <boost/url/url.hpp>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <vector>

namespace vt::sample {

std::string isoTime(std::time_t seconds) {
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    char text[32];
    const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return std::string(text, length);
}

std::time_t utcTime(int year, int month, int day, int hour, int minute, int second) {
    using namespace std::chrono;
    const sys_days date{std::chrono::year{year} / month / day};
    return system_clock::to_time_t(date + hours{hour} + minutes{minute} + seconds{second});
}

std::uint64_t mixed(std::uint64_t seed) {
    std::uint64_t value = seed + 0x9e3779b97f4a7c15ULL;
    value = (value ^ (value >> 30)) * 0xbf58476d1ce4e5b9ULL;
    value = (value ^ (value >> 27)) * 0x94d049bb133111ebULL;
    return value ^ (value >> 31);
}

std::uint64_t seedOf(std::string_view text) {
    std::uint64_t hash = 1469598103934665603ULL;  // FNV-1a
    for (char c : text) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ULL;
    }
    return hash;
}

std::string hexDigits(std::uint64_t seed, std::size_t length) {
    std::string text;
    while (text.size() < length) {
        char chunk[17];
        std::snprintf(chunk, sizeof chunk, "%016llx",
                      static_cast<unsigned long long>(mixed(seed + text.size())));
        text += chunk;
    }
    text.resize(length);
    return text;
}

std::string madeUpKey(std::uint64_t seed, std::string_view comment) {
    std::string blob;
    auto appendString = [&blob](std::string_view text) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            blob += static_cast<char>((text.size() >> shift) & 0xff);
        }
        blob += text;
    };
    std::string point;
    for (int part = 0; part < 4; ++part) {
        const std::uint64_t bits = mixed(seed * 4 + static_cast<std::uint64_t>(part));
        for (int index = 0; index < 8; ++index) {
            point += static_cast<char>(bits >> (8 * index));
        }
    }
    appendString("ssh-ed25519");
    appendString(point);
    return "ssh-ed25519 " + vt::base64String(blob) + " " + std::string(comment);
}

bool isPublicKey(std::string_view text) {
    const std::size_t space = text.find(' ');
    if (space == std::string_view::npos) {
        return false;
    }
    const std::string_view type = text.substr(0, space);
    std::string_view body = text.substr(space + 1);
    body = body.substr(0, body.find(' '));
    const std::optional<VTData> blob = vt::dataWithBase64(body);
    if (!blob || blob->size() < 4 + type.size()) {
        return false;
    }
    const std::size_t length = (static_cast<unsigned char>((*blob)[0]) << 24) |
                               (static_cast<unsigned char>((*blob)[1]) << 16) |
                               (static_cast<unsigned char>((*blob)[2]) << 8) |
                               static_cast<unsigned char>((*blob)[3]);
    return length == type.size() &&
           std::string_view(reinterpret_cast<const char*>(blob->data()) + 4, length) == type;
}

std::optional<std::string> stringArgument(const boost::json::object& arguments,
                                          std::string_view name) {
    const boost::json::value* value = arguments.if_contains(name);
    if (value == nullptr || !value->is_string()) {
        return std::nullopt;
    }
    return std::string(value->get_string());
}

std::string branchOf(std::string_view title) {
    std::string branch;
    int words = 0;
    bool inWord = false;
    for (char c : title) {
        const bool letter = std::isalnum(static_cast<unsigned char>(c)) != 0;
        if (letter && !inWord) {
            if (++words > 4) {
                break;
            }
            if (!branch.empty()) {
                branch += '-';
            }
        }
        inWord = letter;
        if (letter) {
            branch += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
    }
    return branch;
}

std::string_view keyBody(std::string_view text) {
    const std::size_t space = text.find(' ');
    if (space == std::string_view::npos) {
        return {};
    }
    text.remove_prefix(space + 1);
    return text.substr(0, text.find(' '));
}

PageRequest PageRequest::of(boost::urls::url_view target, std::size_t defaultPerPage,
                            std::size_t maximumPerPage) {
    PageRequest request{defaultPerPage, 1};
    for (const auto& parameter : target.params()) {
        std::size_t number = 0;
        auto [end, fault] = std::from_chars(
            parameter.value.data(), parameter.value.data() + parameter.value.size(), number);
        if (fault != std::errc() || end != parameter.value.data() + parameter.value.size()) {
            continue;
        }
        if (parameter.key == "per_page" && number > 0) {
            request.perPage = std::min(number, maximumPerPage);
        } else if (parameter.key == "page" && number > 0) {
            request.page = number;
        }
    }
    return request;
}

std::size_t PageRequest::lastPage(std::size_t size) const {
    return std::max<std::size_t>(1, (size + perPage - 1) / perPage);
}

std::string linkHeader(std::string_view origin, boost::urls::url_view target,
                       const PageRequest& page, std::size_t size, LinkStyle style) {
    const std::size_t last = page.lastPage(size);
    if (last == 1) {
        return {};
    }
    auto link = [&](std::size_t number, std::string_view relation) {
        boost::urls::url address(target);
        address.params().set("per_page", std::to_string(page.perPage));
        address.params().set("page", std::to_string(number));
        return "<" + std::string(origin) + std::string(address.encoded_target()) + ">; rel=\"" +
               std::string(relation) + "\"";
    };
    std::vector<std::string> links;
    if (page.page > 1) {
        links.push_back(link(page.page - 1, "prev"));
    }
    if (page.page < last) {
        links.push_back(link(page.page + 1, "next"));
    }
    if (style == LinkStyle::gitlab) {
        links.push_back(link(1, "first"));
        links.push_back(link(last, "last"));
    } else {
        if (page.page < last) {
            links.push_back(link(last, "last"));
        }
        if (page.page > 1) {
            links.push_back(link(1, "first"));
        }
    }
    std::string header;
    for (const std::string& entry : links) {
        header += (header.empty() ? "" : ", ") + entry;
    }
    return header;
}

}  // namespace vt::sample
