// The decoders' conversation tables: every packed decoder in one folder, and
// every case of every tests/decoders/*/*.conv file run on a fresh connection
// through the host API, as a host sees it. A case must end with its stack
// and exactly its attributes, in order of delivery. The same case must end
// the same
//   - over IPv6 as over IPv4,
//   - with each TCP step cut in two at every byte (lines, records and
//     hellos are read from the reassembled stream),
// and with any one allocation failing, or any step cut short, or any one
// byte of a step changed, the run must neither crash nor leak (the
// sanitizers watch the reads). Steps are cut and changed at every byte of
// their first 128, and at about 128 places spread over the rest.
//
// Format of a .conv file, one case per block, blank lines and # between:
//   case <what>                 begins a case
//   tcp <port> | udp <port>     a connection, to the server's port; a case
//                               may have several, one after the other, each
//                               from its own client port
//   c <text> | s <text>         a step from the client (side 0) or server;
//                               C escapes: \r \n \t \0 \\ \xNN
//   cx <hex> | sx <hex>         a step given in hex
//   to <address>                the connection's server address, IPv4 or
//                               IPv6, in both runs (the client's is
//                               10.0.0.1 or 2001:db8::1)
//   stack <A/B/C>               the stack the connection's last packet
//                               reports
//   attr <name> <value>         an attribute, in order of delivery (a value
//                               handed over in pieces counts whole); a case
//                               lists every value of the attributes its
//                               file names anywhere, and only those
//   config <key> <value>        a policy setting for this case (back to "1"
//                               after it)
//   v4                          addresses matter: no IPv6 run
#include "tests/decoders/DataRows.h"
#include "tests/support/LeakCheck.h"
#include "tests/support/PluginFolder.h"
#include "tests/support/StackNames.h"

#include <algorithm>
#include <arpa/inet.h>
#include <ctype.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Step {
  int side;
  std::string bytes;
};

struct Connection {
  uint8_t transport = 6;
  uint16_t port = 0;
  std::vector<Step> steps;
  std::string stack;
  // The server's address when not the usual one, in the family it is
  // written in.
  std::string to;
};

struct Case {
  std::string file;
  std::string what;
  std::vector<Connection> conns;
  std::vector<std::string> attrs;
  std::vector<std::pair<std::string, std::string>> config;
  bool v4_only = false;
};

std::vector<Case> Load() {
  std::vector<Case> cases;
  std::vector<std::filesystem::path> files;
  for (const auto &entry : std::filesystem::recursive_directory_iterator(KEST_TEST_CONV_DIR)) {
    if (entry.path().extension() == ".conv") {
      files.push_back(entry.path());
    }
  }
  std::sort(files.begin(), files.end());
  for (const auto &path : files) {
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
      if (line.empty() || line[0] == '#') {
        continue;
      }
      const size_t space = line.find(' ');
      const std::string word = line.substr(0, space);
      const std::string rest = space == std::string::npos ? "" : line.substr(space + 1);
      if (word == "case") {
        cases.emplace_back();
        cases.back().file = path.filename().string();
        cases.back().what = rest;
        continue;
      }
      if (cases.empty()) {
        ADD_FAILURE() << path << ": " << line << " before a case";
        continue;
      }
      Case &c = cases.back();
      if (word == "tcp" || word == "udp") {
        c.conns.emplace_back();
        c.conns.back().transport = word == "tcp" ? 6 : 17;
        c.conns.back().port = static_cast<uint16_t>(std::stoi(rest));
      } else if (c.conns.empty() && (word == "c" || word == "s" || word == "cx" || word == "sx")) {
        ADD_FAILURE() << path << ": " << line << " before a connection";
      } else if (word == "c" || word == "s") {
        c.conns.back().steps.push_back({word == "s" ? 1 : 0, kest_test::Unescape(rest)});
      } else if (word == "cx" || word == "sx") {
        const kest_test::Bytes bytes = kest_test::HexBytes(rest);
        c.conns.back().steps.push_back(
            {word == "sx" ? 1 : 0, std::string(bytes.begin(), bytes.end())});
      } else if (word == "to") {
        c.conns.back().to = rest;
      } else if (word == "stack") {
        c.conns.back().stack = rest;
      } else if (word == "attr") {
        const size_t gap = rest.find(' ');
        c.attrs.push_back(
            rest.substr(0, gap) + "=" +
            (gap == std::string::npos ? "" : kest_test::Unescape(rest.substr(gap + 1))));
      } else if (word == "config") {
        const size_t gap = rest.find(' ');
        c.config.push_back({rest.substr(0, gap), rest.substr(gap + 1)});
      } else if (word == "v4") {
        c.v4_only = true;
      } else {
        ADD_FAILURE() << path << ": unknown line " << line;
      }
    }
  }
  return cases;
}

// Attribute values as "name=value" in order of delivery, a value handed
// over in pieces joined whole; classifying threads may call at once.
struct Recorder {
  std::mutex lock;
  std::map<int, std::string> names;
  std::vector<std::string> values;
  // Per key, the value whose further pieces are announced.
  std::map<int, size_t> growing;
};
Recorder g_recorder;

int Listen(kest_handle_t, kest_conn_id_t, int key, int length, const void *value, int packed,
           void *) {
  const std::lock_guard<std::mutex> hold(g_recorder.lock);
  const std::string piece(static_cast<const char *>(value), static_cast<size_t>(length));
  const auto growing = g_recorder.growing.find(key);
  size_t at = g_recorder.values.size();
  if (growing != g_recorder.growing.end()) {
    at = growing->second;
    g_recorder.values[at] += piece;
  } else {
    g_recorder.values.push_back(g_recorder.names[key] + "=" + piece);
  }
  if ((packed & 0xffff) != 0) {
    g_recorder.growing[key] = at;
  } else {
    g_recorder.growing.erase(key);
  }
  return 0;
}

struct Outcome {
  // The connections' stacks, joined by " | ".
  std::string stack;
  std::vector<std::string> attrs;
  bool operator==(const Outcome &) const = default;
};

std::ostream &operator<<(std::ostream &out, const Outcome &o) {
  out << o.stack << " {";
  for (const std::string &a : o.attrs) {
    out << " " << a;
  }
  return out << " }";
}

class Conversations : public kest_test::PluginFolderFixture {
protected:
  void SetUp() override {
    PluginFolderFixture::SetUp();
    h = kest_open(Folder({KEST_TEST_ALL_PLGS}).c_str());
    ASSERT_GT(h, 0);
    ASSERT_EQ(kest_init(h), 0);
    std::set<std::string> names;
    for (const Case &c : cases) {
      for (const std::string &a : c.attrs) {
        names.insert(a.substr(0, a.find('=')));
      }
    }
    for (const std::string &name : names) {
      ASSERT_EQ(kest_attr_callback_set(h, name.c_str(), Listen), 0) << name;
    }
    kest_idle(h);
    for (const std::string &name : names) {
      g_recorder.names[kest_attr_key_get(h, name.c_str())] = name;
    }
  }
  void TearDown() override {
    EXPECT_EQ(kest_fini(h), 0);
    EXPECT_EQ(kest_close(h), 0);
    EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), 0);
    PluginFolderFixture::TearDown();
  }

  void Configure(const Case &c, bool apply) {
    for (const auto &[key, value] : c.config) {
      EXPECT_EQ(kest_config_set(h, key.c_str(), apply ? value.c_str() : "1"), 0) << key;
    }
    // New connections take a setting from the next idle pass on.
    kest_idle(h);
  }

  // Runs the case's connections, each step cut before byte `cut` (none when
  // 0 or beyond it). Without `strict`, failures of the host calls are
  // allowed (allocations fail on purpose).
  Outcome Run(const Case &c, size_t cut, bool v6, bool strict = true) {
    {
      const std::lock_guard<std::mutex> hold(g_recorder.lock);
      g_recorder.values.clear();
      g_recorder.growing.clear();
    }
    Outcome out;
    uint16_t client_port = 40000;
    for (const Connection &k : c.conns) {
      kest_endpoint_t client{KEST_FAMILY_IPV4, htons(client_port++), {10, 0, 0, 1}};
      kest_endpoint_t server{KEST_FAMILY_IPV4, htons(k.port), {10, 0, 0, 2}};
      if (v6) {
        client = kest_endpoint_t{KEST_FAMILY_IPV6, client.port, {0x20, 0x01, 0x0d, 0xb8}};
        server = client;
        server.port = htons(k.port);
        client.address[15] = 1;
        server.address[15] = 2;
      }
      if (!k.to.empty()) {
        const bool to_v6 = k.to.find(':') != std::string::npos;
        EXPECT_EQ(inet_pton(to_v6 ? AF_INET6 : AF_INET, k.to.c_str(), server.address), 1) << k.to;
        if (to_v6 != (client.family == KEST_FAMILY_IPV6)) {
          client = kest_endpoint_t{KEST_FAMILY_IPV4, client.port, {10, 0, 0, 1}};
          client.family = to_v6 ? KEST_FAMILY_IPV6 : KEST_FAMILY_IPV4;
          if (to_v6) {
            client.address[0] = 0x20, client.address[1] = 0x01, client.address[2] = 0x0d;
            client.address[3] = 0xb8, client.address[15] = 1;
          }
        }
        server.family = client.family;
      }
      kest_conn_t conn = nullptr;
      std::string stack;
      if (kest_conn_create(h, &client, &server, k.transport, &conn) != 0) {
        EXPECT_FALSE(strict) << c.what;
        continue;
      }
      for (const Step &step : k.steps) {
        std::vector<std::string> pieces{step.bytes};
        if (k.transport == 6 && cut != 0 && cut < step.bytes.size()) {
          pieces = {step.bytes.substr(0, cut), step.bytes.substr(cut)};
        }
        for (const std::string &piece : pieces) {
          kest_classify(h, KEST_SELECTOR_CONN, piece.data(), static_cast<uint16_t>(piece.size()),
                        conn, step.side, kest_test::LastStack, &stack);
        }
      }
      const int destroyed = kest_conn_destroy(h, conn);
      EXPECT_TRUE(destroyed == 0 || !strict) << c.what;
      out.stack += (out.stack.empty() ? "" : " | ") + stack;
    }
    const std::lock_guard<std::mutex> hold(g_recorder.lock);
    out.attrs = g_recorder.values;
    return out;
  }

  static std::string Stacks(const Case &c) {
    std::string stacks;
    for (const Connection &k : c.conns) {
      stacks += (stacks.empty() ? "" : " | ") + k.stack;
    }
    return stacks;
  }

  // The outcome with only the attributes that the case's file names.
  static Outcome OfFile(const Case &c, Outcome out) {
    std::set<std::string> names;
    for (const Case &other : cases) {
      for (const std::string &a : other.file == c.file ? other.attrs : std::vector<std::string>{}) {
        names.insert(a.substr(0, a.find('=')));
      }
    }
    std::vector<std::string> kept;
    for (const std::string &a : out.attrs) {
      if (names.count(a.substr(0, a.find('='))) != 0) {
        kept.push_back(a);
      }
    }
    out.attrs = kept;
    return out;
  }

  static inline const std::vector<Case> cases = Load();
  kest_handle_t h = -1;
};

TEST_F(Conversations, EachEndsWithItsStackAndAttributes) {
  ASSERT_FALSE(cases.empty());
  for (const Case &c : cases) {
    Configure(c, true);
    const Outcome expected{Stacks(c), c.attrs};
    EXPECT_EQ(OfFile(c, Run(c, 0, false)), expected) << c.file << ": " << c.what;
    if (!c.v4_only) {
      EXPECT_EQ(OfFile(c, Run(c, 0, true)), expected) << c.file << ": " << c.what << " over IPv6";
    }
    Configure(c, false);
  }
}

TEST_F(Conversations, SameResultWhereverTheStepsAreCut) {
  for (const Case &c : cases) {
    Configure(c, true);
    const Outcome whole = Run(c, 0, false);
    size_t longest = 0;
    for (const Connection &k : c.conns) {
      for (const Step &step : k.steps) {
        longest = std::max(longest, k.transport == 6 ? step.bytes.size() : 0);
      }
    }
    for (size_t cut = 1; cut < longest; ++cut) {
      EXPECT_EQ(Run(c, cut, false), whole) << c.file << ": " << c.what << " cut at " << cut;
    }
    Configure(c, false);
  }
}

// Every allocation that a case makes, failed in turn: the decoders give up
// what they cannot follow and leave nothing behind (TearDown counts).
TEST_F(Conversations, NoAllocationFailureCrashesOrLeaks) {
  long failed = 0;
  for (const Case &c : cases) {
    Configure(c, true);
    kest_test::ResetCounts();
    Run(c, 0, false);
    const long calls = kest_test::AllocationCount();
    for (long n = 1; n <= calls; ++n) {
      kest_test::FailNthAllocation(n);
      Run(c, 0, false, false);
      kest_test::FailNthAllocation(0);
    }
    failed += calls;
    Configure(c, false);
  }
  EXPECT_GT(failed, static_cast<long>(cases.size()));
}

// Each step cut short, and each byte of a step changed to a few values.
TEST_F(Conversations, NoCutOrChangedByteCrashesOrLeaks) {
  for (const Case &c : cases) {
    Configure(c, true);
    for (size_t n = 0; n < c.conns.size(); ++n) {
      for (size_t i = 0; i < c.conns[n].steps.size(); ++i) {
        const std::string whole = c.conns[n].steps[i].bytes;
        if (whole.size() > 1500) {
          continue;
        }
        Case changed = c;
        std::string &bytes = changed.conns[n].steps[i].bytes;
        // Every place in a step's head, where the parsers judge; beyond it
        // about as many places spread evenly, so long steps stay affordable.
        const size_t head = 128;
        const size_t stride = whole.size() > head ? (whole.size() - head + head - 1) / head : 1;
        auto next = [&](size_t at) { return at < head ? at + 1 : at + stride; };
        for (size_t cut = 0; cut < whole.size(); cut = next(cut)) {
          bytes = whole.substr(0, cut);
          Run(changed, 0, false, false);
        }
        for (size_t at = 0; at < whole.size(); at = next(at)) {
          const unsigned char b = static_cast<unsigned char>(whole[at]);
          for (unsigned value : {0x00u, 0xFFu, b ^ 0x01u, b ^ 0x80u}) {
            bytes = whole;
            bytes[at] = static_cast<char>(value);
            Run(changed, 0, false, false);
          }
        }
      }
    }
    Configure(c, false);
  }
}

} // namespace
