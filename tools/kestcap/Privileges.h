// Giving up root: once the capture sockets, the plug-ins and the output files
// are open, kestcap needs none of root's powers, and keeping them would hand
// them to whatever hostile traffic finds in a decoder.
#ifndef KESTCAP_PRIVILEGES_H
#define KESTCAP_PRIVILEGES_H

#include <string>
#include <sys/types.h>

namespace kestcap {

// The user a live capture started as root runs as when --user is not
// given; `kFallbackUser` when that user does not exist.
constexpr const char *kDefaultUser = "kestcap";
constexpr const char *kFallbackUser = "nobody";

class Privileges {
public:
  // Looks up the user and group while the user database can still be read.
  // `spec` is "USER", "USER:GROUP" (names or numbers) or empty. With an
  // empty spec, `live_as_root` picks the default user (a note on standard
  // error says which); otherwise nothing will change user. False with
  // `error` set: an unknown user or group, or --user without root (unless
  // it names the current user).
  bool Resolve(const std::string &spec, bool live_as_root, std::string &error);

  // Clears the supplementary groups, takes the group and the user for
  // real, effective and saved IDs, and leaves no capability in any set
  // (bounding and ambient sets included, where kestcap may change them),
  // then sets no-new-privileges. Without a user to change to, it still
  // clears the capabilities (a service given CAP_NET_RAW for the capture
  // keeps it no longer than the opening). The calling process must have
  // one thread: the kernel changes IDs per thread (the C library passes
  // them on to the others, but the capability sets it does not). False
  // with `error` set when a step fails or its result does not hold (root
  // can be taken back, a capability is left).
  bool Drop(std::string &error);

  // Hands a file kestcap opened for writing to the user it will run as,
  // so that it can reopen it at SIGHUP. False when the system refuses.
  bool GiveFile(int fd) const;

  bool Changing() const { return m_change; }
  const std::string &UserName() const { return m_name; }

private:
  bool m_change = false;
  uid_t m_uid = 0;
  gid_t m_gid = 0;
  std::string m_name;
};

} // namespace kestcap

#endif
