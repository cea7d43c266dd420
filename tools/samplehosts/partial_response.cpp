#include "samplehosts/partial_response.h"

#include <map>
#include <string>
#include <vector>

namespace vt::sample {

namespace {

namespace json = boost::json;

// The member paths a "fields" text asks for, as a tree: a node without children keeps its value
// whole.
struct Selection {
    std::map<std::string, Selection, std::less<>> members;
    bool whole = false;

    void add(std::string_view path) {
        Selection* node = this;
        while (!node->whole) {
            const std::size_t dot = path.find('.');
            node = &node->members[std::string(path.substr(0, dot))];
            if (dot == std::string_view::npos) {
                node->whole = true;
                node->members.clear();
                return;
            }
            path.remove_prefix(dot + 1);
        }
    }
};

json::value selected(const json::value& value, const Selection& selection) {
    if (selection.whole) {
        return value;
    }
    if (const json::array* elements = value.if_array()) {
        json::array kept;
        for (const json::value& element : *elements) {
            kept.push_back(selected(element, selection));
        }
        return kept;
    }
    const json::object* object = value.if_object();
    if (object == nullptr) {
        return value;
    }
    json::object kept;
    // A path that goes on below a plain value names nothing there.
    auto keep = [&kept](std::string_view name, const json::value& value, const Selection& below) {
        if (below.whole || value.is_structured()) {
            kept[name] = selected(value, below);
        }
    };
    for (const auto& [name, below] : selection.members) {
        if (name == "*") {
            for (const auto& member : *object) {
                keep(member.key(), member.value(), below);
            }
        } else if (const json::value* member = object->if_contains(name)) {
            keep(name, *member, below);
        }
    }
    return kept;
}

void remove(json::value& value, std::string_view path) {
    if (json::array* elements = value.if_array()) {
        for (json::value& element : *elements) {
            remove(element, path);
        }
        return;
    }
    json::object* object = value.if_object();
    if (object == nullptr) {
        return;
    }
    const std::size_t dot = path.find('.');
    const std::string_view name = path.substr(0, dot);
    if (dot == std::string_view::npos) {
        if (name == "*") {
            object->clear();
        } else {
            object->erase(name);
        }
        return;
    }
    for (auto& member : *object) {
        if (name == "*" || member.key() == name) {
            remove(member.value(), path.substr(dot + 1));
        }
    }
}

}  // namespace

json::value withFields(const json::value& whole, std::string_view fields) {
    Selection selection;
    std::vector<std::string_view> removed;
    bool selects = false;
    while (!fields.empty()) {
        const std::size_t comma = fields.find(',');
        std::string_view field = fields.substr(0, comma);
        fields = comma == std::string_view::npos ? std::string_view() : fields.substr(comma + 1);
        if (field.empty()) {
            continue;
        }
        if (field.front() == '-') {
            removed.push_back(field.substr(1));
        } else if (field.front() == '+') {
            selection.add(field.substr(1));
        } else {
            selection.add(field);
            selects = true;
        }
    }
    // "+" alone adds to the whole answer, which already holds everything the sample knows.
    json::value result = selects ? selected(whole, selection) : whole;
    for (std::string_view path : removed) {
        remove(result, path);
    }
    return result;
}

}  // namespace vt::sample
