// What the two rule stores share: rules with a priority and a time-out, the
// expiry of rules by second on the thread's clock, merging lists of rules
// into an InspectorChain, removing repeated callbacks, and announcing the
// use of rules to the other threads.
//
// A rule says: when this condition (the Spec) holds for a connection or a
// message, put this callback on the chain. How rules are indexed by their
// condition is the derived store's business (IpPortRuleStore,
// KeyValueRuleStore); here they are only lists.
//
// A store belongs to one thread: no lock, local memory, plain reference
// counts. A plug-in that wants the same rules on every thread keeps one store
// per thread and applies each change to all of them.
//
// Spec supplies what the announcement of a used rule carries: a static
// AnnouncedSize(spec), Announce(spec, out) writing that many bytes, and
// ReadAnnounced(bytes, length, spec) reading them back (false if malformed).
#ifndef KEST_RULESTORE_H
#define KEST_RULESTORE_H

#include <kest.h>
#include <kest/Clock.h>
#include <kest/Export.h>
#include <kest/InspectorChain.h>
#include <kest/MemTag.h>
#include <kest/SyncEventQueue.h>
#include <kest/fdt/List.h>
#include <kest/fdt/hash_table.h>
#include <kest/fdt/map.h>
#include <stdint.h>

namespace oru {

// The method half of a rule-use announcement, field by field: the function
// word, then the adjustment, 8 bytes each. The spec's bytes follow.
constexpr uint32_t kAnnouncedMethodSize = 16;

// Layout of the base fixed: virtual table (Expire, FindRule), m_expiry,
// m_event, m_now, m_last_expire, m_name. A derived store's index follows.
template <class Spec> class KEST_API RuleStore {
public:
  // Only zero and non-zero are told apart.
  enum ExpiryType : uint32_t {
    // A rule's use stays in its store.
    EXPIRY_LOCAL = 0,
    // Each use of the rule is announced on the synchronised event queue
    // (event m_event) to every thread of the instance, this one included.
    EXPIRY_SYNCED = 1,
  };

  struct Rule;
  // From the second of expiry to the rules armed in it. A bucket's entries
  // run from the least to the most recently found rule.
  using ExpiryBucket = fdt::hash_table<Rule *, Rule *>;
  using ExpiryMap = Map<unsigned long long, ExpiryBucket>;
  using BucketNode = typename ExpiryMap::node;

  // Layout fixed: callback, priority, spec, timeout, expiry, bucket.
  struct Rule {
    // What goes on the chain; holds a reference on the inspector.
    InspectorCallback callback;
    // Copied to the chain entry; lower runs first.
    uint32_t priority;
    // The condition, kept so the rule can find itself again.
    Spec spec;
    // Seconds from the add to the expiry; 0 never expires.
    uint32_t timeout;
    ExpiryType expiry;
    // The node of m_expiry the rule is armed in, or null.
    BucketNode *bucket;
  };

  // Rules in order of adding; a Rule* stays valid until the rule goes.
  using RuleList = List<Rule>;

  // `name` is kept as a pointer. m_event is left for the store's owner to
  // set before a rule with EXPIRY_SYNCED can be found.
  explicit RuleStore(const char *name) : m_now(0), m_last_expire(0), m_name(name) {}

  // Removes `rule` from the derived index (called by RunExpiry when its
  // second has come).
  virtual void Expire(Rule *rule) = 0;
  // The rule with exactly this spec and method, or null.
  virtual Rule *FindRule(Spec &spec, InspectorMethod method) = 0;

  // Applies another thread's announcement (or this thread's own) of a used
  // rule to this store: the same rule, found by FindRule, becomes the most
  // recently found of its second. False when the payload is malformed or
  // the rule is not here. A store's owner calls this from its handler of
  // m_event.
  bool ApplyAnnouncement(const void *data, uint32_t length) {
    if (data == nullptr || length < kAnnouncedMethodSize) {
      return false;
    }
    const uint8_t *bytes = static_cast<const uint8_t *>(data);
    InspectorMethodWords words;
    kest_memcpy(&words.function, bytes, 8);
    kest_memcpy(&words.adjustment, bytes + 8, 8);
    Spec spec;
    if (!Spec::ReadAnnounced(bytes + kAnnouncedMethodSize, length - kAnnouncedMethodSize, spec)) {
      return false;
    }
    Rule *rule = FindRule(spec, JoinMethod(words));
    if (rule == nullptr || rule->bucket == nullptr) {
      return false;
    }
    rule->bucket->m_value.second.touch(rule);
    return true;
  }

  // The payload announcing a use of `rule`, into `out` with room for
  // AnnouncementSize(rule) bytes.
  static uint32_t AnnouncementSize(const Rule &rule) {
    return kAnnouncedMethodSize + Spec::AnnouncedSize(rule.spec);
  }
  static void WriteAnnouncement(const Rule &rule, uint8_t *out) {
    const InspectorMethodWords words = SplitMethod(rule.callback.method);
    kest_memcpy(out, &words.function, 8);
    kest_memcpy(out + 8, &words.adjustment, 8);
    Spec::Announce(rule.spec, out + kAnnouncedMethodSize);
  }

  ExpiryMap m_expiry;
  uint32_t m_event;
  uint64_t m_now;
  uint64_t m_last_expire;
  const char *m_name;

protected:
  // Not part of the interface: the derived store's destructor frees its
  // rules, and the empty buckets go with m_expiry.
  ~RuleStore() = default;
  RuleStore(const RuleStore &) = delete;
  RuleStore &operator=(const RuleStore &) = delete;

  // Adds a copy of `rule` at the tail of `list` and arms it. False, with the
  // list as it was, for a callback already in the list or without memory.
  // The rule is taken by value and moved into its node, so a spec with
  // strings is not copied a second time.
  bool AddToList(RuleList &list, Rule rule) {
    for (typename RuleList::iterator it = list.begin(); it != list.end(); ++it) {
      if (it->callback.Same(rule.callback)) {
        return false;
      }
    }
    const uint32_t timeout = rule.timeout;
    typename RuleList::iterator added = list.emplace_back(static_cast<Rule &&>(rule));
    if (added == list.end()) {
      return false;
    }
    added->bucket = nullptr;
    if (timeout == 0) {
      return true;
    }
    const unsigned long long second = now_sec() + timeout;
    typename ExpiryMap::iterator node = m_expiry.find(second);
    if (node == m_expiry.end()) {
      node = m_expiry.try_emplace(second);
      if (node == m_expiry.end()) {
        list.erase(added);
        return false;
      }
    }
    ExpiryBucket &bucket = node->second;
    Rule *armed = &*added;
    if (bucket.insert(armed, armed) == bucket.end()) {
      if (bucket.empty()) {
        m_expiry.erase(node);
      }
      list.erase(added);
      return false;
    }
    added->bucket = node.node();
    return true;
  }

  // Copies the list's rules into the chain by priority: each goes in front
  // of the entries of its priority that were there before, behind those of
  // its own list. Then the rules are marked as found in their buckets, and
  // the use of each synced one is announced. A callback that cannot be
  // allocated, or an announcement, is left out silently.
  void MergeIntoChain(RuleList &list, InspectorChain &chain) {
    if (list.empty()) {
      return;
    }
    ScopedMemTag tag(ScopedMemTag::OBJECT, MemTag::OBJ_CHAIN_RULE);
    InspectorChain::EntryList &entries = chain.m_entries;
    typename InspectorChain::EntryList::iterator pos = entries.end();
    uint32_t p = UINT32_MAX;
    bool first = true;
    for (typename RuleList::iterator it = list.begin(); it != list.end(); ++it) {
      if (first || it->priority != p) {
        first = false;
        p = it->priority;
        pos = entries.begin();
        while (pos != entries.end() && pos->priority < p) {
          ++pos;
        }
      }
      entries.emplace(pos, it->callback, p);
    }
    for (typename RuleList::iterator it = list.begin(); it != list.end(); ++it) {
      Rule &rule = *it;
      if (rule.bucket == nullptr) {
        continue;
      }
      ExpiryBucket &bucket = rule.bucket->m_value.second;
      if (bucket.touch(&rule) != bucket.end() && rule.expiry != EXPIRY_LOCAL) {
        Announce(rule);
      }
    }
  }

  // Removes every later occurrence of a callback, so the entry that sorted
  // first survives. Uses no heap: the callbacks seen are kept on the stack
  // and found through a small open-addressed index (a chain holds an entry
  // per decoder, so dozens), and past that room the surviving entries
  // themselves are looked through.
  static void UniqueChain(InspectorChain &chain) {
    using Link = fdt::list_link;
    using Node = InspectorChain::EntryList::node_type;
    constexpr uint32_t kSlots = 128;
    constexpr uint32_t kRoom = 96;
    struct Seen {
      Inspector *object;
      InspectorMethod method;
    } seen[kRoom];
    // 0: an empty slot; otherwise 1 + the place in `seen`.
    uint8_t slots[kSlots] = {};
    uint32_t count = 0;
    Link *const sentinel = chain.m_entries.end().node();
    // The first survivor that did not fit in `seen`; null while all did.
    Link *overflow = nullptr;
    for (Link *link = sentinel->m_next; link != sentinel;) {
      Node *node = static_cast<Node *>(link);
      const InspectorCallback &cb = node->m_value.callback;
      const uintptr_t bits = reinterpret_cast<uintptr_t>(cb.object.get());
      uint32_t slot = static_cast<uint32_t>((bits >> 4) ^ (bits >> 11)) & (kSlots - 1);
      bool repeated = false;
      for (; slots[slot] != 0 && !repeated; slot = (slot + 1) & (kSlots - 1)) {
        const Seen &e = seen[slots[slot] - 1];
        repeated = e.object == cb.object.get() && SameMethod(e.method, cb.method);
      }
      for (Link *s = overflow; s != nullptr && s != link && !repeated; s = s->m_next) {
        repeated = static_cast<Node *>(s)->m_value.callback.Same(cb);
      }
      if (repeated) {
        link =
            chain.m_entries.erase(typename InspectorChain::EntryList::const_iterator(link)).node();
        continue;
      }
      if (count < kRoom) {
        seen[count].object = cb.object.get();
        seen[count].method = cb.method;
        slots[slot] = static_cast<uint8_t>(++count);
      } else if (overflow == nullptr) {
        overflow = link;
      }
      link = link->m_next;
    }
  }

  // The first rule of the list whose method is `method` (function word and
  // adjustment), or with function word 0 the first whose function word is 0;
  // null if none.
  static Rule *FindInList(RuleList &list, InspectorMethod method) {
    const InspectorMethodWords wanted = SplitMethod(method);
    for (typename RuleList::iterator it = list.begin(); it != list.end(); ++it) {
      const InspectorMethodWords words = SplitMethod(it->callback.method);
      if (wanted.function != 0
              ? words.function == wanted.function && words.adjustment == wanted.adjustment
              : words.function == 0) {
        return &*it;
      }
    }
    return nullptr;
  }

  // Takes the first rule with this callback out of the list: disarmed,
  // unlinked, its reference dropped, freed. A rule that is not there is no
  // error.
  static void RemoveFromList(RuleList &list, const InspectorCallback &cb) {
    for (typename RuleList::iterator it = list.begin(); it != list.end(); ++it) {
      if (it->callback.Same(cb)) {
        DisarmExpiry(&*it);
        list.erase(it);
        return;
      }
    }
  }

  // Takes the rule out of its bucket, by walking the bucket's entries. An
  // emptied bucket stays until its second comes.
  static void DisarmExpiry(Rule *rule) {
    if (rule->bucket == nullptr) {
      return;
    }
    ExpiryBucket &bucket = rule->bucket->m_value.second;
    for (typename ExpiryBucket::iterator it = bucket.begin(); it != bucket.end(); ++it) {
      if (it->second == rule) {
        bucket.erase(it);
        break;
      }
    }
    rule->bucket = nullptr;
  }

  // The expiry pass: at most one a second. Every bucket whose second has
  // come is emptied, least recently found rule first, through Expire.
  void RunExpiry() {
    const uint64_t t = now_sec();
    m_now = t;
    if (m_last_expire == t) {
      return;
    }
    m_last_expire = t;
    while (!m_expiry.empty()) {
      typename ExpiryMap::iterator node = m_expiry.begin();
      if (node->first > t) {
        break;
      }
      ExpiryBucket &bucket = node->second;
      while (!bucket.empty()) {
        typename ExpiryBucket::iterator entry = bucket.begin();
        Rule *rule = entry->second;
        bucket.erase(entry);
        rule->bucket = nullptr;
        Expire(rule);
      }
      m_expiry.erase(node);
    }
  }

private:
  void Announce(const Rule &rule) {
    const uint32_t size = AnnouncementSize(rule);
    uint8_t *payload = static_cast<uint8_t *>(kest_malloc_shared(size));
    if (payload == nullptr) {
      return;
    }
    WriteAnnouncement(rule, payload);
    SyncEventQueue::PostEvent(m_event, payload, size);
    kest_free_shared(payload);
  }
};

} // namespace oru

#endif
