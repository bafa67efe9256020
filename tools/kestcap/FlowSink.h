// Where a worker hands each connection when it ends: kestcap's JSON lines,
// or a host of its own (the Python package keeps the records as they are).
#ifndef KESTCAP_FLOWSINK_H
#define KESTCAP_FLOWSINK_H

#include "FlowLog.h"

#include <string>
#include <vector>

namespace kestcap {

class FlowSink {
public:
  virtual ~FlowSink() = default;
  // On the worker's thread, once per connection. `app` is the
  // application's name, `stack` the stack's names bottom first; the record
  // is the worker's and goes once the call returns.
  virtual void Finished(const FlowRecord &record, const std::string &app,
                        const std::vector<std::string> &stack) = 0;
};

// kestcap --json: one line per connection.
class JsonSink : public FlowSink {
public:
  explicit JsonSink(LineOutput *out) : m_out(out) {}
  void Finished(const FlowRecord &record, const std::string &app,
                const std::vector<std::string> &stack) override {
    m_out->Write(JsonLine(record, app, stack));
  }

private:
  LineOutput *m_out;
};

} // namespace kestcap

#endif
