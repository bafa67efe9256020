// The SSH plug-in: the dialogue reader on every TCP connection with the
// protocol's rules (SshRules.h).
#include "ssh/SshRules.h"

KEST_LINE_DECODER(kest_decoders::SshRules)
