// What kestcap keeps of a connection while it lives, and how it is written
// out: one JSON object per line (field names as in the per-connection logs
// network analysts read) and the table of applications at the end.
#ifndef KESTCAP_FLOWLOG_H
#define KESTCAP_FLOWLOG_H

#include "FlowFeatures.h"

#include <kest.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kestcap {

// The service plug-in's attributes that the lines and the table read.
constexpr const char *kServiceName = "service.name";
constexpr const char *kServiceCategory = "service.category";
constexpr const char *kRisks = "flow.risks";

// A busy capture holds tens of thousands of these at once (one map node
// each), so the fields are packed: the node fits jemalloc's 192-byte class.
struct FlowRecord {
  static constexpr int kMaxStack = 16;

  uint64_t first_us = 0;
  uint64_t last_us = 0;
  kest_endpoint_t client{};
  kest_endpoint_t server{};
  uint8_t protocol = 0; // the IP protocol
  uint8_t depth = 0;
  // The application stack's protocol indices, bottom first. The registry
  // numbers its protocols from 0 up, far below 2^16.
  uint16_t stack[kMaxStack] = {};
  uint64_t packets[2] = {}; // from the client, from the server
  uint64_t bytes[2] = {};   // transport payload bytes
  // Values by attribute name, in order of arrival. The distinct values of
  // "flow.risks" are kept here too, in order of arrival: Risks() reads them.
  std::vector<std::pair<std::string, std::vector<std::string>>> attrs;
  // With --features (or the Python package's features=True) only; shared
  // so that a sink may keep a copy of the record.
  std::shared_ptr<FlowFeatures> features;

  void AddAttr(const std::string &name, std::string value);
  // The last value of attribute `name`, or null. A better source of a
  // service name comes later and replaces a worse one.
  const std::string *LastAttr(const std::string &name) const;
  // The distinct values of "flow.risks", in order of arrival.
  const std::vector<std::string> &Risks() const;
  // Whether `name` is written beside the attributes of a line rather than
  // among them: the service, its category and the risks.
  static bool OwnField(const std::string &name);
};
// With the map's link and key: 184 bytes of node.
static_assert(sizeof(void *) != 8 || sizeof(FlowRecord) <= 176,
              "a flow record outgrew its allocation size class");

// Counts per application: the table's rows.
struct AppRow {
  uint64_t connections = 0;
  uint64_t packets = 0;
  uint64_t bytes = 0;
};
using AppTable = std::map<std::string, AppRow>;

struct Totals {
  uint64_t packets = 0;
  uint64_t classified = 0;
  uint64_t not_classified = 0;
  uint64_t malformed = 0;
  uint64_t connections = 0;
  // Live capture: the packets the kernel dropped are part of the totals.
  bool live = false;
  uint64_t kernel_drops = 0;
  void Add(const Totals &other);
};

// A record's transport as the lines name it ("tcp", "udp", ...), and an end
// point's address as text.
std::string ProtoName(uint8_t protocol);
std::string Address(const kest_endpoint_t &end);

// The JSON object of a finished connection, without the newline. `app` is
// the application's name, `stack` the stack's names bottom first; the
// service and its category stand beside the application (null when none
// is known) rather than among the attributes.
std::string JsonLine(const FlowRecord &record, const std::string &app,
                     const std::vector<std::string> &stack);

// The table, sorted by bytes, then the line of totals.
void PrintTable(FILE *out, const AppTable &apps, const Totals &totals, double seconds);

// Lines from several threads, each written whole.
class LineOutput {
public:
  explicit LineOutput(FILE *out) : m_out(out) {}
  void Write(const std::string &line);
  // Lines now go to `out` (a reopened or rotated file); the stream written
  // so far is returned for its owner to close. Bytes() counts afresh.
  FILE *Replace(FILE *out);
  void Flush();
  uint64_t Lines() const { return m_lines.load(std::memory_order_relaxed); }
  uint64_t Bytes() const { return m_bytes.load(std::memory_order_relaxed); }

private:
  std::mutex m_lock;
  FILE *m_out;
  std::atomic<uint64_t> m_lines{0};
  std::atomic<uint64_t> m_bytes{0};
};

} // namespace kestcap

#endif
