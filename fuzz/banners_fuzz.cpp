// The line-dialogue decoders' reading (SSH, SMTP, POP3, IMAP, FTP) on two
// sides fed in pieces that the input chooses: no crash, no read outside the
// flows, every read position within its flow, every note within its
// capacity, every announcement list within its bound.
#include "FuzzFlow.h"

#include "ftp/FtpRules.h"
#include "imap/ImapRules.h"
#include "pop3/Pop3Rules.h"
#include "smtp/SmtpRules.h"
#include "ssh/SshRules.h"

#include <kest_host.h>
#include <stdlib.h>

namespace {

template <class Rules> void Converse(const uint8_t *data, size_t size) {
  kest_fuzz::FuzzInput in(data, size);
  kest_fuzz::FuzzFlow sides[2];
  oru::kit::Dialog<Rules> dialog;
  // Half the inputs read on after the protocol is known, as far as a turn
  // to TLS.
  dialog.follow = size & 1;
  // The other half follows announcements (FTP's data connections), read
  // for the connection's life.
  if constexpr (kest_decoders::Announcing<Rules>) {
    dialog.state.expect = (size & 1) == 0 ? 1 : 0;
  }
  for (;;) {
    const unsigned s = in.Byte() & 1;
    if (!sides[s].Feed(in, 96)) {
      break;
    }
    const typename oru::kit::Dialog<Rules>::Outcome outcome = dialog.Read(sides[s].flow, s);
    const bool leave = outcome != oru::kit::Dialog<Rules>::WAIT;
    if (outcome == oru::kit::Dialog<Rules>::UPGRADE && dialog.follow == 0) {
      abort();
    }
    for (unsigned k = 0; k < 2; ++k) {
      if (dialog.From(k, sides[k].flow.End()) > sides[k].flow.End()) {
        abort();
      }
    }
    for (int i = 0; i < oru::kit::kNotesOf<Rules>; ++i) {
      if (dialog.notes.length[i] > oru::kit::kNoteCapacity) {
        abort();
      }
    }
    if constexpr (kest_decoders::Announcing<Rules>) {
      if (dialog.state.announced.count > oru::kit::Announcements::kMax) {
        abort();
      }
      dialog.state.announced.count = 0;
    }
    if (leave) {
      break;
    }
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool hooks = (kest_host_use_libc(), true);
  (void)hooks;
  Converse<kest_decoders::SshRules>(data, size);
  Converse<kest_decoders::SmtpRules>(data, size);
  Converse<kest_decoders::Pop3Rules>(data, size);
  Converse<kest_decoders::ImapRules>(data, size);
  Converse<kest_decoders::FtpRules>(data, size);
  return 0;
}
