#include <kest/ParentDpi.h>

namespace oru {

namespace {

using Link = fdt::list_link;
using Node = InspectorChain::EntryList::node_type;

ChainEntry &EntryOf(Link *link) {
  return static_cast<Node *>(link)->m_value;
}

// Unlinks the node, drops its reference (which may destroy the inspector)
// and frees it; the link that followed it.
Link *Release(Link *link) {
  Link *next = link->m_next;
  link->m_prev->m_next = next;
  next->m_prev = link->m_prev;
  Node *node = static_cast<Node *>(link);
  node->~Node();
  kest_free_local(node);
  return next;
}

void ExitOf(const ChainEntry &entry, fdt::intrusive_ptr<Conn> &conn) {
  Inspector *object = entry.callback.object.get();
  if (object != nullptr) {
    object->OnChainExit(conn);
  }
}

} // namespace

unsigned int ParentDpi::ProcessChain(InspectorChain &chain, PktInfo &pkt, Tuple &tuple,
                                     fdt::intrusive_ptr<Conn> &conn) {
  Link *const sentinel = chain.m_entries.end().node();
  Link *link = sentinel->m_next;
  unsigned int r = INSPECT_FINISHED;
  while (link != sentinel) {
    r = EntryOf(link).callback.Call(this, pkt, tuple, conn);
    if (r == INSPECT_STAY) {
      link = link->m_next;
      continue;
    }
    ExitOf(EntryOf(link), conn);
    link = Release(link);
    if (r != INSPECT_FINISHED) {
      // The chain ends: the rest leave without seeing the packet. The first
      // entry is read again after each exit, as OnChainExit may re-enter.
      while (!chain.m_entries.empty()) {
        ExitOf(EntryOf(sentinel->m_next), conn);
        if (!chain.m_entries.empty()) {
          Release(sentinel->m_next);
        }
      }
      return r;
    }
  }
  return chain.m_entries.empty() ? r : INSPECT_STAY;
}

unsigned int ParentDpi::Handoff(InspectorChain &chain, PktInfo &pkt, Tuple &tuple,
                                fdt::intrusive_ptr<Conn> &conn) {
  if (!chain.empty()) {
    return ProcessChain(chain, pkt, tuple, conn);
  }
  unsigned int result = INSPECT_NOTHING;
  if (IsTimeToCallback(pkt, tuple, conn, result)) {
    return HandoffCallback(pkt, tuple, conn);
  }
  return result;
}

void InspectorChain::Clear(fdt::intrusive_ptr<Conn> &conn) {
  while (!m_entries.empty()) {
    ExitOf(m_entries.front(), conn);
    if (!m_entries.empty()) {
      m_entries.pop_front();
    }
  }
}

} // namespace oru
