// What the tests of whole packets share: an instance on the decoders, the
// packet decoder and the probe plug-in, and a callback that records each
// answer.
#ifndef KEST_TESTS_PACKETTESTSUPPORT_H
#define KEST_TESTS_PACKETTESTSUPPORT_H

#include "tests/decoders/DecoderTestSupport.h"

#include "PluginFolder.h"

#include <string>
#include <vector>

namespace kest_test {

struct Result {
  int code;
  kest_conn_id_t id;
  std::string stack;
};

inline int Record(kest_handle_t h, kest_result_t *result, int code, kest_conn_id_t id, void *user,
                  int) {
  static_cast<std::vector<Result> *>(user)->push_back(
      {code, id, kest_test::StackNames(h, *result)});
  return 0;
}

class WirePluginTest : public kest_test::PluginFolderFixture {
protected:
  kest_handle_t OpenAll() {
    const kest_handle_t h = kest_open(
        Folder({KEST_TEST_TCP_PLG, KEST_TEST_UDP_PLG, KEST_TEST_WIRE_PLG, KEST_TEST_PROBE_PLG})
            .c_str());
    EXPECT_GT(h, 0);
    EXPECT_EQ(kest_init(h), 0);
    return h;
  }
};

} // namespace kest_test

#endif
