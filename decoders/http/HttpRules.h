// The HTTP module's custom rules (INTERFACE_CUSTOM_RULE): a host's
// kest_rule_add text "Header = pattern" ("Host = *.example.com",
// "User-Agent = curl*"; also "GET = /api*" for the request target) names a
// custom protocol; HTTP connections whose message heads match get it on top
// of TCP/HTTP. Each rule is a first-priority rule of the thread's key/value
// store, which the message inspectors offer every header line to.
#ifndef KEST_DECODERS_HTTP_HTTPRULES_H
#define KEST_DECODERS_HTTP_HTTPRULES_H

#include <kest/ICustomRule.h>
#include <kest/Inspector.h>
#include <kest/KeyValueRuleStore.h>
#include <kest/fdt/List.h>

namespace kest_http {

class HttpCustomRules final : public oru::ICustomRule {
public:
  explicit HttpCustomRules(oru::KeyValueRuleStore &store) : m_store(store) {}
  ~HttpCustomRules();
  HttpCustomRules(const HttpCustomRules &) = delete;
  HttpCustomRules &operator=(const HttpCustomRules &) = delete;

  // -1 refuses text without a key and a value around "=", or a pattern the
  // store does not take (longer than 50 bytes).
  int AddCustomRule(const char *rule, int protocol, unsigned int *cookie) override;
  void RemoveCustomRule(const char *rule, int protocol, unsigned int cookie) override;

private:
  struct Entry {
    unsigned int cookie;
    oru::KeyValueRuleStore::string key;
    oru::KeyValueRuleStore::string value;
    oru::InspectorCallback callback;
  };
  void Remove(oru::List<Entry>::iterator it);

  oru::KeyValueRuleStore &m_store;
  oru::List<Entry> m_entries;
  unsigned int m_last_cookie = 0;
};

} // namespace kest_http

#endif
