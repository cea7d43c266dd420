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

}  // namespace vt
