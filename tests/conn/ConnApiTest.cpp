#include "ConnTestSupport.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

using kest_test::Refused;
using kest_test::TestClassify;
using oru::AppEntry;
using oru::AppStack;
using oru::Conn;

// The transport plug-in numbers TCP and UDP; any other index stands for an
// application such as HTTP.
class ConnApiTest : public kest_test::ClassificationFixture {
protected:
  void SetUp() override {
    ClassificationFixture::SetUp();
    kTcp = kest_proto_find_index(h, "TCP");
    kUdp = kest_proto_find_index(h, "UDP");
    ASSERT_GT(kTcp, 0);
    ASSERT_GT(kUdp, 0);
  }
  // A connection held by the test, made the thread's active one.
  Conn *ActiveConn() {
    Conn *conn = MakeConn(6);
    conn->Touch();
    return conn;
  }
  int kTcp = 0, kUdp = 0;
  static constexpr int kHttp = 9;
};

kest_endpoint_t Endpoint(uint8_t family, std::initializer_list<uint8_t> bytes, uint8_t port_hi,
                         uint8_t port_lo) {
  kest_endpoint_t e{};
  e.family = family;
  std::copy(bytes.begin(), bytes.end(), e.address);
  reinterpret_cast<uint8_t *>(&e.port)[0] = port_hi;
  reinterpret_cast<uint8_t *>(&e.port)[1] = port_lo;
  return e;
}
kest_endpoint_t V4(uint8_t a, uint8_t b, uint8_t c, uint8_t d, uint8_t port_hi, uint8_t port_lo) {
  return Endpoint(KEST_FAMILY_IPV4, {a, b, c, d}, port_hi, port_lo);
}
kest_endpoint_t V6(std::initializer_list<uint8_t> bytes, uint8_t port_hi, uint8_t port_lo) {
  return Endpoint(KEST_FAMILY_IPV6, bytes, port_hi, port_lo);
}

TEST_F(ConnApiTest, CreateRefusals) {
  oru::InterfaceBroker *broker = oru::InterfaceBroker::Instance();
  broker->UnregisterInterface(oru::MODULE_TCP, oru::INTERFACE_CONN_FACTORY, nullptr);
  broker->UnregisterInterface(oru::MODULE_UDP, oru::INTERFACE_CONN_FACTORY, nullptr);
  const kest_endpoint_t v4 = V4(192, 0, 2, 1, 0, 80);
  const kest_endpoint_t v6 = V6({0x20, 0x01, 0x0d, 0xb8}, 0, 80);
  const kest_endpoint_t v3 = Endpoint(3, {192, 0, 2, 1}, 0, 80);
  const kest_endpoint_t v0 = Endpoint(0, {192, 0, 2, 1}, 0, 80);
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
kest_endpoint_t g_ep = V4(192, 0, 2, 1, 0, 80);
kest_conn_t g_conn;
unsigned g_flags;
int g_app;
char g_name[8];

TEST_F(ConnApiTest, EveryFramedCallRefusesABadHandleOrAThreadWithoutContext) {
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
TEST_F(ConnApiTest, AddressesAndPortsMakeTheRoundTrip) {
  const kest_endpoint_t v6a =
      V6({0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 0, 80);
  const kest_endpoint_t v6b = V6(
      {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0x02, 0x11, 0x22, 0xff, 0xfe, 0x33, 0x44, 0x55}, 0x12, 0x34);
  const kest_endpoint_t v6_unspecified = V6({}, 0xff, 0xff);
  const struct {
    const char *what;
    kest_endpoint_t src, dst;
    uint8_t protocol;
    uint16_t src_port, dst_port; // host order, as the factory sees it
    kest_endpoint_t src_back, dst_back;
  } cases[] = {
      {"IPv4", V4(192, 0, 2, 1, 0x00, 0x50), V4(198, 51, 100, 7, 0xc3, 0x50), 6, 80, 50000,
       V4(192, 0, 2, 1, 0x00, 0x50), V4(198, 51, 100, 7, 0xc3, 0x50)},
      {"IPv6", v6a, v6b, 17, 80, 0x1234, v6a, v6b},
      // ::1 holds only the word that IPv4 uses, so it reads back as 0.0.0.1;
      // the unspecified address has no IPv4 form and reads back as IPv6.
      {"loopback and unspecified", V6({0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 0, 80),
       v6_unspecified, 6, 80, 0xffff, V4(0, 0, 0, 1, 0, 80), v6_unspecified},
      {"IPv4 zero", V4(0, 0, 0, 0, 0, 0), V4(10, 0, 0, 1, 0x01, 0xbb), 6, 0, 443, V6({}, 0, 0),
       V4(10, 0, 0, 1, 0x01, 0xbb)},
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

TEST_F(ConnApiTest, DestroyGoesThroughTheFactoryOfTheProtocol) {
  const kest_endpoint_t v4 = V4(192, 0, 2, 1, 0, 80);
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
TEST_F(ConnApiTest, ActiveConnectionCallsRefuseAnyOther) {
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

TEST_F(ConnApiTest, PolicyFlagsClearTheirBitsAndStatusTranslates) {
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

TEST_F(ConnApiTest, WalkingAStack) {
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

TEST_F(ConnApiTest, ConfidenceIsHalfWhenOnlyTheTransportIsKnown) {
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
TEST_F(ConnApiTest, ClassifySimpleStoresTheLastApplicationIndexAndKeepsTheConnection) {
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

} // namespace
