// A fixture that runs the TCP and UDP decoders in-process: one instance that
// knows both protocols, a thread context on the test thread, and the thread
// start-up of both decoders, so that their connection tables are the
// instance's factories.
#ifndef KEST_TESTS_DECODERTESTSUPPORT_H
#define KEST_TESTS_DECODERTESTSUPPORT_H

#include "tests/conn/ConnTestSupport.h"

#include "common/TransportPlugin.h"
#include "tcp/TcpPlugin.h"
#include "udp/UdpPlugin.h"

#include <arpa/inet.h>
#include <kest/ProtocolRegistry.h>
#include <string>
#include <vector>

namespace kest_test {

class DecoderFixture : public InstanceFixture {
protected:
  void SetUp() override {
    InstanceFixture::SetUp();
    h = Open();
    ASSERT_GT(h, 0);
    oru::Runtime::l_instance_id = h;
    for (const char *name : {"TCP", "UDP"}) {
      if (oru::GetProtocolId(name) == 0) {
        ASSERT_GT(oru::ProtocolRegistry::AddProtocol(name, 0), 0);
      }
    }
    oru::Runtime::l_instance_id = 0;
    ASSERT_EQ(kest_init(h), 0);
    oru::Runtime::l_instance_id = h;
    ASSERT_TRUE(oru::ProtocolRegistry::InitThread());
    StartConnectionsIfNeeded();
    for (const kest_decoders::TransportPlugin *t : Transports()) {
      ASSERT_TRUE(t->InitThread()) << t->Name();
    }
  }
  void TearDown() override {
    oru::Runtime::l_instance_id = h;
    for (const kest_decoders::TransportPlugin *t : Transports()) {
      t->ExitThread();
    }
    if (oru::Classification::Peek() != nullptr) {
      oru::Classification::Peek()->ExitThread();
      oru::Classification::Release();
    }
    oru::Runtime::l_instance_id = 0;
    InstanceFixture::TearDown();
  }

  static std::vector<const kest_decoders::TransportPlugin *> Transports() {
    return {&kest_decoders::TcpPlugin::Transport(), &kest_decoders::UdpPlugin::Transport()};
  }
  static kest_decoders::ConnTable *Table(uint8_t protocol) {
    return (protocol == 6 ? kest_decoders::TcpPlugin::Transport()
                          : kest_decoders::UdpPlugin::Transport())
        .Table();
  }

  kest_conn_t Create(uint8_t protocol) {
    kest_endpoint_t src{}, dst{};
    src.family = dst.family = KEST_FAMILY_IPV4;
    src.address[0] = 192;
    dst.address[0] = 198;
    src.port = htons(40000);
    dst.port = htons(80);
    kest_conn_t conn = nullptr;
    EXPECT_EQ(kest_conn_create(h, &src, &dst, protocol, &conn), 0);
    return conn;
  }
  int Classify(kest_conn_t conn, int side, const std::string &payload) {
    return kest_classify(h, KEST_SELECTOR_CONN, payload.data(),
                         static_cast<uint16_t>(payload.size()), conn, side, RecordingCallback,
                         &recorder);
  }

  kest_handle_t h = -1;
  Recorder recorder;
};

// The protocol names of a result's stack, lowest first, joined by "/".
inline std::string StackNames(kest_handle_t h, kest_result_t cursor) {
  std::string names;
  for (kest_proto_first(h, &cursor); kest_proto_valid(h, &cursor) != 0;
       kest_proto_next(h, &cursor)) {
    char name[32];
    const char *got = kest_proto_get_name(h, kest_proto_get_index(h, &cursor), name, sizeof name);
    names += names.empty() ? "" : "/";
    names += got != nullptr ? got : "?";
  }
  return names;
}

} // namespace kest_test

#endif
