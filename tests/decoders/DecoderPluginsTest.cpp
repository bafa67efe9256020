// The whole road through the packed decoders: kest_open loads the plug-in
// folder, threads start, connections are made, classified, walked and
// destroyed through the decoders' factories, and the instance closes and
// opens again from scratch.
#include "tests/decoders/DecoderTestSupport.h"
#include "tests/support/PluginFolder.h"

#include <filesystem>
#include <set>
#include <thread>

namespace {

std::string FolderOf(const char *file) {
  return std::filesystem::path(file).parent_path().string();
}

// What a classifying thread saw: per result, its stack and code, recorded in
// the callback, where the cursor is valid.
struct Seen {
  int init = -1;
  int fini = -1;
  int destroy = 0; // the callbacks' answer
  std::vector<std::string> results;
  std::set<kest_conn_id_t> numbers;
};

int Record(kest_handle_t h, kest_result_t *result, int code, kest_conn_id_t id, void *user, int) {
  Seen *seen = static_cast<Seen *>(user);
  seen->results.push_back(kest_test::StackNames(h, *result) + " " + std::to_string(code));
  seen->numbers.insert(id);
  return seen->destroy;
}

// A TCP connection destroyed by the host's call, a UDP one by the callback's
// answer to its second packet.
void ClassifyOnThread(kest_handle_t h, Seen &seen) {
  if ((seen.init = kest_init(h)) != 0) {
    return;
  }
  kest_endpoint_t src{KEST_FAMILY_IPV6, 1, {1}}, dst{KEST_FAMILY_IPV6, 2, {2}};
  for (uint8_t protocol : {6, 17}) {
    kest_conn_t conn = nullptr;
    if (kest_conn_create(h, &src, &dst, protocol, &conn) != 0) {
      continue;
    }
    seen.destroy = 0;
    kest_classify(h, KEST_SELECTOR_CONN, "ping", 4, conn, 0, Record, &seen);
    seen.destroy = protocol == 17;
    kest_classify(h, KEST_SELECTOR_CONN, "pong", 4, conn, 1, Record, &seen);
    if (protocol == 6) {
      kest_conn_destroy(h, conn);
    }
  }
  seen.fini = kest_fini(h);
}

class DecoderPluginsTest : public kest_test::PluginFolderFixture {};

TEST_F(DecoderPluginsTest, TwoThreadsClassifyThroughThePackedDecoders) {
  // The transports alone: they are to name TCP and UDP, first.
  const std::string folder = Folder({KEST_TEST_TCP_PLG, KEST_TEST_UDP_PLG});
  long shared_after_first = -1;
  for (int round = 0; round < 2; ++round) {
    SCOPED_TRACE(round);
    const kest_handle_t h = kest_open(folder.c_str());
    ASSERT_EQ(h, 1);
    EXPECT_EQ(kest_proto_find_index(h, "TCP"), 1);
    EXPECT_EQ(kest_proto_find_index(h, "UDP"), 2);

    Seen seen[2];
    std::thread first(ClassifyOnThread, h, std::ref(seen[0]));
    std::thread second(ClassifyOnThread, h, std::ref(seen[1]));
    first.join();
    second.join();
    std::set<kest_conn_id_t> numbers;
    for (const Seen &s : seen) {
      EXPECT_EQ(s.init, 0);
      EXPECT_EQ(s.fini, 0);
      EXPECT_EQ(s.results, (std::vector<std::string>{"TCP 1", "TCP 1", "UDP 1", "UDP 1"}));
      numbers.insert(s.numbers.begin(), s.numbers.end());
    }
    EXPECT_EQ(numbers, (std::set<kest_conn_id_t>{1, 2, 3, 4}));

    ASSERT_EQ(kest_init(h), 0);
    kest_test::TakeDiag();
    EXPECT_EQ(kest_diag(h, "SYSTEM", nullptr), 0);
    const std::string report = kest_test::TakeDiag();
    for (const char *name : {"tcp ", "udp "}) {
      EXPECT_NE(report.find("Dynamic  Active", report.find(name)), std::string::npos) << report;
    }
    ASSERT_EQ(kest_fini(h), 0);
    ASSERT_EQ(kest_close(h), 0);
    EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), 0);
    // What outlives a close is made once: the second round adds nothing.
    if (round == 0) {
      shared_after_first = kest_test::LiveBlocks(kest_test::Heap::Shared);
    } else {
      EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Shared), shared_after_first);
    }
  }
}

TEST_F(DecoderPluginsTest, EntryTablesAcceptOnlyTheirMajorVersion) {
  for (const oru::PluginEntryTable *table :
       {kest_decoders::TcpEntryTable(), kest_decoders::UdpEntryTable()}) {
    SCOPED_TRACE(table->GetName());
    for (uint32_t major : {3u, 4u, 5u}) {
      const oru::VersionRecord library{major, 0, 0, 33, "13180"};
      oru::VersionRecord own{};
      EXPECT_EQ(table->GetVersion(&library, &own), major == 4);
      EXPECT_EQ(own.major, 4u);
    }
  }
}

// The plug-in that the README shows, built from the same text, loads.
TEST_F(DecoderPluginsTest, ReadmePluginLoads) {
  const kest_handle_t h = kest_open(FolderOf(KEST_TEST_HELLO_PLG).c_str());
  ASSERT_GT(h, 0);
  EXPECT_GT(kest_proto_find_index(h, "HELLO"), 0);
  ASSERT_EQ(kest_init(h), 0);
  EXPECT_EQ(kest_fini(h), 0);
  EXPECT_EQ(kest_close(h), 0);
}

} // namespace
