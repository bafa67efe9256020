#include "Progress.h"

#include "CaptureInput.h"
#include "KernelDrops.h"

#include <cstdio>
#include <unistd.h>

namespace kestcap {

Progress::Progress(const CaptureInput *input, bool live)
    : m_input(input), m_live(live),
      m_on(isatty(2) != 0 && (live || (input != nullptr && input->Size() != 0))),
      m_mask(live ? 0xFF : 0xFFFF) {}

void Progress::Show(uint64_t packets) {
  if (!m_on) {
    return;
  }
  const auto now = std::chrono::steady_clock::now();
  if (now - m_last < std::chrono::milliseconds(500)) {
    return;
  }
  m_last = now;
  const double seconds = std::chrono::duration<double>(now - m_start).count();
  const double rate = seconds > 0 ? static_cast<double>(packets) / seconds : 0.0;
  if (m_live) {
    std::fprintf(stderr, "\rkestcap: %llu packets, %.0f packets/s, %llu dropped by the kernel ",
                 static_cast<unsigned long long>(packets), rate,
                 static_cast<unsigned long long>(KernelDrops()));
    return;
  }
  std::fprintf(stderr, "\rkestcap: %3.0f%% of %.1f MB, %.0f packets/s ",
               100.0 * static_cast<double>(m_input->Offset()) /
                   static_cast<double>(m_input->Size()),
               static_cast<double>(m_input->Size()) / 1e6, rate);
}

void Progress::Done() {
  if (m_on) {
    std::fprintf(stderr, "\r\033[K");
  }
}

} // namespace kestcap
