// Finished connections sent to a flow collector as IPFIX (RFC 7011) over
// UDP, one bidirectional record each (RFC 5103): the client's address and
// port as the source, the server's as the destination, and the counts of
// the server's side in the reverse information elements (enterprise number
// 29305). Beside the five-tuple and the start and end times, a record names
// the application (RFC 6759 applicationName) and carries kestcap's
// protocol stack and service name in elements of its own enterprise number
// (docs/ipfix.md lists the templates).
//
// Collectors over UDP may start, restart or lose a datagram at any time:
// the templates go out with the first message, then again every
// kTemplateSeconds and every kTemplateMessages messages. Records wait in
// one message until it is full or a second has passed, so that a live
// capture's flows reach the collector soon after they end.
#ifndef KESTCAP_IPFIXEXPORTER_H
#define KESTCAP_IPFIXEXPORTER_H

#include "FlowLog.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kestcap {

class IpfixExporter {
public:
  static constexpr int kTemplateSeconds = 60;
  static constexpr int kTemplateMessages = 100;
  // Messages stay below a common path MTU's payload.
  static constexpr size_t kMessageBytes = 1400;
  // The enterprise number of kestcap's own elements: 32473 is the one
  // IANA keeps for documentation (RFC 5612), a placeholder until the
  // project registers its own.
  static constexpr uint32_t kEnterprise = 32473;

  IpfixExporter() = default;
  ~IpfixExporter();
  IpfixExporter(const IpfixExporter &) = delete;
  IpfixExporter &operator=(const IpfixExporter &) = delete;

  // Resolves `target` ("HOST:PORT", "[IPV6]:PORT") and starts the timer.
  // False with `error` set when it is not such a pair or does not resolve.
  bool Open(const std::string &target, std::string &error);

  // Adds the record of a finished connection (from any thread). `service`
  // may be null.
  void Add(const FlowRecord &record, const std::string &app, const std::vector<std::string> &stack,
           const std::string *service);

  // Sends the records held, stops the timer and says on `log` what was
  // sent (messages, records, failed sends). Called by the destructor too.
  void Close(FILE *log);

private:
  // Appends the message of the held records (with templates when due) and
  // sends it; with the lock held.
  void SendLocked(bool templates_only);
  void TimerLoop();

  int m_socket = -1;
  std::mutex m_lock;
  std::condition_variable m_wake;
  bool m_stop = false;
  std::thread m_timer;
  // The data sets' bodies held for the next message, IPv4 and IPv6.
  std::string m_sets[2];
  std::chrono::steady_clock::time_point m_first_held;
  std::chrono::steady_clock::time_point m_last_templates;
  int m_since_templates = 0;
  bool m_templates_sent = false;
  uint64_t m_held = 0;     // records in m_sets
  uint32_t m_sequence = 0; // data records sent, as the header counts them
  uint64_t m_messages = 0;
  uint64_t m_records = 0;
  uint64_t m_failed = 0;
};

} // namespace kestcap

#endif
