// A listener that records what reaches it, and a fixture with one instance, a
// thread context and the classification layer on the test thread.
#ifndef KEST_TESTS_ATTRIBUTETESTSUPPORT_H
#define KEST_TESTS_ATTRIBUTETESTSUPPORT_H

#include "../conn/ConnTestSupport.h"

#include <kest/AttributeMgr.h>
#include <string>

namespace kest_test {

struct Delivery {
  kest_handle_t handle;
  kest_conn_id_t conn_id;
  int key;
  std::string value;
  int packed;
  void *user;
};
inline std::vector<Delivery> g_deliveries;

inline int RecordingListener(kest_handle_t handle, kest_conn_id_t conn_id, int key, int length,
                             const void *value, int packed, void *user) {
  const std::string bytes(static_cast<const char *>(value), length);
  g_deliveries.push_back(Delivery{handle, conn_id, key, bytes, packed, user});
  return 0;
}

inline oru::fdt::string Name(const std::string &text) {
  oru::fdt::string name;
  name.append(text.c_str());
  return name;
}

class AttributeFixture : public ClassificationFixture {
protected:
  void SetUp() override {
    ClassificationFixture::SetUp();
    g_deliveries.clear();
    manager = oru::AttributeMgr::Instance();
  }
  int SetListener(const std::string &name, kest_attr_callback_t listener = RecordingListener) {
    return kest_attr_callback_set(h, name.c_str(), listener);
  }
  int Key(const std::string &name) { return kest_attr_key_get(h, name.c_str()); }
  oru::AttributeMgr *manager = nullptr;
};

} // namespace kest_test

#endif
