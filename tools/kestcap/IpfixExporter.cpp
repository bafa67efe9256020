#include "IpfixExporter.h"

#include <cstring>
#include <ctime>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kestcap {

namespace {

constexpr uint16_t kVersion = 10;
constexpr uint16_t kTemplateSetId = 2;
constexpr uint16_t kTemplateV4 = 256;
constexpr uint16_t kTemplateV6 = 257;
constexpr uint32_t kObservationDomain = 1;
// RFC 5103: a forward element's number under this enterprise number is
// the same element for the reverse direction.
constexpr uint32_t kReverse = 29305;
constexpr uint16_t kVariable = 65535;
// The longest string a record carries, so that any record fits a message
// whatever the names.
constexpr size_t kMaxString = 254;

struct Field {
  uint16_t id;
  uint16_t length;
  uint32_t enterprise;
};

// The elements of both templates in record order; the addresses are
// sourceIPv4Address (8) and destinationIPv4Address (12), or their IPv6
// forms (27, 28).
constexpr Field kFields[] = {
    {0, 0, 0},   // source address
    {0, 0, 0},   // destination address
    {7, 2, 0},   // sourceTransportPort
    {11, 2, 0},  // destinationTransportPort
    {4, 1, 0},   // protocolIdentifier
    {152, 8, 0}, // flowStartMilliseconds
    {153, 8, 0}, // flowEndMilliseconds
    {2, 8, 0},   // packetDeltaCount, client to server
    // transportOctetDeltaCount: payload bytes, as kestcap counts them
    {401, 8, 0},
    {2, 8, kReverse},                           // reversePacketDeltaCount
    {401, 8, kReverse},                         // reverseTransportOctetDeltaCount
    {96, kVariable, 0},                         // applicationName
    {1, kVariable, IpfixExporter::kEnterprise}, // the protocol stack, "IP/TCP/HTTP"
    {2, kVariable, IpfixExporter::kEnterprise}, // the service name, empty when none
};

void Put8(std::string &out, uint8_t v) {
  out += static_cast<char>(v);
}
void Put16(std::string &out, uint16_t v) {
  Put8(out, static_cast<uint8_t>(v >> 8));
  Put8(out, static_cast<uint8_t>(v));
}
void Put32(std::string &out, uint32_t v) {
  Put16(out, static_cast<uint16_t>(v >> 16));
  Put16(out, static_cast<uint16_t>(v));
}
void Put64(std::string &out, uint64_t v) {
  Put32(out, static_cast<uint32_t>(v >> 32));
  Put32(out, static_cast<uint32_t>(v));
}
void Set16(std::string &out, size_t at, uint16_t v) {
  out[at] = static_cast<char>(v >> 8);
  out[at + 1] = static_cast<char>(v);
}

// A string of variable length: one length byte below 255 (the only form a
// string cut to kMaxString needs), cut on a UTF-8 character's start.
void PutString(std::string &out, const std::string &text) {
  size_t n = text.size();
  if (n > kMaxString) {
    n = kMaxString;
    while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) {
      --n;
    }
  }
  Put8(out, static_cast<uint8_t>(n));
  out.append(text, 0, n);
}

std::string TemplateSet() {
  std::string set;
  Put16(set, kTemplateSetId);
  Put16(set, 0);
  for (const uint16_t id : {kTemplateV4, kTemplateV6}) {
    Put16(set, id);
    Put16(set, static_cast<uint16_t>(std::size(kFields)));
    for (size_t i = 0; i < std::size(kFields); ++i) {
      Field f = kFields[i];
      if (i < 2) {
        f.id = id == kTemplateV4 ? (i == 0 ? 8 : 12) : (i == 0 ? 27 : 28);
        f.length = id == kTemplateV4 ? 4 : 16;
      }
      Put16(set, static_cast<uint16_t>(f.id | (f.enterprise != 0 ? 0x8000 : 0)));
      Put16(set, f.length);
      if (f.enterprise != 0) {
        Put32(set, f.enterprise);
      }
    }
  }
  Set16(set, 2, static_cast<uint16_t>(set.size()));
  return set;
}

const std::string &Templates() {
  static const std::string set = TemplateSet();
  return set;
}

} // namespace

IpfixExporter::~IpfixExporter() {
  Close(stderr);
}

bool IpfixExporter::Open(const std::string &target, std::string &error) {
  error = "--ipfix wants HOST:PORT or [IPV6]:PORT, not \"" + target + "\"";
  const size_t colon = target.rfind(':');
  if (colon == std::string::npos || colon == 0 || colon + 1 == target.size()) {
    return false;
  }
  std::string host = target.substr(0, colon);
  const std::string port = target.substr(colon + 1);
  if (host.front() == '[') {
    if (host.size() < 3 || host.back() != ']') {
      return false;
    }
    host = host.substr(1, host.size() - 2);
  } else if (host.find(':') != std::string::npos) {
    return false;
  }
  addrinfo hints{};
  hints.ai_socktype = SOCK_DGRAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo *found = nullptr;
  const int got = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
  if (got != 0) {
    error = "--ipfix " + target + ": " + gai_strerror(got);
    return false;
  }
  for (addrinfo *a = found; a != nullptr && m_socket < 0; a = a->ai_next) {
    m_socket = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
    if (m_socket >= 0 && connect(m_socket, a->ai_addr, a->ai_addrlen) != 0) {
      close(m_socket);
      m_socket = -1;
    }
  }
  freeaddrinfo(found);
  if (m_socket < 0) {
    error = "--ipfix " + target + ": " + std::strerror(errno);
    return false;
  }
  m_last_templates = std::chrono::steady_clock::now();
  m_timer = std::thread([this] { TimerLoop(); });
  return true;
}

void IpfixExporter::Add(const FlowRecord &r, const std::string &app,
                        const std::vector<std::string> &stack, const std::string *service) {
  const bool v6 = r.client.family == KEST_FAMILY_IPV6;
  std::string record;
  record.append(reinterpret_cast<const char *>(r.client.address), v6 ? 16 : 4);
  record.append(reinterpret_cast<const char *>(r.server.address), v6 ? 16 : 4);
  // The ports are in network order already. Other protocols key their
  // connections by other numbers in the same place (an ICMP echo's
  // identifier, an ESP security parameter index), which collectors would
  // read as ports, or as an ICMP type and code: they send 0.
  const bool ports = r.protocol == 6 || r.protocol == 17 || r.protocol == 132;
  const uint16_t none = 0;
  record.append(reinterpret_cast<const char *>(ports ? &r.client.port : &none), 2);
  record.append(reinterpret_cast<const char *>(ports ? &r.server.port : &none), 2);
  Put8(record, r.protocol);
  Put64(record, r.first_us / 1000);
  Put64(record, r.last_us / 1000);
  Put64(record, r.packets[0]);
  Put64(record, r.bytes[0]);
  Put64(record, r.packets[1]);
  Put64(record, r.bytes[1]);
  PutString(record, app);
  std::string joined;
  for (const std::string &name : stack) {
    joined += (joined.empty() ? "" : "/") + name;
  }
  PutString(record, joined);
  PutString(record, service != nullptr ? *service : std::string());

  std::lock_guard<std::mutex> hold(m_lock);
  if (m_socket < 0) {
    return;
  }
  // Room for the header, the templates and two set headers.
  const size_t used = 16 + Templates().size() + 8 + m_sets[0].size() + m_sets[1].size();
  if (used + record.size() > kMessageBytes) {
    SendLocked(false);
  }
  if (m_sets[0].empty() && m_sets[1].empty()) {
    m_first_held = std::chrono::steady_clock::now();
  }
  m_sets[v6 ? 1 : 0] += record;
  ++m_held;
}

void IpfixExporter::SendLocked(bool templates_only) {
  const auto now = std::chrono::steady_clock::now();
  const bool templates = !m_templates_sent || templates_only ||
                         m_since_templates >= kTemplateMessages ||
                         now - m_last_templates >= std::chrono::seconds(kTemplateSeconds);
  if (!templates && m_held == 0) {
    return;
  }
  std::string message;
  Put16(message, kVersion);
  Put16(message, 0); // the length, below
  Put32(message, static_cast<uint32_t>(std::time(nullptr)));
  Put32(message, m_sequence);
  Put32(message, kObservationDomain);
  if (templates) {
    message += Templates();
  }
  for (int i = 0; i < 2; ++i) {
    if (!m_sets[i].empty()) {
      Put16(message, i == 0 ? kTemplateV4 : kTemplateV6);
      Put16(message, static_cast<uint16_t>(4 + m_sets[i].size()));
      message += m_sets[i];
      m_sets[i].clear();
    }
  }
  Set16(message, 2, static_cast<uint16_t>(message.size()));
  // A collector that is not there yet refuses on a connected socket; the
  // records are lost as they would be on the way, and counted.
  if (send(m_socket, message.data(), message.size(), 0) != static_cast<ssize_t>(message.size())) {
    ++m_failed;
  }
  ++m_messages;
  m_records += m_held;
  m_sequence += static_cast<uint32_t>(m_held);
  m_held = 0;
  if (templates) {
    m_templates_sent = true;
    m_last_templates = now;
    m_since_templates = 0;
  } else {
    ++m_since_templates;
  }
}

void IpfixExporter::TimerLoop() {
  std::unique_lock<std::mutex> hold(m_lock);
  while (!m_stop) {
    m_wake.wait_for(hold, std::chrono::seconds(1));
    if (m_stop) {
      break;
    }
    const auto now = std::chrono::steady_clock::now();
    if (m_held != 0 && now - m_first_held >= std::chrono::seconds(1)) {
      SendLocked(false);
    } else if (now - m_last_templates >= std::chrono::seconds(kTemplateSeconds)) {
      SendLocked(true);
    }
  }
}

void IpfixExporter::Close(FILE *log) {
  {
    std::lock_guard<std::mutex> hold(m_lock);
    if (m_socket < 0) {
      return;
    }
    m_stop = true;
  }
  m_wake.notify_all();
  if (m_timer.joinable()) {
    m_timer.join();
  }
  std::lock_guard<std::mutex> hold(m_lock);
  if (m_held != 0) {
    SendLocked(false);
  }
  close(m_socket);
  m_socket = -1;
  if (log != nullptr) {
    std::fprintf(log, "ipfix: %llu messages, %llu records sent, %llu sends failed\n",
                 static_cast<unsigned long long>(m_messages),
                 static_cast<unsigned long long>(m_records),
                 static_cast<unsigned long long>(m_failed));
  }
}

} // namespace kestcap
