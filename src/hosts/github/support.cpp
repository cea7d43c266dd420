#include "hosts/github/support.h"

#include <boost/url/parse.hpp>

#include <utility>
#include <vector>

namespace vt::github {

std::optional<RepositoryPath> repositoryPath(const VTUrl& url, VTError* error) {
    std::vector<std::string> components;
    for (std::string segment : boost::urls::url_view(url).segments()) {
        if (!segment.empty()) {
            components.push_back(std::move(segment));
        }
    }
    if (components.empty()) {
        VTSetError(error, VTError(VTURLErrorDomain, -1000,
                                  "The address " + std::string(url.buffer()) +
                                      " does not name a repository."));
        return std::nullopt;
    }
    components.back() = deletingPathExtension(components.back());
    RepositoryPath path{components.front(), components.back(), {}};
    for (const std::string& component : components) {
        if (!path.fullName.empty()) {
            path.fullName += '/';
        }
        path.fullName += component;
    }
    return path;
}

std::optional<RepositoryPath> repositoryPath(std::string_view urlText, VTError* error) {
    auto url = urlWithText(urlText);
    if (!url) {
        VTSetError(error, VTError(VTURLErrorDomain, -1000,
                                  "The address " + std::string(urlText) + " is not a URL."));
        return std::nullopt;
    }
    return repositoryPath(*url, error);
}

}  // namespace vt::github
