#include "http/HttpRules.h"

#include <kest/KeyValueRuleString.h>

namespace kest_http {

bool HttpCustomRules::Parse(const char *rule, Key &out) {
  const oru::KeyValueRuleString text(rule);
  if (!text.valid) {
    return false;
  }
  out.key = text.key.c_str();
  out.value = text.value.c_str();
  return out.key.size() == text.key.size() && out.value.size() == text.value.size();
}

} // namespace kest_http
