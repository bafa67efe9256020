#include "FlowFeatures.h"

#include <charconv>
#include <cmath>

namespace kestcap {

const char *const kFlagNames[FlowFeatures::kFlags] = {"fin", "syn", "rst", "psh",
                                                      "ack", "urg", "ece", "cwr"};

void RunningStats::Add(double value) {
  ++count;
  if (count == 1) {
    min = max = mean = value;
    m2 = 0;
    return;
  }
  min = value < min ? value : min;
  max = value > max ? value : max;
  const double delta = value - mean;
  mean += delta / static_cast<double>(count);
  m2 += delta * (value - mean);
}

double RunningStats::Stddev() const {
  return count > 1 ? std::sqrt(m2 / static_cast<double>(count)) : 0.0;
}

void FlowFeatures::Add(int side, uint32_t length, uint64_t ts_us, uint64_t start_us,
                       uint8_t tcp_flags) {
  Side &s = sides[side != 0 ? 1 : 0];
  if (s.packets != 0) {
    // Captures merged from several taps go back in time now and then: a
    // gap is never less than nothing.
    s.gap.Add(ts_us > s.last_us ? static_cast<double>(ts_us - s.last_us) / 1e6 : 0.0);
  }
  if (s.packets == 0 || ts_us > s.last_us) {
    s.last_us = ts_us;
  }
  ++s.packets;
  s.bytes += length;
  s.length.Add(length);
  for (int bit = 0; bit < kFlags; ++bit) {
    s.flags[bit] += (tcp_flags >> bit) & 1u;
  }
  if (first_count < kFirst) {
    first[first_count++] = {static_cast<uint8_t>(side != 0 ? 1 : 0), length,
                            ts_us > start_us ? ts_us - start_us : 0};
  }
}

namespace {

void AppendNumber(std::string &out, double value) {
  char text[32];
  // The shortest text that reads back as the same double.
  const auto end = std::to_chars(text, text + sizeof text, value).ptr;
  out.append(text, end);
}

void AppendNumber(std::string &out, uint64_t value) {
  char text[24];
  const auto end = std::to_chars(text, text + sizeof text, value).ptr;
  out.append(text, end);
}

void AppendStats(std::string &out, const char *name, const RunningStats &stats) {
  const std::string prefix = std::string(",\"") + name + "_";
  for (const auto &[key, value] : {std::pair{"min", stats.min},
                                   {"mean", stats.mean},
                                   {"max", stats.max},
                                   {"std", stats.Stddev()}}) {
    out += prefix;
    out += key;
    out += "\":";
    AppendNumber(out, value);
  }
}

} // namespace

void AppendFeaturesJson(std::string &out, const FlowFeatures &f) {
  out += ",\"features\":{";
  for (int i = 0; i < 2; ++i) {
    const FlowFeatures::Side &s = f.sides[i];
    out += i == 0 ? "\"orig\":{\"pkts\":" : ",\"resp\":{\"pkts\":";
    AppendNumber(out, s.packets);
    out += ",\"ip_bytes\":";
    AppendNumber(out, s.bytes);
    AppendStats(out, "len", s.length);
    AppendStats(out, "iat", s.gap);
    for (int bit = 0; bit < FlowFeatures::kFlags; ++bit) {
      out += ",\"";
      out += kFlagNames[bit];
      out += "\":";
      AppendNumber(out, uint64_t{s.flags[bit]});
    }
    out += '}';
  }
  out += ",\"first\":[";
  for (int i = 0; i < f.first_count; ++i) {
    out += i != 0 ? ",[" : "[";
    AppendNumber(out, uint64_t{f.first[i].side});
    out += ',';
    AppendNumber(out, uint64_t{f.first[i].length});
    out += ',';
    AppendNumber(out, static_cast<double>(f.first[i].offset_us) / 1e6);
    out += ']';
  }
  out += "]}";
}

} // namespace kestcap
