// The parts of web-like messages as attributes for the host. For one
// protocol prefix ("http", say) it creates eleven attribute names:
//
//   <prefix>.request.header.<Field>   a request header field, by name (family)
//   <prefix>.request.header           the whole request head, first line included
//   <prefix>.request.body             the request body, in pieces
//   <prefix>.request.uri / .method / .version
//   <prefix>.response.header.<Field>  a response header field (family)
//   <prefix>.response.header / .body / .code / .version
//
// and hands the subscribed ones to the host straight from the flow's blocks:
// a value may come in several pieces, and bit 0 of the `more` flag says that
// more of the same value follows. Nothing is done for names nobody listens to,
// and nothing at all unless the connection's policy has POLICY_ATTRIBUTES.
//
// A plug-in calls InitInstance once per instance, Initialize on each thread
// start and ExitThread on each thread exit, with the same prefix; a WebDpi
// then calls ProcessHeader and ProcessBodyData.
#ifndef KEST_WEBATTRIBUTES_H
#define KEST_WEBATTRIBUTES_H

#include <kest/AttributeMgr.h>
#include <kest/Export.h>
#include <kest/FlowString.h>
#include <kest/WebLine.h>
#include <kest/fdt/basic_string.h>
#include <kest/trie.h>

namespace oru {

// Layout fixed: the two tries, then the nine identifiers in the order below.
class KEST_API WebAttributes {
public:
  using KeyTrie = trie<int, char_traits_nocase, true>;

  WebAttributes() = default;
  WebAttributes(const WebAttributes &) = delete;
  WebAttributes &operator=(const WebAttributes &) = delete;

  // Creates the eleven names in the order above; the two families with
  // AttributeValidator. False at the first that fails (those made stay).
  static bool InitInstance(const char *prefix);
  // Registers this thread's fields with the names.
  void Initialize(const char *prefix);
  void ExitThread(const char *prefix);

  // Whether a member of a header family names a field: the name behind
  // "<prefix>.request.header." or "<prefix>.response.header." must not be
  // empty, and each byte must lie from 33 to 126 and not be ":".
  static bool AttributeValidator(const fdt::string &key);

  // The head of a message: the whole head, its first-line parts, then each
  // header field somebody subscribed to by name (any case, whole name).
  void ProcessHeader(bool is_request, WebHeader &header);
  // A piece of a body; `more` says the body goes on.
  void ProcessBodyData(bool is_request, const FlowString &data, bool more);
  // The head from the start of its first line to the flow's read position.
  void DispatchHeader(int id, WebHeader &header);
  // A subscribed field was found: its value goes out under `id`.
  void OnKeyMatch(const char *key, unsigned int key_len, unsigned int start, unsigned int len,
                  FlowString &value, int id);
  // Delivers a value under `id` (nothing for an id below 1 or without
  // POLICY_ATTRIBUTES on the active connection), block by block, bit 0 of
  // the flag set on every piece but the last; an empty value as one call
  // with no data.
  static void DispatchFlowString(int id, const FlowString &value, int more, int arg);

  // Whether anything is subscribed: any identifier set or any field name.
  bool AnySubscribed() const;

  KeyTrie m_request_keys;
  KeyTrie m_response_keys;
  int m_request_header = 0;
  int m_request_body = 0;
  int m_request_uri = 0;
  int m_request_method = 0;
  int m_request_version = 0;
  int m_response_header = 0;
  int m_response_body = 0;
  int m_response_code = 0;
  int m_response_version = 0;

private:
  // Finds the record's key in `keys` and reports the value to every
  // identifier stored there.
  void SearchKey(KeyTrie &keys, const FlowString &key, FlowString &value);
};

} // namespace oru

#endif
