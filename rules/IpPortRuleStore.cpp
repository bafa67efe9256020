#include <kest/IpPortRuleStore.h>

namespace oru {

namespace {

bool Absent(const IpAddr &low, const IpAddr &high) {
  return low.is_zero() && high.is_zero();
}

} // namespace

static_assert(offsetof(IpPortSpec, low) == 0 && offsetof(IpPortSpec, high) == 16 &&
                  offsetof(IpPortSpec, port) == 32 && offsetof(IpPortSpec, protocol) == 34,
              "IpPortSpec layout is shared with plug-ins");

bool IpPortSpec::FromRuleString(const IpPortRuleString &text, uint8_t protocol, IpPortSpec &spec) {
  if (!text.valid || text.port > 0xFFFF) {
    return false;
  }
  spec = IpPortSpec(IpAddr::FromV4(text.low), IpAddr::FromV4(text.high),
                    static_cast<uint16_t>(text.port), protocol);
  return true;
}

void IpPortSpec::Announce(const IpPortSpec &spec, uint8_t *out) {
  kest_memcpy(out, &spec.low, 16);
  kest_memcpy(out + 16, &spec.high, 16);
  kest_memcpy(out + 32, &spec.port, 2);
  out[34] = spec.protocol;
  out[35] = 0;
}

bool IpPortSpec::ReadAnnounced(const uint8_t *bytes, uint32_t length, IpPortSpec &spec) {
  if (length != kAnnouncedSize) {
    return false;
  }
  kest_memcpy(&spec.low, bytes, 16);
  kest_memcpy(&spec.high, bytes + 16, 16);
  kest_memcpy(&spec.port, bytes + 32, 2);
  spec.protocol = bytes[34];
  return true;
}

IpPortRuleStore::~IpPortRuleStore() {
  // The rules go with the index; the buckets only point at them.
  m_index.clear();
  m_expiry.clear();
}

bool IpPortRuleStore::AddRule(const unsigned char &proto, InspectorCallback cb,
                              const unsigned short &port, const IpAddr &low, const IpAddr &high,
                              unsigned int timeout, ExpiryType type, bool first) {
  if (timeout != 0 && !m_allow_expiry) {
    return false;
  }
  ScopedMemTag tag(ScopedMemTag::OBJECT, MemTag::OBJ_IPRULESTORE_RULE);
  Rule rule{cb, first ? 0u : 1u, IpPortSpec(low, high, port, proto), timeout, type, nullptr};
  auto found = m_index.find(proto);
  if (found == m_index.end()) {
    found = m_index.try_emplace(proto);
    if (found == m_index.end()) {
      return false;
    }
  }
  ProtoRules &rules = found->second;
  if (port == 0) {
    return Absent(low, high) ? AddToList(rules.any, rule)
                             : AddRange(rules.ranges, low, high, rule, timeout, type);
  }
  auto port_rules = rules.ports.find(port);
  if (port_rules == rules.ports.end()) {
    port_rules = rules.ports.try_emplace(port);
    if (port_rules == rules.ports.end()) {
      return false;
    }
  }
  PortRules &at_port = port_rules->second;
  return Absent(low, high) ? AddToList(at_port.any, rule)
                           : AddRange(at_port.ranges, low, high, rule, timeout, type);
}

bool IpPortRuleStore::AddRange(RangeMap &map, const IpAddr &low, const IpAddr &high, Rule &rule,
                               unsigned int /*timeout*/, ExpiryType /*type*/) {
  auto outer = map.find(low);
  if (outer == map.end()) {
    outer = map.try_emplace(low);
    if (outer == map.end()) {
      return false;
    }
  }
  auto inner = outer->second.find(high);
  if (inner == outer->second.end()) {
    inner = outer->second.try_emplace(high);
    if (inner == outer->second.end()) {
      return false;
    }
  }
  return AddToList(inner->second, rule);
}

void IpPortRuleStore::RemoveRuleFast(const unsigned char &proto, InspectorCallback cb,
                                     const unsigned short &port, const IpAddr &low,
                                     const IpAddr &high) {
  auto found = m_index.find(proto);
  if (found == m_index.end()) {
    return;
  }
  ProtoRules &rules = found->second;
  if (port != 0) {
    auto port_rules = rules.ports.find(port);
    if (port_rules != rules.ports.end()) {
      PortRules &at_port = port_rules->second;
      if (Absent(low, high)) {
        RemoveFromList(at_port.any, cb);
      } else {
        RemoveRange(at_port.ranges, low, high, cb);
      }
      if (at_port.any.empty() && at_port.ranges.empty()) {
        rules.ports.erase(port_rules);
      }
    }
  } else if (Absent(low, high)) {
    RemoveFromList(rules.any, cb);
  } else {
    RemoveRange(rules.ranges, low, high, cb);
  }
  if (rules.ports.empty() && rules.ranges.empty() && rules.any.empty()) {
    m_index.erase(found);
  }
}

void IpPortRuleStore::RemoveRange(RangeMap &map, const IpAddr &low, const IpAddr &high,
                                  InspectorCallback cb) {
  auto outer = map.find(low);
  if (outer == map.end()) {
    return;
  }
  auto inner = outer->second.find(high);
  if (inner == outer->second.end()) {
    return;
  }
  RemoveFromList(inner->second, cb);
  if (inner->second.empty()) {
    outer->second.erase(inner);
  }
  if (outer->second.empty()) {
    map.erase(outer);
  }
}

void IpPortRuleStore::SetupInspection(const IpAddr &a, const IpAddr &b,
                                      const unsigned short &port_a, const unsigned short &port_b,
                                      const unsigned char &proto, InspectorChain &chain) {
  BuildInspectionStack(a, port_a, b, port_b, proto, chain);
  RunExpiry();
  UniqueChain(chain);
}

void IpPortRuleStore::BuildInspectionStack(const IpAddr &a, const unsigned short &port_a,
                                           const IpAddr &b, const unsigned short &port_b,
                                           const unsigned char &proto, InspectorChain &chain) {
  auto found = m_index.find(proto);
  if (found == m_index.end()) {
    return;
  }
  ProtoRules &rules = found->second;
  if (!rules.any.empty()) {
    MergeIntoChain(rules.any, chain);
  }
  if (!rules.ranges.empty()) {
    FindRange(rules.ranges, a, chain);
    FindRange(rules.ranges, b, chain);
  }
  if (rules.ports.empty()) {
    return;
  }
  const unsigned short ports[2] = {port_a, port_b};
  const IpAddr *addrs[2] = {&a, &b};
  for (int i = 0; i < 2; ++i) {
    auto port_rules = rules.ports.find(ports[i]);
    if (port_rules == rules.ports.end()) {
      continue;
    }
    MergeIntoChain(port_rules->second.any, chain);
    if (!port_rules->second.ranges.empty()) {
      FindRange(port_rules->second.ranges, *addrs[i], chain);
    }
  }
}

void IpPortRuleStore::FindRange(RangeMap &map, const IpAddr &addr, InspectorChain &chain) {
  for (auto outer = map.begin(); outer != map.end() && !(addr < outer->first); ++outer) {
    auto &highs = outer->second;
    auto greatest = highs.last();
    if (greatest == highs.end() || addr > greatest->first) {
      continue;
    }
    for (auto inner = greatest; inner != highs.end(); inner = highs.prev(inner)) {
      MergeIntoChain(inner->second, chain);
    }
  }
}

IpPortRuleStore::Rule *IpPortRuleStore::FindExact(IpPortSpec &spec, InspectorMethod method) {
  auto found = m_index.find(spec.protocol);
  if (found == m_index.end()) {
    return nullptr;
  }
  ProtoRules &rules = found->second;
  const bool absent = Absent(spec.low, spec.high);
  if (spec.port == 0) {
    return absent ? FindRule(rules.any, spec, method) : FindRule(rules.ranges, spec, method);
  }
  auto port_rules = rules.ports.find(spec.port);
  if (port_rules == rules.ports.end()) {
    return nullptr;
  }
  return absent ? FindRule(port_rules->second.any, spec, method)
                : FindRule(port_rules->second.ranges, spec, method);
}

IpPortRuleStore::Rule *IpPortRuleStore::FindRule(RangeMap &map, IpPortSpec &spec,
                                                 InspectorMethod method) {
  auto outer = map.find(spec.low);
  if (outer == map.end()) {
    return nullptr;
  }
  auto inner = outer->second.find(spec.high);
  return inner == outer->second.end() ? nullptr : FindRule(inner->second, spec, method);
}

IpPortRuleStore::Rule *IpPortRuleStore::FindRule(RuleList &list, IpPortSpec & /*spec*/,
                                                 InspectorMethod method) {
  return FindInList(list, method);
}

bool IpPortRuleStore::IsPortRegistered(unsigned char proto, unsigned short port) {
  auto found = m_index.find(proto);
  if (found == m_index.end()) {
    return false;
  }
  auto port_rules = found->second.ports.find(port);
  return port_rules != found->second.ports.end() && !port_rules->second.any.empty();
}

void IpPortRuleStore::RemoveExpired(Rule *rule) {
  // The removal frees the rule: take what it names first, and hold the
  // inspector until the removal is done.
  const InspectorCallback cb = rule->callback;
  const IpPortSpec spec = rule->spec;
  RemoveRuleFast(spec.protocol, cb, spec.port, spec.low, spec.high);
}

} // namespace oru
