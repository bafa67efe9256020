// --config-file FILE: a service's options kept in a file, one a line, as
// they would be written on the command line:
//
//   # /etc/kestcap/eth0.conf
//   --threads 4
//   --output /var/log/kestcap/eth0.json
//   --rule HTTP TCP 10.0.0.1:8080
//
// The first word of a line is the option; the rest of the line, spaces
// included and without quotes, is its argument. Blank lines and lines
// starting with '#' are skipped. The file's options come before those of
// the command line, so a single-valued option given on the command line
// wins, and repeatable ones add up.
#ifndef KESTCAP_CONFIGFILE_H
#define KESTCAP_CONFIGFILE_H

#include <string>
#include <vector>

namespace kestcap {

// argv with every "--config-file FILE" (or "--config-file=FILE") replaced by
// nothing and the file's words put first, after argv[0]. False with `error`
// set: the file cannot be read, it names another --config-file, or a line
// is longer than 4096 bytes or the file holds more than 10000 lines.
bool ExpandConfigFile(int argc, char **argv, std::vector<std::string> &args, std::string &error);

} // namespace kestcap

#endif
