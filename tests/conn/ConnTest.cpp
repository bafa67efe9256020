// Connections and the classification layer with stand-in transport plug-ins:
// numbering, tables, creating and destroying through the factories, the calls
// on the active connection, walking an application stack, and kest_classify's
// selectors, result codes, callbacks and deferred requests.
#include "../attributes/AttributeTestSupport.h"

#include <kest/Clock.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <string>
#include <utility>

namespace {

using kest_test::ConnPtr;
using kest_test::Refused;
using kest_test::TestClassify;
using oru::AppEntry;
using oru::AppStack;
using oru::Classification;
using oru::ClassifyPacket;
using oru::Conn;

// Public: handlers reach the test through their context pointer. The
// transport plug-in numbers TCP and UDP; any other index stands for an
// application such as HTTP.
class ConnTest : public kest_test::AttributeFixture {
public:
  void SetUp() override {
    AttributeFixture::SetUp();
    kTcp = kest_proto_find_index(h, "TCP");
    kUdp = kest_proto_find_index(h, "UDP");
    ASSERT_GT(kTcp, 0);
    ASSERT_GT(kUdp, 0);
  }
  static ConnPtr MakeBase(unsigned long long number = 0, bool numbered = false) {
    void *block = kest_malloc_local(sizeof(Conn));
    return numbered ? ::new (block) Conn(number) : ::new (block) Conn();
  }
  // Opens another instance with a context on this thread, works in it, and
  // returns the number of its first connection.
  uint64_t FirstNumberInNewInstance(kest_handle_t *row) {
    oru::Runtime::l_instance_id = 0;
    *row = Open();
    EXPECT_EQ(kest_init(*row), 0);
    oru::Runtime::l_instance_id = *row;
    const uint64_t number = MakeBase()->m_number;
    oru::Runtime::l_instance_id = 0;
    EXPECT_EQ(kest_fini(*row), 0);
    EXPECT_EQ(kest_close(*row), 0);
    oru::Runtime::l_instance_id = h;
    return number;
  }
  // A connection held by the test, made the thread's active one.
  Conn *ActiveConn() {
    Conn *conn = MakeConn(6);
    conn->Touch();
    return conn;
  }
  // Appends a deferred request named `name` (its data) with the log hook.
  void Defer(int type, const char *name) {
    oru::ClassifyRequest request{};
    request.type = type;
    request.packet.data = reinterpret_cast<const uint8_t *>(name);
    request.packet.release = LogRelease;
    request.packet.release_arg = &log;
    ASSERT_NE(classification->m_deferred.push_back(request), classification->m_deferred.end());
  }
  static void LogRelease(ClassifyPacket *packet, void *arg) {
    *static_cast<std::string *>(arg) += reinterpret_cast<const char *>(packet->data);
  }
  static ConnTest *Of(TestClassify *self) { return static_cast<ConnTest *>(self->m_context); }

  int kTcp = 0, kUdp = 0;
  static constexpr int kHttp = 9;
  std::string log;
  Conn *other = nullptr;
};

// Numbers count per instance from one.
TEST_F(ConnTest, ANewConnectionsNumberPolicyStatusAndIdleness) {
  ConnPtr a = MakeBase(), b = MakeBase();
  EXPECT_EQ(a->m_number, 1u);
  EXPECT_EQ(b->m_number, 2u);
  kest_handle_t first_row = 0, second_row = 0;
  EXPECT_EQ(FirstNumberInNewInstance(&first_row), 1u);
  EXPECT_EQ(MakeBase()->m_number, 3u);
  EXPECT_EQ(FirstNumberInNewInstance(&second_row), 1u) << "a reopened row starts again";
  EXPECT_EQ(second_row, first_row);
  EXPECT_EQ(MakeBase(5, true)->m_number, 5u);
  EXPECT_EQ(MakeBase()->m_number, 4u) << "an explicit number leaves the counter";

  // A new connection copies the thread's policy and starts as new.
  EXPECT_EQ(oru::ThreadWord(Conn::l_default_policy), 0xFFFFFFFFu) << "set by thread start";
  for (uint32_t policy : {0xFFFFFFFFu, 0x15u, 0u}) {
    oru::ThreadWord(Conn::l_default_policy) = policy;
    ConnPtr conn = MakeBase();
    EXPECT_EQ(conn->m_policy, policy);
    EXPECT_EQ(conn->m_status, 1u);
  }
  // Idle only beyond sixty seconds.
  const struct {
    uint64_t touched, now;
    bool idle;
  } cases[] = {{1000, 61000, false}, {1000, 61001, true}, {70000, 1000, true}};
  ConnPtr conn = MakeBase();
  for (const auto &c : cases) {
    SCOPED_TRACE(c.now);
    oru::set_clock(c.touched);
    conn->Touch();
    EXPECT_EQ(conn->Touched(), c.touched);
    EXPECT_EQ(oru::ThreadPointer<Conn>(Conn::l_active_conn), conn.get());
    oru::set_clock(c.now);
    EXPECT_EQ(conn->Idle(), c.idle);
  }
}

// Plug-ins call through the first table by slot, and the count's table
// destroys the whole object: both orders are fixed.
TEST_F(ConnTest, TablesInTheirOrderAndTheLastReferenceFreesAll) {
  TestClassify classify;
  const long live = kest_test::LiveBlocks(kest_test::Heap::Local);
  kest_test::TestConn *conn = kest_test::TestConn::Make(17, &classify);
  void **table = *reinterpret_cast<void ***>(static_cast<Conn *>(conn));
  EXPECT_EQ(reinterpret_cast<void *(*)(Conn *, oru::InterfaceId)>(table[0])(
                conn, oru::INTERFACE_CONN_CLASSIFY),
            &classify);
  EXPECT_EQ(reinterpret_cast<uint8_t (*)(Conn *)>(table[1])(conn), 17);
  reinterpret_cast<void (*)(Conn *, unsigned char)>(table[2])(conn, 1);
  EXPECT_EQ(conn->m_side, 1);
  reinterpret_cast<void (*)(Conn *)>(table[5])(conn);
  EXPECT_EQ(conn->m_expired, 1);
  // Slot 4, the deleting destructor, gives back the object and its stack.
  ASSERT_NE(conn->GetAppStack()->entries.push_back(oru::AppEntry{1}),
            conn->GetAppStack()->entries.end());
  reinterpret_cast<void (*)(Conn *)>(table[4])(conn);
  EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), live);

  conn = kest_test::TestConn::Make(6);
  oru::fdt::intrusive_ptr<oru::fdt::refcnt> counted(conn);
  counted.reset();
  EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), live);
}

// "conn.expired" carries the dying connection's number, only while someone
// listens and the active connection allows attributes.
TEST_F(ConnTest, ExpiredFollowsListenersAndTheActivePolicy) {
  kest_test::TestConn *active = MakeConn(6);
  kest_test::TestConn *dying = MakeConn(17);
  EXPECT_EQ(dying->m_policy, 0xFFFFFFFFu) << "all default keys at 1";
  active->Touch();
  dying->oru::Conn::Expired();
  EXPECT_TRUE(kest_test::g_deliveries.empty()) << "nobody listens";

  ASSERT_EQ(SetListener("conn.expired"), 0);
  kest_idle(h);
  dying->oru::Conn::Expired();
  ASSERT_EQ(kest_test::g_deliveries.size(), 1u);
  const kest_test::Delivery d = kest_test::g_deliveries[0];
  EXPECT_EQ(d.key, Key("conn.expired"));
  EXPECT_EQ(d.conn_id, active->m_number);
  EXPECT_EQ(d.packed, 0);
  uint64_t number = 0;
  ASSERT_EQ(d.value.size(), 8u);
  std::memcpy(&number, d.value.data(), 8);
  EXPECT_EQ(number, dying->m_number);

  // The active connection's policy decides, not the dying one's.
  ASSERT_EQ(kest_conn_policy_flags_disable(h, active->m_number, KEST_POLICY_ATTRIBUTES), 0);
  dying->oru::Conn::Expired();
  EXPECT_EQ(kest_test::g_deliveries.size(), 1u);
  dying->Touch();
  active->oru::Conn::Expired();
  EXPECT_EQ(kest_test::g_deliveries.size(), 2u);
}

// An endpoint from an address in text and a port in host order; the family
// follows the text unless given.
kest_endpoint_t Ep(const char *address, uint16_t port, int family = -1) {
  kest_endpoint_t e{};
  const bool v6 = std::strchr(address, ':') != nullptr;
  e.family = static_cast<uint8_t>(family >= 0 ? family : v6 ? KEST_FAMILY_IPV6 : KEST_FAMILY_IPV4);
  EXPECT_EQ(inet_pton(v6 ? AF_INET6 : AF_INET, address, e.address), 1) << address;
  e.port = htons(port);
  return e;
}

TEST_F(ConnTest, CreateRefusals) {
  oru::InterfaceBroker *broker = oru::InterfaceBroker::Instance();
  broker->UnregisterInterface(oru::MODULE_TCP, oru::INTERFACE_CONN_FACTORY, nullptr);
  broker->UnregisterInterface(oru::MODULE_UDP, oru::INTERFACE_CONN_FACTORY, nullptr);
  const kest_endpoint_t v4 = Ep("192.0.2.1", 80), v6 = Ep("2001:db8::", 80);
  const kest_endpoint_t v3 = Ep("192.0.2.1", 80, 3), v0 = Ep("192.0.2.1", 80, 0);
  const struct {
    const char *what;
    const kest_endpoint_t *src, *dst;
    uint8_t protocol;
    int error;
  } cases[] = {
      {"no source", nullptr, &v4, 6, KEST_EINVAL},
      {"no destination", &v4, nullptr, 6, KEST_EINVAL},
      {"families differ", &v4, &v6, 6, KEST_EINVAL},
      {"family 3", &v3, &v3, 6, KEST_EINVAL},
      {"family unset", &v0, &v0, 17, KEST_EINVAL},
      {"SCTP", &v4, &v4, 132, KEST_EPROTONOSUPPORT},
      {"TCP without its plug-in", &v4, &v4, 6, KEST_ENOBUFS},
      {"UDP without its plug-in", &v6, &v6, 17, KEST_ENOBUFS},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    int marker = 0;
    kest_conn_t conn = &marker;
    EXPECT_TRUE(Refused(kest_conn_create(h, c.src, c.dst, c.protocol, &conn), c.error));
    EXPECT_EQ(conn, &marker);
  }
}

// Arguments that would pass, so that only the handle or the thread decides.
kest_result_t g_cursor;
kest_endpoint_t g_ep = Ep("192.0.2.1", 80);
kest_conn_t g_conn;
unsigned g_flags;
int g_app;
char g_name[8];

TEST_F(ConnTest, EveryFramedCallRefusesABadHandleOrAThreadWithoutContext) {
  oru::Runtime::l_instance_id = 0;
  const kest_handle_t no_context = Open();
  ASSERT_GT(no_context, 0);
  using H = kest_handle_t;
  const struct {
    const char *call;
    bool needs_context;
    int (*run)(H);
  } cases[] = {
      {"create", true, [](H x) { return kest_conn_create(x, &g_ep, &g_ep, 6, &g_conn); }},
      {"destroy", true, [](H x) { return kest_conn_destroy(x, &g_ep); }},
      {"endpoint", true, [](H x) { return kest_endpoint_get(x, 0, &g_ep, &g_ep); }},
      {"policy", true, [](H x) { return kest_conn_policy_flags_disable(x, 0, 1); }},
      {"status", true, [](H x) { return kest_conn_status_flags_get(x, 0, &g_flags); }},
      {"app", true, [](H x) { return kest_app_get(x, &g_cursor, nullptr); }},
      {"simple", true, [](H x) { return kest_classify_simple(x, &g_ep, 1, &g_app); }},
      {"index", false, [](H x) { return kest_proto_get_index(x, &g_cursor); }},
      {"name", false, [](H x) { return kest_proto_get_name(x, 1, g_name, 8) ? 0 : -1; }},
      {"find index", false, [](H x) { return kest_proto_find_index(x, "TCP"); }},
      {"max index", false, [](H x) { return kest_proto_max_index(x); }},
      {"set index", false, [](H x) { return kest_proto_set_index(x, "TCP", 4); }},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.call);
    for (kest_handle_t bad : {0, 32, -1, no_context + 1}) {
      kest_errno = 0;
      EXPECT_TRUE(Refused(c.run(bad), KEST_EINVAL));
    }
    if (c.needs_context) {
      EXPECT_TRUE(Refused(c.run(no_context), KEST_EINVAL));
    }
  }
  EXPECT_EQ(oru::Runtime::l_instance_id, 0);
}

// Each address goes to the factory in the library's form and comes back
// through kest_endpoint_get; each side decides its family by itself.
TEST_F(ConnTest, AddressesAndPortsMakeTheRoundTrip) {
  const kest_endpoint_t v6a = Ep("2001:db8::1", 80), v6b = Ep("fe80::211:22ff:fe33:4455", 0x1234);
  const struct {
    const char *what;
    kest_endpoint_t src, dst;
    uint8_t protocol;
    uint16_t src_port, dst_port; // host order, as the factory sees it
    kest_endpoint_t src_back, dst_back;
  } cases[] = {
      {"IPv4", Ep("192.0.2.1", 80), Ep("198.51.100.7", 50000), 6, 80, 50000, Ep("192.0.2.1", 80),
       Ep("198.51.100.7", 50000)},
      {"IPv6", v6a, v6b, 17, 80, 0x1234, v6a, v6b},
      // ::1 holds only the word that IPv4 uses, so it reads back as 0.0.0.1;
      // the unspecified address has no IPv4 form and reads back as IPv6.
      {"loopback and unspecified", Ep("::1", 80), Ep("::", 0xffff), 6, 80, 0xffff,
       Ep("0.0.0.1", 80), Ep("::", 0xffff)},
      {"IPv4 zero", Ep("0.0.0.0", 0), Ep("10.0.0.1", 443), 6, 0, 443, Ep("::", 0),
       Ep("10.0.0.1", 443)},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    kest_test::TestFactory &factory = c.protocol == 6 ? tcp : udp;
    kest_conn_t out = nullptr;
    ASSERT_EQ(kest_conn_create(h, &c.src, &c.dst, c.protocol, &out), 0);
    ASSERT_FALSE(factory.m_table.empty());
    Conn *conn = factory.m_table.back().get();
    EXPECT_EQ(out, static_cast<oru::IConn *>(conn));
    EXPECT_EQ(conn->m_tuple.protocol, c.protocol);
    EXPECT_EQ(conn->m_tuple.src_port, c.src_port);
    EXPECT_EQ(conn->m_tuple.dst_port, c.dst_port);
    EXPECT_EQ(conn->m_tuple.src, oru::IpAddr::FromEndpoint(c.src.family, c.src.address));

    conn->Touch();
    kest_endpoint_t src, dst;
    std::memset(&src, 0xee, sizeof(src));
    std::memset(&dst, 0xee, sizeof(dst));
    ASSERT_EQ(kest_endpoint_get(h, conn->m_number, &src, &dst), 0);
    for (auto [got, want] : {std::pair{&src, &c.src_back}, std::pair{&dst, &c.dst_back}}) {
      EXPECT_EQ(got->family, want->family);
      EXPECT_EQ(got->port, want->port);
      EXPECT_EQ(std::memcmp(got->address, want->address, sizeof(got->address)), 0);
    }
  }
}

TEST_F(ConnTest, DestroyGoesThroughTheFactoryOfTheProtocol) {
  const kest_endpoint_t v4 = Ep("192.0.2.1", 80);
  kest_conn_t out = nullptr;
  ASSERT_EQ(kest_conn_create(h, &v4, &v4, 17, &out), 0);
  Conn *conn = udp.m_table.back().get();
  EXPECT_EQ(kest_conn_destroy(h, out), 0);
  EXPECT_EQ(udp.m_destroyed, std::vector<Conn *>{conn});
  EXPECT_TRUE(tcp.m_destroyed.empty());

  EXPECT_TRUE(Refused(kest_conn_destroy(h, nullptr), KEST_EINVAL));
  // Of neither TCP nor UDP: done as far as it goes, with the error left.
  EXPECT_EQ(kest_conn_destroy(h, static_cast<oru::IConn *>(MakeConn(132))), 0);
  EXPECT_EQ(kest_errno, KEST_EPROTONOSUPPORT);
}

// Only the connection last touched on this thread, by its number.
TEST_F(ConnTest, ActiveConnectionCallsRefuseAnyOther) {
  kest_endpoint_t e{};
  unsigned flags = 0;
  EXPECT_TRUE(Refused(kest_endpoint_get(h, 1, &e, &e), KEST_EINVAL));

  Conn *first = ActiveConn();
  Conn *second = ActiveConn();
  const uint32_t policy = first->m_policy;
  EXPECT_TRUE(Refused(kest_endpoint_get(h, first->m_number, &e, &e), KEST_EINVAL));
  EXPECT_TRUE(Refused(kest_conn_policy_flags_disable(h, first->m_number, 1), KEST_EINVAL));
  EXPECT_EQ(first->m_policy, policy);
  EXPECT_TRUE(Refused(kest_conn_status_flags_get(h, first->m_number, &flags), KEST_EINVAL));

  EXPECT_TRUE(Refused(kest_endpoint_get(h, second->m_number, &e, nullptr), KEST_EINVAL));
  EXPECT_EQ(kest_endpoint_get(h, second->m_number, &e, &e), 0);
  EXPECT_EQ(kest_conn_status_flags_get(h, second->m_number, &flags), 0);
  EXPECT_EQ(flags, 1u); // a new connection
}

TEST_F(ConnTest, PolicyFlagsClearTheirBitsAndStatusTranslates) {
  Conn *conn = ActiveConn();
  const struct {
    unsigned flags;
    int result;
    uint32_t cleared;
  } policies[] = {
      {0, 0, 0},  {1, 0, 63}, {2, 0, 4},   {4, 0, 8},   {8, 0, 16},  {16, 0, 32},
      {3, 0, 63}, {6, 0, 12}, {24, 0, 48}, {31, 0, 63}, {32, -1, 0}, {0xffffffffu, -1, 0},
  };
  for (const auto &c : policies) {
    SCOPED_TRACE(c.flags);
    conn->m_policy = 0xffffffffu;
    EXPECT_EQ(kest_conn_policy_flags_disable(h, conn->m_number, c.flags), c.result);
    EXPECT_EQ(kest_errno, c.result == 0 ? 0 : KEST_EINVAL);
    EXPECT_EQ(conn->m_policy, ~c.cleared);
  }
  conn->m_policy = 0; // the policy word plays no part in the status
  const struct {
    uint32_t status;
    unsigned flags;
  } statuses[] = {{0, 0},  {1, 1},   {2, 1},   {4, 3},  {8, 5},
                  {16, 9}, {32, 17}, {60, 31}, {64, 0}, {0x44, 3}};
  for (const auto &c : statuses) {
    SCOPED_TRACE(c.status);
    conn->m_status = c.status;
    unsigned flags = 0xdead;
    EXPECT_EQ(kest_conn_status_flags_get(h, conn->m_number, &flags), 0);
    EXPECT_EQ(flags, c.flags);
  }
}

// A stack of its own: the walking calls touch only the cursor and the stack.
struct Stack {
  Stack(std::initializer_list<uint32_t> protos, uint32_t app) {
    for (uint32_t proto : protos) {
      stack.entries.push_back(AppEntry{proto});
    }
    stack.app = app;
  }
  kest_result_t Cursor() { return kest_result_t{nullptr, &stack, stack.entries.begin().node()}; }
  AppStack stack;
};

TEST_F(ConnTest, WalkingAStack) {
  Stack s({3, 7}, 5);
  kest_result_t cursor = s.Cursor();
  kest_result_t *r = &cursor;
  EXPECT_EQ(kest_proto_get_index(h, kest_proto_first(0, r)), 3);
  EXPECT_EQ(kest_proto_get_index(h, kest_proto_top(0, r)), 7);
  EXPECT_EQ(kest_proto_get_index(h, kest_proto_prev(0, r)), 3);
  EXPECT_EQ(kest_proto_valid(0, kest_proto_prev(0, r)), 0); // below the first
  EXPECT_EQ(kest_proto_valid(0, kest_proto_prev(0, r)), 0); // stays at the end

  // From the top, next reaches the end and stays there.
  EXPECT_EQ(kest_proto_next(0, kest_proto_top(0, r)), r);
  EXPECT_EQ(cursor.current, &s.stack);
  EXPECT_EQ(kest_proto_valid(0, r), 0);
  EXPECT_TRUE(Refused(kest_proto_get_index(h, r), KEST_EINVAL));
  EXPECT_EQ(kest_proto_next(0, r), r);
  EXPECT_EQ(cursor.current, &s.stack);

  EXPECT_EQ(kest_proto_get_index(h, kest_proto_find(0, r, 7)), 7);
  EXPECT_EQ(kest_proto_valid(0, kest_proto_find(0, r, 9)), 0);
  EXPECT_EQ(kest_proto_get_index(h, kest_proto_find(0, r, 3)), 3);
  // The application index is not an entry.
  EXPECT_EQ(kest_proto_valid(0, kest_proto_find(0, r, 5)), 0);
  EXPECT_TRUE(Refused(kest_proto_get_index(h, nullptr), KEST_EINVAL));

  // An empty stack has only the end.
  Stack empty({}, 5);
  cursor = empty.Cursor();
  EXPECT_EQ(kest_proto_valid(0, kest_proto_first(0, r)), 0);
  EXPECT_EQ(kest_proto_valid(0, kest_proto_top(0, r)), 0);
  EXPECT_EQ(kest_proto_valid(0, kest_proto_find(0, r, 5)), 0);
}

TEST_F(ConnTest, ConfidenceIsHalfWhenOnlyTheTransportIsKnown) {
  const uint32_t tcp_index = kTcp, udp_index = kUdp;
  const struct {
    const char *what;
    std::initializer_list<uint32_t> protos;
    uint32_t app;
    int confidence;
  } cases[] = {
      {"TCP flow of TCP", {tcp_index}, tcp_index, 100},
      {"TCP flow, application by port", {tcp_index}, kHttp, 50},
      {"UDP flow, application by port", {udp_index}, kHttp, 50},
      {"UDP under TCP", {tcp_index, udp_index}, tcp_index, 50},
      {"HTTP over TCP", {tcp_index, kHttp}, kHttp, 100},
      {"HTTP on top, another application", {tcp_index, kHttp}, 11, 100},
      {"empty stack", {}, tcp_index, 100},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    Stack s(c.protos, c.app);
    kest_result_t cursor = s.Cursor();
    int confidence = -1;
    EXPECT_EQ(kest_app_get(h, &cursor, &confidence), static_cast<int>(c.app));
    EXPECT_EQ(confidence, c.confidence);
    EXPECT_EQ(kest_app_get(h, &cursor, nullptr), static_cast<int>(c.app));
  }
  EXPECT_TRUE(Refused(kest_app_get(h, nullptr, nullptr), KEST_EINVAL));
}

// The application index of the last result, a deferred one included, reaches
// the int; the connection survives whatever the result's code.
TEST_F(ConnTest, ClassifySimpleStoresTheLastApplicationIndexAndKeepsTheConnection) {
  TestClassify deferred;
  ASSERT_TRUE(classification->Register(oru::Classification::CLASSIFY_TYPE_1, &deferred, owner));
  auto flow_with_app = [&](uint32_t app) {
    Conn *conn = MakeConn(6);
    conn->GetAppStack()->app = app;
    return conn;
  };
  handler.m_conn = flow_with_app(kHttp);
  handler.m_flags = 0xC0; // code 3, which a host often answers by dropping
  const uint8_t data[3] = {1, 2, 3};
  int app = -7;
  EXPECT_EQ(kest_classify_simple(h, data, sizeof(data), &app), 0);
  EXPECT_EQ(app, kHttp);
  EXPECT_EQ(handler.m_calls, 1);

  handler.m_flags = 1;
  handler.m_action = [](TestClassify *, oru::ClassifyPacket *) {
    oru::ClassifyRequest request{};
    request.type = oru::Classification::CLASSIFY_TYPE_1;
    oru::Classification::Instance()->m_deferred.push_back(request);
  };
  deferred.m_conn = flow_with_app(kTcp);
  deferred.m_flags = 1;
  EXPECT_EQ(kest_classify_simple(h, data, sizeof(data), &app), 0);
  EXPECT_EQ(deferred.m_calls, 1);
  EXPECT_EQ(app, kTcp);
  EXPECT_TRUE(tcp.m_destroyed.empty());

  // Without a result the int stays as it was.
  handler.m_flags = 0;
  handler.m_action = nullptr;
  app = -7;
  EXPECT_EQ(kest_classify_simple(h, data, sizeof(data), &app), -1);
  EXPECT_EQ(app, -7);
}

TEST_F(ConnTest, FlagsMapToCodesInTableOrder) {
  const struct {
    unsigned flags;
    int code; // -1: no result
  } cases[] = {{0x0, -1}, {0x200, -1}, {0x103, 0}, {0x1C0, 0}, {0x43, 1}, {0xC2, 1},
               {0x44, 2}, {0x20, 2},   {0xC0, 3},  {0x80, 3},  {0x240, 3}};
  handler.m_conn = MakeConn(6);
  for (const auto &c : cases) {
    SCOPED_TRACE(c.flags);
    recorder.calls.clear();
    handler.m_flags = c.flags;
    EXPECT_EQ(ClassifyForm1(), c.code < 0 ? -1 : 0);
    EXPECT_EQ(kest_errno, 0);
    ASSERT_EQ(recorder.calls.size(), c.code < 0 ? 0u : 1u);
    if (c.code >= 0) {
      EXPECT_EQ(recorder.calls[0].code, c.code);
    }
  }
}

TEST_F(ConnTest, SelectorsReachTheirRowsAndSelectorZeroTheConnection) {
  TestClassify row1, row2, row3, own;
  ASSERT_TRUE(classification->Register(Classification::CLASSIFY_TYPE_1, &row1, owner));
  ASSERT_TRUE(classification->Register(Classification::CLASSIFY_TYPE_2, &row2, owner));
  ASSERT_TRUE(classification->Register(Classification::CLASSIFY_CONN, &row3, owner));
  kest_test::TestConn *conn = MakeConn(6, &own);
  for (TestClassify *t : {&handler, &row1, &row2, &own}) {
    t->m_conn = conn;
    t->m_flags = 1;
  }
  // Selector 0 sets the side before its handler runs.
  own.m_action = [](TestClassify *self, ClassifyPacket *) {
    self->m_flags = self->m_conn->m_side <= 1 ? self->m_conn->m_side : 0;
  };
  const struct {
    int selector, side;
    TestClassify *reached;
    int result;
  } cases[] = {{1, 1, &handler, 0}, {2, 0, &row1, 0}, {3, 0, &row2, 0},
               {0, 7, &own, 0},     {0, -1, &own, 0}, {0, 0, &own, -1}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.selector);
    const int before = c.reached->m_calls;
    EXPECT_EQ(kest_classify(h, c.selector, kPacket, 1, conn, c.side, kest_test::RecordingCallback,
                            &recorder),
              c.result);
    EXPECT_EQ(c.reached->m_calls, before + 1);
  }
  EXPECT_EQ(row3.m_calls, 0) << "row 3 is never read";
  // A connection without an IClassify of its own fails the request.
  EXPECT_EQ(
      kest_classify(h, 0, kPacket, 1, MakeConn(6), 0, kest_test::RecordingCallback, &recorder), -1);
}

TEST_F(ConnTest, CallbackGetsCursorNumberAndError) {
  kest_test::TestConn *conn = MakeConn(6);
  handler.m_conn = conn;
  handler.m_flags = 0xC0;
  handler.m_action = [](TestClassify *, ClassifyPacket *) { kest_errno = 61; };
  oru::AppStack *stack = conn->GetAppStack();
  ASSERT_EQ(ClassifyForm1(), 0);
  ASSERT_NE(stack->entries.push_back(oru::AppEntry{3}), stack->entries.end());
  ASSERT_EQ(ClassifyForm1(), 0);
  ASSERT_EQ(recorder.calls.size(), 2u);
  for (const kest_test::CallbackRecord &call : recorder.calls) {
    EXPECT_EQ(call.handle, h);
    EXPECT_EQ(call.code, 3);
    EXPECT_EQ(call.conn_id, conn->m_number);
    EXPECT_EQ(call.error, 61);
    EXPECT_EQ(call.conn, conn);
    EXPECT_EQ(call.cursor.stack, stack);
  }
  EXPECT_EQ(recorder.calls[0].cursor.current, stack) << "an empty stack starts at its end";
  EXPECT_EQ(recorder.calls[1].cursor.current, stack->entries.begin().node());
}

TEST_F(ConnTest, RefusedConnectionIsDestroyedByTheFactoryOfItsProtocol) {
  const struct {
    uint8_t protocol;
    kest_test::TestFactory *factory;
    int error;
  } cases[] = {{6, &tcp, 0}, {17, &udp, 0}, {0, nullptr, KEST_EPROTONOSUPPORT}};
  recorder.result = 1;
  handler.m_flags = 1;
  for (const auto &c : cases) {
    SCOPED_TRACE(int(c.protocol));
    oru::Tuple tuple{};
    tuple.protocol = c.protocol;
    oru::Conn *conn = c.factory != nullptr ? Classification::CreateConn(tuple) : MakeConn(0);
    handler.m_conn = conn;
    const long live = kest_test::LiveBlocks(kest_test::Heap::Local);
    EXPECT_EQ(ClassifyForm1(), 0) << "the request counts as done";
    EXPECT_EQ(kest_errno, c.error);
    if (c.factory != nullptr) {
      EXPECT_EQ(c.factory->m_destroyed, std::vector<oru::Conn *>{conn});
      EXPECT_EQ(kest_test::LiveBlocks(kest_test::Heap::Local), live - 1) << "last reference gone";
    } else {
      EXPECT_EQ(conn->use_count(), 1) << "left alone";
    }
  }
  EXPECT_EQ(tcp.m_destroyed.size() + udp.m_destroyed.size(), 2u);
  oru::Tuple sctp{};
  sctp.protocol = 132;
  kest_errno = 0;
  EXPECT_EQ(Classification::CreateConn(sctp), nullptr);
  EXPECT_EQ(kest_errno, KEST_EPROTONOSUPPORT);
  // Without a factory nothing happens and nothing is raised.
  oru::InterfaceBroker::Instance()->UnregisterInterface(oru::MODULE_TCP,
                                                        oru::INTERFACE_CONN_FACTORY, nullptr);
  handler.m_conn = MakeConn(6);
  EXPECT_EQ(ClassifyForm1(), 0);
  EXPECT_EQ(kest_errno, 0);
}

TEST_F(ConnTest, FirstRegistrationWinsAndUnregisterNeedsBothHandlerAndOwner) {
  TestClassify second;
  oru::fdt::intrusive_ptr<oru::fdt::refcnt> other_owner(new kest_test::TestOwner);
  EXPECT_FALSE(classification->Register(Classification::CLASSIFY_TYPE_0, &second, other_owner));
  EXPECT_EQ(other_owner->use_count(), 1);
  classification->Unregister(Classification::CLASSIFY_TYPE_0, &handler, other_owner);
  classification->Unregister(Classification::CLASSIFY_TYPE_0, &second, owner);
  EXPECT_EQ(owner->use_count(), 2) << "the row holds its owner";
  ClassifyForm1();
  EXPECT_EQ(handler.m_calls, 1);
  EXPECT_EQ(second.m_calls, 0);

  classification->Unregister(Classification::CLASSIFY_TYPE_0, &handler, owner);
  EXPECT_EQ(owner->use_count(), 1);
  EXPECT_EQ(ClassifyForm1(), -1);
  EXPECT_TRUE(classification->Register(Classification::CLASSIFY_TYPE_0, &second, other_owner));
}

TEST_F(ConnTest, FailingDeferredRequestDropsTheRest) {
  handler.m_conn = MakeConn(6);
  handler.m_flags = 1;
  handler.m_context = this;
  // Row 2 is empty, so "a" fails and "b" is never run.
  handler.m_action = [](TestClassify *self, ClassifyPacket *) {
    Of(self)->Defer(Classification::CLASSIFY_TYPE_2, "a");
    Of(self)->Defer(Classification::CLASSIFY_TYPE_0, "b");
  };
  EXPECT_EQ(ClassifyForm1(), -1);
  EXPECT_EQ(handler.m_calls, 1);
  EXPECT_EQ(recorder.calls.size(), 1u) << "the packet's result stands";
  EXPECT_EQ(log, "ab") << "both released";
  EXPECT_TRUE(classification->m_deferred.empty());
}

TEST_F(ConnTest, RecordsAppendedDuringTheWalkRunThenTheRequestIsReleased) {
  handler.m_conn = MakeConn(6);
  other = MakeConn(6);
  handler.m_flags = 1;
  handler.m_context = this;
  handler.m_action = [](TestClassify *self, ClassifyPacket *packet) {
    if (self->m_calls == 1) {
      packet->release = LogRelease;
      packet->release_arg = &Of(self)->log;
      Of(self)->Defer(Classification::CLASSIFY_TYPE_0, "a");
    } else if (self->m_calls == 2) {
      Of(self)->Defer(Classification::CLASSIFY_TYPE_0, "b");
      self->m_conn = Of(self)->other;
      kest_errno = 5;
    }
  };
  EXPECT_EQ(ClassifyForm1(), 0);
  ASSERT_EQ(recorder.calls.size(), 3u);
  EXPECT_EQ(recorder.calls[1].conn_id, other->m_number) << "a result of another connection";
  EXPECT_EQ(recorder.calls[1].error, 5);
  EXPECT_EQ(recorder.calls[2].error, 0) << "each deferred request starts at kest_errno 0";
  EXPECT_EQ(log, std::string("ab") +
                     std::string(reinterpret_cast<const char *>(kPacket), sizeof kPacket))
      << "the packet's own hook runs last";
}

TEST_F(ConnTest, DestructionReleasesDeferredRequestsAndOwners) {
  Defer(Classification::CLASSIFY_TYPE_0, "x");
  Defer(Classification::CLASSIFY_TYPE_0, "y");
  classification->ExitThread();
  Classification::Release();
  EXPECT_EQ(log, "xy");
  EXPECT_EQ(handler.m_calls, 0);
  EXPECT_EQ(owner->use_count(), 1);
}

} // namespace
