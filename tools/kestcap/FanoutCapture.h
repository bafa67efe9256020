// Live capture across cores on Linux: for each interface, one AF_PACKET
// socket per worker, each with its own TPACKET_V3 ring mapped into kestcap,
// all of an interface's sockets in one fan-out group. The kernel hands each
// packet to one socket of the group, so every worker reads and classifies
// its own share with no reader thread and no copy in between.
//
// The kernel picks the socket with a small classic BPF program that folds
// the outer IP source and destination addresses into one number, the same
// whichever way round they are: both directions of a connection, all the
// fragments of its datagrams (which carry no ports after the first) and
// every flow inside a tunnel reach the same worker. The kernel's own
// flow-hash mode is symmetric too, but hashes the ports where it finds them
// and the addresses alone in a fragment, so a datagram's fragments and the
// unfragmented packets of its connection may part; its defragmenting flag
// mends that for IPv4 only, and hands kestcap whole datagrams rather than
// the fragments on the wire. It also looks inside IP-in-IP and GRE, so a
// tunnel's own flow would spread over the workers. As the program depends
// on nothing but the packet, a connection seen on two interfaces also lands
// on the same worker of each.
#ifndef KESTCAP_FANOUTCAPTURE_H
#define KESTCAP_FANOUTCAPTURE_H

#include "CaptureInput.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace kestcap {

class FanoutCapture {
public:
  FanoutCapture();
  ~FanoutCapture();
  FanoutCapture(const FanoutCapture &) = delete;
  FanoutCapture &operator=(const FanoutCapture &) = delete;

  // Whether this build reads with AF_PACKET at all (Linux only).
  static bool Available();
  // Whether `name` is a network device, as AF_PACKET needs; libpcap's own
  // capture sources (such as "any" or "nflog:N") are not.
  static bool IsDevice(const std::string &name);

  // Opens `workers` sockets on each interface, with the BPF `filter` (empty:
  // every packet) on each. False with `error` set when an interface is
  // missing, its link type is not one kestcap maps, the filter does not
  // compile, or the system refuses a socket, its ring or the fan-out group
  // (raw sockets need CAP_NET_RAW).
  bool Open(const std::vector<std::string> &interfaces, size_t workers, const std::string &filter,
            std::string &error);

  // Worker `worker`'s next frame, on that worker's own thread only: kFrame,
  // kTimeout after a tenth of a second without one, kEnd once Stop was
  // called and the worker's rings are empty. The frame's bytes stay valid
  // until the worker's next Read.
  CaptureInput::Next Read(size_t worker, Frame &frame);
  // Makes every Read return kEnd once its rings are empty (from a signal
  // handler too).
  void Stop() { m_stop.store(true, std::memory_order_relaxed); }

  size_t Workers() const { return m_workers.size(); }

private:
  struct Ring;
  struct Share;
  // A socket per worker on `iface`, all in one new fan-out group.
  bool AddInterface(const std::string &iface, std::string &error);
  // A socket on `iface` with its ring mapped, taking nothing yet.
  bool OpenRing(Ring &ring, const std::string &iface, std::string &error);
  // Binds the socket to `iface` and joins fan-out group `group` (a new
  // group when negative).
  bool Join(Ring &ring, const std::string &iface, int group, std::string &error);
  // Replaces the placeholder that takes nothing with the user's filter, or
  // with none.
  bool Filter(const std::string &filter, std::string &error);
  // Adds the kernel's counts of worker `worker`'s sockets since the last
  // call to the process-wide drop count.
  void CountDrops(Share &share);

  std::vector<std::unique_ptr<Share>> m_workers;
  std::atomic<bool> m_stop{false};
};

} // namespace kestcap

#endif
