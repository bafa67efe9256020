// The protocol registry, through the host calls and the SDK. Plug-ins name
// protocols only while an instance opens: the fixture holds its instance in
// that state through the instance table when a test asks for it.
#include "InstanceFixture.h"
#include "TableFile.h"
#include "TestHooks.h"
#include "runtime/InstanceTable.h"

#include <kest/Configuration.h>
#include <kest/ProtocolRegistry.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>

namespace {

using oru::InstanceTable;
using oru::ProtocolRegistry;

class ProtocolRegistryTest : public kest_test::InstanceFixture {
protected:
  void SetUp() override {
    InstanceFixture::SetUp();
    // The registry starts empty: no plug-in names "TCP" or "UDP".
    kest_test::SetTransportRegistration(false);
    Fresh();
  }
  void TearDown() override {
    Close();
    InstanceFixture::TearDown();
  }
  // A new instance, on the test thread. Whatever an earlier instance of this
  // row left is gone, as after a fresh start.
  void Fresh() {
    h = Open();
    ASSERT_GT(h, 0);
    oru::Runtime::l_instance_id = h;
    ProtocolRegistry::ExitInstance();
    ASSERT_TRUE(ProtocolRegistry::InitInstance());
  }
  void Close() {
    oru::Runtime::l_instance_id = h;
    ProtocolRegistry::ExitInstance();
    InstanceTable::SetState(h, oru::INST_OPEN);
    oru::Runtime::l_instance_id = 0;
    kest_close(h);
  }
  void Opening() { InstanceTable::SetState(h, oru::INST_OPENING); }

  int Add(const char *name, int index = 0) { return ProtocolRegistry::AddProtocol(name, index); }

  // The name of an index, or "(null)".
  static std::string Name(int index) {
    oru::fdt::string name;
    return ProtocolRegistry::IndexToName(index, name) ? name.c_str() : "(null)";
  }

  kest_handle_t h = -1;
};

// The steps of protocol_registry.txt.
TEST_F(ProtocolRegistryTest, Scenarios) {
  std::ifstream in(kest_test::SourceFolder(__FILE__) / "protocol_registry.txt");
  ASSERT_TRUE(in);
  const std::map<std::string, int> errors = {
      {"0", 0}, {"EINVAL", KEST_EINVAL}, {"EEXIST", KEST_EEXIST}, {"EBUSY", KEST_EBUSY}};
  const std::map<std::string, oru::InstanceState> states = {{"closed", oru::INST_CLOSED},
                                                            {"open", oru::INST_OPEN},
                                                            {"threaded", oru::INST_THREADED},
                                                            {"opening", oru::INST_OPENING}};
  std::string title;
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("== ", 0) == 0) {
      title = line;
      Close();
      Fresh();
      continue;
    }
    if (line.empty() || line[0] == '#') {
      continue;
    }
    SCOPED_TRACE(title + " | " + line);
    std::istringstream words(line);
    std::string op, a, b, c, arrow, want, error;
    words >> op;
    while (words >> arrow && arrow != "=>") {
      (a.empty() ? a : b.empty() ? b : c) = arrow;
    }
    words >> want >> error;
    const char *name = a == "-" ? nullptr : a.c_str();
    auto number = [](const std::string &s) { return s.empty() ? 0 : std::stoi(s); };
    kest_errno = 0;
    std::string got = "-";
    char buffer[16];
    std::fill(std::begin(buffer), std::end(buffer), 'x');
    if (op == "add") {
      got = std::to_string(Add(name, number(b)));
    } else if (op == "find") {
      got = std::to_string(kest_proto_find_index(h, name));
    } else if (op == "max") {
      got = std::to_string(kest_proto_max_index(h));
    } else if (op == "highest") {
      got = std::to_string(ProtocolRegistry::HighestIndex());
    } else if (op == "name") {
      got = Name(number(a));
    } else if (op == "id") {
      got = std::to_string(oru::GetProtocolId(name));
    } else if (op == "remove") {
      got = std::to_string(ProtocolRegistry::RemoveProtocol(name));
    } else if (op == "set" || op == "set0") {
      got = std::to_string(kest_proto_set_index(op == "set" ? h : 0, name, number(b)));
    } else if (op == "item") {
      got = oru::Configuration::GetItem(name).c_str();
    } else if (op == "dump") {
      kest_test::TakeDiag();
      EXPECT_EQ(kest_config_dump(h), 0);
      const std::string dump = kest_test::TakeDiag(), key = ": " + a + " = ";
      const size_t at = dump.find(key);
      got = at == std::string::npos
                ? "<none>"
                : dump.substr(at + key.size(), dump.find('\n', at) - at - key.size());
    } else if (op == "register") {
      oru::RegisterProtocol(name);
    } else if (op == "state") {
      InstanceTable::SetState(h, states.at(a));
    } else if (op == "getname") {
      const char *out =
          kest_proto_get_name(h, number(a), c == "nobuf" ? nullptr : buffer, number(b));
      EXPECT_TRUE(out == nullptr || out == buffer);
      got = out ? out : "(null)";
    } else {
      ASSERT_TRUE(op == "init" || op == "fini") << op;
      oru::Runtime::l_instance_id = 0;
      got = std::to_string(op == "init" ? kest_init(h) : kest_fini(h));
      oru::Runtime::l_instance_id = h;
    }
    EXPECT_EQ(got.empty() ? "<empty>" : got, want);
    if (!error.empty()) {
      EXPECT_EQ(kest_errno, errors.at(error));
    }
  }
}

// The thread start-up check wants both "TCP" and "UDP". Without them the
// instance opens but kest_init fails; it leaves the thread's block, which only
// kest_fini clears, and the check can run on it.
TEST_F(ProtocolRegistryTest, ThreadCheckWantsTcpAndUdp) {
  oru::Runtime::l_instance_id = 0;
  EXPECT_TRUE(kest_test::Refused(kest_init(h), KEST_EPROTO));
  ASSERT_NE(oru::t_thread_base[h], nullptr);
  EXPECT_TRUE(kest_test::Refused(kest_init(h), KEST_EINVAL));
  oru::Runtime::l_instance_id = h;
  for (const char *add : {"", "TCP", "UDP"}) {
    SCOPED_TRACE(add);
    if (*add != '\0') {
      ASSERT_NE(Add(add), 0);
    }
    kest_errno = 0;
    const bool ok = std::string(add) == "UDP";
    EXPECT_EQ(ProtocolRegistry::InitThread(), ok);
    EXPECT_EQ(kest_errno, ok ? 0 : KEST_EPROTO);
  }
}

// Each allocation of a registration, an add and a move fails once in turn. A
// registration or add either holds in the store or leaves the name without a
// number; the count has moved either way, so no number is handed out twice. A
// move either happens or the old number stands; a store that cannot copy the
// new value in place keeps an empty one, and the name then has no number.
TEST_F(ProtocolRegistryTest, UnderAllocationFailure) {
  auto allocations = [](auto &&work) {
    kest_test::ResetCounts();
    work();
    return kest_test::AllocationCount();
  };
  const long add = allocations([&] { ASSERT_EQ(Add("probe"), 1); });
  const long move = allocations([&] { ASSERT_TRUE(ProtocolRegistry::SetIndex("probe", 2)); });
  Opening();
  const long reg = allocations([&] { oru::RegisterProtocol("probe2"); });
  ASSERT_GT(add * move * reg, 0);
  int last = kest_proto_max_index(h);
  for (long n = 1; n <= std::max(add, reg); ++n) {
    SCOPED_TRACE(n);
    for (bool registering : {false, true}) {
      const std::string name = (registering ? "r" : "p") + std::to_string(n);
      kest_test::FailNthAllocation(n);
      const int index = registering ? (oru::RegisterProtocol(name.c_str()), 0) : Add(name.c_str());
      kest_test::FailNthAllocation(0);
      const int now = oru::GetProtocolId(name.c_str());
      EXPECT_TRUE(registering || now == index);
      EXPECT_TRUE(now == 0 || now > last) << now;
      last = std::max(last, now);
      // The next one gets a number above any before it.
      const std::string next = "q" + name;
      oru::RegisterProtocol(next.c_str());
      EXPECT_GT(oru::GetProtocolId(next.c_str()), last);
      last = oru::GetProtocolId(next.c_str());
      EXPECT_EQ(Name(last), next);
    }
  }
  InstanceTable::SetState(h, oru::INST_OPEN);
  for (long n = 1; n <= move; ++n) {
    SCOPED_TRACE(n);
    const std::string name = "m" + std::to_string(n);
    const int from = Add(name.c_str());
    ASSERT_NE(from, 0);
    kest_test::FailNthAllocation(n);
    const bool moved = ProtocolRegistry::SetIndex(name.c_str(), from + 100);
    kest_test::FailNthAllocation(0);
    const int now = oru::GetProtocolId(name.c_str());
    EXPECT_TRUE(moved ? now == from + 100 || now == 0 : now == from) << now;
    EXPECT_EQ(Name(from), moved ? "(null)" : name);
    if (!moved) {
      EXPECT_EQ(Name(from + 100), "(null)");
    }
  }
}

} // namespace
