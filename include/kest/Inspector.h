// Inspectors: everything that looks at a connection's payload.
//
// An inspector is a reference-counted object with methods of one signature
// (InspectorMethod). A parent (ParentDpi) runs the methods that rule stores
// put on its chain, one packet at a time; each answers with a result that is
// both an instruction to the chain and, at the top of the stack, the status
// the host's result code is made from:
//
//   INSPECT_STAY      (1)   call me again with the next packet
//   INSPECT_FINISHED  (64)  I am done here; go on with the rest of the chain
//   anything else           end the chain: every entry leaves it and the
//                           value is the packet's result. INSPECT_NOTHING (2)
//                           and INSPECT_ABANDON (128) are the usual ones; 0
//                           and 65 end the chain too.
//
// Writing one: derive from Inspector, implement Inspect (and OnChainExit if
// the inspector keeps per-connection state), create it with
// oru::fdt::CreateObject (its deleting destructor releases by the object
// prefix), and hand an InspectorCallback to a rule store.
#ifndef KEST_INSPECTOR_H
#define KEST_INSPECTOR_H

#include <kest/Export.h>
#include <kest/PktInfo.h>
#include <kest/fdt/intrusive_ptr.h>
#include <kest/fdt/refcnt.h>
#include <stdint.h>
#include <string.h>

namespace oru {

class Conn;
class ParentDpi;
struct Tuple;

// Inspection results. Only the chain code (ParentDpi) interprets them.
enum : unsigned int {
  INSPECT_STAY = 1,
  INSPECT_NOTHING = 2,
  INSPECT_FINISHED = 64,
  INSPECT_ABANDON = 128,
};

// Virtual table order fixed: destructor, deleting destructor, Inspect,
// OnChainExit. The 32-bit reference count follows the table pointer.
class KEST_API Inspector : public fdt::refcnt {
public:
  // The second half of a registration with a parent (RegisterCallback).
  // Parents only test for non-zero; 2 has no use.
  enum Event : uint32_t {
    // With an empty callback: clears the side's registration.
    EVENT_NONE = 0,
    // Call back when that side next has data.
    EVENT_DATA = 1,
    // Kept by a message parent until the next exchange exists, then a
    // registration for it.
    EVENT_NEXT_TRANSACTION = 3,
  };

  ~Inspector() override {}
  KEST_DELETE_BY_PREFIX

  // Looks at one packet. `parent` runs the chain; `pkt` and `tuple` are the
  // decoder's records, passed along unchanged; `conn` is the connection.
  virtual unsigned int Inspect(ParentDpi *parent, PktInfo &pkt, Tuple &tuple,
                               fdt::intrusive_ptr<Conn> &conn) = 0;
  // The inspector's last word from a chain: called once each time one of its
  // entries leaves a chain that a parent runs, whatever the reason (its own
  // result, another entry's ending result, the connection's end).
  virtual void OnChainExit(fdt::intrusive_ptr<Conn> & /*conn*/) {}
};

// A method of an inspector with the signature of Inspect. A pointer to a
// virtual method calls the most derived override. Take a derived class's
// method with MakeInspectorMethod.
using InspectorMethod = unsigned int (Inspector::*)(ParentDpi *, PktInfo &, Tuple &,
                                                    fdt::intrusive_ptr<Conn> &);

template <class T>
inline InspectorMethod MakeInspectorMethod(unsigned int (T::*method)(ParentDpi *, PktInfo &,
                                                                     Tuple &,
                                                                     fdt::intrusive_ptr<Conn> &)) {
  return static_cast<InspectorMethod>(method);
}

// The two halves of a method pointer: the function word names the function
// (an address, or a table offset plus one for a virtual method; 0 for none),
// the adjustment is added to the object pointer before the call.
struct InspectorMethodWords {
  uint64_t function;
  int64_t adjustment;
};
static_assert(sizeof(InspectorMethod) == sizeof(InspectorMethodWords),
              "a method pointer is a function word and an adjustment");

inline InspectorMethodWords SplitMethod(InspectorMethod method) {
  InspectorMethodWords words;
  memcpy(&words, &method, sizeof words);
  return words;
}

inline InspectorMethod JoinMethod(const InspectorMethodWords &words) {
  InspectorMethod method;
  memcpy(&method, &words, sizeof method);
  return method;
}

// Equal when the function words are equal and either the adjustments are
// equal or the function word is 0.
inline bool SameMethod(InspectorMethod a, InspectorMethod b) {
  const InspectorMethodWords x = SplitMethod(a);
  const InspectorMethodWords y = SplitMethod(b);
  return x.function == y.function && (x.adjustment == y.adjustment || x.function == 0);
}

// What goes on a chain: an inspector and one of its methods. Holding a
// callback holds a reference on the inspector. Layout fixed: object, method
// (three words).
struct InspectorCallback {
  fdt::intrusive_ptr<Inspector> object;
  InspectorMethod method;

  InspectorCallback() : object(), method(nullptr) {}
  // The inspector's Inspect, through its virtual table.
  explicit InspectorCallback(Inspector *inspector)
      : object(inspector), method(&Inspector::Inspect) {}
  InspectorCallback(Inspector *inspector, InspectorMethod m) : object(inspector), method(m) {}

  // The one duplicate rule of chains and rule stores: the same object and
  // equal methods (SameMethod); nothing else is compared.
  bool Same(const InspectorCallback &other) const {
    return object.get() == other.object.get() && SameMethod(method, other.method);
  }

  unsigned int Call(ParentDpi *parent, PktInfo &pkt, Tuple &tuple,
                    fdt::intrusive_ptr<Conn> &conn) const {
    return (object.get()->*method)(parent, pkt, tuple, conn);
  }
};

static_assert(sizeof(InspectorCallback) == 24, "a callback is three words");

} // namespace oru

#endif
