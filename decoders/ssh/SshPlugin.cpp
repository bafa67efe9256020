// The SSH plug-in: the dialogue reader on every TCP connection with the
// protocol's rules (SshRules.h).
#include "ssh/SshRules.h"

KEST_PLUGIN_QUERY {
  return &kest_decoders::DialogPlugin<kest_decoders::SshRules>::kTable;
}
