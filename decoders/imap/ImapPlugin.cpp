// The IMAP plug-in: the dialogue reader on every TCP connection with the
// protocol's rules (ImapRules.h).
#include "imap/ImapRules.h"

KEST_PLUGIN_QUERY {
  return &kest_decoders::DialogPlugin<kest_decoders::ImapRules>::kTable;
}
