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

namespace {

// A reply the bus would refuse answers this error instead. The values came from the host's
// answer, so the error is the host's, in the domain of its answers; 200 says that the host
// answered, but with something the service cannot pass on.
VTError limitError(vt::wire::Writer::Fault fault) {
    if (fault == vt::wire::Writer::Fault::tooDeep) {
        return VTError(VTHTTPErrorDomain, 200,
                       "The host's answer nests its values more than " +
                           std::to_string(vt::wire::kMaxContainerDepth) +
                           " levels deep, which the session bus does not carry; the reply was "
                           "not sent.");
    }
    return VTError(VTHTTPErrorDomain, 200,
                   "The host's answer makes a reply larger than the " +
                       std::to_string(vt::wire::kMaxBodyBytes) +
                       " bytes the session bus carries; the reply was not sent.");
}

}  // namespace

std::optional<VTError> VTReplyDictionary::appendTo(sdbus::Message& message) const {
    vt::wire::Writer writer(message);
    if (!writer.openDictionary()) {
        return limitError(writer.fault());
    }
    for (const auto& [key, entry] : entries_) {
        if (const auto* value = std::get_if<boost::json::value>(&entry)) {
            if (writer.openEntry(key.c_str(), vt::wire::signatureOf(*value))) {
                writer.payload(*value);
            }
        } else if (writer.openEntry(key.c_str(), "av")) {
            writer.conversation(std::get<VTConversation>(entry));
        }
        if (!writer.ok()) {
            return limitError(writer.fault());
        }
        writer.closeEntry();
    }
    writer.closeDictionary();
    return std::nullopt;
}

VTReplyDictionary VTReplyDictionary::standIn(VTError error) const {
    VTReplyDictionary reply;
    if (const Entry* token = find("refreshedToken")) {
        reply.slot("refreshedToken") = *token;
    }
    reply.setError(error);
    return reply;
}
