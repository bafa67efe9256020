// "system.loglevel": the setting behind each thread's oru::log_flags.
#ifndef KEST_RUNTIME_LOGLEVEL_H
#define KEST_RUNTIME_LOGLEVEL_H

namespace oru {

class LogLevel {
public:
  // Instance start-up: the validator, then the default "48".
  static bool InitInstance();
  // Thread start-up: the thread's observer and its first mask (the two lowest
  // bits cleared). False without memory.
  static bool InitThread();
  // Drops this thread's observer slot (its subscription goes with the
  // configuration's thread exit).
  static void ExitThread();
};

} // namespace oru

#endif
