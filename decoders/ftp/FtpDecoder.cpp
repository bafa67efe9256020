// The FTP plug-in: the dialogue reader on every TCP connection with the
// protocol's rules (FtpRules.h).
#include "ftp/FtpRules.h"

KEST_LINE_DECODER(kest_decoders::FtpRules)
