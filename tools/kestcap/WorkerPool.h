// The classifying threads of a run with more than one: one Worker each,
// every one a kest thread before any packet is handed on, and all ending
// together (a thread that ended early would keep the changes made by a
// control thread from reaching the others).
#ifndef KESTCAP_WORKERPOOL_H
#define KESTCAP_WORKERPOOL_H

#include "Worker.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kestcap {

class WorkerPool {
public:
  WorkerPool(const WorkerSetup &setup, size_t workers);

  // Runs `loop(worker, index)` on a thread of each worker, after all of
  // them started, and `meanwhile` on the calling thread while the loops
  // run; returns once every thread finished its worker. False with `error`
  // set when a worker did not start: then no loop and nothing meanwhile
  // runs.
  bool Run(const std::function<void(Worker &, size_t)> &loop,
           const std::function<void()> &meanwhile, std::string &error);

  size_t Size() const { return m_workers.size(); }
  Worker &At(size_t index) { return *m_workers[index]; }
  const std::vector<std::unique_ptr<Worker>> &Workers() const { return m_workers; }
  // Adds up the workers' counts and tables.
  void Gather(Totals &totals, AppTable &apps) const;

private:
  std::vector<std::unique_ptr<Worker>> m_workers;
};

} // namespace kestcap

#endif
