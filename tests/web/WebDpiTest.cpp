// The message inspector on the TCP decoder in-process: the exchanges of
// exchanges.txt whatever the packet boundaries, fields subscribed and dropped,
// inspectors attached by header rules, and failing allocations.
#include "TableFile.h"
#include "tests/attributes/AttributeTestSupport.h"
#include "tests/decoders/DecoderTestSupport.h"
#include "tests/rules/ChainTestSupport.h"

#include <kest/WebDpi.h>
#include <kest/WebDpiLauncher.h>

#include <map>
#include <random>

namespace {

using kest_test::g_deliveries;
using Log = std::vector<std::string>;

std::string Text(const oru::FlowString &s) {
  std::string out;
  for (uint32_t i = 0; i < s.length; ++i) {
    out += s.flow->At(s.pos + i);
  }
  return out;
}

// An HTTP-shaped protocol: what the tests see of the machine goes to a log.
class TestWeb : public oru::WebDpi {
public:
  TestWeb(const oru::WebMethodTable *methods, oru::KeyValueRuleStore *rules,
          oru::WebAttributes *attributes, Log *log, uint32_t proto)
      : WebDpi(methods, rules, attributes), m_log(log), m_proto(proto) {}

  const char *GetProtocolWord() override { return "HTTP"; }
  uint32_t GetProtocol() override { return m_proto; }
  bool Pipelining() override { return pipelining; }
  bool HasMessageBody(oru::WebHeader &header) override {
    if (header.m_type == oru::WebLine::LINE_RESPONSE) {
      const std::string code = Text(header.m_second);
      return code[0] != '1' && code != "204" && code != "304";
    }
    for (const oru::KeyValueRecord &r : header.m_records) {
      for (const char *name : {"Content-Length", "Transfer-Encoding"}) {
        if (header.m_flow->CaseCompare(r.key_start, name, static_cast<unsigned>(strlen(name))) ==
            0) {
          return true;
        }
      }
    }
    return false;
  }
  bool OnNewMessage(oru::fdt::intrusive_ptr<oru::Conn> &conn, oru::WebHeader &header) override {
    m_log->push_back(Text(header.m_first) + " " + Text(header.m_second) + " " +
                     Text(header.m_third));
    conn->PushProtocol(m_proto);
    return true;
  }
  bool OnTransactionDone(oru::fdt::intrusive_ptr<oru::Conn> &) override {
    m_log->push_back("done");
    return true;
  }

  bool pipelining = false;

private:
  Log *m_log;
  uint32_t m_proto;
};

class WebDpiTest : public kest_test::DecoderFixture {
protected:
  void SetUp() override {
    DecoderFixture::SetUp();
    g_deliveries.clear();
    methods.push_back(oru::WebMethod{"GET", 3});
    methods.push_back(oru::WebMethod{"POST", 4});
    methods.push_back(oru::WebMethod{"HEAD", 4});
    // Names are made while an instance opens, before any thread listens; made
    // later, their creation must reach this thread before it registers.
    ASSERT_TRUE(oru::WebAttributes::InitInstance("t"));
    kest_idle(h);
    Enter();
    attributes.Initialize("t");
    proto = oru::GetProtocolId("TCP");
  }
  void TearDown() override {
    Enter();
    for (const char *name : subscribed) {
      kest_attr_callback_set(h, name, nullptr);
    }
    kest_idle(h);
    Enter();
    web.reset();
    attributes.ExitThread("t");
    methods.clear();
    DecoderFixture::TearDown();
  }
  // One WebDpi per connection, made by the launcher on its first packet; the
  // test keeps the latest.
  class Launcher : public oru::WebDpiLauncher {
  public:
    explicit Launcher(WebDpiTest *test) : m_test(test) {}
    oru::WebDpi *MakeInspector(oru::fdt::intrusive_ptr<oru::Conn> &) override {
      WebDpiTest &t = *m_test;
      t.web =
          oru::fdt::CreateObject<TestWeb>(oru::fdt::OBJECT_LOCAL, &t.methods, t.rules,
                                          &t.attributes, &t.log, static_cast<uint32_t>(t.proto));
      if (t.web) {
        t.web->pipelining = t.pipelining;
      }
      return t.web.get();
    }

  private:
    WebDpiTest *m_test;
  };
  // A connection to port 80 with the launcher on its chain.
  oru::Conn *Connect(oru::KeyValueRuleStore *with_rules = nullptr) {
    rules = with_rules;
    oru::fdt::intrusive_ptr<Launcher> launcher(
        oru::fdt::CreateObject<Launcher>(oru::fdt::OBJECT_LOCAL, this));
    oru::IpPortRuleStore &store = kTcp.Table()->Rules();
    EXPECT_TRUE(store.AddRule(6, oru::InspectorCallback(launcher.get()), 80, {}, {}, 0,
                              oru::IpPortRuleStore::EXPIRY_LOCAL, false));
    oru::Conn *conn = Create(6);
    store.RemoveRuleFast(6, oru::InspectorCallback(launcher.get()), 80, {}, {});
    return conn;
  }
  void Subscribe(const char *name) {
    ASSERT_EQ(kest_attr_callback_set(h, name, kest_test::RecordingListener), 0);
    subscribed.push_back(name);
    kest_idle(h);
    Enter();
  }
  oru::WebMethodTable methods;
  oru::WebAttributes attributes;
  oru::fdt::intrusive_ptr<TestWeb> web;
  Log log;
  int proto = 0;
  std::vector<const char *> subscribed;
  oru::KeyValueRuleStore *rules = nullptr;
  bool pipelining = false;
};

// Subscribing to a field, dropping it, then a message: the family's trie
// keeps no stale child for the message to read (ASan watches), and the field
// can be subscribed to again.
TEST_F(WebDpiTest, UnsubscribedFieldLeavesNoStaleTrieEntry) {
  Subscribe("t.request.header.Host");
  ASSERT_EQ(kest_attr_callback_set(h, "t.request.header.Host", nullptr), 0);
  kest_idle(h);
  Enter();
  oru::Conn *conn = Connect();
  Classify(conn, 0, "GET / HTTP/1.1\r\nHost: a\r\n\r\n");
  EXPECT_TRUE(g_deliveries.empty());
  Subscribe("t.request.header.Host");
  Classify(conn, 0, "GET / HTTP/1.1\r\nHost: b\r\n\r\n");
  ASSERT_EQ(g_deliveries.size(), 1u);
  EXPECT_EQ(g_deliveries[0].value, "b");
  kest_conn_destroy(h, static_cast<oru::IConn *>(conn));
}

// A header line picks an inspector through the key/value rules; its answer
// 128 gives the connection up, unless attributes are subscribed: bit 16 then
// makes it 144, which is not INSPECT_ABANDON, and inspection goes on.
TEST_F(WebDpiTest, AttachedInspectorGivesUpUnlessAttributesAreOn) {
  kest_test::Log attached_log;
  for (bool attributes_on : {false, true}) {
    SCOPED_TRACE(attributes_on);
    if (attributes_on) {
      Subscribe("t.response.code");
    }
    oru::KeyValueRuleStore store("web");
    oru::fdt::intrusive_ptr<kest_test::ScriptedInspector> evil(
        kest_test::ScriptedInspector::Make("evil", &attached_log, oru::INSPECT_ABANDON));
    ASSERT_TRUE(store.AddRule(oru::KeyValueSpec::string("Host"), oru::KeyValueSpec::string("evil"),
                              evil->Callback(), true, 0, oru::KeyValueRuleStore::EXPIRY_LOCAL));
    log.clear();
    oru::Conn *conn = Connect(&store);
    Classify(conn, 0, "GET / HTTP/1.1\r\nHost: evil\r\n\r\n");
    EXPECT_EQ(web->m_result, attributes_on ? 144u : 128u);
    Classify(conn, 1, "HTTP/1.1 204 No\r\n\r\n");
    EXPECT_EQ(log.back(), attributes_on ? "done" : "GET / HTTP/1.1");
    kest_conn_destroy(h, static_cast<oru::IConn *>(conn));
    web.reset();
  }
  EXPECT_EQ(attached_log, (kest_test::Log{"evil", "evil~", "evil", "evil~"}));
}

TEST_F(WebDpiTest, ValidatorNamesAField) {
  struct Row {
    const char *key;
    bool ok;
  } rows[] = {{"t.request.header.X-Ok", true},  {"t.response.header.X-Ok", true},
              {"t.request.header.", false},     {"t.request.header.A b", false},
              {"t.response.header.a:b", false}, {"t.request.header.\x7f", false}};
  for (const Row &row : rows) {
    EXPECT_EQ(oru::WebAttributes::AttributeValidator(kest_test::Name(row.key)), row.ok) << row.key;
  }
}

// An exchange of exchanges.txt: its turns (side, bytes) and what it shows.
struct Exchange {
  std::string name;
  bool pipelining = false;
  std::vector<std::pair<int, std::string>> turns;
  Log shows;
};

std::vector<Exchange> Exchanges() {
  std::vector<Exchange> out;
  for (const std::string &row : kest_test::TableRows(__FILE__, "exchanges.txt")) {
    const std::string word = row.substr(0, row.find(' '));
    const std::string rest = row.substr(std::min(row.size(), word.size() + 1));
    if (word == "case") {
      out.emplace_back().name = rest;
    } else if (word == "pipelining") {
      out.back().pipelining = true;
    } else if (word == "c" || word == "s") {
      out.back().turns.emplace_back(word == "s", kest_test::Unescape(rest));
    } else {
      out.back().shows.push_back(kest_test::Unescape(row));
    }
  }
  return out;
}

// The one split that changes the outcome by design: a folded line's continuation
// that starts a packet of its own is a line of its own.
bool FoldStart(const std::string &text, size_t cut) {
  return cut > 0 && cut < text.size() && text[cut - 1] == '\n' &&
         (text[cut] == ' ' || text[cut] == '\t') && text.find("\r\n\r\n") > cut;
}

TEST_F(WebDpiTest, SplitInvariance) {
  std::map<int, std::string> names;
  for (const char *name :
       {"t.request.header", "t.request.uri", "t.request.header.Host", "t.response.code",
        "t.request.body", "t.response.body", "t.response.header.X-Fold"}) {
    Subscribe(name);
    names[kest_attr_key_get(h, name)] = name;
  }
  kest_test::Log handoffs;
  oru::KeyValueRuleStore store("web");
  oru::fdt::intrusive_ptr<kest_test::ScriptedInspector> seen(
      kest_test::ScriptedInspector::Make("R", &handoffs, oru::INSPECT_FINISHED));
  ASSERT_TRUE(store.AddRule(oru::KeyValueSpec::string("Host"), oru::KeyValueSpec::string("*"),
                            seen->Callback(), true, 0, oru::KeyValueRuleStore::EXPIRY_LOCAL));
  // Runs the exchange with each turn cut at the given points; what it shows,
  // in the file's words.
  auto run = [&](const Exchange &x, const std::vector<std::vector<size_t>> &cuts) {
    log.clear();
    handoffs.clear();
    g_deliveries.clear();
    pipelining = x.pipelining;
    oru::Conn *conn = Connect(&store);
    for (size_t t = 0; t < x.turns.size(); ++t) {
      const std::string &text = x.turns[t].second;
      size_t from = 0;
      for (size_t cut : cuts[t]) {
        Classify(conn, x.turns[t].first, text.substr(from, cut - from));
        from = cut;
      }
      Classify(conn, x.turns[t].first, text.substr(from));
    }
    Log out;
    for (const std::string &line : log) {
      out.push_back("log " + line);
    }
    if (!handoffs.empty()) {
      out.push_back("handoffs " + std::to_string(handoffs.size()));
    }
    // Values joined piece by piece; bodies as one run of bytes each, since
    // where a chunked body's pieces end depends on the packets.
    std::map<std::string, std::string> bodies;
    std::string value;
    for (const kest_test::Delivery &d : g_deliveries) {
      value += d.value;
      if (names[d.key].ends_with(".body")) {
        bodies[names[d.key]] += value;
        value.clear();
      } else if ((d.packed & 1) == 0) {
        out.push_back("attr " + names[d.key] + " " + value);
        value.clear();
      }
    }
    for (const auto &[name, bytes] : bodies) {
      if (!bytes.empty()) { // an empty piece comes or not with the packets
        out.push_back("attr " + name + " " + bytes);
      }
    }
    out.push_back("open " + std::to_string(web->m_transactions[0].size()) + "/" +
                  std::to_string(web->m_transactions[1].size()) + " result " +
                  std::to_string(web->m_result));
    kest_conn_destroy(h, static_cast<oru::IConn *>(conn));
    return out;
  };
  std::mt19937 random(21);
  for (const Exchange &x : Exchanges()) {
    SCOPED_TRACE(x.name);
    ASSERT_EQ(run(x, std::vector<std::vector<size_t>>(x.turns.size())), x.shows);
    // Every single cut point of every turn.
    for (size_t t = 0; t < x.turns.size(); ++t) {
      const std::string &text = x.turns[t].second;
      for (size_t cut = 1; cut < text.size(); ++cut) {
        if (FoldStart(text, cut)) {
          continue;
        }
        std::vector<std::vector<size_t>> cuts(x.turns.size());
        cuts[t] = {cut};
        ASSERT_EQ(run(x, cuts), x.shows) << "turn " << t << " cut at " << cut;
      }
    }
    // Random cuts everywhere.
    for (int round = 0; round < 300; ++round) {
      std::vector<std::vector<size_t>> cuts(x.turns.size());
      for (size_t t = 0; t < x.turns.size(); ++t) {
        const std::string &text = x.turns[t].second;
        for (size_t at = 1 + random() % 8; at < text.size(); at += 1 + random() % 8) {
          if (!FoldStart(text, at)) {
            cuts[t].push_back(at);
          }
        }
      }
      ASSERT_EQ(run(x, cuts), x.shows) << "round " << round;
    }
  }
}

// Any allocation while messages are inspected may fail: no crash, nothing
// kept, and the message inspector gives the connection up or goes on.
TEST_F(WebDpiTest, FailingAllocations) {
  Subscribe("t.request.header.Host");
  const Exchange x = Exchanges()[0];
  // The table's index keeps its buckets once it has them.
  kest_conn_destroy(h, static_cast<oru::IConn *>(Connect()));
  bool completed = false;
  for (long n = 1; !completed && n < 2000; ++n) {
    SCOPED_TRACE(n);
    log.clear();
    pipelining = x.pipelining;
    const long live = kest_test::LiveBlocks(kest_test::Heap::Local);
    oru::Conn *conn = Connect();
    kest_test::ResetCounts();
    kest_test::FailNthAllocation(n);
    for (const auto &[side, text] : x.turns) {
      for (size_t at = 0; at < text.size(); at += 40) {
        Classify(conn, side, text.substr(at, 40));
      }
    }
    kest_test::FailNthAllocation(0);
    // Done once the run made fewer allocations than the one to fail.
    completed = kest_test::AllocationCount() < n;
    kest_conn_destroy(h, static_cast<oru::IConn *>(conn));
    web.reset();
    EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), live);
  }
  EXPECT_EQ(std::count(log.begin(), log.end(), "done"), 2);
  EXPECT_TRUE(completed);
}

} // namespace
