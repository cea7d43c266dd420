#include "vthosts/output.h"

#include <boost/json/serialize.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <vector>

namespace vt::client {

namespace {

void writeJson(std::string& out, const boost::json::value& value, int depth) {
    auto newline = [&](int level) {
        out += '\n';
        out.append(static_cast<std::size_t>(level) * 2, ' ');
    };
    if (value.is_object() && !value.get_object().empty()) {
        out += '{';
        bool first = true;
        for (const auto& member : value.get_object()) {
            if (!first) {
                out += ',';
            }
            first = false;
            newline(depth + 1);
            out += boost::json::serialize(member.key());
            out += ": ";
            writeJson(out, member.value(), depth + 1);
        }
        newline(depth);
        out += '}';
    } else if (value.is_array() && !value.get_array().empty()) {
        out += '[';
        bool first = true;
        for (const auto& element : value.get_array()) {
            if (!first) {
                out += ',';
            }
            first = false;
            newline(depth + 1);
            writeJson(out, element, depth + 1);
        }
        newline(depth);
        out += ']';
    } else {
        out += boost::json::serialize(value);
    }
}

// Closes a file descriptor and, unless kept, removes the file it was made for.
class TemporaryFile {
public:
    explicit TemporaryFile(std::string pattern) : path_(std::move(pattern)) {
        std::vector<char> name(path_.begin(), path_.end());
        name.push_back('\0');
        fd_ = ::mkstemp(name.data());  // mode 0600
        path_ = name.data();
    }
    ~TemporaryFile() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        if (!kept_) {
            ::unlink(path_.c_str());
        }
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    bool valid() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    const std::string& path() const { return path_; }
    bool close() {
        const int fd = fd_;
        fd_ = -1;
        return ::close(fd) == 0;
    }
    void keep() { kept_ = true; }

private:
    std::string path_;
    int fd_ = -1;
    bool kept_ = false;
};

}  // namespace

std::string formatJson(const boost::json::value& value, bool pretty) {
    if (!pretty) {
        return boost::json::serialize(value);
    }
    std::string out;
    writeJson(out, value, 0);
    return out;
}

std::optional<VTToken> tokenInReply(const boost::json::object& reply) {
    if (const auto* token = reply.if_contains("refreshedToken"); token && token->is_object()) {
        return token->get_object();
    }
    if (const auto* result = reply.if_contains("result"); result && result->is_object()) {
        if (const auto* token = result->get_object().if_contains("VTHostToken");
            token && token->is_object()) {
            return token->get_object();
        }
    }
    return std::nullopt;
}

boost::json::object withoutToken(boost::json::object reply, std::string_view note) {
    if (auto* token = reply.if_contains("refreshedToken")) {
        *token = note;
    }
    if (auto* result = reply.if_contains("result"); result && result->is_object()) {
        if (auto* token = result->get_object().if_contains("VTHostToken")) {
            *token = note;
        }
    }
    return reply;
}

std::optional<VTError> errorInReply(const boost::json::object& reply) {
    const auto* entry = reply.if_contains("error");
    if (entry == nullptr) {
        return std::nullopt;
    }
    if (auto error = VTError::fromValue(*entry)) {
        return error;
    }
    return VTError("vthosts", 0, "the reply's error is not readable: " + formatJson(*entry, false));
}

std::string describeError(const VTError& error) {
    std::ostringstream text;
    const std::string description = error.description();
    text << "vthosts: " << (description.empty() ? "the request failed" : description) << "\n"
         << "  (" << error.domain << ", code " << error.code << ")\n";
    if (auto suggestion = error.recoverySuggestion(); suggestion && !suggestion->empty()) {
        text << "  " << *suggestion << "\n";
    }
    return text.str();
}

bool saveToken(const std::filesystem::path& path, const VTToken& token, std::string* problem) {
    auto fail = [&](const std::string& what) {
        *problem = "cannot save the token to '" + path.string() + "': " + what + ": " +
                   std::strerror(errno);
        return false;
    };
    const std::filesystem::path folder = path.has_parent_path() ? path.parent_path() : ".";
    TemporaryFile file((folder / ("." + path.filename().string() + ".XXXXXX")).string());
    if (!file.valid()) {
        return fail("cannot create a file beside it");
    }
    const std::string text = boost::json::serialize(token) + "\n";
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = ::write(file.fd(), text.data() + written, text.size() - written);
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return fail("write failed");
        }
        written += static_cast<std::size_t>(count);
    }
    if (::fsync(file.fd()) != 0) {
        return fail("write failed");
    }
    if (!file.close()) {
        return fail("write failed");
    }
    if (::rename(file.path().c_str(), path.c_str()) != 0) {
        return fail("cannot replace it");
    }
    file.keep();
    return true;
}

}  // namespace vt::client
