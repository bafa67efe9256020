// The POP3 plug-in: the dialogue reader on every TCP connection with the
// protocol's rules (Pop3Rules.h).
#include "pop3/Pop3Rules.h"

KEST_LINE_DECODER(kest_decoders::Pop3Rules)
