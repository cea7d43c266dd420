#include "scoped_variable.h"

#include <cstdlib>

namespace vt::test {

ScopedVariable::ScopedVariable(std::string name, const std::string& value)
    : name_(std::move(name)) {
    if (const char* previous = std::getenv(name_.c_str())) {
        previous_ = previous;
    }
    ::setenv(name_.c_str(), value.c_str(), 1);
}

ScopedVariable::~ScopedVariable() {
    if (previous_) {
        ::setenv(name_.c_str(), previous_->c_str(), 1);
    } else {
        ::unsetenv(name_.c_str());
    }
}

}  // namespace vt::test
