// Where packets come from: a capture file (pcap or pcapng, "-" for standard
// input) or a live interface, through libpcap. Each link type is mapped to
// one of the library's packet forms, stripping the link header the library
// does not take (NULL, LOOP and Linux cooked capture v2 become IP packets,
// and so do NFLOG, PPP, HDLC and 802.11 frames: LinkHeader.h).
#ifndef KESTCAP_CAPTUREINPUT_H
#define KESTCAP_CAPTUREINPUT_H

#include <cstdint>
#include <memory>
#include <pcap/pcap.h>
#include <string>

namespace kestcap {

struct Frame {
  uint64_t ts_us;
  // KEST_SELECTOR_IP, _ETHERNET or _LINUX_SLL; 0 for a frame the library
  // takes in no form (a non-IP frame behind a stripped link header).
  int form;
  const uint8_t *data;
  uint32_t length;
};

class CaptureInput {
public:
  enum class Next { kFrame, kTimeout, kEnd, kCutShort };

  CaptureInput() = default;
  ~CaptureInput();
  CaptureInput(const CaptureInput &) = delete;
  CaptureInput &operator=(const CaptureInput &) = delete;

  // False with `error` set: the file or interface cannot be opened, the
  // filter does not compile, or the link type is not one kestcap maps.
  bool OpenFile(const std::string &path, const std::string &filter, std::string &error);
  bool OpenLive(const std::string &iface, const std::string &filter, std::string &error);

  // The next frame; kTimeout only live (nothing arrived for a while);
  // kCutShort when the file ends in the middle of a record (Error() says
  // how).
  Next Read(Frame &frame);
  // Closes the capture; Read may not be called any more. Teardown calls
  // (a live capture's ring is taken down) are kept off the classifying
  // threads: kestcap's service thread makes them.
  void Close();
  // Makes a live Read return kEnd (from a signal handler too).
  void Stop();

  bool Live() const { return m_live; }
  // Bytes of the file read so far and its size; 0 when unknown (a pipe).
  uint64_t Offset() const;
  uint64_t Size() const { return m_size; }
  std::string Error() const;
  // Packets dropped so far by the kernel for want of buffer space and by
  // the interface, live only; false when the capture cannot tell.
  bool Drops(uint64_t &kernel, uint64_t &interface);
  // Live: adds the drops libpcap reports since the last call to the
  // process-wide count (KernelDrops.h). libpcap reads the interface's
  // counters from files, so the service thread calls it, never a reader
  // inside the sandbox.
  void CountDrops();

private:
  bool Setup(const std::string &filter, std::string &error);

  pcap_t *m_pcap = nullptr;
  // The file's stdio buffer; freed after the capture closes its file.
  std::unique_ptr<char[]> m_buffer;
  int m_link = 0;
  bool m_live = false;
  uint64_t m_size = 0;
  uint64_t m_dropped = 0;
};

} // namespace kestcap

#endif
