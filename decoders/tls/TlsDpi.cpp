#include "tls/TlsDpi.h"

#include "tls/TlsFingerprint.h"

#include <kest.h>
#include <kest/AttributeMgr.h>
#include <kest/Runtime.h>
#include <new>
#include <string.h>

namespace kest_tls {

namespace {

const char *const kAttributeNames[] = {kAttrServerName, kAttrAlpn, kAttrVersion,
                                       kAttrClientFingerprint};

} // namespace

TlsDpi::~TlsDpi() {
  for (auto it = m_sessions.begin(); it != m_sessions.end(); ++it) {
    it->second->~Session();
    kest_free_local(it->second);
  }
  m_sessions.clear();
}

void TlsDpi::CreateAttributes() {
  for (const char *name : kAttributeNames) {
    oru::AttributeMgr::Create(oru::fdt::string(name));
  }
}

void TlsDpi::RegisterAttributes() {
  oru::AttributeMgr *manager = oru::AttributeMgr::Instance();
  if (manager == nullptr) {
    return;
  }
  int *const targets[] = {&m_attr_server_name, &m_attr_alpn, &m_attr_version, &m_attr_fingerprint};
  for (size_t i = 0; i < 4; ++i) {
    manager->Register(oru::fdt::string(kAttributeNames[i]), targets[i]);
  }
}

void TlsDpi::UnregisterAttributes() {
  oru::AttributeMgr *manager = oru::AttributeMgr::Peek();
  if (manager != nullptr) {
    for (const char *name : kAttributeNames) {
      manager->Unregister(oru::fdt::string(name));
    }
  }
  m_attr_server_name = m_attr_alpn = m_attr_version = m_attr_fingerprint = 0;
}

TlsDpi::Session *TlsDpi::SessionOf(oru::Conn *conn) {
  const uintptr_t key = reinterpret_cast<uintptr_t>(conn);
  auto it = m_sessions.find(key);
  if (it != m_sessions.end()) {
    return it->second;
  }
  void *block = kest_malloc_local(sizeof(Session));
  if (block == nullptr) {
    return nullptr;
  }
  Session *session = ::new (block) Session();
  if (m_sessions.insert(key, session) == m_sessions.end()) {
    session->~Session();
    kest_free_local(block);
    return nullptr;
  }
  return session;
}

void TlsDpi::FreeSession(oru::Conn *conn) {
  auto it = m_sessions.find(reinterpret_cast<uintptr_t>(conn));
  if (it == m_sessions.end()) {
    return;
  }
  Session *session = it->second;
  m_sessions.erase(it);
  session->~Session();
  kest_free_local(session);
}

// The side's bytes from where it stopped to the end of the stream, block by
// block. A side whose bytes were dropped before it read them (it was not
// called for a packet) cannot be followed: it is given up.
void TlsDpi::Feed(Side &side, const oru::FlowBuffer &flow, const oru::PktInfo &pkt) {
  if (!side.started) {
    side.started = true;
    side.next_pos = pkt.stream_pos;
  }
  if (side.next_pos < flow.Begin()) {
    side.done = true;
    return;
  }
  const uint64_t end = flow.End();
  while (side.next_pos < end && side.assembler.GetState() == HelloAssembler::State::kNeedMore) {
    unsigned long long start = 0;
    const oru::FlowBuffer::Block *block = flow.GetBlock(side.next_pos, start);
    if (block == nullptr || start + block->size <= side.next_pos) {
      break;
    }
    const uint64_t offset = side.next_pos - start;
    uint64_t n = block->size - offset;
    if (n > end - side.next_pos) {
      n = end - side.next_pos;
    }
    side.assembler.Feed(reinterpret_cast<const uint8_t *>(block->data) + offset,
                        static_cast<size_t>(n));
    side.next_pos += n;
  }
}

void TlsDpi::Publish(int id, const char *text, size_t length, oru::Conn &conn) {
  if (id < 1 || text == nullptr || (conn.m_policy & oru::POLICY_ATTRIBUTES) == 0 ||
      oru::ThreadPointer<oru::Conn>(oru::Conn::l_active_conn) != &conn) {
    return;
  }
  oru::AttributeMgr *manager = oru::AttributeMgr::Peek();
  if (manager != nullptr) {
    manager->DispatchAttribute(id, reinterpret_cast<const uint8_t *>(text),
                               static_cast<int>(length), 0, 0);
  }
}

void TlsDpi::OnHello(Session &session, const HelloInfo &hello, oru::Conn &conn) {
  if (!session.pushed) {
    session.pushed = conn.PushProtocol(m_proto);
  }
  if (hello.type == kClientHello) {
    if (hello.has_server_name) {
      Publish(m_attr_server_name, hello.server_name, hello.server_name_length, conn);
    }
    if (hello.has_alpn) {
      session.client_alpn = true;
      session.server_alpn_pending = false;
      Publish(m_attr_alpn, hello.alpn, hello.alpn_length, conn);
    }
    if (m_attr_fingerprint > 0) {
      char fingerprint[kFingerprintSize];
      ClientFingerprint(hello, fingerprint);
      Publish(m_attr_fingerprint, fingerprint, strlen(fingerprint), conn);
    }
    return;
  }
  const char *version = VersionText(NegotiatedVersion(hello));
  if (version != nullptr) {
    Publish(m_attr_version, version, strlen(version), conn);
  }
  // The server's choice stands in for the client's list only when that list
  // is not seen; it waits until the client side has had its chance.
  if (hello.has_alpn && !session.client_alpn) {
    memcpy(session.server_alpn, hello.alpn, hello.alpn_length + 1u);
    session.server_alpn_pending = true;
  }
}

void TlsDpi::Finish(Session &session, oru::Conn &conn) {
  if (session.server_alpn_pending) {
    session.server_alpn_pending = false;
    Publish(m_attr_alpn, session.server_alpn, strlen(session.server_alpn), conn);
  }
}

unsigned int TlsDpi::Inspect(oru::ParentDpi * /*parent*/, oru::PktInfo &pkt, oru::Tuple & /*tuple*/,
                             oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  oru::Conn *c = conn.get();
  if (c == nullptr || pkt.length == 0) {
    return oru::INSPECT_STAY;
  }
  Session *session = SessionOf(c);
  if (session == nullptr) {
    return oru::INSPECT_FINISHED;
  }
  const unsigned index = pkt.side != 0 ? 1 : 0;
  Side &side = session->side[index];
  Side &other = session->side[1 - index];
  if (side.done) {
    if (side.later < 0xFFFF) {
      ++side.later;
    }
  } else {
    Feed(side, c->m_flow[index], pkt);
    switch (side.assembler.GetState()) {
    case HelloAssembler::State::kFailed:
      side.done = true;
      break;
    case HelloAssembler::State::kDone: {
      side.done = true;
      HelloInfo hello;
      if (ParseHello(side.assembler.Message(), side.assembler.MessageLength(), hello) ==
          ParseStatus::kOk) {
        side.parsed = true;
        OnHello(*session, hello, *c);
      }
      break;
    }
    case HelloAssembler::State::kLegacyHello:
      side.done = true;
      side.legacy = true;
      break;
    case HelloAssembler::State::kNeedMore:
      break;
    }
  }
  // Leave at the first side that is not TLS (whatever the other said), when
  // both hellos are in, or when the other side stays silent too long.
  const bool failed =
      (side.done && !side.parsed && !side.legacy) || (other.done && !other.parsed && !other.legacy);
  const bool both = (side.parsed || side.legacy) && (other.parsed || other.legacy);
  const bool waited = side.done && !other.started && side.later > kPatience;
  if (failed || both || waited) {
    Finish(*session, *c);
    return oru::INSPECT_FINISHED;
  }
  return oru::INSPECT_STAY;
}

void TlsDpi::OnChainExit(oru::fdt::intrusive_ptr<oru::Conn> &conn) {
  oru::Conn *c = conn.get();
  if (c == nullptr) {
    return;
  }
  auto it = m_sessions.find(reinterpret_cast<uintptr_t>(c));
  if (it != m_sessions.end()) {
    // The connection's end may come before the inspector's own: what waited
    // goes out now, if the connection is still the thread's current one.
    Finish(*it->second, *c);
  }
  FreeSession(c);
}

} // namespace kest_tls
