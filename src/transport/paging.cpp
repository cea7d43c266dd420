#include "transport/paging.h"

#include <boost/url/parse.hpp>

#include <optional>
#include <set>
#include <utility>

namespace vt {
namespace {

void setPagingError(VTError* error, std::string_view description) {
    VTSetError(error, VTError(VTHTTPErrorDomain, kPagingErrorCode, description));
}

const boost::json::object& emptyObject() {
    static const boost::json::object empty;
    return empty;
}

}  // namespace

ConnectionLocator connectionAt(std::initializer_list<std::string_view> path) {
    return [members = std::vector<std::string>(path.begin(), path.end())](
               const boost::json::value& answer) -> const boost::json::object* {
        const boost::json::value* current = &answer;
        for (const std::string& member : members) {
            const boost::json::object* object = current->if_object();
            if (object == nullptr) {
                return nullptr;
            }
            current = object->if_contains(member);
            if (current == nullptr) {
                return nullptr;
            }
        }
        return current->if_object();
    };
}

boost::json::object graphQlContent(std::string_view text) {
    boost::json::object content;
    content["query"] = text;
    return content;
}

bool pageGraphQl(const VTHost& host, const VTUrl& url, std::string_view firstText,
                 const FollowUpText& followUp, const ConnectionLocator& connection,
                 const CursorPage& page, VTToken& token, VTError* error) {
    std::optional<boost::json::value> first =
        host.jsonPostWithUrl(url, graphQlContent(firstText), token, error);
    if (!first) {
        return false;
    }
    return pageGraphQlFrom(host, url, *first, followUp, connection, page, token, error);
}

bool pageGraphQlFrom(const VTHost& host, const VTUrl& url, const boost::json::value& firstAnswer,
                     const FollowUpText& followUp, const ConnectionLocator& connection,
                     const CursorPage& page, VTToken& token, VTError* error) {
    std::set<std::string, std::less<>> cursors;
    std::optional<boost::json::value> later;  // owns every answer after the first
    const boost::json::value* answer = &firstAnswer;
    for (;;) {
        const boost::json::object* found = connection(*answer);
        if (!page(found != nullptr ? *found : emptyObject(), *answer, error)) {
            return false;
        }
        if (found == nullptr) {
            return true;
        }
        const boost::json::value* info = found->if_contains("pageInfo");
        const boost::json::object* pageInfo = info != nullptr ? info->if_object() : nullptr;
        const boost::json::value* more =
            pageInfo != nullptr ? pageInfo->if_contains("hasNextPage") : nullptr;
        if (more == nullptr || !more->is_bool() || !more->get_bool()) {
            return true;
        }
        const boost::json::value* cursor = pageInfo->if_contains("endCursor");
        if (cursor == nullptr || !cursor->is_string()) {
            setPagingError(error, "The host said more pages follow but sent no page cursor.");
            return false;
        }
        std::string endCursor(cursor->get_string());
        if (!cursors.insert(endCursor).second) {
            setPagingError(error, "The host sent the same page cursor twice; paging stopped.");
            return false;
        }
        std::optional<boost::json::value> next =
            host.jsonPostWithUrl(url, graphQlContent(followUp(endCursor)), token, error);
        if (!next) {
            return false;
        }
        later = std::move(next);
        answer = &*later;
    }
}

namespace {

// The address of the page after `answer`, given the "next" address of its "Link" header.
using NextAddress =
    std::function<std::string(const boost::json::value& answer, const std::string& link)>;

// The loop of the address-paged lists: GET, hand over, follow the next address, refusing an
// address that is no URL or that came before.
bool followAddresses(const VTHost& host, const VTUrl& firstUrl, bool readsLink,
                     const NextPage& page, const NextAddress& nextAddress, VTToken& token,
                     VTError* error) {
    std::set<std::string, std::less<>> addresses{std::string(firstUrl.buffer())};
    VTUrl url = firstUrl;
    for (;;) {
        std::string link;
        std::optional<boost::json::value> answer =
            host.jsonGetWithUrl(url, token, readsLink ? &link : nullptr, error);
        if (!answer) {
            return false;
        }
        switch (page(*answer, error)) {
            case PageStep::failed:
                return false;
            case PageStep::last:
                return true;
            case PageStep::more:
                break;
        }
        const std::string address = nextAddress(*answer, link);
        if (address.empty()) {
            return true;
        }
        auto next = boost::urls::parse_uri(address);
        if (!next) {
            setPagingError(error, "The host sent a next-page address that is not a URL.");
            return false;
        }
        if (!addresses.insert(address).second) {
            setPagingError(error,
                           "The host sent the same next-page address twice; paging stopped.");
            return false;
        }
        url = *next;
    }
}

}  // namespace

bool pageLinks(const VTHost& host, const VTUrl& firstUrl, const LinkPage& page, VTToken& token,
               VTError* error) {
    return followAddresses(
        host, firstUrl, true,
        [&page](const boost::json::value& answer, VTError* pageError) {
            return page(answer, pageError) ? PageStep::more : PageStep::failed;
        },
        [](const boost::json::value&, const std::string& link) { return link; }, token, error);
}

bool pageNext(const VTHost& host, const VTUrl& firstUrl, const NextPage& page, VTToken& token,
              VTError* error) {
    return followAddresses(
        host, firstUrl, false, page,
        [](const boost::json::value& answer, const std::string&) {
            const boost::json::object* object = answer.if_object();
            const boost::json::value* next =
                object != nullptr ? object->if_contains("next") : nullptr;
            return next != nullptr && next->is_string() ? std::string(next->get_string())
                                                        : std::string();
        },
        token, error);
}

}  // namespace vt
