// The HTTP module's custom rules (INTERFACE_CUSTOM_RULE): a host's
// kest_rule_add text "Header = pattern" ("Host = *.example.com",
// "User-Agent = curl*"; also "GET = /api*" for the request target) names a
// custom protocol; HTTP connections whose message heads match get it on top
// of TCP/HTTP. Each rule is a first-priority rule of the thread's key/value
// store, which the message inspectors offer every header line to.
#ifndef KEST_DECODERS_HTTP_HTTPRULES_H
#define KEST_DECODERS_HTTP_HTTPRULES_H

#include <kest/KeyValueRuleStore.h>
#include <kest/kit/CustomRuleList.h>

namespace kest_http {

class HttpCustomRules final : public oru::kit::CustomRuleList<HttpCustomRules> {
public:
  struct Key {
    oru::KeyValueRuleStore::string key;
    oru::KeyValueRuleStore::string value;
  };

  explicit HttpCustomRules(oru::KeyValueRuleStore &store) : m_store(store) {}
  ~HttpCustomRules() { Clear(); }

  // False for text without a key and a value around "=", or without memory
  // for them.
  static bool Parse(const char *rule, Key &out);
  static bool Kept(const Key &copy, const Key &parsed) {
    return copy.key.size() == parsed.key.size() && copy.value.size() == parsed.value.size();
  }
  // False for a pattern the store does not take (longer than 50 bytes).
  bool Add(const Key &rule, const oru::InspectorCallback &callback) {
    return m_store.AddRule(rule.key, rule.value, callback, true, 0,
                           oru::KeyValueRuleStore::EXPIRY_LOCAL);
  }
  void Remove(const Key &rule, const oru::InspectorCallback &callback) {
    m_store.RemoveRuleFast(rule.key, rule.value, callback);
  }

private:
  oru::KeyValueRuleStore &m_store;
};

} // namespace kest_http

#endif
