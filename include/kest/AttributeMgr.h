// Attributes: named pieces of metadata ("conn.expired", a message header) that
// producers report by identifier and the host receives through listeners.
//
// Nothing is produced unless someone listens. Who listens to what lives in the
// configuration store: item "attribute.<name>" holds the listener's address as
// decimal text, "0" for none. A change travels to every thread with the
// configuration's sync event, and each thread hands out its own identifiers:
// an identifier exists on a thread only while a listener is set, so a producer
// tests one integer on the packet path and does nothing otherwise.
//
// A name that ends in "." is a family key and stands for every name that
// begins with it (all header names of a message, say).
#ifndef KEST_ATTRIBUTEMGR_H
#define KEST_ATTRIBUTEMGR_H

#include <kest/Configuration.h>
#include <kest/Export.h>
#include <kest/Runtime.h>
#include <kest/fdt/basic_string.h>
#include <kest/fdt/intrusive_ptr.h>
#include <kest/fdt/map.h>
#include <kest/fdt/refcnt.h>
#include <kest/fdt/vector.h>
#include <kest/trie.h>
#include <stddef.h>
#include <stdint.h>

namespace oru {

// The one order of all attribute maps, which makes a family key equal to each
// of its members. Of two names, take the shorter length: if the shorter name
// ends in ".", they compare by kest_strncmp over that length, otherwise by
// kest_strcmp. Names of equal length compare in full.
struct KEST_API AttributeLess {
  // a before b, for a name of `a_length` bytes at a and one of `b_length` at
  // b. Either may be the leading part of a longer text as long as it ends in
  // "." or is the longer of the two.
  static bool Before(const char *a, size_t a_length, const char *b, size_t b_length) {
    const bool a_shorter = a_length < b_length;
    const size_t common = a_shorter ? a_length : b_length;
    if (a_length == b_length) {
      return kest_strncmp(a, b, common) < 0;
    }
    if (common != 0 && (a_shorter ? a : b)[common - 1] == '.') {
      return kest_strncmp(a, b, common) < 0;
    }
    return kest_strcmp(a, b) < 0;
  }

  // A name given as its first `length` bytes.
  struct Span {
    const char *text;
    size_t length;
  };

  template <class A, class B> bool operator()(const A &a, const B &b) const {
    const Span sa = SpanOf(a);
    const Span sb = SpanOf(b);
    return Before(sa.text, sa.length, sb.text, sb.length);
  }

private:
  static Span SpanOf(const Span &s) { return s; }
  static Span SpanOf(const char *s) { return Span{s, kest_strlen(s)}; }
  template <class S>
  requires requires(const S &s) { s.c_str(); }
  static Span SpanOf(const S &s) { return Span{s.c_str(), s.size()}; }
};

class KEST_API AttributeMgr {
public:
  // A family's say over its members: true lets the member's item be set.
  using AttributeFamily = bool (*)(const fdt::string &name);
  // How a producer learns its identifier: the attribute's full name, the old
  // and the new identifier (0 when nobody listens any more), the user pointer.
  using ChangeCallback = void (*)(const fdt::string &name, int old_id, int new_id, void *user);
  // Delivery of one value: connection number, listener, identifier, length,
  // data, more, arg.
  using Handler = void (*)(uint64_t conn_id, void *listener, int id, int length,
                           const uint8_t *data, int more, int arg);
  // Names under a family, case-folded, each node listing its identifiers.
  using NameTrie = trie<int, char_traits_nocase, true>;

  // Row id - 1 holds the listener of identifier id; 0 marks a free row.
  using DeliveryTable = fdt::vector<uintptr_t>;
  // The identifiers of one registration, by the part of the attribute's name
  // behind the registered name ("" for a plain name).
  using IdMap = Map<fdt::string, int>;

  // What this thread's code asked for under one name. Layout fixed.
  struct AttributeRegistration {
    ChangeCallback callback;
    void *user;
    IdMap ids;
  };
  using RegistrationMap =
      fdt::map<fdt::string, AttributeRegistration, AttributeLess,
               local_container_alloc<fdt::pair<fdt::string, AttributeRegistration>>>;
  using FamilyMap =
      fdt::map<fdt::shared_string, AttributeFamily, AttributeLess,
               shared_container_alloc<fdt::pair<fdt::shared_string, AttributeFamily>>>;

  // Hears of changes under "attribute" on its thread and passes them to the
  // manager. Made with CreateObject on the local heap; the last reference
  // frees it.
  class KEST_API AttributeObserver : public fdt::refcnt {
  public:
    KEST_DELETE_BY_PREFIX

    explicit AttributeObserver(AttributeMgr *manager) : m_manager(manager) {}
    void OnConfigChange(const fdt::string &key, const fdt::string &old_value,
                        const fdt::string &new_value);

    AttributeMgr *m_manager;
  };

  // The calling thread's object; made on first use. Null without memory.
  static AttributeMgr *Instance();
  static AttributeMgr *Peek();
  // Destroys the thread's object with its maps.
  static void Release();

  // Instance start-up: the validator of every item under "attribute". True.
  static bool InitInstance();
  // Removes the validator and forgets the instance's families.
  static void ExitInstance();
  // Subscribes this thread to changes under "attribute". False without
  // memory; nothing is left behind then.
  bool InitThread();
  // Ends the subscription. Safe on a thread whose start-up failed.
  void ExitThread();

  // Creates a plain name with no listener ("0"). False when the name exists,
  // a family covers it, or the store refuses.
  static bool Create(const fdt::string &name);
  // Creates a family key with the validator of its members. A family has no
  // item of its own. False when the name exists or a family covers it.
  static bool Create(const fdt::string &name, AttributeFamily validator);
  // True when the name, or one of its leading parts that end in ".", is a
  // family of this instance.
  static bool FamilyCovers(const char *name);
  // The validator of "attribute": every family on the name's way must agree,
  // and the new value must not be empty.
  static bool ValidateAttribute(const fdt::string &key, const fdt::string &old_value,
                                const fdt::string &new_value);

  // Registers this thread's interest in a created name or family. The
  // callback runs at once for a listener that is already set, and later at
  // the idle pass that brings a change. False for an unknown name, a name
  // registered here already, or without memory.
  bool Register(const fdt::string &name, ChangeCallback callback, void *user);
  // Keeps a trie of the family's member names (the part behind the family
  // key) with their identifiers.
  bool Register(const fdt::string &name, NameTrie *names);
  // Keeps *target at the identifier of a plain name, 0 when nobody listens.
  bool Register(const fdt::string &name, int *target);
  // Drops the registration and frees its rows, without calling back.
  bool Unregister(const fdt::string &name);
  // Whether this thread registered exactly `name` (a family's member names
  // do not count).
  bool IsRegistered(const char *name) const;
  // The identifier this thread holds for plain name `name`, whoever
  // registered it; 0 while nobody listens or when it is not registered.
  // Lets two plug-ins of one thread report the same attribute.
  int PlainId(const char *name) const;

  // Hands a listener value to the registration: a new identifier, stored
  // under the name's part behind the registered name, and the callback.
  bool ActivateKey(const char *value, const char *name, AttributeRegistration &registration);
  // A row for the listener: the first free one, or a new one. Returns the
  // identifier (row + 1), or 0 without memory.
  int AddListener(uintptr_t listener);
  // A change of item `key` to `value`, on this thread.
  void OnAttributeChange(const char *key, const char *value);

  // Reports a value of attribute `id` for the thread's active connection.
  // The caller holds a positive identifier and has touched a connection.
  void DispatchAttribute(int id, const uint8_t *data, int length, int more, int arg);
  void SetHandler(Handler handler) { m_handler = handler; }

  static ThreadLocalKey l_instance;

  // Layout fixed: delivery table, registrations, observer, handler.
  DeliveryTable m_delivery;
  RegistrationMap m_registrations;
  fdt::intrusive_ptr<AttributeObserver> m_observer;
  Handler m_handler = nullptr;
};

} // namespace oru

#endif
