#include "FlowLog.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>

namespace kestcap {

// The transport's name in the log, as conn logs write it; the number for
// the protocols without one.
std::string ProtoName(uint8_t protocol) {
  switch (protocol) {
  case 1:
    return "icmp";
  case 2:
    return "igmp";
  case 6:
    return "tcp";
  case 17:
    return "udp";
  case 47:
    return "gre";
  case 50:
    return "esp";
  case 58:
    return "icmp6";
  case 132:
    return "sctp";
  default:
    return std::to_string(protocol);
  }
}

namespace {

// The length of the well-formed UTF-8 sequence at text[i], or 0.
size_t Utf8Length(const std::string &text, size_t i) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
  const unsigned char c = byte(i);
  const size_t n = c >= 0xF0 && c <= 0xF4   ? 4
                   : c >= 0xE0 && c <= 0xEF ? 3
                   : c >= 0xC2 && c <= 0xDF ? 2
                                            : 0;
  if (n == 0 || i + n > text.size()) {
    return 0;
  }
  for (size_t k = 1; k < n; ++k) {
    if ((byte(i + k) & 0xC0) != 0x80) {
      return 0;
    }
  }
  // No overlong forms, surrogates or values beyond U+10FFFF.
  const unsigned char d = byte(i + 1);
  if ((c == 0xE0 && d < 0xA0) || (c == 0xED && d > 0x9F) || (c == 0xF0 && d < 0x90) ||
      (c == 0xF4 && d > 0x8F)) {
    return 0;
  }
  return n;
}

bool Plain(unsigned char c) {
  return c >= 0x20 && c < 0x7F && c != '"' && c != '\\';
}

void AppendJsonString(std::string &out, const std::string &text) {
  out += '"';
  for (size_t i = 0; i < text.size(); ++i) {
    // Runs of printable bytes go over whole.
    size_t run = i;
    while (run < text.size() && Plain(static_cast<unsigned char>(text[run]))) {
      ++run;
    }
    if (run != i) {
      out.append(text, i, run - i);
      i = run;
      if (i == text.size()) {
        break;
      }
    }
    const unsigned char c = static_cast<unsigned char>(text[i]);
    switch (c) {
    case '"':
      out += "\\\"";
      continue;
    case '\\':
      out += "\\\\";
      continue;
    case '\n':
      out += "\\n";
      continue;
    case '\r':
      out += "\\r";
      continue;
    case '\t':
      out += "\\t";
      continue;
    default:
      break;
    }
    if (c >= 0x20 && c < 0x7F) {
      out += static_cast<char>(c);
      continue;
    }
    // Well-formed UTF-8 passes as it is; any other byte (a control byte,
    // or one of a broken sequence) is written as the character of its
    // value, so that every value makes valid JSON.
    const size_t n = c >= 0x80 ? Utf8Length(text, i) : 0;
    if (n != 0) {
      out.append(text, i, n);
      i += n - 1;
      continue;
    }
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
    out += escaped;
  }
  out += '"';
}

void AppendDecimal(std::string &out, uint64_t value) {
  char text[24];
  const auto end = std::to_chars(text, text + sizeof text, value).ptr;
  out.append(text, end);
}

} // namespace

std::string Address(const kest_endpoint_t &end) {
  if (end.family != KEST_FAMILY_IPV6) {
    // The common case, without the C library's formatted printing.
    std::string text;
    for (int i = 0; i < 4; ++i) {
      if (i != 0) {
        text += '.';
      }
      AppendDecimal(text, end.address[i]);
    }
    return text;
  }
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(AF_INET6, end.address, text, sizeof text);
  return text;
}

namespace {

void AppendNumber(std::string &out, const char *key, uint64_t value) {
  out += ",\"";
  out += key;
  out += "\":";
  AppendDecimal(out, value);
}

std::string Seconds(uint64_t us) {
  std::string text;
  AppendDecimal(text, us / 1000000);
  char fraction[7];
  uint64_t rest = us % 1000000;
  for (int i = 5; i >= 0; --i) {
    fraction[i] = static_cast<char>('0' + rest % 10);
    rest /= 10;
  }
  text += '.';
  text.append(fraction, 6);
  return text;
}

} // namespace

void FlowRecord::AddAttr(const std::string &name, std::string value) {
  for (auto &attr : attrs) {
    if (attr.first == name) {
      if (name == kRisks &&
          std::find(attr.second.begin(), attr.second.end(), value) != attr.second.end()) {
        return;
      }
      attr.second.push_back(std::move(value));
      return;
    }
  }
  attrs.emplace_back(name, std::vector<std::string>{std::move(value)});
}

const std::string *FlowRecord::LastAttr(const std::string &name) const {
  for (const auto &attr : attrs) {
    if (attr.first == name && !attr.second.empty()) {
      return &attr.second.back();
    }
  }
  return nullptr;
}

const std::vector<std::string> &FlowRecord::Risks() const {
  static const std::vector<std::string> kNone;
  for (const auto &attr : attrs) {
    if (attr.first == kRisks) {
      return attr.second;
    }
  }
  return kNone;
}

bool FlowRecord::OwnField(const std::string &name) {
  return name == kServiceName || name == kServiceCategory || name == kRisks;
}

void Totals::Add(const Totals &other) {
  packets += other.packets;
  classified += other.classified;
  not_classified += other.not_classified;
  malformed += other.malformed;
  connections += other.connections;
}

std::string JsonLine(const FlowRecord &r, const std::string &app,
                     const std::vector<std::string> &stack) {
  std::string out = "{\"ts\":" + Seconds(r.first_us);
  out += ",\"duration\":" + Seconds(r.last_us - r.first_us);
  out += ",\"id.orig_h\":\"" + Address(r.client) + "\"";
  AppendNumber(out, "id.orig_p", ntohs(r.client.port));
  out += ",\"id.resp_h\":\"" + Address(r.server) + "\"";
  AppendNumber(out, "id.resp_p", ntohs(r.server.port));
  out += ",\"proto\":";
  AppendJsonString(out, ProtoName(r.protocol));
  out += ",\"app\":";
  AppendJsonString(out, app);
  for (const auto &[key, attr] :
       {std::pair{"service", kServiceName}, {"category", kServiceCategory}}) {
    out += ",\"";
    out += key;
    out += "\":";
    const std::string *value = r.LastAttr(attr);
    if (value != nullptr) {
      AppendJsonString(out, *value);
    } else {
      out += "null";
    }
  }
  out += ",\"stack\":[";
  for (size_t i = 0; i < stack.size(); ++i) {
    out += i != 0 ? "," : "";
    AppendJsonString(out, stack[i]);
  }
  out += "]";
  out += ",\"risks\":[";
  const std::vector<std::string> &risks = r.Risks();
  for (size_t i = 0; i < risks.size(); ++i) {
    out += i != 0 ? "," : "";
    AppendJsonString(out, risks[i]);
  }
  out += "]";
  AppendNumber(out, "orig_pkts", r.packets[0]);
  AppendNumber(out, "resp_pkts", r.packets[1]);
  AppendNumber(out, "orig_bytes", r.bytes[0]);
  AppendNumber(out, "resp_bytes", r.bytes[1]);
  out += ",\"attrs\":{";
  bool first = true;
  for (size_t i = 0; i < r.attrs.size(); ++i) {
    if (FlowRecord::OwnField(r.attrs[i].first)) {
      continue;
    }
    out += first ? "" : ",";
    first = false;
    AppendJsonString(out, r.attrs[i].first);
    out += ':';
    const std::vector<std::string> &values = r.attrs[i].second;
    if (values.size() == 1) {
      AppendJsonString(out, values[0]);
      continue;
    }
    out += '[';
    for (size_t j = 0; j < values.size(); ++j) {
      out += j != 0 ? "," : "";
      AppendJsonString(out, values[j]);
    }
    out += ']';
  }
  out += '}';
  if (r.features != nullptr) {
    AppendFeaturesJson(out, *r.features);
  }
  out += '}';
  return out;
}

void PrintTable(FILE *out, const AppTable &apps, const Totals &totals, double seconds) {
  std::vector<std::pair<std::string, AppRow>> rows(apps.begin(), apps.end());
  std::stable_sort(rows.begin(), rows.end(),
                   [](const auto &a, const auto &b) { return a.second.bytes > b.second.bytes; });
  std::fprintf(out, "%-20s %12s %12s %14s\n", "application", "connections", "packets", "bytes");
  for (const auto &row : rows) {
    std::fprintf(out, "%-20s %12llu %12llu %14llu\n", row.first.c_str(),
                 static_cast<unsigned long long>(row.second.connections),
                 static_cast<unsigned long long>(row.second.packets),
                 static_cast<unsigned long long>(row.second.bytes));
  }
  const double rate = seconds > 0 ? static_cast<double>(totals.packets) / seconds : 0;
  std::fprintf(out,
               "%llu packets read, %llu classified, %llu not classified, %llu malformed, "
               "%llu connections, %.3f s, %.0f packets/s",
               static_cast<unsigned long long>(totals.packets),
               static_cast<unsigned long long>(totals.classified),
               static_cast<unsigned long long>(totals.not_classified),
               static_cast<unsigned long long>(totals.malformed),
               static_cast<unsigned long long>(totals.connections), seconds, rate);
  if (totals.live) {
    std::fprintf(out, ", %llu dropped by the kernel",
                 static_cast<unsigned long long>(totals.kernel_drops));
  }
  std::fputc('\n', out);
}

void LineOutput::Write(const std::string &line) {
  std::lock_guard<std::mutex> hold(m_lock);
  std::fwrite(line.data(), 1, line.size(), m_out);
  std::fputc('\n', m_out);
  m_lines.fetch_add(1, std::memory_order_relaxed);
  m_bytes.fetch_add(line.size() + 1, std::memory_order_relaxed);
}

FILE *LineOutput::Replace(FILE *out) {
  std::lock_guard<std::mutex> hold(m_lock);
  FILE *old = m_out;
  m_out = out;
  m_bytes.store(0, std::memory_order_relaxed);
  return old;
}

void LineOutput::Flush() {
  std::lock_guard<std::mutex> hold(m_lock);
  std::fflush(m_out);
}

} // namespace kestcap
