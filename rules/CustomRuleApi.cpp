// The host calls for custom applications. They only write configuration: the
// protocol's name goes to the registry and to a "customproto." item, each rule
// to a "customrule.<module>.<rule>" item whose value is the protocol number.
// Every thread's CustomApp applies the rule items at its next idle pass.
#include <kest.h>
#include <kest/Configuration.h>
#include <kest/Error.h>
#include <kest/InterfaceBroker.h>
#include <kest/ProtocolRegistry.h>
#include <kest/fdt/basic_string.h>

#include "rules/CustomApp.h"
#include "runtime/ApiFrame.h"

using namespace oru;

namespace {

// Names of custom protocols are short enough for the host's tables.
constexpr size_t kMaxProtoName = 8;

const char kProtoPrefix[] = "customproto.";

// A number as decimal text.
struct NumberText {
  char text[16];
};

NumberText Decimal(int number) {
  NumberText out;
  kest_snprintf(out.text, sizeof(out.text), "%d", number);
  return out;
}

NumberText UnsignedDecimal(int number) {
  NumberText out;
  kest_snprintf(out.text, sizeof(out.text), "%u", static_cast<unsigned int>(number));
  return out;
}

bool Append(fdt::string &out, const char *text) {
  return out.append(text, kest_strlen(text));
}

// "customrule.<module>.<rule>"; the rule keeps its dots and colons.
bool RuleKey(const char *module, const char *rule, fdt::string &key) {
  return Append(key, CustomApp::kRulePrefix) && Append(key, ".") && Append(key, module) &&
         Append(key, ".") && Append(key, rule);
}

// The checks both rule calls begin with: a non-zero protocol, a module and a
// rule, and then the item's key. False after raising the error.
bool RuleCallKey(int protocol, const char *module, const char *rule, fdt::string &key) {
  if (protocol == 0 || module == nullptr || rule == nullptr) {
    ThrowError(ERR_INVAL);
    return false;
  }
  if (!RuleKey(module, rule, key)) {
    ThrowError(ERR_NOMEM);
    return false;
  }
  return true;
}

bool ProtoKey(const char *name, fdt::string &key) {
  return Append(key, kProtoPrefix) && Append(key, name);
}

} // namespace

extern "C" KEST_EXPORT int kest_rule_add(kest_handle_t handle, int protocol, const char *module,
                                         const char *rule) {
  ApiFrame frame(handle, ApiFrame::INSTANCE_ONLY);
  if (!frame.ok()) {
    return -1;
  }
  fdt::string key;
  if (!RuleCallKey(protocol, module, rule, key)) {
    return -1;
  }
  fdt::string name;
  if (!ProtocolRegistry::IndexToName(protocol, name) ||
      InterfaceBroker::GetModuleId(module) == MODULE_UNKNOWN) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  // The key doesn't hold the protocol: one rule of a module has one protocol.
  if (!Configuration::GetItem(key.c_str()).empty()) {
    ThrowError(ERR_EXIST);
    return -1;
  }
  // A module's validator on its "customrule." keys refuses bad rule text here.
  if (!Configuration::SetItem(key.c_str(), Decimal(protocol).text)) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  return 0;
}

extern "C" KEST_EXPORT int kest_rule_remove(kest_handle_t handle, int protocol, const char *module,
                                            const char *rule) {
  ApiFrame frame(handle, ApiFrame::INSTANCE_ONLY);
  if (!frame.ok()) {
    return -1;
  }
  // The protocol stored in the item decides what the threads take out; the
  // argument only has to be non-zero.
  fdt::string key;
  if (!RuleCallKey(protocol, module, rule, key)) {
    return -1;
  }
  if (Configuration::GetItem(key.c_str()).empty()) {
    ThrowError(ERR_NOENT);
    return -1;
  }
  if (!Configuration::SetItem(key.c_str(), "")) {
    ThrowError(static_cast<Error>(255));
    return -1;
  }
  return 0;
}

extern "C" KEST_EXPORT int kest_proto_add(kest_handle_t handle, const char *name, int protocol) {
  ApiFrame frame(handle, ApiFrame::INSTANCE_ONLY);
  if (!frame.ok()) {
    return -1;
  }
  if (name == nullptr || kest_strlen(name) > kMaxProtoName) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  if (GetProtocolId(name) != 0) {
    ThrowError(ERR_EXIST);
    return -1;
  }
  const int number = ProtocolRegistry::AddProtocol(name, protocol);
  if (number == 0) {
    ThrowError(ERR_NOMEM);
    return -1;
  }
  // The registry holds the protocol now; the item only marks it as the
  // host's own, for kest_proto_remove, and a failed write doesn't undo that.
  fdt::string key;
  if (ProtoKey(name, key)) {
    Configuration::SetItem(key.c_str(), UnsignedDecimal(number).text);
  }
  return number;
}

extern "C" KEST_EXPORT int kest_proto_remove(kest_handle_t handle, const char *name) {
  ApiFrame frame(handle, ApiFrame::INSTANCE_ONLY);
  if (!frame.ok()) {
    return -1;
  }
  if (name == nullptr) {
    ThrowError(ERR_INVAL);
    return -1;
  }
  // Only protocols the host added can go; those of plug-ins have no item.
  fdt::string key;
  if (!ProtoKey(name, key)) {
    ThrowError(ERR_NOMEM);
    return -1;
  }
  const int number = GetProtocolId(name);
  if (Configuration::GetItem(key.c_str()).empty() || number == 0) {
    ThrowError(ERR_NOENT);
    return -1;
  }
  // The items decide, not what threads have applied yet: a rule removed by
  // kest_rule_remove no longer holds the protocol, drained or not.
  const NumberText text = Decimal(number);
  Configuration::ItemList rules;
  Configuration::EnumerateItems(CustomApp::kRulePrefix, rules);
  for (const auto &item : rules) {
    if (kest_strcmp(item.second.c_str(), text.text) == 0) {
      ThrowError(ERR_BUSY);
      return -1;
    }
  }
  ProtocolRegistry::RemoveProtocol(name);
  Configuration::SetItem(key.c_str(), "");
  return 0;
}
