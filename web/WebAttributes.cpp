#include <kest/Conn.h>
#include <kest/WebAttributes.h>

namespace oru {

namespace {

// The names of a protocol, in the order of creation; a null target marks a
// family (its trie is chosen by direction).
struct Key {
  const char *suffix;
  bool family;
  bool request;
  int WebAttributes::*id;
};

const Key kKeys[] = {
    {".request.header.", true, true, nullptr},
    {".request.header", false, true, &WebAttributes::m_request_header},
    {".request.body", false, true, &WebAttributes::m_request_body},
    {".request.uri", false, true, &WebAttributes::m_request_uri},
    {".request.method", false, true, &WebAttributes::m_request_method},
    {".request.version", false, true, &WebAttributes::m_request_version},
    {".response.header.", true, false, nullptr},
    {".response.header", false, false, &WebAttributes::m_response_header},
    {".response.body", false, false, &WebAttributes::m_response_body},
    {".response.code", false, false, &WebAttributes::m_response_code},
    {".response.version", false, false, &WebAttributes::m_response_version},
};

fdt::string NameOf(const char *prefix, const Key &key) {
  fdt::string name(prefix);
  name.append(key.suffix);
  return name;
}

// A FlowString with its position cut to 32 bits, as message parts are.
FlowString Low32(const FlowString &s) {
  return FlowString(s.flow, static_cast<uint32_t>(s.pos), s.length);
}

} // namespace

bool WebAttributes::InitInstance(const char *prefix) {
  for (const Key &key : kKeys) {
    const fdt::string name = NameOf(prefix, key);
    const bool made = key.family ? AttributeMgr::Create(name, &WebAttributes::AttributeValidator)
                                 : AttributeMgr::Create(name);
    if (!made) {
      return false;
    }
  }
  return true;
}

void WebAttributes::Initialize(const char *prefix) {
  AttributeMgr *manager = AttributeMgr::Instance();
  if (manager == nullptr) {
    return;
  }
  for (const Key &key : kKeys) {
    const fdt::string name = NameOf(prefix, key);
    if (key.family) {
      manager->Register(name, key.request ? &m_request_keys : &m_response_keys);
    } else {
      manager->Register(name, &(this->*key.id));
    }
  }
}

void WebAttributes::ExitThread(const char *prefix) {
  AttributeMgr *manager = AttributeMgr::Peek();
  if (manager == nullptr) {
    return;
  }
  for (const Key &key : kKeys) {
    manager->Unregister(NameOf(prefix, key));
  }
}

bool WebAttributes::AttributeValidator(const fdt::string &key) {
  const char *text = key.c_str();
  const long length = static_cast<long>(key.size());
  long dot = -1;
  for (long i = 0; i < length; ++i) {
    if (text[i] == '.') {
      dot = i;
      break;
    }
  }
  const long direction = dot + 3;
  const bool request = direction >= 0 && direction < length && text[direction] == 'q';
  const long start = dot + (request ? 16 : 17);
  if (start >= length) {
    return false;
  }
  for (long i = start < 0 ? 0 : start; i < length; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 33 || c > 126 || c == ':') {
      return false;
    }
  }
  return true;
}

void WebAttributes::DispatchHeader(int id, WebHeader &header) {
  const FlowString &first = header.m_first;
  if (first.flow == nullptr) {
    return;
  }
  const uint32_t start = static_cast<uint32_t>(first.pos);
  const uint32_t read = static_cast<uint32_t>(first.flow->m_read_pos);
  DispatchFlowString(id, FlowString(first.flow, start, read - start), 0, 0);
}

void WebAttributes::ProcessHeader(bool is_request, WebHeader &header) {
  const FlowString &version =
      header.m_type == WebLine::LINE_REQUEST ? header.m_third : header.m_first;
  if (is_request) {
    DispatchHeader(m_request_header, header);
    DispatchFlowString(m_request_uri, Low32(header.m_second), 0, 0);
    DispatchFlowString(m_request_method, Low32(header.m_first), 0, 0);
    DispatchFlowString(m_request_version, Low32(version), 0, 0);
  } else {
    DispatchHeader(m_response_header, header);
    DispatchFlowString(m_response_code, Low32(header.m_second), 0, 0);
    DispatchFlowString(m_response_version, Low32(version), 0, 0);
  }
  KeyTrie &keys = is_request ? m_request_keys : m_response_keys;
  if (keys.children().empty() || header.m_records.empty()) {
    return;
  }
  for (const KeyValueRecord &r : header.m_records) {
    const FlowString key(header.m_flow, static_cast<uint32_t>(r.key_start),
                         static_cast<uint32_t>(r.key_end - r.key_start));
    FlowString value(header.m_flow, static_cast<uint32_t>(r.value_start),
                     static_cast<uint32_t>(r.value_end - r.value_start));
    SearchKey(keys, key, value);
  }
}

void WebAttributes::SearchKey(KeyTrie &keys, const FlowString &key, FlowString &value) {
  if (key.length == 0 || key.flow == nullptr) {
    return;
  }
  unsigned long long start;
  const FlowBuffer::Block *block = key.flow->GetBlock(key.pos, start);
  const char *bytes = nullptr;
  uint32_t length = key.length;
  fdt::basic_string<local_container_alloc<char>> gathered;
  if (block != nullptr && key.pos + key.length <= start + block->size) {
    bytes = block->data + (key.pos - start);
  } else {
    // A name split over blocks is gathered, as far as the data goes.
    const unsigned long long end = key.flow->End();
    const unsigned long long stop = key.pos + key.length < end ? key.pos + key.length : end;
    for (unsigned long long p = key.pos; p < stop; ++p) {
      const char c = key.flow->At(p);
      if (!gathered.append(&c, 1)) {
        return;
      }
    }
    bytes = gathered.c_str();
    length = static_cast<uint32_t>(gathered.size());
    if (length == 0) {
      return;
    }
  }
  const KeyTrie *node = keys.find(bytes, length);
  if (node == nullptr || node == &keys) {
    return;
  }
  for (int id : node->values()) {
    OnKeyMatch(bytes, length, 0, length, value, id);
  }
}

void WebAttributes::ProcessBodyData(bool is_request, const FlowString &data, bool more) {
  DispatchFlowString(is_request ? m_request_body : m_response_body, data, more ? 1 : 0, 0);
}

void WebAttributes::OnKeyMatch(const char * /*key*/, unsigned int /*key_len*/,
                               unsigned int /*start*/, unsigned int /*len*/, FlowString &value,
                               int id) {
  DispatchFlowString(id, value, 0, 0);
}

void WebAttributes::DispatchFlowString(int id, const FlowString &value, int more, int arg) {
  if (id < 1) {
    return;
  }
  const Conn *conn = ThreadPointer<Conn>(Conn::l_active_conn);
  AttributeMgr *manager = AttributeMgr::Peek();
  if (conn == nullptr || (conn->m_policy & POLICY_ATTRIBUTES) == 0 || manager == nullptr) {
    return;
  }
  if (value.length == 0 || value.flow == nullptr) {
    manager->DispatchAttribute(id, nullptr, 0, more, arg);
    return;
  }
  unsigned long long pos = value.pos;
  uint32_t left = value.length;
  while (left != 0) {
    unsigned long long start;
    const FlowBuffer::Block *block = value.flow->GetBlock(pos, start);
    if (block == nullptr) {
      return;
    }
    const unsigned long long in_block = start + block->size - pos;
    const uint32_t n = in_block < left ? static_cast<uint32_t>(in_block) : left;
    left -= n;
    manager->DispatchAttribute(id, reinterpret_cast<const uint8_t *>(block->data + (pos - start)),
                               static_cast<int>(n), left != 0 ? (more | 1) : more, arg);
    pos += n;
  }
}

bool WebAttributes::AnySubscribed() const {
  return m_request_header > 0 || m_request_body > 0 || m_request_uri > 0 || m_request_method > 0 ||
         m_request_version > 0 || m_response_header > 0 || m_response_body > 0 ||
         m_response_code > 0 || m_response_version > 0 || !m_request_keys.children().empty() ||
         !m_response_keys.children().empty();
}

} // namespace oru
