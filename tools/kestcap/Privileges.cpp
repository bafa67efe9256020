#include "Privileges.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kestcap {

namespace {

std::string SystemError(const char *what) {
  return std::string(what) + ": " + std::strerror(errno);
}

// A number, or a name the user or group database knows.
bool Number(const std::string &text, unsigned &value) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos ||
      text.size() > 9) {
    return false;
  }
  value = static_cast<unsigned>(std::strtoul(text.c_str(), nullptr, 10));
  return true;
}

// The three capability sets of this thread: all empty once the drop is done.
bool Capabilities(__user_cap_data_struct (&data)[2]) {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  return syscall(SYS_capget, &header, data) == 0;
}

bool ClearCapabilities() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct data[2] = {};
  return syscall(SYS_capset, &header, data) == 0;
}

} // namespace

bool Privileges::Resolve(const std::string &spec, bool live_as_root, std::string &error) {
  std::string user = spec.substr(0, spec.find(':'));
  const std::string group_name =
      spec.find(':') == std::string::npos ? "" : spec.substr(spec.find(':') + 1);
  if (spec.empty()) {
    if (!live_as_root) {
      return true;
    }
    user = kDefaultUser;
    if (getpwnam(kDefaultUser) == nullptr) {
      std::fprintf(stderr,
                   "kestcap: no user \"%s\" for live captures started as root; running as "
                   "\"%s\" (create the user, or give --user)\n",
                   kDefaultUser, kFallbackUser);
      user = kFallbackUser;
    }
  }
  const passwd *pw = nullptr;
  unsigned number = 0;
  pw = Number(user, number) ? getpwuid(number) : getpwnam(user.c_str());
  if (pw == nullptr && !Number(user, number)) {
    error = "--user: no user \"" + user + "\"";
    return false;
  }
  m_uid = pw != nullptr ? pw->pw_uid : number;
  m_gid = pw != nullptr ? pw->pw_gid : number;
  m_name = pw != nullptr ? pw->pw_name : user;
  if (!group_name.empty()) {
    const struct group *gr =
        Number(group_name, number) ? getgrgid(number) : getgrnam(group_name.c_str());
    if (gr == nullptr && !Number(group_name, number)) {
      error = "--user: no group \"" + group_name + "\"";
      return false;
    }
    m_gid = gr != nullptr ? gr->gr_gid : number;
  }
  if (geteuid() != 0 && (m_uid != geteuid() || m_gid != getegid())) {
    error = "--user " + spec + " needs kestcap to start as root";
    return false;
  }
  m_change = geteuid() == 0;
  if (spec.empty()) {
    std::fprintf(stderr, "kestcap: running as user \"%s\" once the capture is open\n",
                 m_name.c_str());
  }
  return true;
}

bool Privileges::GiveFile(int fd) const {
  return !m_change || fchown(fd, m_uid, m_gid) == 0;
}

bool Privileges::Drop(std::string &error) {
  if (m_change) {
    // The bounding set first, while CAP_SETPCAP is still held: a program
    // run later (none is, but the rule is cheap) could gain nothing back.
    for (int cap = 0; prctl(PR_CAPBSET_READ, cap, 0, 0, 0) >= 0; ++cap) {
      if (prctl(PR_CAPBSET_DROP, cap, 0, 0, 0) != 0) {
        error = SystemError("dropping the capability bounding set");
        return false;
      }
    }
    if (setgroups(0, nullptr) != 0) {
      error = SystemError("clearing the supplementary groups");
      return false;
    }
    if (setresgid(m_gid, m_gid, m_gid) != 0) {
      error = SystemError(("changing to group " + std::to_string(m_gid)).c_str());
      return false;
    }
    // With all three user IDs non-zero the kernel clears the permitted and
    // effective sets (keep-capabilities is off by default).
    if (setresuid(m_uid, m_uid, m_uid) != 0) {
      error = SystemError(("changing to user " + m_name).c_str());
      return false;
    }
  }
  // A service started unprivileged with capabilities for the capture, or
  // a user of 0: the sets are emptied by hand.
  prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0);
  if (!ClearCapabilities()) {
    error = SystemError("clearing the capability sets");
    return false;
  }
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) {
    error = SystemError("setting no-new-privileges");
    return false;
  }
  // Trust, but check: no capability in any set, and root is gone for good.
  __user_cap_data_struct data[2] = {};
  if (!Capabilities(data) || (data[0].effective | data[0].permitted | data[0].inheritable |
                              data[1].effective | data[1].permitted | data[1].inheritable) != 0) {
    error = "a capability is still held after the drop";
    return false;
  }
  if (m_change && m_uid != 0 && (setuid(0) == 0 || seteuid(0) == 0)) {
    error = "root could be taken back after the drop";
    return false;
  }
  return true;
}

} // namespace kestcap
