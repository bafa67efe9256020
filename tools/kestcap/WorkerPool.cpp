#include "WorkerPool.h"

#include <atomic>
#include <barrier>
#include <thread>

namespace kestcap {

WorkerPool::WorkerPool(const WorkerSetup &setup, size_t workers) {
  for (size_t i = 0; i < workers; ++i) {
    m_workers.push_back(std::make_unique<Worker>(setup));
  }
}

bool WorkerPool::Run(const std::function<void(Worker &, size_t)> &loop,
                     const std::function<void()> &meanwhile, std::string &error) {
  const size_t n = m_workers.size();
  std::barrier started(static_cast<std::ptrdiff_t>(n + 1));
  std::barrier ending(static_cast<std::ptrdiff_t>(n));
  std::atomic<bool> failed{false};
  std::vector<std::string> errors(n);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < n; ++i) {
    threads.emplace_back([&, i] {
      Worker &worker = *m_workers[i];
      if (!worker.Start(errors[i])) {
        failed = true;
      }
      started.arrive_and_wait();
      if (!failed) {
        loop(worker, i);
      }
      ending.arrive_and_wait();
      worker.Finish();
    });
  }
  started.arrive_and_wait();
  if (!failed) {
    meanwhile();
  }
  for (std::thread &thread : threads) {
    thread.join();
  }
  for (const std::string &e : errors) {
    if (!e.empty()) {
      error = e;
      return false;
    }
  }
  return true;
}

void WorkerPool::Gather(Totals &totals, AppTable &apps) const {
  for (const auto &worker : m_workers) {
    totals.Add(worker->Counts());
    for (const auto &[app, row] : worker->Apps()) {
      AppRow &sum = apps[app];
      sum.connections += row.connections;
      sum.packets += row.packets;
      sum.bytes += row.bytes;
    }
  }
}

} // namespace kestcap
