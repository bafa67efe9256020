#include "FanoutCapture.h"

#include "KernelDrops.h"

#include <kest.h>

#ifdef __linux__

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kestcap {

namespace {

// Each socket's ring: 32 blocks of 1 MiB. A block goes back to the kernel
// once read, or reaches kestcap after 50 ms even when not full, so that a
// quiet link still moves.
constexpr unsigned kBlockSize = 1u << 20;
constexpr unsigned kBlockCount = 32;
constexpr unsigned kFrameSize = 2048;
constexpr unsigned kBlockTimeoutMs = 50;
constexpr int kPollMs = 100;
// Room before each packet for the VLAN tag that the kernel took out of the
// frame and kestcap puts back, so that frames read as they do from a file.
constexpr int kVlanTagLength = 4;
// The kernel's counts are read after this many blocks, besides whenever
// the link is quiet.
constexpr unsigned kBlocksPerCount = 16;

std::string SystemError(const std::string &iface, const char *what) {
  return iface + ": " + what + ": " + std::strerror(errno);
}

// The fan-out program: folds the outer IPv4 or IPv6 source and destination
// addresses with exclusive or (the same value for both directions), spreads
// the result with a multiplication, and returns it; the kernel takes it
// modulo the number of sockets. Anything that is not IP goes to the first
// socket. Loads relative to the network header read the same on packets
// received and sent, whatever link header precedes it.
constexpr uint32_t kNet = static_cast<uint32_t>(SKF_NET_OFF);
const sock_filter kFanoutProgram[] = {
    BPF_STMT(BPF_LD | BPF_H | BPF_ABS, static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_PROTOCOL)),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IP, 0, 5),
    // IPv4: source at 12, destination at 16.
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kNet + 12),
    BPF_STMT(BPF_MISC | BPF_TAX, 0),
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kNet + 16),
    BPF_STMT(BPF_ALU | BPF_XOR | BPF_X, 0),
    BPF_JUMP(BPF_JMP | BPF_JA, 23, 0, 0),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IPV6, 0, 25),
    // IPv6: the eight words from 8 to 40.
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kNet + 8),
    BPF_STMT(BPF_MISC | BPF_TAX, 0),
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kNet + 12),
    BPF_STMT(BPF_ALU | BPF_XOR | BPF_X, 0),
    BPF_STMT(BPF_MISC | BPF_TAX, 0),
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kNet + 16),
    BPF_STMT(BPF_ALU | BPF_XOR | BPF_X, 0),
    BPF_STMT(BPF_MISC | BPF_TAX, 0),
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kNet + 20),
    BPF_STMT(BPF_ALU | BPF_XOR | BPF_X, 0),
    BPF_STMT(BPF_MISC | BPF_TAX, 0),
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kNet + 24),
    BPF_STMT(BPF_ALU | BPF_XOR | BPF_X, 0),
    BPF_STMT(BPF_MISC | BPF_TAX, 0),
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kNet + 28),
    BPF_STMT(BPF_ALU | BPF_XOR | BPF_X, 0),
    BPF_STMT(BPF_MISC | BPF_TAX, 0),
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kNet + 32),
    BPF_STMT(BPF_ALU | BPF_XOR | BPF_X, 0),
    BPF_STMT(BPF_MISC | BPF_TAX, 0),
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kNet + 36),
    BPF_STMT(BPF_ALU | BPF_XOR | BPF_X, 0),
    // Both: spread the folded addresses over the high half and bring it down.
    BPF_STMT(BPF_ALU | BPF_MUL | BPF_K, 0x9E3779B1u),
    BPF_STMT(BPF_ALU | BPF_RSH | BPF_K, 16),
    BPF_STMT(BPF_RET | BPF_A, 0),
    BPF_STMT(BPF_RET | BPF_K, 0),
};
static_assert(sizeof kFanoutProgram / sizeof kFanoutProgram[0] == 34);

// Takes nothing: a socket holds it until its group is complete, so that no
// packet reaches a ring before the fan-out decides for every socket.
const sock_filter kNothing[] = {BPF_STMT(BPF_RET | BPF_K, 0)};

bool Attach(int fd, const sock_filter *code, size_t length) {
  sock_fprog program{static_cast<unsigned short>(length), const_cast<sock_filter *>(code)};
  return setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) == 0;
}

} // namespace

struct FanoutCapture::Ring {
  int fd = -1;
  uint8_t *map = nullptr;
  // Ethernet frames are kept whole; on other links the packet starts at
  // its network header.
  bool ethernet = true;
  // On the loopback device every packet passes twice, out and in: only the
  // incoming copy counts.
  bool loopback = false;
  unsigned block = 0;
  tpacket_block_desc *open = nullptr;
  uint8_t *packet = nullptr;
  uint32_t left = 0;

  ~Ring() {
    if (map != nullptr) {
      munmap(map, size_t{kBlockSize} * kBlockCount);
    }
    if (fd >= 0) {
      close(fd);
    }
  }
  tpacket_block_desc *Block(unsigned i) const {
    return reinterpret_cast<tpacket_block_desc *>(map + size_t{i} * kBlockSize);
  }
  // The next packet of the ring into `frame`; false when the kernel has
  // handed over nothing more yet. `released` counts blocks given back.
  bool Next(Frame &frame, unsigned &released);
};

struct FanoutCapture::Share {
  std::vector<std::unique_ptr<Ring>> rings;
  std::vector<pollfd> fds;
  size_t turn = 0;
  unsigned released = 0;
};

bool FanoutCapture::Ring::Next(Frame &frame, unsigned &released) {
  for (;;) {
    while (left > 0) {
      auto *header = reinterpret_cast<tpacket3_hdr *>(packet);
      packet += header->tp_next_offset;
      --left;
      const auto *link = reinterpret_cast<const sockaddr_ll *>(reinterpret_cast<uint8_t *>(header) +
                                                               TPACKET_ALIGN(sizeof(tpacket3_hdr)));
      if (loopback && link->sll_pkttype == PACKET_OUTGOING) {
        continue;
      }
      uint8_t *data = reinterpret_cast<uint8_t *>(header) + header->tp_mac;
      uint32_t length = header->tp_snaplen;
      frame.ts_us = uint64_t{header->tp_sec} * 1000000u + header->tp_nsec / 1000u;
      if (!ethernet) {
        const uint16_t protocol = ntohs(link->sll_protocol);
        frame.form = protocol == ETH_P_IP || protocol == ETH_P_IPV6 ? KEST_SELECTOR_IP : 0;
      } else {
        frame.form = KEST_SELECTOR_ETHERNET;
        if ((header->tp_status & TP_STATUS_VLAN_VALID) != 0 && length >= 12) {
          // The room reserved before the frame takes the tag back.
          const uint16_t tpid = (header->tp_status & TP_STATUS_VLAN_TPID_VALID) != 0
                                    ? header->hv1.tp_vlan_tpid
                                    : ETH_P_8021Q;
          std::memmove(data - kVlanTagLength, data, 12);
          data -= kVlanTagLength;
          length += kVlanTagLength;
          data[12] = static_cast<uint8_t>(tpid >> 8);
          data[13] = static_cast<uint8_t>(tpid);
          data[14] = static_cast<uint8_t>(header->hv1.tp_vlan_tci >> 8);
          data[15] = static_cast<uint8_t>(header->hv1.tp_vlan_tci);
        }
      }
      frame.data = data;
      frame.length = length;
      return true;
    }
    if (open != nullptr) {
      __atomic_store_n(&open->hdr.bh1.block_status, TP_STATUS_KERNEL, __ATOMIC_RELEASE);
      open = nullptr;
      block = (block + 1) % kBlockCount;
      ++released;
    }
    tpacket_block_desc *next = Block(block);
    if ((__atomic_load_n(&next->hdr.bh1.block_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER) == 0) {
      return false;
    }
    open = next;
    left = next->hdr.bh1.num_pkts;
    packet = reinterpret_cast<uint8_t *>(next) + next->hdr.bh1.offset_to_first_pkt;
  }
}

FanoutCapture::FanoutCapture() = default;
FanoutCapture::~FanoutCapture() = default;

bool FanoutCapture::Available() {
  return true;
}

bool FanoutCapture::IsDevice(const std::string &name) {
  return if_nametoindex(name.c_str()) != 0;
}

bool FanoutCapture::Open(const std::vector<std::string> &interfaces, size_t workers,
                         const std::string &filter, std::string &error) {
  m_workers.clear();
  for (size_t w = 0; w < workers; ++w) {
    m_workers.push_back(std::make_unique<Share>());
  }
  for (const std::string &iface : interfaces) {
    if (!AddInterface(iface, error)) {
      return false;
    }
  }
  // Every group is complete: each socket now takes what it is given,
  // through the user's filter when there is one.
  return Filter(filter, error);
}

bool FanoutCapture::AddInterface(const std::string &iface, std::string &error) {
  if (if_nametoindex(iface.c_str()) == 0) {
    error = iface + ": no such interface";
    return false;
  }
  // The first socket makes a group with an identifier of the kernel's
  // choosing; the others of this interface join it.
  int group = -1;
  for (const auto &share : m_workers) {
    auto ring = std::make_unique<Ring>();
    if (!OpenRing(*ring, iface, error) || !Join(*ring, iface, group, error)) {
      return false;
    }
    if (group < 0) {
      int value = 0;
      socklen_t length = sizeof value;
      if (getsockopt(ring->fd, SOL_PACKET, PACKET_FANOUT, &value, &length) != 0) {
        error = SystemError(iface, "reading the fan-out group");
        return false;
      }
      group = value & 0xFFFF;
    }
    share->fds.push_back(pollfd{ring->fd, POLLIN, 0});
    share->rings.push_back(std::move(ring));
  }
  return true;
}

namespace {

// The user's filter compiled by libpcap for one link type, freed with it.
class Compiled {
public:
  Compiled() = default;
  Compiled(const Compiled &) = delete;
  Compiled &operator=(const Compiled &) = delete;
  ~Compiled() { pcap_freecode(&m_program); }
  bool Compile(const std::string &filter, int link, std::string &error) {
    pcap_t *dead = pcap_open_dead(link, 65535);
    if (dead == nullptr) {
      error = "bad filter: no memory";
      return false;
    }
    const bool ok = pcap_compile(dead, &m_program, filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) == 0;
    if (!ok) {
      error = std::string("bad filter: ") + pcap_geterr(dead);
    }
    pcap_close(dead);
    return ok;
  }
  bool AttachTo(int fd) const {
    return Attach(fd, reinterpret_cast<const sock_filter *>(m_program.bf_insns), m_program.bf_len);
  }

private:
  bpf_program m_program{};
};

} // namespace

bool FanoutCapture::Filter(const std::string &filter, std::string &error) {
  // Ethernet sockets see whole frames; the others read from the network
  // header on, and take the filter compiled for raw IP.
  Compiled ethernet;
  Compiled raw;
  bool have_ethernet = false;
  bool have_raw = false;
  for (const auto &share : m_workers) {
    for (const auto &ring : share->rings) {
      if (filter.empty()) {
        const int unused = 0;
        if (setsockopt(ring->fd, SOL_SOCKET, SO_DETACH_FILTER, &unused, sizeof unused) != 0) {
          error = std::string("removing the socket filter: ") + std::strerror(errno);
          return false;
        }
        continue;
      }
      Compiled &program = ring->ethernet ? ethernet : raw;
      bool &have = ring->ethernet ? have_ethernet : have_raw;
      if (!have && !program.Compile(filter, ring->ethernet ? DLT_EN10MB : DLT_RAW, error)) {
        return false;
      }
      have = true;
      if (!program.AttachTo(ring->fd)) {
        error = std::string("the filter was refused: ") + std::strerror(errno);
        return false;
      }
    }
  }
  return true;
}

bool FanoutCapture::OpenRing(Ring &ring, const std::string &iface, std::string &error) {
  // Protocol 0: nothing arrives before the socket is bound to its device.
  ring.fd = socket(AF_PACKET, SOCK_RAW, 0);
  if (ring.fd < 0) {
    error = SystemError(iface,
                        errno == EPERM ? "raw socket (needs CAP_NET_RAW or root)" : "raw socket");
    return false;
  }
  ifreq request{};
  std::strncpy(request.ifr_name, iface.c_str(), IFNAMSIZ - 1);
  if (ioctl(ring.fd, SIOCGIFHWADDR, &request) != 0) {
    error = SystemError(iface, "link type");
    return false;
  }
  const int link = request.ifr_hwaddr.sa_family;
  ring.ethernet = link == ARPHRD_ETHER || link == ARPHRD_LOOPBACK;
  ring.loopback = link == ARPHRD_LOOPBACK;
  if (!ring.ethernet) {
    // A cooked socket strips whatever link header the device has.
    close(ring.fd);
    ring.fd = socket(AF_PACKET, SOCK_DGRAM, 0);
    if (ring.fd < 0) {
      error = SystemError(iface, "cooked socket");
      return false;
    }
  }
  const int version = TPACKET_V3;
  const int reserve = kVlanTagLength;
  if (!Attach(ring.fd, kNothing, 1) ||
      setsockopt(ring.fd, SOL_PACKET, PACKET_VERSION, &version, sizeof version) != 0 ||
      setsockopt(ring.fd, SOL_PACKET, PACKET_RESERVE, &reserve, sizeof reserve) != 0) {
    error = SystemError(iface, "TPACKET_V3 socket");
    return false;
  }
  tpacket_req3 request3{};
  request3.tp_block_size = kBlockSize;
  request3.tp_block_nr = kBlockCount;
  request3.tp_frame_size = kFrameSize;
  request3.tp_frame_nr = kBlockSize / kFrameSize * kBlockCount;
  request3.tp_retire_blk_tov = kBlockTimeoutMs;
  if (setsockopt(ring.fd, SOL_PACKET, PACKET_RX_RING, &request3, sizeof request3) != 0) {
    error = SystemError(iface, "capture ring");
    return false;
  }
  void *map = mmap(nullptr, size_t{kBlockSize} * kBlockCount, PROT_READ | PROT_WRITE, MAP_SHARED,
                   ring.fd, 0);
  if (map == MAP_FAILED) {
    error = SystemError(iface, "mapping the capture ring");
    return false;
  }
  ring.map = static_cast<uint8_t *>(map);
  return true;
}

bool FanoutCapture::Join(Ring &ring, const std::string &iface, int group, std::string &error) {
  const unsigned ifindex = if_nametoindex(iface.c_str());
  if (ifindex == 0) {
    error = iface + ": no such interface";
    return false;
  }
  sockaddr_ll address{};
  address.sll_family = AF_PACKET;
  address.sll_protocol = htons(ETH_P_ALL);
  address.sll_ifindex = static_cast<int>(ifindex);
  if (bind(ring.fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
    error = SystemError(iface, "binding");
    return false;
  }
  packet_mreq promisc{};
  promisc.mr_ifindex = static_cast<int>(ifindex);
  promisc.mr_type = PACKET_MR_PROMISC;
  if (setsockopt(ring.fd, SOL_PACKET, PACKET_ADD_MEMBERSHIP, &promisc, sizeof promisc) != 0) {
    error = SystemError(iface, "promiscuous mode");
    return false;
  }
  // No rollover: a full ring drops rather than hand a connection's packet
  // to another worker.
  const int fanout = group < 0 ? (PACKET_FANOUT_CBPF | PACKET_FANOUT_FLAG_UNIQUEID) << 16
                               : (group | PACKET_FANOUT_CBPF << 16);
  if (setsockopt(ring.fd, SOL_PACKET, PACKET_FANOUT, &fanout, sizeof fanout) != 0) {
    error = SystemError(iface, "fan-out group");
    return false;
  }
  // The group's sockets are numbered in the order they join, so the n-th
  // socket of every interface serves worker n.
  sock_fprog program{static_cast<unsigned short>(sizeof kFanoutProgram / sizeof kFanoutProgram[0]),
                     const_cast<sock_filter *>(kFanoutProgram)};
  if (setsockopt(ring.fd, SOL_PACKET, PACKET_FANOUT_DATA, &program, sizeof program) != 0) {
    error = SystemError(iface, "fan-out program");
    return false;
  }
  return true;
}

CaptureInput::Next FanoutCapture::Read(size_t worker, Frame &frame) {
  Share &share = *m_workers[worker];
  const size_t n = share.rings.size();
  for (;;) {
    for (size_t k = 0; k < n; ++k) {
      const size_t i = (share.turn + k) % n;
      if (share.rings[i]->Next(frame, share.released)) {
        // The next call starts on the next interface, so a busy one cannot
        // starve the others.
        share.turn = (i + 1) % n;
        if (share.released >= kBlocksPerCount) {
          CountDrops(share);
        }
        return CaptureInput::Next::kFrame;
      }
    }
    if (m_stop.load(std::memory_order_relaxed)) {
      CountDrops(share);
      return CaptureInput::Next::kEnd;
    }
    const int ready = poll(share.fds.data(), share.fds.size(), kPollMs);
    if (ready == 0) {
      CountDrops(share);
      return CaptureInput::Next::kTimeout;
    }
    if (ready < 0 && errno != EINTR) {
      CountDrops(share);
      return CaptureInput::Next::kEnd;
    }
  }
}

void FanoutCapture::CountDrops(Share &share) {
  share.released = 0;
  for (const auto &ring : share.rings) {
    tpacket_stats_v3 stats{};
    socklen_t length = sizeof stats;
    if (getsockopt(ring->fd, SOL_PACKET, PACKET_STATISTICS, &stats, &length) == 0 &&
        stats.tp_drops != 0) {
      AddKernelDrops(stats.tp_drops);
    }
  }
}

} // namespace kestcap

#else // not Linux: live capture goes through libpcap alone.

namespace kestcap {

struct FanoutCapture::Ring {};
struct FanoutCapture::Share {};

FanoutCapture::FanoutCapture() = default;
FanoutCapture::~FanoutCapture() = default;

bool FanoutCapture::Available() {
  return false;
}

bool FanoutCapture::IsDevice(const std::string &) {
  return false;
}

bool FanoutCapture::Open(const std::vector<std::string> &, size_t, const std::string &,
                         std::string &error) {
  error = "per-worker capture needs Linux's AF_PACKET";
  return false;
}

CaptureInput::Next FanoutCapture::Read(size_t, Frame &) {
  return CaptureInput::Next::kEnd;
}

void FanoutCapture::CountDrops(Share &) {}

} // namespace kestcap

#endif
