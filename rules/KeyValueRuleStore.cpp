#include <kest.h>
#include <kest/KeyValueRuleStore.h>
#include <kest/MemTag.h>

namespace oru {

static_assert(offsetof(KeyValueRuleStore::TrieNode, children) == 0,
              "TrieNode layout is shared with plug-ins");

uint32_t KeyValueSpec::AnnouncedSize(const KeyValueSpec &spec) {
  return static_cast<uint32_t>(spec.key.size() + 1 + spec.value.size() + 1);
}

void KeyValueSpec::Announce(const KeyValueSpec &spec, uint8_t *out) {
  char *text = reinterpret_cast<char *>(out);
  kest_sprintf(text, "%s %s", spec.key.c_str(), spec.value.c_str());
  text[spec.key.size()] = '\0';
}

bool KeyValueSpec::ReadAnnounced(const uint8_t *bytes, uint32_t length, KeyValueSpec &spec) {
  const char *text = reinterpret_cast<const char *>(bytes);
  uint32_t key_length = 0;
  while (key_length < length && text[key_length] != '\0') {
    ++key_length;
  }
  uint32_t value_end = key_length + 1;
  while (value_end < length && text[value_end] != '\0') {
    ++value_end;
  }
  if (value_end >= length) {
    return false;
  }
  spec.key.clear();
  spec.value.clear();
  return spec.key.append(text, key_length) &&
         spec.value.append(text + key_length + 1, value_end - key_length - 1);
}

// The bytes of a pattern walk: forward from the first byte, or backward from
// the last. Byte i of the walk.
struct KeyValueRuleStore::Walk {
  const char *bytes;
  uint32_t length;
  bool reverse;

  Walk(const char *b, uint32_t n, bool r) : bytes(b), length(n), reverse(r) {}
  unsigned char At(uint32_t i) const {
    return static_cast<unsigned char>(reverse ? bytes[length - 1 - i] : bytes[i]);
  }
};

// What a look-up does at the node its match ends on: merge its rules.
class KeyValueRuleStore::ChainVisitor {
public:
  ChainVisitor(KeyValueRuleStore *store, InspectorChain &chain) : m_store(store), m_chain(chain) {}
  void Visit(RuleList &rules) { m_store->MergeIntoChain(rules, m_chain); }

private:
  KeyValueRuleStore *m_store;
  InspectorChain &m_chain;
};

namespace {

constexpr uint32_t kDepth = KeyValueRuleStore::MAX_VALUE_DEPTH;

bool StarFirst(const KeyValueSpec::string &value) {
  return !value.empty() && value[0] == '*';
}

} // namespace

bool KeyValueRuleStore::Match(ValueTrie &level, const Walk &walk, uint32_t i, uint32_t n,
                              ChainVisitor &visitor) {
  if (n == 0 || n > kDepth) {
    return false;
  }
  ValueTrie::iterator found = level.find(walk.At(i));
  if (found != level.end()) {
    TrieNode &node = found->second;
    if (n == 1) {
      if (!node.rules.empty()) {
        visitor.Visit(node.rules);
        return true;
      }
      // A value that ends on a node without rules may still take that
      // node's own "*", but not the "*" of this level.
      static const char kStar = '*';
      return Match(node.children, Walk(&kStar, 1, false), 0, 1, visitor);
    }
    if (Match(node.children, walk, i + 1, n - 1, visitor)) {
      return true;
    }
  }
  ValueTrie::iterator star = level.find(static_cast<unsigned char>('*'));
  if (star == level.end()) {
    return false;
  }
  visitor.Visit(star->second.rules);
  return true;
}

bool KeyValueRuleStore::AddRule(const string &key, const string &value, InspectorCallback cb,
                                bool first, unsigned int timeout, ExpiryType type) {
  ScopedMemTag tag(ScopedMemTag::OBJECT, MemTag::OBJ_KVRULESTORE_RULE);
  iterator entry = m_index.find(key);
  if (entry == m_index.end()) {
    entry = m_index.try_emplace(key);
    if (entry == m_index.end()) {
      return false;
    }
  }
  const bool reverse = StarFirst(value);
  uint32_t priority = reverse ? 2 : (!value.empty() && value[value.size() - 1] == '*' ? 3 : 1);
  if (!first) {
    priority += 4;
  }
  const uint32_t n = static_cast<uint32_t>(value.size());
  if (n < 1 || n > kDepth) {
    return false;
  }
  const Walk walk(value.c_str(), n, reverse);
  ValueTrie *level = reverse ? &entry->second.reverse : &entry->second.forward;
  TrieNode *node = nullptr;
  for (uint32_t i = 0; i < n; ++i) {
    ValueTrie::iterator found = level->find(walk.At(i));
    if (found == level->end()) {
      found = level->try_emplace(walk.At(i));
      if (found == level->end()) {
        return false;
      }
    }
    node = &found->second;
    level = &node->children;
  }
  Rule rule{cb, priority, KeyValueSpec(), timeout, type, nullptr};
  if (!rule.spec.key.append(key) || !rule.spec.value.append(value)) {
    return false;
  }
  return AddToList(node->rules, static_cast<Rule &&>(rule));
}

bool KeyValueRuleStore::RemoveRule(const string &key, const string &value, InspectorCallback cb) {
  const InspectorCallback held = cb;
  return RemoveRuleFast(key, value, held);
}

bool KeyValueRuleStore::RemoveRuleFast(const string &key, const string &value,
                                       InspectorCallback cb) {
  iterator entry = m_index.find(key);
  if (entry == m_index.end()) {
    return false;
  }
  const bool reverse = StarFirst(value);
  const uint32_t n = static_cast<uint32_t>(value.size());
  return RemoveWalk(reverse ? entry->second.reverse : entry->second.forward,
                    Walk(value.c_str(), n, reverse), 0, n, cb);
}

bool KeyValueRuleStore::RemoveWalk(ValueTrie &level, const Walk &walk, uint32_t i, uint32_t n,
                                   const InspectorCallback &cb) {
  if (n < 1 || n > kDepth) {
    return false;
  }
  ValueTrie::iterator found = level.find(walk.At(i));
  if (found == level.end()) {
    return false;
  }
  TrieNode &node = found->second;
  if (n > 1) {
    if (!RemoveWalk(node.children, walk, i + 1, n - 1, cb)) {
      return false;
    }
    if (node.children.empty() && node.rules.empty()) {
      level.erase(found);
    }
    return true;
  }
  RemoveFromList(node.rules, cb);
  if (!node.rules.empty()) {
    return true;
  }
  if (level.size() > 1) {
    return true;
  }
  // The only node of its level goes with everything below it; its rules
  // leave their buckets first, so no expiry pass meets them later.
  DisarmSubtree(node);
  level.erase(found);
  return true;
}

void KeyValueRuleStore::DisarmSubtree(TrieNode &node) {
  for (RuleList::iterator it = node.rules.begin(); it != node.rules.end(); ++it) {
    DisarmExpiry(&*it);
  }
  for (ValueTrie::iterator it = node.children.begin(); it != node.children.end(); ++it) {
    DisarmSubtree(it->second);
  }
}

void KeyValueRuleStore::MatchBoth(ValueData &data, const char *first, const char *last, uint32_t n,
                                  InspectorChain &chain) {
  ChainVisitor visitor(this, chain);
  if (first != nullptr) {
    Match(data.forward, Walk(first, n, false), 0, n, visitor);
  }
  if (last != nullptr) {
    Match(data.reverse, Walk(last, n, true), 0, n, visitor);
  }
  UniqueChain(chain);
  RunExpiry();
}

void KeyValueRuleStore::SetupRule(const char *key, const char *value, unsigned int length,
                                  InspectorChain &chain) {
  iterator entry = m_index.find(key);
  if (entry == m_index.end()) {
    return;
  }
  const uint32_t n = length < kDepth ? length : kDepth;
  MatchBoth(entry->second, value, value + (length - n), n, chain);
}

namespace {

// `n` bytes of `flow` at `pos`: where they lie when one block holds them,
// else gathered into `scratch` (room for 50) when the flow holds them all;
// null otherwise.
const char *BytesAt(const FlowBuffer &flow, uint64_t pos, uint32_t n, char *scratch) {
  unsigned long long start;
  const FlowBuffer::Block *block = flow.GetBlock(pos, start);
  if (block == nullptr) {
    return nullptr;
  }
  if (pos + n <= start + block->size) {
    return block->data + (pos - start);
  }
  if (pos + n > flow.End()) {
    return nullptr;
  }
  uint32_t copied = 0;
  while (copied < n) {
    block = flow.GetBlock(pos + copied, start);
    if (block == nullptr) {
      return nullptr;
    }
    const uint64_t offset = pos + copied - start;
    const uint64_t available = block->size - offset;
    const uint32_t take = available < n - copied ? static_cast<uint32_t>(available) : n - copied;
    kest_memcpy(scratch + copied, block->data + offset, take);
    copied += take;
  }
  return scratch;
}

} // namespace

void KeyValueRuleStore::SetupRule(const FlowBuffer &flow, iterator entry, unsigned int start,
                                  unsigned int end, InspectorChain &chain) {
  const uint32_t length = end - start;
  const uint32_t n = length < kDepth ? length : kDepth;
  char head[kDepth];
  char tail[kDepth];
  const char *first = BytesAt(flow, start, n, head);
  const char *last = BytesAt(flow, static_cast<uint32_t>(end - n), n, tail);
  MatchBoth(entry->second, first, last, n, chain);
}

void KeyValueRuleStore::SetupRule(const FlowBuffer &flow, const char *key, unsigned int start,
                                  unsigned int end, InspectorChain &chain) {
  iterator entry = m_index.find(key);
  if (entry != m_index.end()) {
    SetupRule(flow, entry, start, end, chain);
  }
}

void KeyValueRuleStore::SetupRule(const FlowBuffer &flow, unsigned int key_start,
                                  unsigned int key_end, unsigned int value_start,
                                  unsigned int value_end, InspectorChain &chain) {
  const uint32_t key_length = key_end - key_start;
  KeyMap::node *n = m_index.tree().root();
  while (n != nullptr) {
    const string &stored = n->m_value.first;
    int r = flow.CaseCompare(key_start, stored.c_str(), static_cast<unsigned int>(stored.size()));
    if (r == 0 && stored.size() < key_length) {
      r = -1;
    }
    if (r == 0) {
      SetupRule(flow, iterator(n), value_start, value_end, chain);
      return;
    }
    n = r < 0 ? n->m_left : n->m_right;
  }
}

KeyValueRuleStore::Rule *KeyValueRuleStore::FindExact(KeyValueSpec &spec, InspectorMethod method) {
  iterator entry = m_index.find(spec.key);
  const uint32_t n = static_cast<uint32_t>(spec.value.size());
  if (entry == m_index.end() || n == 0 || n > kDepth) {
    return nullptr;
  }
  const bool reverse = StarFirst(spec.value);
  const Walk walk(spec.value.c_str(), n, reverse);
  ValueTrie *level = reverse ? &entry->second.reverse : &entry->second.forward;
  TrieNode *node = nullptr;
  for (uint32_t i = 0; i < n; ++i) {
    ValueTrie::iterator found = level->find(walk.At(i));
    if (found == level->end()) {
      return nullptr;
    }
    node = &found->second;
    level = &node->children;
  }
  return FindInList(node->rules, method);
}

void KeyValueRuleStore::RemoveExpired(Rule *rule) {
  // The removal frees the rule with its strings: take them out first (no
  // copy, so no allocation), and hold the inspector until it is done.
  const InspectorCallback cb = rule->callback;
  KeyValueSpec spec;
  spec.key.swap(rule->spec.key);
  spec.value.swap(rule->spec.value);
  RemoveRuleFast(spec.key, spec.value, cb);
}

void KeyValueRuleStore::Clear() {
  m_index.clear();
  m_expiry.clear();
}

} // namespace oru
