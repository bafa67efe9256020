// Per-connection statistics for traffic models: for each direction the
// packets, their bytes, the packet lengths' and the inter-arrival times'
// minimum, mean, maximum and standard deviation, and the TCP flags seen; and
// the first packets as (direction, length, time offset). One pass: the means
// and deviations are kept by Welford's running sums, and no packet is kept.
// A fragmented datagram counts once, as the fragment that completes it (the
// record's packet counts hold every fragment).
#ifndef KESTCAP_FLOWFEATURES_H
#define KESTCAP_FLOWFEATURES_H

#include <cstdint>
#include <string>

namespace kestcap {

// Running minimum, mean, maximum and (population) standard deviation.
struct RunningStats {
  uint64_t count = 0;
  double min = 0;
  double max = 0;
  double mean = 0;
  double m2 = 0; // the sum of squared differences from the mean

  void Add(double value);
  double Stddev() const;
};

struct FlowFeatures {
  // The TCP flag bits in header order: FIN, SYN, RST, PSH, ACK, URG, ECE, CWR.
  static constexpr int kFlags = 8;
  static constexpr int kFirst = 16;

  struct Side {
    uint64_t packets = 0;
    uint64_t bytes = 0;  // IP packet lengths, headers included
    RunningStats length; // bytes
    RunningStats gap;    // seconds since the previous packet this way
    uint64_t last_us = 0;
    uint32_t flags[kFlags] = {};
  };
  struct Early {
    uint8_t side = 0; // 0 from the client, 1 from the server
    uint32_t length = 0;
    uint64_t offset_us = 0; // since the connection's first packet
  };

  Side sides[2];
  Early first[kFirst];
  int first_count = 0;

  // One packet: its side, its IP length, its time and, for TCP, its flags.
  // `start_us` is the connection's first packet's time.
  void Add(int side, uint32_t length, uint64_t ts_us, uint64_t start_us, uint8_t tcp_flags);
};

// The names of the flag counters, as the JSON object and Python name them.
extern const char *const kFlagNames[FlowFeatures::kFlags];

// Appends `,"features":{...}` to a JSON line.
void AppendFeaturesJson(std::string &out, const FlowFeatures &features);

} // namespace kestcap

#endif
