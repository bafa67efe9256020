// The TCP and UDP decoders in-process: one instance that knows both
// protocols, a thread context on the test thread and both decoders' thread
// start-up, so that their tables are the instance's connection factories.
#ifndef KEST_TESTS_DECODERTESTSUPPORT_H
#define KEST_TESTS_DECODERTESTSUPPORT_H

#include "tests/conn/ConnTestSupport.h"
#include "tests/support/StackNames.h"

#include "transport/Transports.h"

#include <arpa/inet.h>
#include <kest/ProtocolRegistry.h>
#include <string>

namespace kest_test {

class DecoderFixture : public ThreadedFixture {
protected:
  void SetUp() override {
    ThreadedFixture::SetUp();
    Enter();
    for (const auto *t : {&kTcp, &kUdp}) {
      ASSERT_TRUE(t->InitThread()) << t->Name();
    }
  }
  void TearDown() override {
    Enter();
    for (const auto *t : {&kTcp, &kUdp}) {
      t->ExitThread();
    }
    ThreadedFixture::TearDown();
  }

  // A connection from 192.0.0.0:40000 to 198.0.0.0:80.
  oru::Conn *Create(uint8_t protocol) {
    kest_endpoint_t src{KEST_FAMILY_IPV4, htons(40000), {192}};
    kest_endpoint_t dst{KEST_FAMILY_IPV4, htons(80), {198}};
    kest_conn_t conn = nullptr;
    EXPECT_EQ(kest_conn_create(h, &src, &dst, protocol, &conn), 0);
    return static_cast<oru::Conn *>(static_cast<oru::IConn *>(conn));
  }
  int Classify(oru::Conn *conn, int side, const std::string &payload) {
    return kest_classify(h, KEST_SELECTOR_CONN, payload.data(),
                         static_cast<uint16_t>(payload.size()), static_cast<oru::IConn *>(conn),
                         side, RecordingCallback, &recorder);
  }

  const kest_decoders::TransportPlugin &kTcp = kest_decoders::TcpTransport();
  const kest_decoders::TransportPlugin &kUdp = kest_decoders::UdpTransport();
  Recorder recorder;
};

} // namespace kest_test

#endif
