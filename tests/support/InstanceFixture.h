// A fixture that installs the test hooks and closes whatever instances a test
// left open, so that every test starts from an empty instance table.
#ifndef KEST_TESTS_INSTANCEFIXTURE_H
#define KEST_TESTS_INSTANCEFIXTURE_H

#include "TestHooks.h"
#include "TransportPlugin.h"

#include <gtest/gtest.h>
#include <kest.h>
#include <kest/Runtime.h>

namespace kest_test {

class InstanceFixture : public ::testing::Test {
protected:
  void SetUp() override {
    InstallHooks();
    kest_errno = 0;
  }
  void TearDown() override {
    InstallHooks();
    for (kest_handle_t h = 1; h <= 31; ++h) {
      kest_fini(h);
      kest_close(h);
    }
    kest_errno = 0;
  }

  // Opens an instance with an empty plug-in directory.
  kest_handle_t Open() { return kest_open(EmptyPluginDir()); }

  static const char *EmptyPluginDir() { return "/nonexistent-kest-plugins"; }
};

// One open instance, `h`. Enter() makes the test thread work in it for calls
// into the library's internals; Leave() goes back.
class OpenFixture : public InstanceFixture {
protected:
  void SetUp() override {
    InstanceFixture::SetUp();
    h = Open();
    ASSERT_GT(h, 0);
  }
  void TearDown() override {
    Leave();
    InstanceFixture::TearDown();
  }
  void Enter() { oru::Runtime::l_instance_id = h; }
  void Leave() { oru::Runtime::l_instance_id = 0; }
  kest_handle_t h = -1;
};

// The same instance with a context on the test thread.
class ThreadedFixture : public OpenFixture {
protected:
  void SetUp() override {
    OpenFixture::SetUp();
    ASSERT_EQ(kest_init(h), 0);
  }
};

// A host call that failed with -1 and left `error` in kest_errno.
inline ::testing::AssertionResult Refused(int result, int error) {
  const int seen = kest_errno;
  if (result == -1 && seen == error) {
    return ::testing::AssertionSuccess();
  }
  return ::testing::AssertionFailure()
         << "returned " << result << " with kest_errno " << seen << ", not -1 with " << error;
}

} // namespace kest_test

#endif
