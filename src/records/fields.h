#pragma once

// The coding keys of the four records, listed once. The value form (records.cpp) and the bus
// encoding (wire.cpp) both walk these lists, so a key can only be spelled in one place.
//
// A visitor offers:
//   text(key, optional<string>)          a string
//   url(key, optional<string>)           a string that must parse as an absolute URL
//   integer(key, int64 | uint64 | optional<int64>)
//   boolean(key, bool)
//   plainArray(key, optional<json::array>)  arrays, dictionaries and strings only
//   records(key, optional<vector<Record>>)  nested records of one class
// Each is called with const references when encoding and with mutable ones when decoding.

#include "records/records.h"

namespace vt::records {

template <typename Record>
struct Fields;

template <>
struct Fields<VTPullRequest> {
    static constexpr const char* className = "VTPullRequest";

    template <typename Self, typename Visitor>
    static void visit(Self& record, Visitor& visitor) {
        visitor.url("remoteUrl", record.remoteUrl);
        visitor.integer("hostType", record.hostType);
        visitor.text("identifier", record.identifier);
        visitor.text("author", record.author);
        visitor.url("avatarUrl", record.avatarUrl);
        visitor.text("title", record.title);
        visitor.integer("number", record.number);
        visitor.text("date", record.date);
        visitor.text("baseReference", record.baseReference);
        visitor.text("headReference", record.headReference);
        visitor.plainArray("assignees", record.assignees);
        visitor.plainArray("labels", record.labels);
        visitor.text("webUrl", record.webUrl);
        visitor.boolean("commentable", record.commentable);
        visitor.boolean("editable", record.editable);
        visitor.boolean("closeable", record.closeable);
        visitor.boolean("allowsMerge", record.allowsMerge);
        visitor.boolean("merged", record.merged);
        visitor.integer("mergeable", record.mergeable);
    }
};

template <>
struct Fields<VTPullRequestCommit> {
    static constexpr const char* className = "VTPullRequestCommit";

    template <typename Self, typename Visitor>
    static void visit(Self& record, Visitor& visitor) {
        visitor.text("author", record.author);
        visitor.url("avatarUrl", record.avatarUrl);
        visitor.text("oid", record.oid);
        visitor.text("date", record.date);
        visitor.text("message", record.message);
    }
};

template <>
struct Fields<VTPullRequestComment> {
    static constexpr const char* className = "VTPullRequestComment";

    template <typename Self, typename Visitor>
    static void visit(Self& record, Visitor& visitor) {
        visitor.text("identifier", record.identifier);
        visitor.text("author", record.author);
        visitor.url("avatarUrl", record.avatarUrl);
        visitor.text("date", record.date);
        visitor.boolean("editable", record.editable);
        visitor.boolean("deletable", record.deletable);
        visitor.text("replyTo", record.replyTo);
        visitor.text("content", record.content);
        visitor.records("comments", record.comments);
    }
};

template <>
struct Fields<VTPullRequestCommits> {
    static constexpr const char* className = "VTPullRequestCommits";

    template <typename Self, typename Visitor>
    static void visit(Self& record, Visitor& visitor) {
        visitor.records("commits", record.commits);
    }
};

// The key under which every record names its class.
inline constexpr const char* kClassKey = "$class";

}  // namespace vt::records
