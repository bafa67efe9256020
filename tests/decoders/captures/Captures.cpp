// The shared captures (beside the project, skipped where they are not):
// every packet parsed without a fault, and replayed through the packet
// decoder with one answer each. Built apart from the other tests, as the
// only ones that need libpcap.
#include "tests/decoders/wire/WireTestSupport.h"

#include "wire/WireParser.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <pcap/pcap.h>

namespace {

using kest_decoders::PacketForm;
using kest_decoders::ParsedPacket;
using kest_decoders::ParseResult;
using kest_test::Record;
using kest_test::Result;
using kest_test::WirePluginTest;

using Visit = std::function<void(PacketForm form, const uint8_t *data, uint32_t length)>;

// Calls `visit` with every packet of every capture whose link type maps to a
// packet form (NULL and LOOP as IP behind their 4-byte header), each in an
// allocation of its own so that a read past it is caught. False without
// captures.
bool EveryPacket(const Visit &visit) {
  const std::filesystem::path folder = KEST_TEST_PCAP_DIR;
  if (!std::filesystem::is_directory(folder)) {
    return false;
  }
  for (const auto &entry : std::filesystem::directory_iterator(folder)) {
    char error[PCAP_ERRBUF_SIZE];
    pcap_t *pcap = pcap_open_offline(entry.path().c_str(), error);
    if (pcap == nullptr) {
      continue;
    }
    PacketForm form = PacketForm::kIp;
    uint32_t skip = 0;
    switch (pcap_datalink(pcap)) {
    case DLT_EN10MB:
      form = PacketForm::kEthernet;
      break;
    case DLT_LINUX_SLL:
      form = PacketForm::kLinuxSll;
      break;
    case DLT_RAW:
    case DLT_IPV4:
    case DLT_IPV6:
      break;
    case DLT_NULL:
    case DLT_LOOP:
      skip = 4;
      break;
    default:
      pcap_close(pcap);
      continue;
    }
    pcap_pkthdr *header;
    const u_char *data;
    while (pcap_next_ex(pcap, &header, &data) == 1) {
      if (header->caplen <= skip || header->caplen - skip > 0xFFFF) {
        continue;
      }
      const uint32_t n = header->caplen - skip;
      std::unique_ptr<uint8_t[]> copy(new uint8_t[n]);
      std::copy(data + skip, data + header->caplen, copy.get());
      visit(form, copy.get(), n);
    }
    pcap_close(pcap);
  }
  return true;
}

TEST(CapturesTest, ParseWithoutFault) {
  long packets = 0, parsed = 0;
  const bool found = EveryPacket([&](PacketForm form, const uint8_t *data, uint32_t n) {
    ParsedPacket p;
    const ParseResult r = ParsePacket(form, data, n, p);
    ++packets;
    parsed += r == ParseResult::kOk;
    if (r == ParseResult::kOk && p.payload_length != 0) {
      ASSERT_GE(p.payload, data);
      ASSERT_LE(p.payload + p.payload_length, data + n);
    }
  });
  if (!found) {
    GTEST_SKIP() << "no shared captures at " << KEST_TEST_PCAP_DIR;
  }
  EXPECT_GT(packets, 1000);
  EXPECT_GT(parsed, packets / 2);
}

// Every packet gets exactly one answer, and closing gives every block back.
TEST_F(WirePluginTest, SharedCapturesReplay) {
  const kest_handle_t h = OpenAll();
  long packets = 0, answers = 0, classified = 0;
  const bool found = EveryPacket([&](PacketForm form, const uint8_t *data, uint32_t n) {
    std::vector<Result> results;
    ++packets;
    if (kest_classify(h, static_cast<int>(form), data, static_cast<uint16_t>(n), nullptr, 0, Record,
                      &results) == 0) {
      answers += static_cast<long>(results.size());
      classified += !results.empty() && results[0].code != 0;
    }
  });
  EXPECT_EQ(kest_fini(h), 0);
  EXPECT_EQ(kest_close(h), 0);
  if (!found) {
    GTEST_SKIP() << "no shared captures at " << KEST_TEST_PCAP_DIR;
  }
  EXPECT_GT(packets, 1000);
  EXPECT_EQ(answers, packets);
  EXPECT_GT(classified, packets / 2);
  EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), 0);
}

} // namespace
