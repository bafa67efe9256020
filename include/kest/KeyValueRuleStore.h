// The rule store of message inspectors: which inspectors want a header (or
// any key/value pair) with this key and this value?
//
// A rule is a key, a value pattern and a callback. Keys compare without
// regard to case; value bytes compare exactly. A pattern is
//   "text"    the whole value is "text"                    priority 1
//   "*text"   the value ends in "text"                     priority 2
//   "text*"   the value starts with "text" (or is "text")  priority 3
// and 4 is added when the rule is not added `first`, so every rule added
// `first` runs before every other. A "*" anywhere else is a literal byte:
// "*bot*" is a value that ends in "bot*", not one that contains "bot".
// Patterns are 1 to 50 bytes (MAX_VALUE_DEPTH); a look-up reads at most the
// first and the last 50 bytes of a value.
//
// A look-up walks two byte tries, one forward (plain and "text*" patterns)
// and one from the back ("*text"), and in each the deepest match wins: with
// "ab*" and "abcd", the value "abx" finds "ab*", but "abc" finds nothing
// (it ends on the node "c", which has no rules and no "*" beside it). Each
// trie adds at most one list of rules to the chain.
//
// One store per thread, like every rule store; make it on that thread.
#ifndef KEST_KEYVALUERULESTORE_H
#define KEST_KEYVALUERULESTORE_H

#include <kest/Export.h>
#include <kest/FlowBuffer.h>
#include <kest/RuleStore.h>
#include <kest/fdt/basic_string.h>
#include <kest/fdt/less.h>
#include <kest/fdt/map.h>
#include <stdint.h>

namespace oru {

// The condition of a key/value rule. Layout fixed: key, value.
struct KEST_API KeyValueSpec {
  using string = fdt::basic_string<local_container_alloc<char>>;

  // The key in the letters it was added with.
  string key;
  // The value pattern, with its "*".
  string value;

  // The announcement of a used rule carries the key, a NUL, the value, a
  // NUL.
  static uint32_t AnnouncedSize(const KeyValueSpec &spec);
  static void Announce(const KeyValueSpec &spec, uint8_t *out);
  // False without both NULs or without memory.
  static bool ReadAnnounced(const uint8_t *bytes, uint32_t length, KeyValueSpec &spec);
};

class KEST_API KeyValueRuleStore : public RuleStore<KeyValueSpec> {
public:
  using Base = RuleStore<KeyValueSpec>;
  using Rule = Base::Rule;
  using RuleList = Base::RuleList;
  using ExpiryType = Base::ExpiryType;
  using string = KeyValueSpec::string;

  // The longest pattern, and how much of a value's either end is looked at.
  static constexpr uint32_t MAX_VALUE_DEPTH = 50;

  struct TrieNode;
  // One level of a trie, by unsigned byte.
  using ValueTrie = Map<unsigned char, TrieNode>;
  // Layout fixed: children, rules.
  struct TrieNode {
    // The next byte's level.
    ValueTrie children;
    // The rules whose pattern ends here.
    RuleList rules;
  };
  // The tries of one key. Layout fixed: forward, reverse.
  struct ValueData {
    // Plain and "text*" patterns, first byte first, the "*" last.
    ValueTrie forward;
    // "*text" patterns, last byte first, the "*" last.
    ValueTrie reverse;
  };
  using KeyMap = fdt::map<string, ValueData, Less_strcmp_forward>;
  using iterator = KeyMap::iterator;

  // An empty store; `name` is kept as a pointer. m_event is set to 0: give
  // it the number of your rule-use event before adding EXPIRY_SYNCED rules.
  explicit KeyValueRuleStore(const char *name) : Base(name) { m_event = 0; }
  // Drops every rule and the references on their inspectors.
  ~KeyValueRuleStore() { Clear(); }

  // Adds a rule for `key` and the pattern `value` (see above). False for a
  // pattern of 0 or more than 50 bytes, a callback already at that pattern,
  // or no memory. A key, once added, stays in the index.
  bool AddRule(const string &key, const string &value, InspectorCallback cb, bool first,
               unsigned int timeout, ExpiryType type);
  // RemoveRuleFast holding its own copy of the callback.
  bool RemoveRule(const string &key, const string &value, InspectorCallback cb);
  // Removes the rule with this callback at this pattern. False when the
  // store has no such key or pattern path; true otherwise, also when no rule
  // of the path has the callback. An emptied end node with siblings stays;
  // one without siblings goes with everything below it.
  bool RemoveRuleFast(const string &key, const string &value, InspectorCallback cb);

  // Look-ups: merge into `chain` the rules matching the key and the value's
  // first and last 50 bytes, then remove repeated callbacks and run the
  // expiry pass (neither when the key is unknown).
  // Key and value in memory, `length` bytes of value.
  void SetupRule(const char *key, const char *value, unsigned int length, InspectorChain &chain);
  // The key entry `entry`, the value in `flow` at [start, end).
  void SetupRule(const FlowBuffer &flow, iterator entry, unsigned int start, unsigned int end,
                 InspectorChain &chain);
  // The key in memory, the value in `flow`.
  void SetupRule(const FlowBuffer &flow, const char *key, unsigned int start, unsigned int end,
                 InspectorChain &chain);
  // Key and value both in `flow`. A key in the flow that begins with a
  // stored key but is longer searches to the left of it, so it may not be
  // found when other keys are stored.
  void SetupRule(const FlowBuffer &flow, unsigned int key_start, unsigned int key_end,
                 unsigned int value_start, unsigned int value_end, InspectorChain &chain);

  // The rule at exactly this pattern (no wildcard matching) whose method is
  // `method`, or null.
  Rule *FindRule(KeyValueSpec &spec, InspectorMethod method) override {
    return FindExact(spec, method);
  }
  // Removes the rule as RemoveRuleFast with its own key, value and callback.
  void Expire(Rule *rule) override { RemoveExpired(rule); }

  // What the two virtual operations do; defined out of the class so that it
  // has no key function.
  Rule *FindExact(KeyValueSpec &spec, InspectorMethod method);
  void RemoveExpired(Rule *rule);
  // Drops every key and rule.
  void Clear();

  KeyMap m_index;

private:
  struct Walk;
  class ChainVisitor;

  // The look-up walk of one trie; true when a pattern matched.
  static bool Match(ValueTrie &level, const Walk &walk, uint32_t i, uint32_t n,
                    ChainVisitor &visitor);
  // Both tries of one key with the first and the last `n` bytes of a value.
  void MatchBoth(ValueData &data, const char *first, const char *last, uint32_t n,
                 InspectorChain &chain);
  bool RemoveWalk(ValueTrie &level, const Walk &walk, uint32_t i, uint32_t n,
                  const InspectorCallback &cb);
  static void DisarmSubtree(TrieNode &node);
};

} // namespace oru

#endif
