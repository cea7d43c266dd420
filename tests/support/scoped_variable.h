#pragma once

// ScopedVariable: sets an environment variable for the life of a test object and restores what
// was there before (including its absence).

#include <optional>
#include <string>

namespace vt::test {

class ScopedVariable {
public:
    ScopedVariable(std::string name, const std::string& value);
    ~ScopedVariable();
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

private:
    std::string name_;
    std::optional<std::string> previous_;
};

}  // namespace vt::test
