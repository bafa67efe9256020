// Stand-ins for the transport plug-ins (a connection class, its factory, a
// packet handler with chosen answers) and a fixture with one instance, a
// thread context and the classification layer on the test thread.
#ifndef KEST_TESTS_CONNTESTSUPPORT_H
#define KEST_TESTS_CONNTESTSUPPORT_H

#include "InstanceFixture.h"

#include <kest/Classification.h>
#include <kest/IConnFactory.h>
#include <new>
#include <vector>

namespace kest_test {

using ConnPtr = oru::fdt::intrusive_ptr<oru::Conn>;

// Made whole from kest_malloc_local, as the plug-ins make theirs.
class TestConn : public oru::Conn {
public:
  static TestConn *Make(uint8_t protocol, oru::IClassify *classify = nullptr) {
    TestConn *conn = ::new (kest_malloc_local(sizeof(TestConn))) TestConn;
    conn->m_protocol = protocol;
    conn->m_classify = classify;
    return conn;
  }
  void *GetInterface(oru::InterfaceId id) override {
    return id == oru::INTERFACE_CONN_CLASSIFY ? m_classify : nullptr;
  }
  uint8_t Protocol() const override { return m_protocol; }
  void Expired() override { ++m_expired; }

  uint8_t m_protocol = 0;
  oru::IClassify *m_classify = nullptr;
  int m_expired = 0;
};

// Holds what it made, as a plug-in's table does, until Destroy.
class TestFactory : public oru::IConnFactory {
public:
  oru::Conn *Create(const oru::Tuple &tuple) override {
    m_table.push_back(TestConn::Make(tuple.protocol));
    m_table.back()->m_tuple = tuple;
    return m_table.back().get();
  }
  void Destroy(oru::Conn *conn) override {
    m_destroyed.push_back(conn);
    std::erase(m_table, ConnPtr(conn));
  }
  std::vector<ConnPtr> m_table;
  std::vector<oru::Conn *> m_destroyed;
};

// Answers with m_flags and m_conn after running m_action.
class TestClassify : public oru::IClassify {
public:
  unsigned Classify(oru::ClassifyPacket *packet, ConnPtr &out) override {
    ++m_calls;
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
};

class TestOwner : public oru::fdt::refcnt {};

// One row per callback; the recorder is the user word.
struct CallbackRecord {
  kest_handle_t handle;
  int code;
  kest_conn_id_t conn_id;
  int error;
  kest_result_t cursor;
  oru::Conn *conn; // what the cursor's first word refers to
};
struct Recorder {
  int result = 0; // the callback's return
  std::vector<CallbackRecord> calls;
};

inline int RecordingCallback(kest_handle_t handle, kest_result_t *result, int code,
                             kest_conn_id_t conn_id, void *user, int error) {
  Recorder *recorder = static_cast<Recorder *>(user);
  oru::Conn *conn = static_cast<ConnPtr *>(result->connection)->get();
  recorder->calls.push_back(CallbackRecord{handle, code, conn_id, error, *result, conn});
  return recorder->result;
}

// One instance with the two factories registered and `handler` on row 0
// (selector 1).
class ClassificationFixture : public ThreadedFixture {
protected:
  void SetUp() override {
    ThreadedFixture::SetUp();
    Enter();
    classification = oru::Classification::Instance();
    oru::InterfaceBroker *broker = oru::InterfaceBroker::Instance();
    ASSERT_TRUE(broker->RegisterInterface(oru::MODULE_TCP, oru::INTERFACE_CONN_FACTORY, &tcp));
    ASSERT_TRUE(broker->RegisterInterface(oru::MODULE_UDP, oru::INTERFACE_CONN_FACTORY, &udp));
    owner = new TestOwner;
    ASSERT_TRUE(classification->Register(oru::Classification::CLASSIFY_TYPE_0, &handler, owner));
  }
  void TearDown() override {
    Enter();
    if (oru::Classification::Peek() != nullptr) {
      oru::Classification::Peek()->ExitThread();
      oru::Classification::Release();
    }
    held.clear();
    tcp.m_table.clear();
    udp.m_table.clear();
    ThreadedFixture::TearDown();
  }

  // A connection the test holds until it ends.
  TestConn *MakeConn(uint8_t protocol, oru::IClassify *classify = nullptr) {
    held.push_back(TestConn::Make(protocol, classify));
    return static_cast<TestConn *>(held.back().get());
  }
  int ClassifyForm1() {
    return kest_classify(h, KEST_SELECTOR_FORM_1, kPacket, sizeof(kPacket), nullptr, 0,
                         RecordingCallback, &recorder);
  }

  static constexpr uint8_t kPacket[4] = {1, 2, 3, 4};
  oru::Classification *classification = nullptr;
  TestFactory tcp, udp;
  TestClassify handler;
  oru::fdt::intrusive_ptr<oru::fdt::refcnt> owner;
  Recorder recorder;
  std::vector<ConnPtr> held;
};

} // namespace kest_test

#endif
