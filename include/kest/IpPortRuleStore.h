// The rule store of the transports: which inspectors want a connection with
// these two end points and this IP protocol?
//
// Rules are held by protocol, then by port (0: any port), then by address
// range (low and high both zero: no address condition):
//
//   port  range    list
//   0     none     ProtoRules::any
//   0     given    ProtoRules::ranges[low][high]
//   P     none     PortRules::any
//   P     given    PortRules::ranges[low][high]
//
// A connection matches a rule when the protocol is equal and the port (if
// any) and the range (if any) hold on the same end point, either end point.
// All matching rules go on the chain: priority 0 (added with `first`) before
// priority 1, and within a priority the more specific first: port_b ranges,
// port_b any, port_a ranges, port_a any, protocol ranges for b, for a, then
// protocol-wide rules.
//
// Ranges are kept exactly as added, never split or merged. An address
// matches every range with the same low once it lies at or below the
// greatest high of that low: with 10.0.0.1-10.0.0.20 and 10.0.0.1-10.0.0.99,
// 10.0.0.50 matches both. A range with a low but no high is merged with the
// other ranges of its low, and on its own matches nothing.
//
// The TCP and UDP decoders each keep one store per thread and offer it
// through the interface broker as INTERFACE_IPPORT_RULE_STORE of MODULE_TCP
// and MODULE_UDP: find it in your plug-in's LinkThread, add rules there, and
// look it up again before removing rules at thread exit (it is gone when the
// decoder's thread ended first). Every call runs on the thread that owns the
// store.
#ifndef KEST_IPPORTRULESTORE_H
#define KEST_IPPORTRULESTORE_H

#include <kest/Export.h>
#include <kest/InterfaceBroker.h>
#include <kest/IpAddr.h>
#include <kest/IpPortRuleString.h>
#include <kest/RuleStore.h>
#include <kest/fdt/map.h>
#include <stdint.h>

namespace oru {

// What the TCP and UDP decoders register their thread's IpPortRuleStore as.
constexpr InterfaceId INTERFACE_IPPORT_RULE_STORE = 20;

// The condition of an address and port rule. Layout fixed: low, high, port,
// protocol.
struct KEST_API IpPortSpec {
  // Start of the address range; all zero: no address condition.
  IpAddr low;
  // End of the range, inclusive.
  IpAddr high;
  // 0: any port.
  uint16_t port;
  // IP protocol number.
  uint8_t protocol;

  IpPortSpec() : low(), high(), port(0), protocol(0) {}
  IpPortSpec(const IpAddr &l, const IpAddr &h, uint16_t p, uint8_t proto)
      : low(l), high(h), port(p), protocol(proto) {}

  // The spec of a custom rule's text for `protocol`: its IPv4 range and
  // port. False for an invalid text and for a port above 65535, which no
  // store can hold.
  static bool FromRuleString(const IpPortRuleString &text, uint8_t protocol, IpPortSpec &spec);

  // The announcement of a used rule carries the spec as 36 bytes: low and
  // high (16 bytes each, as in memory), port (2), protocol (1), one zero.
  static constexpr uint32_t kAnnouncedSize = 36;
  static uint32_t AnnouncedSize(const IpPortSpec &) { return kAnnouncedSize; }
  static void Announce(const IpPortSpec &spec, uint8_t *out);
  static bool ReadAnnounced(const uint8_t *bytes, uint32_t length, IpPortSpec &spec);
};

class KEST_API IpPortRuleStore : public RuleStore<IpPortSpec> {
public:
  using Base = RuleStore<IpPortSpec>;
  using Rule = Base::Rule;
  using RuleList = Base::RuleList;
  using ExpiryType = Base::ExpiryType;
  // First key low, second key high.
  using RangeMap = Map<IpAddr, Map<IpAddr, RuleList, fdt::less<IpAddr>>, fdt::less<IpAddr>>;

  // Layout fixed: any, ranges.
  struct PortRules {
    // Rules of this port with no address condition.
    RuleList any;
    // Rules of this port with a range.
    RangeMap ranges;
  };

  // Layout fixed: any, ports, ranges.
  struct ProtoRules {
    // Rules of the protocol with neither port nor address.
    RuleList any;
    Map<unsigned short, PortRules> ports;
    // Rules with a range and no port.
    RangeMap ranges;
  };

  // An empty store that takes time-outs. `name` is kept as a pointer, and
  // m_event is set to 0: give it the number of your rule-use event before
  // adding EXPIRY_SYNCED rules. Built in the caller's code, with the class's
  // virtual table.
  explicit IpPortRuleStore(const char *name) : Base(name), m_allow_expiry(true) { m_event = 0; }
  // Drops every rule (and the references on their inspectors). Chains filled
  // from the store keep their own references.
  ~IpPortRuleStore();

  // Adds a rule: `cb` goes on the chain of connections of `proto` that match
  // `port` (0: any) and the range `low`..`high` (both zero: any address) on
  // one end point. `first` gives priority 0 (before all others) instead of
  // 1. A `timeout` in seconds (0: never) removes the rule in the first look-up
  // from that second on; with EXPIRY_SYNCED, each use of the rule is
  // announced to the other threads' stores. False, with nothing logged, for
  // a time-out while time-outs are refused, for a callback already in the
  // same list, and without memory.
  bool AddRule(const unsigned char &proto, InspectorCallback cb, const unsigned short &port,
               const IpAddr &low, const IpAddr &high, unsigned int timeout, ExpiryType type,
               bool first);
  // The range branch of AddRule.
  bool AddRange(RangeMap &map, const IpAddr &low, const IpAddr &high, Rule &rule,
                unsigned int timeout, ExpiryType type);
  // Removes the rule with this callback and condition; a rule that is not
  // there is no error. Empty levels of the index go with it.
  void RemoveRuleFast(const unsigned char &proto, InspectorCallback cb, const unsigned short &port,
                      const IpAddr &low, const IpAddr &high);
  // The range branch of RemoveRuleFast; a range that is not there is left
  // alone.
  void RemoveRange(RangeMap &map, const IpAddr &low, const IpAddr &high, InspectorCallback cb);

  // Fills `chain` for a new connection between a:port_a and b:port_b: every
  // matching rule, then the expiry pass, then each callback once. Entries
  // already in the chain stay, and take part in the duplicate removal.
  void SetupInspection(const IpAddr &a, const IpAddr &b, const unsigned short &port_a,
                       const unsigned short &port_b, const unsigned char &proto,
                       InspectorChain &chain);
  // The look-up alone, without expiry or duplicate removal. Note the order of
  // the arguments.
  void BuildInspectionStack(const IpAddr &a, const unsigned short &port_a, const IpAddr &b,
                            const unsigned short &port_b, const unsigned char &proto,
                            InspectorChain &chain);
  // Merges the lists of the ranges that `addr` matches.
  void FindRange(RangeMap &map, const IpAddr &addr, InspectorChain &chain);

  // The rule with exactly this condition whose method is `method` (any
  // method with function word 0 when that is 0), or null.
  Rule *FindRule(IpPortSpec &spec, InspectorMethod method) override {
    return FindExact(spec, method);
  }
  Rule *FindRule(RangeMap &map, IpPortSpec &spec, InspectorMethod method);
  Rule *FindRule(RuleList &list, IpPortSpec &spec, InspectorMethod method);

  // Whether the port of the protocol has a rule without an address range.
  bool IsPortRegistered(unsigned char proto, unsigned short port);

  // Removes the rule as RemoveRuleFast with its own condition and callback.
  void Expire(Rule *rule) override { RemoveExpired(rule); }

  // What the two virtual operations do. They are defined in the class so
  // that it has no key function: plug-ins built with run-time type
  // information then emit its type information themselves.
  Rule *FindExact(IpPortSpec &spec, InspectorMethod method);
  void RemoveExpired(Rule *rule);

  // Time-outs are taken (the default) or refused by AddRule.
  void AllowExpiry(bool allow) { m_allow_expiry = allow; }

  Map<unsigned char, ProtoRules> m_index;
  bool m_allow_expiry;
};

} // namespace oru

#endif
