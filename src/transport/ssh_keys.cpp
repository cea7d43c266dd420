#include "transport/ssh_keys.h"

#include "transport/dates.h"
#include "transport/reading.h"
#include "transport/utilities/utilities.h"

namespace vt {

std::optional<boost::json::object> sshKeyWithMembers(const boost::json::value& element,
                                                     const SshKeyMembers& members,
                                                     std::string_view datePattern, VTError* error) {
    boost::json::object key;
    if (auto title = stringAt(element, {members.title})) {
        key["title"] = *title;
    }
    if (const boost::json::value* id = memberAt(element, {members.id});
        id != nullptr && id->is_number()) {
        key["id"] = *id;
    }
    if (auto createdAt = stringAt(element, {members.createdAt})) {
        if (auto date = localizedIsoDate(*createdAt, datePattern)) {
            key["createdAt"] = *date;
        }
    }
    if (auto text = stringAt(element, {members.key})) {
        auto fingerprint = fingerprintWithKey(*text, error);
        if (!fingerprint) {
            return std::nullopt;
        }
        key["fingerprint"] = *fingerprint;
    }
    return key;
}

namespace {

std::optional<VTUrl> keysAddress(std::string_view keysUrl, VTError* error) {
    auto url = urlWithText(keysUrl);
    if (!url) {
        VTSetError(error, VTError(VTURLErrorDomain, -1000, "The SSH keys address is not a URL."));
    }
    return url;
}

}  // namespace

bool addSshKeyAt(const VTHost& host, std::string_view keysUrl, const std::string& key,
                 const std::string& title, VTToken& token, VTError* error) {
    auto url = keysAddress(keysUrl, error);
    if (!url) {
        return false;
    }
    boost::json::object content;
    content["title"] = title;
    content["key"] = key;
    return host.jsonPostWithUrl(*url, content, token, error).has_value();
}

bool deleteSshKeyAt(const VTHost& host, std::string_view keysUrl,
                    const boost::json::value& identifier, VTToken& token, VTError* error) {
    auto url = keysAddress(keysUrl, error);
    if (!url) {
        return false;
    }
    url->segments().push_back(placeText(&identifier));
    return host.jsonDeleteWithUrl(*url, token, error).has_value();
}

}  // namespace vt
