// The I/O floor of a whole-tool run: libpcap reads every record of a capture
// and nothing else happens. kestcap cannot be faster than this on the same
// file, so its packets/s are quoted beside this program's.
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <pcap/pcap.h>

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: kest_pcap_floor FILE\n");
    return 1;
  }
  char error[PCAP_ERRBUF_SIZE];
  // The same stdio buffer as kestcap gives libpcap, so that the floor reads
  // the way kestcap does.
  static char buffer[1 << 20];
  FILE *file = std::fopen(argv[1], "rb");
  if (file != nullptr) {
    std::setvbuf(file, buffer, _IOFBF, sizeof buffer);
  }
  pcap_t *pcap = file != nullptr ? pcap_fopen_offline(file, error) : nullptr;
  if (pcap == nullptr) {
    std::fprintf(stderr, "kest_pcap_floor: %s: %s\n", argv[1],
                 file == nullptr ? std::strerror(errno) : error);
    return 2;
  }
  const auto start = std::chrono::steady_clock::now();
  unsigned long long packets = 0, bytes = 0, sum = 0;
  pcap_pkthdr *header;
  const u_char *data;
  while (pcap_next_ex(pcap, &header, &data) == 1) {
    ++packets;
    bytes += header->caplen;
    // Touch the packet, as any reader of it would.
    sum += header->caplen != 0 ? data[header->caplen - 1] : 0;
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  pcap_close(pcap);
  std::printf("%llu packets read, %llu bytes, %.3f s, %.0f packets/s (%llu)\n", packets, bytes,
              seconds, seconds > 0 ? static_cast<double>(packets) / seconds : 0.0, sum & 1);
  return 0;
}
