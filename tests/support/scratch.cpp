#include "scratch.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <system_error>

namespace vt::test {

TemporaryFolder::TemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "vt-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), "mkdtemp");
    }
    path_ = pattern;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryFolder::write(const std::string& name, const std::string& text) const {
    const std::filesystem::path file = path_ / name;
    std::ofstream(file, std::ios::binary) << text;
    return file.string();
}

ScopedVariable::ScopedVariable(std::string name, const std::optional<std::string>& value)
    : name_(std::move(name)) {
    if (const char* previous = std::getenv(name_.c_str())) {
        previous_ = previous;
    }
    if (value) {
        ::setenv(name_.c_str(), value->c_str(), 1);
    } else {
        ::unsetenv(name_.c_str());
    }
}

ScopedVariable::~ScopedVariable() {
    if (previous_) {
        ::setenv(name_.c_str(), previous_->c_str(), 1);
    } else {
        ::unsetenv(name_.c_str());
    }
}

}  // namespace vt::test
