#pragma once

// The pull request records that cross the bus, and the conversation they make up.
// Object-typed properties are optional: nullopt is "nil" and is left out of the encoding.
// URL-typed properties hold the URL's absolute text.

#include "records/error.h"
#include "records/values.h"

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

struct VTPullRequest {
    std::optional<std::string> remoteUrl;  // URL
    std::int64_t hostType = 0;
    std::optional<std::string> identifier;
    std::optional<std::string> author;
    std::optional<std::string> avatarUrl;  // URL
    std::optional<std::string> title;
    std::optional<std::int64_t> number;
    std::optional<std::string> date;
    std::optional<std::string> baseReference;
    std::optional<std::string> headReference;
    std::optional<boost::json::array> assignees;
    std::optional<boost::json::array> labels;
    std::optional<std::string> webUrl;  // kept as a string, not checked as a URL
    bool commentable = false;
    bool editable = false;
    bool closeable = false;
    bool allowsMerge = false;
    bool merged = false;
    std::uint64_t mergeable = 0;  // 0 merges cleanly, 1 has conflicts, 2 not known

    boost::json::object toValue() const;
    // Checked decoding: "$class" must be "VTPullRequest" and every present key its type.
    // On failure returns nullopt and, when `fault` is given, the offending key.
    static std::optional<VTPullRequest> fromValue(const boost::json::value& value,
                                                  std::string* fault = nullptr);
    bool operator==(const VTPullRequest&) const = default;
};

struct VTPullRequestCommit {
    std::optional<std::string> author;
    std::optional<std::string> avatarUrl;  // URL
    std::optional<std::string> oid;
    std::optional<std::string> date;
    std::optional<std::string> message;

    boost::json::object toValue() const;
    static std::optional<VTPullRequestCommit> fromValue(const boost::json::value& value,
                                                        std::string* fault = nullptr);
    bool operator==(const VTPullRequestCommit&) const = default;
};

struct VTPullRequestComment {
    std::optional<std::string> identifier;
    std::optional<std::string> author;
    std::optional<std::string> avatarUrl;  // URL
    std::optional<std::string> date;
    bool editable = false;
    bool deletable = false;
    std::optional<std::string> replyTo;
    std::optional<std::string> content;
    std::optional<std::vector<VTPullRequestComment>> comments;  // replies, in order

    boost::json::object toValue() const;
    static std::optional<VTPullRequestComment> fromValue(const boost::json::value& value,
                                                         std::string* fault = nullptr);
    bool operator==(const VTPullRequestComment&) const = default;
};

struct VTPullRequestCommits {
    std::optional<std::vector<VTPullRequestCommit>> commits;

    // Creates the list on first use, then appends.
    void addCommit(VTPullRequestCommit commit);

    boost::json::object toValue() const;
    static std::optional<VTPullRequestCommits> fromValue(const boost::json::value& value,
                                                         std::string* fault = nullptr);
    bool operator==(const VTPullRequestCommits&) const = default;
};

// One entry of a conversation: the pull request, then its description comment, then comments and
// commit groups in time order, and last `true` when the user may comment.
using VTConversationItem =
    std::variant<VTPullRequest, VTPullRequestComment, VTPullRequestCommits, bool>;
using VTConversation = std::vector<VTConversationItem>;

// The conversation as a value: an array of record objects and, last, possibly `true`.
boost::json::array VTConversationToValue(const VTConversation& conversation);
// Checked decoding of a whole conversation (accepts the four record classes and booleans).
std::optional<VTConversation> VTConversationFromValue(const boost::json::value& value,
                                                      std::string* fault = nullptr);
