// Second threads of an instance for threaded tests. A ParkedThread joins with
// kest_init, runs `setup` inside the instance, and then stands still, draining
// nothing, until Release(); it then runs one idle pass and leaves with
// kest_fini. InstanceThread does the same without the pause and the idle pass.
#ifndef KEST_TESTS_PARKEDTHREAD_H
#define KEST_TESTS_PARKEDTHREAD_H

#include <gtest/gtest.h>
#include <kest.h>
#include <kest/Runtime.h>

#include <functional>
#include <latch>
#include <thread>

namespace kest_test {

class ParkedThread {
public:
  explicit ParkedThread(kest_handle_t h, std::function<void()> setup = nullptr)
      : m_thread([this, h, setup] {
          EXPECT_EQ(kest_init(h), 0);
          m_id = kest_get_thread_id();
          oru::Runtime::l_instance_id = h;
          if (setup) {
            setup();
          }
          oru::Runtime::l_instance_id = 0;
          m_ready.count_down();
          m_go.wait();
          kest_idle(h);
          EXPECT_EQ(kest_fini(h), 0);
        }) {
    m_ready.wait();
  }
  ~ParkedThread() {
    if (m_thread.joinable()) {
      Release();
    }
  }
  void Release() {
    m_go.count_down();
    m_thread.join();
  }
  uint64_t id() const { return m_id; }

private:
  std::latch m_ready{1}, m_go{1};
  uint64_t m_id = 0;
  std::thread m_thread;
};

// Runs `body` inside instance `h` on a thread of its own that joins with
// kest_init and leaves with kest_fini; RunOnThread also waits for it.
inline std::thread InstanceThread(kest_handle_t h, std::function<void()> body) {
  return std::thread([h, body = std::move(body)] {
    ASSERT_EQ(kest_init(h), 0);
    oru::Runtime::l_instance_id = h;
    body();
    oru::Runtime::l_instance_id = 0;
    EXPECT_EQ(kest_fini(h), 0);
  });
}
inline void RunOnThread(kest_handle_t h, std::function<void()> body) {
  InstanceThread(h, std::move(body)).join();
}

} // namespace kest_test

#endif
