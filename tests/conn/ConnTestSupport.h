// Stand-ins for the transport plug-ins: a connection class, its factory and a
// packet handler whose answers a test chooses, and a fixture that brings up one
// instance with a thread context and the classification layer on the test
// thread.
#ifndef KEST_TESTS_CONNTESTSUPPORT_H
#define KEST_TESTS_CONNTESTSUPPORT_H

#include "InstanceFixture.h"
#include "TestHooks.h"

#include <gtest/gtest.h>
#include <kest.h>
#include <kest/Classification.h>
#include <kest/Conn.h>
#include <kest/IConnFactory.h>
#include <kest/InterfaceBroker.h>
#include <new>
#include <vector>

namespace kest_test {

// A connection as a transport plug-in makes it: whole from kest_malloc_local.
class TestConn : public oru::Conn {
public:
  explicit TestConn(uint8_t protocol, oru::IClassify *classify = nullptr)
      : m_protocol(protocol), m_classify(classify) {}

  static TestConn *Make(uint8_t protocol, oru::IClassify *classify = nullptr) {
    void *block = kest_malloc_local(sizeof(TestConn));
    return block != nullptr ? ::new (block) TestConn(protocol, classify) : nullptr;
  }

  void *GetInterface(oru::InterfaceId id) override {
    return id == oru::INTERFACE_CONN_CLASSIFY ? m_classify : nullptr;
  }
  uint8_t Protocol() const override { return m_protocol; }
  void Expired() override { ++m_expired; }

  uint8_t m_protocol;
  oru::IClassify *m_classify;
  int m_expired = 0;
};

// Keeps the connections it made, as a plug-in's table does, until Destroy.
class TestFactory : public oru::IConnFactory {
public:
  oru::Conn *Create(const oru::Tuple &tuple) override {
    TestConn *conn = TestConn::Make(tuple.protocol);
    if (conn != nullptr) {
      conn->m_tuple = tuple;
      m_table.push_back(oru::fdt::intrusive_ptr<oru::Conn>(conn));
    }
    return conn;
  }
  void Destroy(oru::Conn *conn) override {
    m_destroyed.push_back(conn);
    for (auto it = m_table.begin(); it != m_table.end(); ++it) {
      if (it->get() == conn) {
        m_table.erase(it);
        break;
      }
    }
  }

  std::vector<oru::fdt::intrusive_ptr<oru::Conn>> m_table;
  std::vector<oru::Conn *> m_destroyed;
};

// Answers every packet with `flags` and the connection `conn`, and runs
// `action` first if set.
class TestClassify : public oru::IClassify {
public:
  unsigned Classify(oru::ClassifyPacket *packet, oru::fdt::intrusive_ptr<oru::Conn> &out) override {
    ++m_calls;
    m_packets.push_back(packet->data);
    if (m_action != nullptr) {
      m_action(this, packet);
    }
    out = m_conn;
    return m_flags;
  }

  unsigned m_flags = 0;
  oru::Conn *m_conn = nullptr;
  void (*m_action)(TestClassify *self, oru::ClassifyPacket *packet) = nullptr;
  void *m_context = nullptr;
  int m_calls = 0;
  std::vector<const uint8_t *> m_packets;
};

// A registration owner.
class TestOwner : public oru::fdt::refcnt {};

// Everything the host callback saw, one row per call. Passed as user word.
struct CallbackRecord {
  kest_handle_t handle;
  int code;
  kest_conn_id_t conn_id;
  int error;
  kest_result_t cursor;
  oru::Conn *conn; // what the cursor's first word points at
};

struct Recorder {
  int result = 0; // what the callback returns
  std::vector<CallbackRecord> calls;
};

inline int RecordingCallback(kest_handle_t handle, kest_result_t *result, int code,
                             kest_conn_id_t conn_id, void *user, int error) {
  Recorder *recorder = static_cast<Recorder *>(user);
  auto *ref = static_cast<oru::fdt::intrusive_ptr<oru::Conn> *>(result->connection);
  recorder->calls.push_back(CallbackRecord{handle, code, conn_id, error, *result, ref->get()});
  return recorder->result;
}

// One open instance with a thread context on the test thread, the
// classification layer started, the two factories registered and `handler`
// on row 0 (selector 1).
class ClassificationFixture : public InstanceFixture {
protected:
  void SetUp() override {
    InstanceFixture::SetUp();
    h = Open();
    ASSERT_GT(h, 0);
    ASSERT_EQ(kest_init(h), 0);
    oru::Runtime::l_instance_id = h;
    ASSERT_TRUE(oru::Conn::InitInstance());
    classification = oru::Classification::Instance();
    ASSERT_NE(classification, nullptr);
    ASSERT_TRUE(classification->InitThread());
    oru::InterfaceBroker *broker = oru::InterfaceBroker::Instance();
    ASSERT_TRUE(broker->RegisterInterface(oru::MODULE_TCP, oru::INTERFACE_CONN_FACTORY, &tcp));
    ASSERT_TRUE(broker->RegisterInterface(oru::MODULE_UDP, oru::INTERFACE_CONN_FACTORY, &udp));
    owner = new TestOwner;
    ASSERT_TRUE(classification->Register(oru::Classification::CLASSIFY_TYPE_0, &handler, owner));
  }

  void TearDown() override {
    if (h > 0 && oru::Classification::Peek() != nullptr) {
      oru::Runtime::l_instance_id = h;
      oru::Classification::Peek()->ExitThread();
      oru::Classification::Release();
    }
    tcp.m_table.clear();
    udp.m_table.clear();
    oru::Runtime::l_instance_id = 0;
    owner.reset();
    InstanceFixture::TearDown();
  }

  // kest_classify with selector 1 and the recorder as user word.
  int ClassifyForm1() {
    return kest_classify(h, KEST_SELECTOR_FORM_1, kPacket, sizeof(kPacket), nullptr, 0,
                         RecordingCallback, &recorder);
  }

  static constexpr uint8_t kPacket[4] = {1, 2, 3, 4};

  kest_handle_t h = -1;
  oru::Classification *classification = nullptr;
  TestFactory tcp;
  TestFactory udp;
  TestClassify handler;
  oru::fdt::intrusive_ptr<oru::fdt::refcnt> owner;
  Recorder recorder;
};

} // namespace kest_test

#endif
