// The two custom rule grammars on arbitrary text: no crash, no leak, the
// validators agree with the parsers on the rule inside a key, and a key/value
// rule keeps its stated shape.
#include <ctype.h>
#include <kest/IpPortRuleString.h>
#include <kest/KeyValueRuleString.h>
#include <kest_host.h>
#include <stdlib.h>
#include <string.h>

namespace {

bool IsBlank(char c) {
  return isspace(static_cast<unsigned char>(c)) != 0;
}

void Check(bool condition) {
  if (!condition) {
    abort();
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool hooks = (kest_host_use_libc(), true);
  (void)hooks;
  char text[256];
  const size_t length = size < sizeof text ? size : sizeof text - 1;
  memcpy(text, data, length);
  text[length] = '\0';
  const size_t used = strlen(text);

  oru::fdt::string key, none;
  Check(key.append("customrule.m.", 13) && key.append(text, used));

  const oru::IpPortRuleString address(text);
  Check(oru::IpPortRuleString::ValidateRule(key, none, none) == address.valid);

  const oru::KeyValueRuleString pair(text);
  Check(oru::KeyValueRuleString::ValidateRule(key, none, none) == pair.valid);
  Check(pair.valid == (pair.key.size() > 0 && pair.value.size() > 0));
  if (pair.valid) {
    Check(strchr(pair.key.c_str(), '=') == nullptr);
    Check(!IsBlank(pair.key.c_str()[0]) && !IsBlank(pair.key.c_str()[pair.key.size() - 1]));
    Check(!IsBlank(pair.value.c_str()[0]) && !IsBlank(pair.value.c_str()[pair.value.size() - 1]));
  }
  return 0;
}
