// Library changes while a capture runs: settings, custom protocols and
// custom rules, made by a control thread of their own at fixed points of the
// packet stream, so that a run can show how changes reach the classifying
// threads (and that they do so safely) and still be repeated exactly.
//
// A changes file holds one change per line, blank lines and lines starting
// with "#" aside:
//   N config KEY=VALUE
//   N proto-add NAME          N proto-remove NAME
//   N rule-add PROTO MODULE TEXT
//   N rule-remove PROTO MODULE TEXT
// A change numbered N is made after N packets were handed on and before the
// next one is; the reader waits for it. The same verbs (less the number)
// serve the command-line options before the first packet.
#ifndef KESTCAP_CHANGES_H
#define KESTCAP_CHANGES_H

#include <kest.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kestcap {

struct Change {
  uint64_t at = 0;
  std::string verb;
  std::string argument;
};

// Makes one change; false with `error` set to one line when the library
// refuses it or the argument is malformed.
bool ApplyChange(kest_handle_t h, const std::string &verb, const std::string &argument,
                 std::string &error);

// Reads a changes file, sorted by packet number (stable). False with `error`
// naming the line.
bool LoadChanges(const std::string &path, std::vector<Change> &out, std::string &error);

// The control thread. Before the reader hands on packet n + 1 it asks
// Due(n); when changes are due, it lets the classifying threads finish the
// packets they hold and calls Make(n), which returns once every change
// numbered up to n has been made. Refusals are printed as warnings and
// counted; the run goes on.
class ChangeThread {
public:
  ChangeThread(kest_handle_t h, std::vector<Change> changes);
  ~ChangeThread();
  ChangeThread(const ChangeThread &) = delete;
  ChangeThread &operator=(const ChangeThread &) = delete;

  bool Due(uint64_t packets) const {
    return m_next < m_changes.size() && m_changes[m_next].at <= packets;
  }
  void Make(uint64_t packets);
  size_t Refused() const { return m_refused; }

private:
  void Loop();

  kest_handle_t m_h;
  std::vector<Change> m_changes;
  // Reader side: the first change not yet made.
  size_t m_next = 0;
  std::mutex m_lock;
  std::condition_variable m_wake;
  // Under m_lock: changes up to `m_until` (exclusive index) are to be made;
  // `m_done` is the index the control thread has reached.
  size_t m_until = 0;
  size_t m_done = 0;
  bool m_stop = false;
  size_t m_refused = 0;
  std::thread m_thread;
};

} // namespace kestcap

#endif
