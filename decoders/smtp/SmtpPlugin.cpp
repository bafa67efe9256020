// The SMTP plug-in: the dialogue reader on every TCP connection with the
// protocol's rules (SmtpRules.h).
#include "smtp/SmtpRules.h"

KEST_PLUGIN_QUERY {
  return &kest_decoders::DialogPlugin<kest_decoders::SmtpRules>::kTable;
}
