#include "records/records.h"

#include "records/fields.h"

#include <boost/url/parse.hpp>

#include <limits>
#include <type_traits>

namespace {

using vt::records::Fields;
using vt::records::kClassKey;

// Builds the value form of a record: "$class" and every non-nil property.
class ValueWriter {
public:
    explicit ValueWriter(boost::json::object& out) : out_(out) {}

    void text(const char* key, const std::optional<std::string>& value) {
        if (value) {
            out_.emplace(key, *value);
        }
    }
    void url(const char* key, const std::optional<std::string>& value) { text(key, value); }
    void integer(const char* key, std::int64_t value) { out_.emplace(key, value); }
    // Unsigned properties go out as signed integers; the values in use are small.
    void integer(const char* key, std::uint64_t value) {
        out_.emplace(key, static_cast<std::int64_t>(value));
    }
    void integer(const char* key, const std::optional<std::int64_t>& value) {
        if (value) {
            out_.emplace(key, *value);
        }
    }
    void boolean(const char* key, bool value) { out_.emplace(key, value); }
    void plainArray(const char* key, const std::optional<boost::json::array>& value) {
        if (value) {
            out_.emplace(key, *value);
        }
    }
    template <typename Record>
    void records(const char* key, const std::optional<std::vector<Record>>& value) {
        if (!value) {
            return;
        }
        boost::json::array array;
        array.reserve(value->size());
        for (const Record& record : *value) {
            array.emplace_back(record.toValue());
        }
        out_.emplace(key, std::move(array));
    }

private:
    boost::json::object& out_;
};

template <typename Record>
boost::json::object encode(const Record& record) {
    boost::json::object out;
    out.emplace(kClassKey, Fields<Record>::className);
    ValueWriter writer(out);
    Fields<Record>::visit(record, writer);
    return out;
}

std::string indexed(std::string_view key, std::size_t index) {
    return std::string(key) + "[" + std::to_string(index) + "]";
}

// Only arrays, dictionaries and strings may appear in an assignee or label list, at any depth.
// On failure `path` names the value at fault.
bool holdsOnlyPlainValues(const boost::json::value& value, std::string& path) {
    if (value.is_string()) {
        return true;
    }
    if (const boost::json::array* array = value.if_array()) {
        for (std::size_t index = 0; index < array->size(); ++index) {
            std::string inner = indexed(path, index);
            if (!holdsOnlyPlainValues((*array)[index], inner)) {
                path = std::move(inner);
                return false;
            }
        }
        return true;
    }
    if (const boost::json::object* object = value.if_object()) {
        for (const auto& member : *object) {
            std::string inner = path + "." + std::string(member.key());
            if (!holdsOnlyPlainValues(member.value(), inner)) {
                path = std::move(inner);
                return false;
            }
        }
        return true;
    }
    return false;
}

// Checked decoding of one record's properties. A missing key (or a null) leaves the property
// nil, false or 0; a present key must hold its accepted type. The first fault stops the rest.
class ValueReader {
public:
    explicit ValueReader(const boost::json::object& in) : in_(in) {}

    bool failed() const { return !fault_.empty(); }
    const std::string& fault() const { return fault_; }

    void text(const char* key, std::optional<std::string>& value) {
        if (const boost::json::value* found = present(key)) {
            if (!found->is_string()) {
                fail(key);
                return;
            }
            value.emplace(found->get_string());
        }
    }
    void url(const char* key, std::optional<std::string>& value) {
        if (const boost::json::value* found = present(key)) {
            if (!found->is_string() || !boost::urls::parse_uri(found->get_string())) {
                fail(key);
                return;
            }
            value.emplace(found->get_string());
        }
    }
    void integer(const char* key, std::int64_t& value) {
        if (const boost::json::value* found = present(key)) {
            if (found->is_int64()) {
                value = found->get_int64();
            } else if (found->is_uint64() && found->get_uint64() <= kInt64Max) {
                value = static_cast<std::int64_t>(found->get_uint64());
            } else {
                fail(key);
            }
        }
    }
    void integer(const char* key, std::uint64_t& value) {
        if (const boost::json::value* found = present(key)) {
            if (found->is_int64()) {
                value = static_cast<std::uint64_t>(found->get_int64());
            } else if (found->is_uint64()) {
                value = found->get_uint64();
            } else {
                fail(key);
            }
        }
    }
    void integer(const char* key, std::optional<std::int64_t>& value) {
        if (present(key) != nullptr) {
            std::int64_t number = 0;
            integer(key, number);
            if (!failed()) {
                value = number;
            }
        }
    }
    void boolean(const char* key, bool& value) {
        if (const boost::json::value* found = present(key)) {
            if (!found->is_bool()) {
                fail(key);
                return;
            }
            value = found->get_bool();
        }
    }
    void plainArray(const char* key, std::optional<boost::json::array>& value) {
        if (const boost::json::value* found = present(key)) {
            std::string path = key;
            if (!found->is_array() || !holdsOnlyPlainValues(*found, path)) {
                fail(path);
                return;
            }
            value = found->get_array();
        }
    }
    template <typename Record>
    void records(const char* key, std::optional<std::vector<Record>>& value) {
        const boost::json::value* found = present(key);
        if (found == nullptr) {
            return;
        }
        const boost::json::array* array = found->if_array();
        if (array == nullptr) {
            fail(key);
            return;
        }
        std::vector<Record> decoded;
        decoded.reserve(array->size());
        for (std::size_t index = 0; index < array->size(); ++index) {
            std::string inner;
            std::optional<Record> record = Record::fromValue((*array)[index], &inner);
            if (!record) {
                fail(indexed(key, index) + "." + inner);
                return;
            }
            decoded.push_back(std::move(*record));
        }
        value = std::move(decoded);
    }

private:
    static constexpr std::uint64_t kInt64Max =
        static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());

    // The key's value when it is there and not null, unless an earlier key already failed.
    const boost::json::value* present(const char* key) const {
        if (failed()) {
            return nullptr;
        }
        const boost::json::value* found = in_.if_contains(key);
        return found != nullptr && !found->is_null() ? found : nullptr;
    }
    void fail(std::string key) { fault_ = std::move(key); }

    const boost::json::object& in_;
    std::string fault_;
};

template <typename Record>
std::optional<Record> decode(const boost::json::value& value, std::string* fault) {
    const boost::json::object* object = value.if_object();
    const boost::json::value* className = object ? object->if_contains(kClassKey) : nullptr;
    if (className == nullptr || !className->is_string() ||
        className->get_string() != Fields<Record>::className) {
        if (fault != nullptr) {
            *fault = kClassKey;
        }
        return std::nullopt;
    }
    Record record;
    ValueReader reader(*object);
    Fields<Record>::visit(record, reader);
    if (reader.failed()) {
        if (fault != nullptr) {
            *fault = reader.fault();
        }
        return std::nullopt;
    }
    return record;
}

}  // namespace

boost::json::object VTPullRequest::toValue() const {
    return encode(*this);
}

std::optional<VTPullRequest> VTPullRequest::fromValue(const boost::json::value& value,
                                                      std::string* fault) {
    return decode<VTPullRequest>(value, fault);
}

boost::json::object VTPullRequestCommit::toValue() const {
    return encode(*this);
}

std::optional<VTPullRequestCommit> VTPullRequestCommit::fromValue(const boost::json::value& value,
                                                                  std::string* fault) {
    return decode<VTPullRequestCommit>(value, fault);
}

boost::json::object VTPullRequestComment::toValue() const {
    return encode(*this);
}

std::optional<VTPullRequestComment> VTPullRequestComment::fromValue(const boost::json::value& value,
                                                                    std::string* fault) {
    return decode<VTPullRequestComment>(value, fault);
}

void VTPullRequestCommits::addCommit(VTPullRequestCommit commit) {
    if (!commits) {
        commits.emplace();
    }
    commits->push_back(std::move(commit));
}

boost::json::object VTPullRequestCommits::toValue() const {
    return encode(*this);
}

std::optional<VTPullRequestCommits> VTPullRequestCommits::fromValue(const boost::json::value& value,
                                                                    std::string* fault) {
    return decode<VTPullRequestCommits>(value, fault);
}

boost::json::array VTConversationToValue(const VTConversation& conversation) {
    boost::json::array array;
    array.reserve(conversation.size());
    for (const VTConversationItem& item : conversation) {
        std::visit(
            [&array](const auto& entry) {
                if constexpr (std::is_same_v<std::decay_t<decltype(entry)>, bool>) {
                    array.emplace_back(entry);
                } else {
                    array.emplace_back(entry.toValue());
                }
            },
            item);
    }
    return array;
}

namespace {

// One conversation entry: a record of one of the three classes a conversation holds, or a boolean.
std::optional<VTConversationItem> decodeItem(const boost::json::value& value, std::string& fault) {
    if (value.is_bool()) {
        return VTConversationItem(value.get_bool());
    }
    const boost::json::object* object = value.if_object();
    const boost::json::value* className = object ? object->if_contains(kClassKey) : nullptr;
    if (className != nullptr && className->is_string()) {
        const boost::json::string_view name = className->get_string();
        if (name == Fields<VTPullRequest>::className) {
            if (auto record = VTPullRequest::fromValue(value, &fault)) {
                return VTConversationItem(std::move(*record));
            }
            return std::nullopt;
        }
        if (name == Fields<VTPullRequestComment>::className) {
            if (auto record = VTPullRequestComment::fromValue(value, &fault)) {
                return VTConversationItem(std::move(*record));
            }
            return std::nullopt;
        }
        if (name == Fields<VTPullRequestCommits>::className) {
            if (auto record = VTPullRequestCommits::fromValue(value, &fault)) {
                return VTConversationItem(std::move(*record));
            }
            return std::nullopt;
        }
    }
    fault = kClassKey;
    return std::nullopt;
}

}  // namespace

std::optional<VTConversation> VTConversationFromValue(const boost::json::value& value,
                                                      std::string* fault) {
    const boost::json::array* array = value.if_array();
    if (array == nullptr) {
        if (fault != nullptr) {
            *fault = "conversation";
        }
        return std::nullopt;
    }
    VTConversation conversation;
    conversation.reserve(array->size());
    for (std::size_t index = 0; index < array->size(); ++index) {
        std::string inner;
        std::optional<VTConversationItem> item = decodeItem((*array)[index], inner);
        if (!item) {
            if (fault != nullptr) {
                *fault = indexed("", index) + "." + inner;
            }
            return std::nullopt;
        }
        conversation.push_back(std::move(*item));
    }
    return conversation;
}
