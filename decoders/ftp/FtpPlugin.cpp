// The FTP plug-in: the dialogue reader on every TCP connection with the
// protocol's rules (FtpRules.h).
#include "ftp/FtpRules.h"

KEST_PLUGIN_QUERY {
  return &kest_decoders::DialogPlugin<kest_decoders::FtpRules>::kTable;
}
