#include "service/arguments.h"

#include "records/wire.h"
#include "service/hosts_service.h"

#include <boost/url/parse.hpp>

#include <type_traits>

namespace {

std::string quoted(std::string_view text) {
    std::string result = "\"";
    result.append(text);
    result.push_back('"');
    return result;
}

std::string indexed(std::string_view name, std::size_t index) {
    return std::string(name) + "[" + std::to_string(index) + "]";
}

bool atEndOfContainer(const sdbus::Message& message) {
    std::string type;
    std::string contents;
    message.peekType(type, contents);
    return type.empty() || type[0] == '\0';
}

// Reads one 'a{sv}' (or, with `variant`, one 'v'); `fault` says what was wrong.
template <typename Value>
bool readValue(sdbus::Message& message, Value& value, std::string& fault) {
    bool read = false;
    if constexpr (std::is_same_v<Value, boost::json::object>) {
        read = vt::wire::readDictionary(message, value, &fault);
    } else {
        read = vt::wire::readVariant(message, value, &fault);
    }
    if (!read && fault.empty()) {
        fault = "not a value the service accepts";
    }
    return read;
}

}  // namespace

std::string VTArguments::next() {
    ++index_;
    return index_ <= names_.size() ? names_[index_ - 1] : "argument " + std::to_string(index_);
}

void VTArguments::reject(std::string_view name, std::string_view what) {
    if (fault_.empty()) {
        fault_ = std::string(name) + ": " + std::string(what);
    }
}

std::string VTArguments::string() {
    return plain<std::string>();
}

std::int64_t VTArguments::integer() {
    return plain<std::int64_t>();
}

VTData VTArguments::data() {
    return plain<VTData>();
}

std::vector<std::int64_t> VTArguments::integers() {
    return plain<std::vector<std::int64_t>>();
}

VTUrl VTArguments::url() {
    const std::string name = next();
    std::string text;
    if (!ok()) {
        return VTUrl();
    }
    if (!guarded(name, [&] { message_ >> text; }) || text.empty()) {
        return VTUrl();
    }
    auto parsed = boost::urls::parse_uri(text);
    if (!parsed) {
        reject(name, quoted(text) + " is not an absolute URL");
        return VTUrl();
    }
    return VTUrl(*parsed);
}

boost::json::object VTArguments::dictionary() {
    const std::string name = next();
    boost::json::object value;
    std::string fault;
    if (ok() && !readValue(message_, value, fault)) {
        reject(name, fault);
    }
    return value;
}

boost::json::value VTArguments::variant() {
    const std::string name = next();
    boost::json::value value;
    std::string fault;
    if (ok() && !readValue(message_, value, fault)) {
        reject(name, fault);
    }
    return value;
}

VTPullRequest VTArguments::pullRequest() {
    const std::string name = next();
    boost::json::object record;
    std::string fault;
    if (!ok()) {
        return VTPullRequest();
    }
    if (!readValue(message_, record, fault)) {
        reject(name, fault);
        return VTPullRequest();
    }
    std::optional<VTPullRequest> pullRequest = VTPullRequest::fromValue(record, &fault);
    if (!pullRequest) {
        reject(name, fault.empty() ? "not a VTPullRequest record"
                                   : "the VTPullRequest record's key " + quoted(fault) +
                                         " is missing or holds a value of the wrong kind");
        return VTPullRequest();
    }
    return std::move(*pullRequest);
}

std::vector<boost::json::object> VTArguments::dictionaries() {
    const std::string name = next();
    std::vector<boost::json::object> values;
    if (!ok()) {
        return values;
    }
    message_.enterContainer("a{sv}");
    while (!atEndOfContainer(message_)) {
        boost::json::object value;
        std::string fault;
        if (!readValue(message_, value, fault)) {
            reject(indexed(name, values.size()), fault);
            return {};
        }
        values.push_back(std::move(value));
    }
    message_.exitContainer();
    return values;
}

std::vector<VTUrl> VTArguments::hostUrls() {
    const std::string name = next();
    std::vector<std::string> texts;
    std::vector<VTUrl> urls;
    if (!ok()) {
        return urls;
    }
    if (!guarded(name, [&] { message_ >> texts; })) {
        return urls;
    }
    urls.reserve(texts.size());
    for (const std::string& text : texts) {
        std::optional<VTUrl> url = VTHostsService::forkUrl(text);
        if (!url) {
            reject(indexed(name, urls.size()),
                   quoted(text) + " is not an absolute URL with a host name");
            return {};
        }
        urls.push_back(std::move(*url));
    }
    return urls;
}
