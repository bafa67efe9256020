#include "Changes.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace kestcap {

namespace {

std::string Refused(const std::string &what) {
  return what + ": refused (error " + std::to_string(kest_errno) + ")";
}

// "PROTO MODULE TEXT" into the protocol's index, the module and the text.
bool SplitRule(kest_handle_t h, const std::string &rule, int &index, std::string &module,
               std::string &text, std::string &error) {
  const size_t a = rule.find(' ');
  const size_t b = a == std::string::npos ? a : rule.find(' ', a + 1);
  if (b == std::string::npos) {
    error = "rule wants 'PROTO MODULE TEXT', not '" + rule + "'";
    return false;
  }
  const std::string proto = rule.substr(0, a);
  module = rule.substr(a + 1, b - a - 1);
  text = rule.substr(b + 1);
  index = kest_proto_find_index(h, proto.c_str());
  if (index <= 0) {
    error = "rule " + rule + ": refused (no protocol " + proto + ")";
    return false;
  }
  return true;
}

} // namespace

bool ApplyChange(kest_handle_t h, const std::string &verb, const std::string &argument,
                 std::string &error) {
  if (verb == "config") {
    const size_t eq = argument.find('=');
    if (eq == std::string::npos) {
      error = "config wants KEY=VALUE, not '" + argument + "'";
      return false;
    }
    const std::string key = argument.substr(0, eq);
    if (kest_config_set(h, key.c_str(), argument.c_str() + eq + 1) != 0) {
      error = Refused("config " + argument);
      return false;
    }
    return true;
  }
  if (verb == "proto-add" || verb == "proto-remove") {
    const int got = verb == "proto-add" ? kest_proto_add(h, argument.c_str(), 0)
                                        : kest_proto_remove(h, argument.c_str());
    if (got < 0) {
      error = Refused(verb + " " + argument);
      return false;
    }
    return true;
  }
  if (verb == "rule-add" || verb == "rule-remove") {
    int index = 0;
    std::string module;
    std::string text;
    if (!SplitRule(h, argument, index, module, text, error)) {
      return false;
    }
    const int got = verb == "rule-add" ? kest_rule_add(h, index, module.c_str(), text.c_str())
                                       : kest_rule_remove(h, index, module.c_str(), text.c_str());
    if (got != 0) {
      error = Refused((verb == "rule-add" ? "rule " : "rule-remove ") + argument);
      return false;
    }
    return true;
  }
  error = "unknown change '" + verb + "'";
  return false;
}

bool LoadChanges(const std::string &path, std::vector<Change> &out, std::string &error) {
  std::ifstream in(path);
  if (!in) {
    error = "cannot read " + path;
    return false;
  }
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    if (line.empty() || line[0] == '#') {
      continue;
    }
    std::istringstream words(line);
    Change change;
    if (!(words >> change.at >> change.verb)) {
      error = path + ":" + std::to_string(number) + ": wants 'PACKETS VERB ARGUMENT'";
      return false;
    }
    std::getline(words >> std::ws, change.argument);
    out.push_back(std::move(change));
  }
  std::stable_sort(out.begin(), out.end(),
                   [](const Change &a, const Change &b) { return a.at < b.at; });
  return true;
}

ChangeThread::ChangeThread(kest_handle_t h, std::vector<Change> changes)
    : m_h(h), m_changes(std::move(changes)), m_thread([this] { Loop(); }) {}

ChangeThread::~ChangeThread() {
  {
    std::lock_guard<std::mutex> hold(m_lock);
    m_stop = true;
  }
  m_wake.notify_all();
  m_thread.join();
}

void ChangeThread::Make(uint64_t packets) {
  size_t until = m_next;
  while (until < m_changes.size() && m_changes[until].at <= packets) {
    ++until;
  }
  std::unique_lock<std::mutex> hold(m_lock);
  m_until = until;
  m_wake.notify_all();
  m_wake.wait(hold, [&] { return m_done >= until; });
  m_next = until;
}

void ChangeThread::Loop() {
  std::unique_lock<std::mutex> hold(m_lock);
  for (;;) {
    m_wake.wait(hold, [&] { return m_stop || m_done < m_until; });
    if (m_done >= m_until) {
      return;
    }
    const Change &change = m_changes[m_done];
    hold.unlock();
    std::string error;
    const bool ok = ApplyChange(m_h, change.verb, change.argument, error);
    if (!ok) {
      std::fprintf(stderr, "kestcap: warning: change at packet %llu: %s\n",
                   static_cast<unsigned long long>(change.at), error.c_str());
    }
    hold.lock();
    m_refused += ok ? 0 : 1;
    ++m_done;
    m_wake.notify_all();
  }
}

} // namespace kestcap
