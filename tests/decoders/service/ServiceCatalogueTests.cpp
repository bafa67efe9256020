// The service catalogue and the learned-names store: the table of
// catalogue_cases.txt, a differential run of the matcher against a plain
// scan of every suffix, the built-in catalogue's own lines, the store's
// expiry and bound, and a DNS answer with a CNAME chain read into it.
#include "dns/DnsMessage.h"
#include "service/Catalogue.h"
#include "service/LearnedNames.h"
#include "tests/decoders/DataRows.h"
#include "tests/support/PluginFolder.h"
#include "tests/support/StackNames.h"
#include "tests/support/TestHooks.h"

#include <kest.h>

#include <arpa/inet.h>
#include <cstdio>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

class Hooks : public ::testing::Environment {
public:
  void SetUp() override { kest_test::InstallHooks(); }
};
const ::testing::Environment *const g_hooks = ::testing::AddGlobalTestEnvironment(new Hooks);

using kest_service::Catalogue;
using kest_service::LearnedNames;

std::string Join(const std::vector<std::string> &words, size_t from = 0) {
  std::string out;
  for (size_t i = from; i < words.size(); ++i) {
    out += (i == from ? "" : " ") + words[i];
  }
  return out;
}

std::string NameOf(const Catalogue &c, int index) {
  return index < 0 ? "-" : c.At(index).name;
}

oru::IpAddr Address(const std::string &text) {
  uint8_t bytes[16] = {};
  if (inet_pton(AF_INET, text.c_str(), bytes) == 1) {
    return oru::IpAddr::FromV4(ntohl(*reinterpret_cast<uint32_t *>(bytes)));
  }
  EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), bytes), 1) << text;
  return oru::IpAddr::FromV6(bytes);
}

void LoadTable(Catalogue &c) {
  for (const char *kind : {"line", "user"}) {
    std::string text;
    for (const auto &row : kest_test::DataRows(KEST_TEST_SERVICE_CASES, kind)) {
      text += Join(row) + "\n";
    }
    unsigned skipped = 0;
    ASSERT_TRUE(c.Load(text.data(), text.size(), &skipped));
    EXPECT_EQ(skipped, 0u);
  }
}

TEST(ServiceCatalogue, Table) {
  Catalogue c;
  LoadTable(c);
  for (const auto &row : kest_test::DataRows(KEST_TEST_SERVICE_CASES, "bad")) {
    const std::string line = Join(row);
    unsigned skipped = 0;
    const uint32_t before = c.services();
    EXPECT_TRUE(c.Load(line.data(), line.size(), &skipped));
    EXPECT_EQ(skipped, 1u) << line;
    EXPECT_EQ(c.services(), before) << line;
  }
  for (const auto &row : kest_test::DataRows(KEST_TEST_SERVICE_CASES, "match")) {
    const std::string name = row[0] == "-" ? "" : row[0];
    uint64_t key = 0;
    const int found = c.Match(name.data(), name.size(), &key);
    EXPECT_EQ(NameOf(c, found), row[1]) << name;
    if (found >= 0) {
      EXPECT_EQ(c.ByKey(key), found) << name;
    }
  }
  for (const auto &row : kest_test::DataRows(KEST_TEST_SERVICE_CASES, "address")) {
    EXPECT_EQ(NameOf(c, c.MatchAddress(Address(row[0]))), row[1]) << row[0];
  }
  // A user's line for a known service changes its category.
  const int retired = c.Match("retired.example", 15);
  ASSERT_GE(retired, 0);
  EXPECT_STREQ(c.At(retired).category, "cdn");
}

// The matcher against the plain reading of its rule: of the suffixes that
// end the name on a label boundary, in any case, the longest.
TEST(ServiceCatalogue, AgreesWithAScanOfEverySuffix) {
  std::mt19937 random(29);
  const char *labels[] = {"a", "b", "cd", "Cd", "e-f", "g1", "com", "net"};
  auto name = [&](int most) {
    std::string out;
    const int n = 1 + static_cast<int>(random() % static_cast<unsigned>(most));
    for (int i = 0; i < n; ++i) {
      out += (i == 0 ? "" : ".") + std::string(labels[random() % 8]);
    }
    return out;
  };
  auto lower = [](std::string s) {
    for (char &ch : s) {
      ch = static_cast<char>(tolower(static_cast<unsigned char>(ch)));
    }
    return s;
  };
  std::vector<std::pair<std::string, int>> suffixes; // latest line wins
  std::string text;
  Catalogue c;
  for (int i = 0; i < 300; ++i) {
    const std::string suffix = name(3);
    text += "S" + std::to_string(i) + " | web | " + suffix + "\n";
    bool known = false;
    for (auto &[s, service] : suffixes) {
      if (s == lower(suffix)) {
        service = i;
        known = true;
      }
    }
    if (!known) {
      suffixes.emplace_back(lower(suffix), i);
    }
  }
  ASSERT_TRUE(c.Load(text.data(), text.size()));
  for (int i = 0; i < 5000; ++i) {
    const std::string query = name(5) + (random() % 4 == 0 ? "." : "");
    std::string plain = lower(query);
    if (!plain.empty() && plain.back() == '.') {
      plain.pop_back();
    }
    int want = -1;
    size_t longest = 0;
    for (const auto &[s, service] : suffixes) {
      const bool ends = plain.size() >= s.size() &&
                        plain.compare(plain.size() - s.size(), s.size(), s) == 0 &&
                        (plain.size() == s.size() || plain[plain.size() - s.size() - 1] == '.');
      if (ends && s.size() > longest) {
        longest = s.size();
        want = service;
      }
    }
    const int got = c.Match(query.data(), query.size());
    EXPECT_EQ(got < 0 ? -1 : std::stoi(c.At(got).name + 1), want) << query;
  }
}

// The address match against a scan of every range: the longest range that
// holds the address, the later of two equal ones.
TEST(ServiceCatalogue, AddressesAgreeWithAScanOfEveryRange) {
  std::mt19937 random(5);
  struct Plain {
    uint32_t base;
    int bits;
    int service;
  };
  std::vector<Plain> ranges;
  std::string text;
  for (int i = 0; i < 400; ++i) {
    const int bits = 8 + static_cast<int>(random() % 25);
    const uint32_t base = (0x0A000000u | (random() & 0x00FFFFFFu)) & (~0u << (32 - bits));
    text += "R" + std::to_string(i) + " | web | | " + std::to_string(base >> 24) + "." +
            std::to_string(base >> 16 & 255) + "." + std::to_string(base >> 8 & 255) + "." +
            std::to_string(base & 255) + "/" + std::to_string(bits) + "\n";
    bool known = false;
    for (Plain &r : ranges) {
      if (r.base == base && r.bits == bits) {
        r.service = i;
        known = true;
      }
    }
    if (!known) {
      ranges.push_back({base, bits, i});
    }
  }
  Catalogue c;
  unsigned skipped = 0;
  ASSERT_TRUE(c.Load(text.data(), text.size(), &skipped));
  ASSERT_EQ(skipped, 0u);
  for (int i = 0; i < 20000; ++i) {
    const uint32_t address = 0x0A000000u | (random() & 0x00FFFFFFu);
    int want = -1;
    int longest = -1;
    for (const Plain &r : ranges) {
      if ((address & (~0u << (32 - r.bits))) == r.base && r.bits > longest) {
        longest = r.bits;
        want = r.service;
      }
    }
    const int got = c.MatchAddress(oru::IpAddr::FromV4(address));
    ASSERT_EQ(got < 0 ? -1 : std::stoi(c.At(got).name + 1), want) << std::hex << address;
  }
}

// Every line of the built-in catalogue reads, and the services the shared
// captures name most are there.
TEST(ServiceCatalogue, BuiltInLinesAllRead) {
  std::ifstream in(KEST_TEST_SERVICE_CATALOGUE);
  std::stringstream text;
  text << in.rdbuf();
  Catalogue c;
  unsigned skipped = 0;
  ASSERT_TRUE(c.Load(text.str().data(), text.str().size(), &skipped));
  EXPECT_EQ(skipped, 0u);
  EXPECT_GE(c.services(), 150u);
  const std::pair<const char *, const char *> known[] = {
      {"www.youtube.com", "YouTube"},
      {"r1---sn-5f5nxgvh5o-hjul.googlevideo.com", "YouTube"},
      {"www.amazon.com", "Amazon"},
      {"s3-external-2.amazonaws.com", "AWS"},
      {"upload.wikimedia.org", "Wikipedia"},
      {"preview.redd.it", "Reddit"},
      {"teams.microsoft.com", "Microsoft Teams"}};
  for (const auto &[host, service] : known) {
    EXPECT_EQ(NameOf(c, c.Match(host, strlen(host))), service) << host;
  }
}

// Any one allocation failing leaves a catalogue that matches what it took,
// and nothing leaks.
TEST(ServiceCatalogue, AllocationFailureKeepsWhatWasLoaded) {
  const std::string text = "A | web | a.example\nB | web | b.example | 10.0.0.0/8\n"
                           "C | web | c.example d.example\n";
  bool done = false;
  for (long n = 1; !done && n < 100; ++n) {
    {
      Catalogue c;
      kest_test::FailNthAllocation(n);
      done = c.Load(text.data(), text.size());
      kest_test::FailNthAllocation(0);
      const int a = c.Match("a.example", 9);
      EXPECT_TRUE(a < 0 || NameOf(c, a) == "A");
    }
    EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), 0) << n;
  }
  EXPECT_TRUE(done);
}

TEST(LearnedNames, ExpiresAndHoldsItsBound) {
  LearnedNames *store = LearnedNames::Create();
  ASSERT_NE(store, nullptr);
  const oru::IpAddr v4 = Address("192.0.2.7");
  const oru::IpAddr v6 = Address("2001:db8::7");
  store->Learn(v4, 11, 60, 1000);
  store->Learn(v6, 12, 1 << 30, 1000); // capped
  EXPECT_EQ(store->Find(v4, 1060), 11u);
  EXPECT_EQ(store->Find(v4, 1061), 0u);
  EXPECT_EQ(store->Find(v6, 1000 + LearnedNames::kMaxTtl), 12u);
  EXPECT_EQ(store->Find(v6, 1001 + LearnedNames::kMaxTtl), 0u);
  EXPECT_EQ(store->Find(Address("192.0.2.8"), 1000), 0u);
  // A fresher answer for an address replaces the older one.
  store->Learn(v4, 13, 60, 1030);
  EXPECT_EQ(store->Find(v4, 1080), 13u);
  // Far more addresses than slots: the store keeps at most its slots, and
  // the latest answers stay findable.
  for (uint32_t i = 0; i < 4 * LearnedNames::kSlots; ++i) {
    store->Learn(oru::IpAddr::FromV4(0x0A000000u + i), 100 + i, 300, 2000 + i / 1024);
  }
  EXPECT_LE(store->Alive(2000), LearnedNames::kSlots);
  const uint32_t last = 4 * LearnedNames::kSlots - 1;
  EXPECT_EQ(store->Find(oru::IpAddr::FromV4(0x0A000000u + last), 2100), 100u + last);
  LearnedNames::Destroy(store);
}

// An answer that reaches its addresses through a CNAME chain: every address
// serves the name asked for (dnsmasq's answer for api.netflix.com, a CNAME
// to www.netflix.com at 127.0.0.2).
TEST(LearnedNames, CnameChainServesTheQuestion) {
  const kest_test::Bytes answer = kest_test::HexBytes(
      "fc0a8580000100020000000003617069076e6574666c697803636f6d0000010001c00c000500010000012c00"
      "1103777777076e6574666c697803636f6d00c02d000100010000012c00047f000002");
  static kest_dns::Summary m;
  ASSERT_EQ(kest_dns::Parse(answer.data(), answer.size(), m), kest_dns::Verdict::kDns);
  ASSERT_EQ(m.address_count, 1u);
  EXPECT_EQ(m.addresses[0].ttl, 300u);
  Catalogue c;
  const std::string text = "Netflix | streaming | netflix.com\n";
  ASSERT_TRUE(c.Load(text.data(), text.size()));
  uint64_t key = 0;
  ASSERT_GE(c.Match(m.query, m.query_length, &key), 0);
  LearnedNames *store = LearnedNames::Create();
  ASSERT_NE(store, nullptr);
  const kest_dns::AnswerAddress &a = m.addresses[0];
  store->Learn(oru::IpAddr::FromV4(static_cast<uint32_t>(a.bytes[0]) << 24 | a.bytes[1] << 16 |
                                   a.bytes[2] << 8 | a.bytes[3]),
               key, a.ttl, 50);
  EXPECT_EQ(NameOf(c, c.ByKey(store->Find(Address("127.0.0.2"), 100))), "Netflix");
  LearnedNames::Destroy(store);
}

// The plug-in on a classifying thread: the user catalogue named at the
// thread's start wins over the built-in one, and a new file named while the
// thread runs serves the connections that start after the next idle pass.
std::string g_service;

int OnService(kest_handle_t, kest_conn_id_t, int, int length, const void *value, int, void *) {
  g_service.assign(static_cast<const char *>(value), static_cast<size_t>(length));
  return 0;
}

// A DNS question for www.youtube.com from 10.0.0.1:`port` to 10.0.0.2:53.
std::vector<uint8_t> Question(uint16_t port) {
  std::vector<uint8_t> dns =
      kest_test::HexBytes("1111010000010000000000000377777707796f757475626503636f6d0000010001");
  const size_t udp = 8 + dns.size();
  std::vector<uint8_t> p = {0x45,
                            0,
                            0,
                            static_cast<uint8_t>(20 + udp),
                            0,
                            0,
                            0x40,
                            0,
                            64,
                            17,
                            0,
                            0,
                            10,
                            0,
                            0,
                            1,
                            10,
                            0,
                            0,
                            2,
                            static_cast<uint8_t>(port >> 8),
                            static_cast<uint8_t>(port),
                            0,
                            53,
                            0,
                            static_cast<uint8_t>(udp),
                            0,
                            0};
  p.insert(p.end(), dns.begin(), dns.end());
  return p;
}

class ServicePlugin : public kest_test::PluginFolderFixture {};

TEST_F(ServicePlugin, UserCatalogueAtStartAndOnChange) {
  const std::string first = testing::TempDir() + "services_first.txt";
  const std::string second = testing::TempDir() + "services_second.txt";
  std::ofstream(first) << "Tube | music | youtube.com\nnot a line\n";
  std::ofstream(second) << "Vids | streaming | www.youtube.com\n";
  const kest_handle_t h =
      kest_open(Folder({KEST_TEST_TCP_PLG, KEST_TEST_UDP_PLG, KEST_TEST_WIRE_PLG, KEST_TEST_DNS_PLG,
                        KEST_TEST_SERVICE_PLG})
                    .c_str());
  ASSERT_GT(h, 0);
  ASSERT_EQ(kest_config_set(h, "service.catalogue", first.c_str()), 0);
  ASSERT_EQ(kest_init(h), 0);
  ASSERT_EQ(kest_attr_callback_set(h, "service.name", OnService), 0) << kest_test::TakeLog();
  kest_idle(h);
  const std::pair<const char *, const char *> steps[] = {
      {nullptr, "Tube"}, {second.c_str(), "Vids"}, {"", "YouTube"}};
  uint16_t port = 40000;
  for (const auto &[file, want] : steps) {
    if (file != nullptr) {
      ASSERT_EQ(kest_config_set(h, "service.catalogue", file), 0);
      kest_idle(h);
    }
    g_service.clear();
    std::vector<uint8_t> packet = Question(port++);
    std::string stack;
    kest_classify(h, KEST_SELECTOR_IP, packet.data(), static_cast<uint16_t>(packet.size()), nullptr,
                  0, kest_test::LastStack, &stack);
    EXPECT_EQ(stack, "UDP/DNS");
    EXPECT_EQ(g_service, want);
  }
  EXPECT_EQ(kest_fini(h), 0);
  EXPECT_EQ(kest_close(h), 0);
  std::remove(first.c_str());
  std::remove(second.c_str());
}

} // namespace
