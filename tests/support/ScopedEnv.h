// Sets (or, with a null value, clears) an environment variable for a scope.
#ifndef KEST_TESTS_SCOPEDENV_H
#define KEST_TESTS_SCOPEDENV_H

#include <optional>
#include <stdlib.h>
#include <string>

namespace kest_test {

class ScopedEnv {
public:
  ScopedEnv(const char *name, const char *value) : name_(name) {
    if (const char *old = getenv(name)) {
      old_ = old;
    }
    Set(value);
  }
  ~ScopedEnv() { Set(old_ ? old_->c_str() : nullptr); }
  void Set(const char *value) {
    value != nullptr ? setenv(name_.c_str(), value, 1) : unsetenv(name_.c_str());
  }

private:
  std::string name_;
  std::optional<std::string> old_;
};

} // namespace kest_test

#endif
