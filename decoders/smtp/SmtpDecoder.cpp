// The SMTP plug-in: the dialogue reader on every TCP connection with the
// protocol's rules (SmtpRules.h).
#include "smtp/SmtpRules.h"

KEST_LINE_DECODER(kest_decoders::SmtpRules)
