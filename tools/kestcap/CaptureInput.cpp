#include "CaptureInput.h"

#include "KernelDrops.h"
#include "LinkHeader.h"

#include <cstdio>
#include <kest.h>
#include <sys/stat.h>
#ifdef __linux__
#include <stdio_ext.h>
#endif

namespace kestcap {

namespace {

constexpr int kSnapLength = 65535;
constexpr size_t kFileBuffer = 1 << 20;
// libpcap's numbers for the Linux cooked-capture v2 link type, which older
// headers do not name.
constexpr int kLinkSll2 = 276;

uint16_t Be16(const uint8_t *p) {
  return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

} // namespace

CaptureInput::~CaptureInput() {
  Close();
}

void CaptureInput::Close() {
  if (m_pcap != nullptr) {
    pcap_close(m_pcap);
    m_pcap = nullptr;
  }
  m_buffer.reset();
}

bool CaptureInput::OpenFile(const std::string &path, const std::string &filter,
                            std::string &error) {
  char text[PCAP_ERRBUF_SIZE] = "";
  // libpcap reads a file through stdio, whose buffer is a page: a read(2)
  // every 4 KiB, each one through the sandbox's filter once it is on. A
  // larger buffer makes those calls 256 times fewer (a fifth of a run's time
  // on a large capture).
  FILE *file = path == "-" ? nullptr : std::fopen(path.c_str(), "rb");
  if (file != nullptr) {
    m_buffer = std::make_unique<char[]>(kFileBuffer);
    std::setvbuf(file, m_buffer.get(), _IOFBF, kFileBuffer);
    // Only the reading thread ever touches the file, and libpcap reads it
    // twice a packet: in a process of more than one thread (kestcap always
    // has two), each read would take and give back the stream's lock.
#ifdef __linux__
    __fsetlocking(file, FSETLOCKING_BYCALLER);
#endif
    m_pcap = pcap_fopen_offline(file, text);
    if (m_pcap == nullptr) {
      std::fclose(file);
    }
  } else {
    m_pcap = pcap_open_offline(path.c_str(), text);
  }
  if (m_pcap == nullptr) {
    // libpcap names the file itself where the system refused it.
    error = std::string(text).rfind(path, 0) == 0 ? text : path + ": " + text;
    return false;
  }
  struct stat info;
  if (path != "-" && stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) {
    m_size = static_cast<uint64_t>(info.st_size);
  }
  if (!Setup(filter, error)) {
    error = path + ": " + error;
    return false;
  }
  return true;
}

bool CaptureInput::OpenLive(const std::string &iface, const std::string &filter,
                            std::string &error) {
  char text[PCAP_ERRBUF_SIZE] = "";
  m_live = true;
  m_pcap = pcap_create(iface.c_str(), text);
  if (m_pcap == nullptr) {
    error = iface + ": " + text;
    return false;
  }
  pcap_set_snaplen(m_pcap, kSnapLength);
  pcap_set_promisc(m_pcap, 1);
  pcap_set_timeout(m_pcap, 100);
  if (pcap_activate(m_pcap) < 0) {
    error = iface + ": " + pcap_geterr(m_pcap);
    return false;
  }
  if (!Setup(filter, error)) {
    error = iface + ": " + error;
    return false;
  }
  return true;
}

bool CaptureInput::Setup(const std::string &filter, std::string &error) {
  m_link = pcap_datalink(m_pcap);
  switch (m_link) {
  case DLT_EN10MB:
  case DLT_LINUX_SLL:
  case kLinkSll2:
  case DLT_RAW:
  case DLT_IPV4:
  case DLT_IPV6:
  case DLT_NULL:
  case DLT_LOOP:
    break;
  default: {
    if (LinkHeader::Reads(m_link)) {
      break;
    }
    const char *name = pcap_datalink_val_to_name(m_link);
    error = std::string("link type ") + (name != nullptr ? name : std::to_string(m_link)) +
            " is not supported";
    return false;
  }
  }
  if (!filter.empty()) {
    bpf_program program;
    if (pcap_compile(m_pcap, &program, filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
      error = std::string("bad filter: ") + pcap_geterr(m_pcap);
      return false;
    }
    const int set = pcap_setfilter(m_pcap, &program);
    pcap_freecode(&program);
    if (set != 0) {
      error = std::string("filter refused: ") + pcap_geterr(m_pcap);
      return false;
    }
  }
  return true;
}

CaptureInput::Next CaptureInput::Read(Frame &frame) {
  pcap_pkthdr *header;
  const u_char *data;
  const int got = pcap_next_ex(m_pcap, &header, &data);
  if (got == 0) {
    return Next::kTimeout;
  }
  if (got == PCAP_ERROR_BREAK) {
    return Next::kEnd;
  }
  if (got < 0) {
    return m_live ? Next::kEnd : Next::kCutShort;
  }
  frame.ts_us = static_cast<uint64_t>(header->ts.tv_sec) * 1000000u +
                static_cast<uint64_t>(header->ts.tv_usec);
  frame.data = data;
  frame.length = header->caplen;
  switch (m_link) {
  case DLT_EN10MB:
    frame.form = KEST_SELECTOR_ETHERNET;
    break;
  case DLT_LINUX_SLL:
    frame.form = KEST_SELECTOR_LINUX_SLL;
    break;
  case kLinkSll2: {
    // 20 bytes, the protocol type first.
    const bool ip = frame.length > 20 && (Be16(data) == 0x0800 || Be16(data) == 0x86DD);
    frame.form = ip ? KEST_SELECTOR_IP : 0;
    frame.data += ip ? 20 : 0;
    frame.length -= ip ? 20 : 0;
    break;
  }
  case DLT_NULL:
  case DLT_LOOP: {
    // A 4-byte address family, in the writer's byte order for NULL and in
    // network order for LOOP: IPv4 is 2, IPv6 one of 24, 28 or 30.
    uint32_t family = 0;
    if (frame.length > 4) {
      family = m_link == DLT_LOOP ? static_cast<uint32_t>(Be16(data + 2))
                                  : (data[0] != 0 ? data[0] : data[3]);
    }
    const bool ip = family == 2 || family == 24 || family == 28 || family == 30;
    frame.form = ip ? KEST_SELECTOR_IP : 0;
    frame.data += ip ? 4 : 0;
    frame.length -= ip ? 4 : 0;
    break;
  }
  default: {
    if (!LinkHeader::Reads(m_link)) {
      frame.form = KEST_SELECTOR_IP;
      break;
    }
    // NFLOG, PPP, HDLC and 802.11: IP behind a header of its own.
    uint32_t header = 0;
    const bool ip = LinkHeader::Strip(m_link, data, frame.length, header);
    frame.form = ip ? KEST_SELECTOR_IP : 0;
    frame.data += ip ? header : 0;
    frame.length -= ip ? header : 0;
    break;
  }
  }
  return Next::kFrame;
}

void CaptureInput::CountDrops() {
  pcap_stat stats{};
  if (!m_live || m_pcap == nullptr || pcap_stats(m_pcap, &stats) != 0) {
    return;
  }
  // Dropped for want of room, and by the interface itself.
  const uint64_t dropped = uint64_t{stats.ps_drop} + stats.ps_ifdrop;
  if (dropped > m_dropped) {
    AddKernelDrops(dropped - m_dropped);
    m_dropped = dropped;
  }
}

void CaptureInput::Stop() {
  if (m_pcap != nullptr) {
    pcap_breakloop(m_pcap);
  }
}

uint64_t CaptureInput::Offset() const {
  FILE *file = m_live || m_pcap == nullptr ? nullptr : pcap_file(m_pcap);
  const long at = file != nullptr ? ftell(file) : -1;
  return at > 0 ? static_cast<uint64_t>(at) : 0;
}

std::string CaptureInput::Error() const {
  return m_pcap != nullptr ? pcap_geterr(m_pcap) : "";
}

bool CaptureInput::Drops(uint64_t &kernel, uint64_t &interface) {
  pcap_stat stat{};
  if (!m_live || m_pcap == nullptr || pcap_stats(m_pcap, &stat) != 0) {
    return false;
  }
  kernel = stat.ps_drop;
  interface = stat.ps_ifdrop;
  return true;
}

} // namespace kestcap
