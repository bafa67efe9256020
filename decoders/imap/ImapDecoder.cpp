// The IMAP plug-in: the dialogue reader on every TCP connection with the
// protocol's rules (ImapRules.h).
#include "imap/ImapRules.h"

KEST_LINE_DECODER(kest_decoders::ImapRules)
