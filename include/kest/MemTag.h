// Memory tags: a thread word that says what is being allocated (object, high
// 16 bits) and on whose behalf (context, low 16 bits), for the host's
// allocation hooks to count by. The library never reads it for itself.
#ifndef KEST_MEMTAG_H
#define KEST_MEMTAG_H

#include <kest/Export.h>
#include <stdint.h>

namespace oru {

class KEST_API MemTag {
public:
  static __thread int l_mem_tag KEST_THREAD_WORD;

  // The two key spaces in the configuration store.
  static constexpr const char *OBJ_SPACE = "memtag.obj";
  static constexpr const char *CTX_SPACE = "memtag.ctx";

  // Gives the name a number in the space while the instance opens; true if
  // the name has a number afterwards. The counter moves only for a new name.
  static bool Create(const char *space, const char *name, uint32_t &counter);
  // The name's number, 0 if unknown.
  static uint32_t Lookup(const char *space, const char *name);
  // The name of a number into the buffer, or "unspec".
  static void Name(const char *space, uint32_t number, char *buf, int size);

  static bool InitInstance();
  static void ExitInstance();

  class KEST_API Obj {
  public:
    static bool Create(const char *name);
    static uint32_t Lookup(const char *name);
    static void Name(uint32_t number, char *buf, int size);
    // One above the highest number given out.
    static uint32_t Count();
    static bool InitInstance();
  };

  class KEST_API Ctx {
  public:
    static bool Create(const char *name);
    static uint32_t Lookup(const char *name);
    static void Name(uint32_t number, char *buf, int size);
    static uint32_t Count();
    static bool InitInstance();
  };

  // Built-in object numbers.
  enum Object : uint16_t {
    OBJ_APPSTACK_APPPROTO = 1,
    OBJ_APPSTACK_ATTRIBUTE = 2,
    OBJ_FLOWBUFFER_BLOCK = 3,
    OBJ_FLOWBUFFER_DATA = 4,
    OBJ_IPRULESTORE_RULE = 5,
    OBJ_KVRULESTORE_RULE = 6,
    OBJ_CONNCACHE_CONNECTION = 7,
    OBJ_CHAIN_RULE = 8,
    // The configuration store tags its work with this object number, although
    // it is the number of the "configuration.general" context.
    OBJ_CONFIGURATION = 11,
  };

  // Built-in context numbers.
  enum Context : uint16_t {
    CTX_UDP_INSPECT = 1,
    CTX_UDP_HANDOFF = 2,
    CTX_TCP_INSPECT = 3,
    CTX_TCP_HANDOFF = 4,
    CTX_BITTORRENT_GENERAL = 5,
    CTX_SKYPE_GENERAL = 6,
    CTX_HTTP_GENERAL = 7,
    CTX_TLS_GENERAL = 8,
    CTX_PLUGINMGR_GENERAL = 9,
    CTX_SLOWINSPECTOR_GENERAL = 10,
    CTX_CONFIGURATION_GENERAL = 11,
  };
};

// Saves the thread's tag word, replaces one half (or all of it) for the scope,
// and restores the saved word on every way out.
class ScopedMemTag {
public:
  enum Half { OBJECT, CONTEXT, WHOLE };

  ScopedMemTag(Half half, uint32_t value) : m_saved(MemTag::l_mem_tag) {
    const uint32_t word = static_cast<uint32_t>(m_saved);
    switch (half) {
    case OBJECT:
      MemTag::l_mem_tag = static_cast<int>((word & 0xFFFFu) | (value << 16));
      break;
    case CONTEXT:
      MemTag::l_mem_tag = static_cast<int>((word & 0xFFFF0000u) | (value & 0xFFFFu));
      break;
    case WHOLE:
      MemTag::l_mem_tag = static_cast<int>(value);
      break;
    }
  }
  ~ScopedMemTag() { MemTag::l_mem_tag = m_saved; }
  ScopedMemTag(const ScopedMemTag &) = delete;
  ScopedMemTag &operator=(const ScopedMemTag &) = delete;

private:
  int m_saved;
};

} // namespace oru

#endif
