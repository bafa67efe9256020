#include <kest.h>
#include <kest/KeyValueRuleString.h>

#include "rules/CustomApp.h"

namespace oru {

namespace {

bool IsSpace(char c) {
  return kest_isspace(static_cast<unsigned char>(c)) != 0;
}

const char *SkipSpaces(const char *p) {
  while (*p != '\0' && IsSpace(*p)) {
    ++p;
  }
  return p;
}

// Stores [begin, end) less trailing spaces; a failed append leaves `out`
// short or empty, which the caller sees as an empty part.
void StoreTrimmed(fdt::string &out, const char *begin, const char *end) {
  while (end > begin && IsSpace(end[-1])) {
    --end;
  }
  out.append(begin, static_cast<size_t>(end - begin));
}

} // namespace

KeyValueRuleString::KeyValueRuleString(const char *text) : valid(false), key(), value() {
  const char *p = SkipSpaces(text);
  const char *equals = kest_strchr(p, '=');
  if (equals == nullptr || equals == p) {
    return;
  }
  StoreTrimmed(key, p, equals);
  const char *rest = SkipSpaces(equals + 1);
  if (*rest == '\0') {
    return;
  }
  StoreTrimmed(value, rest, rest + kest_strlen(rest));
  valid = key.size() > 0 && value.size() > 0;
}

bool KeyValueRuleString::ValidateRule(const fdt::string &key, const fdt::string & /*old_value*/,
                                      const fdt::string & /*new_value*/) {
  fdt::string rule;
  return CustomApp::RuleOfItem(key, rule) && KeyValueRuleString(rule.c_str()).valid;
}

} // namespace oru
