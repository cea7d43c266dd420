#pragma once

// VTReplyDictionary: what one request answers, as the 'a{sv}' that every method of the service
// returns. A reply argument that is nil has no entry.

#include "records/error.h"
#include "records/records.h"
#include "records/values.h"

#include <sdbus-c++/Message.h>
#include <boost/json/value.hpp>

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

class VTReplyDictionary {
public:
    // A conversation, and the pull request list, are kept as records and written straight into
    // the message, so that a large one costs no intermediate value tree.
    using Entry = std::variant<boost::json::value, VTConversation>;

    // Sets `key`, replacing an entry of that name.
    void set(std::string_view key, boost::json::value value);
    void setConversation(std::string_view key, VTConversation conversation);
    // The same 'av' of records that set() of their values would write.
    void setPullRequests(std::string_view key, std::vector<VTPullRequest> pullRequests);
    // "refreshedToken", only when there is one.
    void setRefreshedToken(const std::optional<VTToken>& token);
    // "error", only when `error` is an error.
    void setError(const VTError& error);

    bool contains(std::string_view key) const { return find(key) != nullptr; }
    const Entry* find(std::string_view key) const;
    const std::vector<std::pair<std::string, Entry>>& entries() const { return entries_; }

    // Appends the dictionary as one 'a{sv}' at the start of `message`'s body, within the bus's
    // limits (vt::wire::kMaxContainerDepth, vt::wire::kMaxBodyBytes). Returns nullopt when done;
    // otherwise the error that says which limit the dictionary would break, and the message holds
    // part of it and must not be sent.
    std::optional<VTError> appendTo(sdbus::Message& message) const;
    // The dictionary to send in place of this one when the bus would refuse it: the refreshed
    // token, which the client must not lose, and `error` (one that appendTo() returned).
    VTReplyDictionary standIn(VTError error) const;

private:
    Entry& slot(std::string_view key);

    std::vector<std::pair<std::string, Entry>> entries_;
};
