// EnvironmentVariable: sets or removes a variable of this process, and restores it at the end.
#pragma once

#include <cstdlib>
#include <optional>
#include <string>
#include <utility>

namespace Support {

class EnvironmentVariable {
 public:
  EnvironmentVariable(std::string name, const std::optional<std::string>& value) : name_(std::move(name)) {
    if (const char* const before = std::getenv(name_.c_str())) {
      before_ = before;
    }
    set(value);
  }
  EnvironmentVariable(const EnvironmentVariable&) = delete;
  EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;
  ~EnvironmentVariable() { set(before_); }

 private:
  void set(const std::optional<std::string>& value) const {
    value ? setenv(name_.c_str(), value->c_str(), 1) : unsetenv(name_.c_str());
  }

  const std::string name_;
  std::optional<std::string> before_;
};

}  // namespace Support
