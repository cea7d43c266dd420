#pragma once

// What many tests need around them: a temporary folder that goes away with the test, and
// environment variables set for the life of a test object.

#include <filesystem>
#include <optional>
#include <string>

namespace vt::test {

// A new folder under the temporary folder, removed with everything in it.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }
    // Writes `text` to the file `name` in the folder and returns its path.
    std::string write(const std::string& name, const std::string& text) const;

private:
    std::filesystem::path path_;
};

// Sets (or, with nullopt, removes) an environment variable and restores what was there before,
// including its absence.
class ScopedVariable {
public:
    ScopedVariable(std::string name, const std::optional<std::string>& value);
    ~ScopedVariable();
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

private:
    std::string name_;
    std::optional<std::string> previous_;
};

}  // namespace vt::test
