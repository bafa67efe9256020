// The text of a header rule: a key and a value pattern joined by "=", as in
// "Host = *.example.com". Both parts are trimmed; a further "=" belongs to the
// value. In a KeyValueRuleStore a pattern matches a whole value ("text"), its
// end ("*text") or its start ("text*"); there is no "contains": in "*bot*"
// the last "*" is a literal byte.
#ifndef KEST_KEYVALUERULESTRING_H
#define KEST_KEYVALUERULESTRING_H

#include <kest/Export.h>
#include <kest/fdt/basic_string.h>

namespace oru {

// Layout fixed: plug-ins read the fields.
class KEST_API KeyValueRuleString {
public:
  // Parses `text` (NUL-terminated). Never fails otherwise than by `valid`
  // false; without memory a part comes out short or empty.
  explicit KeyValueRuleString(const char *text);

  // Validator for the "customrule." keys of a module: whether the rule text
  // inside `key` parses. `old_value` is not looked at.
  static bool ValidateRule(const fdt::string &key, const fdt::string &old_value,
                           const fdt::string &new_value);

  // True only if both parts are non-empty.
  bool valid;
  // The text before the first "=", trimmed.
  fdt::string key;
  // The text behind the first "=", trimmed.
  fdt::string value;
};

} // namespace oru

#endif
