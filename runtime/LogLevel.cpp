#include "runtime/LogLevel.h"

#include <kest/Configuration.h>
#include <kest/Runtime.h>

#include <new>

namespace oru {

namespace {

const char kLogLevelKey[] = "system.loglevel";

ThreadLocalKey g_log_observer;
SlotRegistration g_log_observer_reg(g_log_observer);

// Accepts "0" and anything that reads as 1 or more.
bool ValidateLogLevel(const fdt::string & /*key*/, const fdt::string & /*old_value*/,
                      const fdt::string &new_value) {
  return kest_atoi(new_value.c_str()) >= 1 || kest_strcmp(new_value.c_str(), "0") == 0;
}

// Follows changes of the level on its thread. Made with the global allocator,
// which is how it is released when its last subscription goes.
class LogObserver : public fdt::refcnt {
public:
  static void *operator new(size_t size, const std::nothrow_t &tag) noexcept {
    return ::operator new(size, tag);
  }
  static void operator delete(void *block) noexcept { ::operator delete(block); }

  // A change clears only the lowest bit, unlike the start-up value, which
  // clears the two lowest.
  void OnLogLevelChange(const fdt::string & /*key*/, const fdt::string & /*old_value*/,
                        const fdt::string &new_value) {
    log_flags = static_cast<unsigned>(kest_atoi(new_value.c_str())) & ~1u;
    kest_printf("setting level %d\n", static_cast<int>(log_flags));
  }
};

} // namespace

bool LogLevel::InitInstance() {
  Configuration::RegisterValidator(kLogLevelKey, ValidateLogLevel);
  return Configuration::SetItem(kLogLevelKey, "48");
}

bool LogLevel::InitThread() {
  LogObserver *observer = new (std::nothrow) LogObserver();
  if (observer == nullptr) {
    return false;
  }
  fdt::intrusive_ptr<LogObserver> hold(observer);
  ThreadPointer<LogObserver>(g_log_observer) = observer;
  Configuration *config = Configuration::Instance();
  if (config == nullptr || !config->Subscribe(kLogLevelKey, observer,
                                              MakeConfigMethod(&LogObserver::OnLogLevelChange))) {
    ThreadPointer<LogObserver>(g_log_observer) = nullptr;
    return false;
  }
  log_flags = static_cast<unsigned>(kest_atoi(Configuration::GetItem(kLogLevelKey).c_str())) & ~3u;
  return true;
}

void LogLevel::ExitThread() {
  ThreadPointer<LogObserver>(g_log_observer) = nullptr;
}

} // namespace oru
