#include "service/reply.h"

#include "records/wire.h"

#include <algorithm>

void VTReplyDictionary::set(std::string_view key, boost::json::value value) {
    slot(key) = std::move(value);
}

void VTReplyDictionary::setConversation(std::string_view key, VTConversation conversation) {
    slot(key) = std::move(conversation);
}

void VTReplyDictionary::setPullRequests(std::string_view key,
                                        std::vector<VTPullRequest> pullRequests) {
    VTConversation records;
    records.reserve(pullRequests.size());
    for (VTPullRequest& pullRequest : pullRequests) {
        records.emplace_back(std::move(pullRequest));
    }
    slot(key) = std::move(records);
}

void VTReplyDictionary::setRefreshedToken(const std::optional<VTToken>& token) {
    if (token) {
        set("refreshedToken", *token);
    }
}

void VTReplyDictionary::setError(const VTError& error) {
    if (error) {
        set("error", error.toValue());
    }
}

const VTReplyDictionary::Entry* VTReplyDictionary::find(std::string_view key) const {
    auto found = std::find_if(entries_.begin(), entries_.end(),
                              [key](const auto& entry) { return entry.first == key; });
    return found == entries_.end() ? nullptr : &found->second;
}

VTReplyDictionary::Entry& VTReplyDictionary::slot(std::string_view key) {
    auto found = std::find_if(entries_.begin(), entries_.end(),
                              [key](const auto& entry) { return entry.first == key; });
    if (found != entries_.end()) {
        return found->second;
    }
    return entries_.emplace_back(std::string(key), Entry()).second;
}

void VTReplyDictionary::appendTo(sdbus::Message& message) const {
    message.openContainer("{sv}");
    for (const auto& [key, entry] : entries_) {
        message.openDictEntry("sv");
        message << key;
        if (const auto* value = std::get_if<boost::json::value>(&entry)) {
            vt::wire::appendVariant(message, *value);
        } else {
            message.openVariant("av");
            vt::wire::appendConversation(message, std::get<VTConversation>(entry));
            message.closeVariant();
        }
        message.closeDictEntry();
    }
    message.closeContainer();
}
