// kestcap's progress line on a terminal (standard error): for a file of
// known size, how far the reading got; for live capture, packets taken,
// their rate and the packets the kernel dropped.
#ifndef KESTCAP_PROGRESS_H
#define KESTCAP_PROGRESS_H

#include <chrono>
#include <cstdint>

namespace kestcap {

class CaptureInput;

class Progress {
public:
  // `input` null: live capture by fan-out, whose packets the caller counts.
  Progress(const CaptureInput *input, bool live);
  // The reader's count of packets so far; cheap enough for every packet.
  void Tick(uint64_t packets) {
    if (m_on && (packets & m_mask) == 0) {
      Show(packets);
    }
  }
  // Shows the line now if it is due (a quiet live link, or a thread that
  // only watches the workers).
  void Show(uint64_t packets);
  // Clears the line.
  void Done();

private:
  const CaptureInput *m_input;
  const bool m_live;
  const bool m_on;
  // A file's line is looked at every 65536 packets, a live one every 256.
  const uint64_t m_mask;
  const std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point m_last = m_start;
};

} // namespace kestcap

#endif
