#pragma once

// SSH keys as the REST APIs keep them: the key dictionary every adapter lists keys with
// ({"title", "id", "createdAt", "fingerprint"}, each entry only when the host's key object gives a
// value of the right kind), and adding and deleting a key at a host's key list address.

#include "records/error.h"
#include "records/values.h"
#include "transport/host.h"

#include <boost/json/object.hpp>
#include <boost/json/value.hpp>

#include <optional>
#include <string>
#include <string_view>

namespace vt {

// The members of a host's key object that the entries come from.
struct SshKeyMembers {
    std::string_view title;      // a string
    std::string_view id;         // a number
    std::string_view createdAt;  // a date text, shown localized
    std::string_view key;        // the public key line, fingerprinted
};

// The key dictionary of one key object; the date is read with `datePattern`. nullopt, with the
// fingerprint's error, when the key text cannot be fingerprinted: one bad key fails a list.
std::optional<boost::json::object> sshKeyWithMembers(const boost::json::value& element,
                                                     const SshKeyMembers& members,
                                                     std::string_view datePattern, VTError* error);

// POSTs {"title": title, "key": key} to the key list at `keysUrl`; true when an answer came.
bool addSshKeyAt(const VTHost& host, std::string_view keysUrl, const std::string& key,
                 const std::string& title, VTToken& token, VTError* error);

// DELETEs the key `identifier` below `keysUrl`; true when an answer came. The identifier becomes
// one escaped path segment, so that no identifier can reach another address on the host.
bool deleteSshKeyAt(const VTHost& host, std::string_view keysUrl,
                    const boost::json::value& identifier, VTToken& token, VTError* error);

}  // namespace vt
