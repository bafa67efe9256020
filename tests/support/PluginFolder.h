// A fixture for tests that open an instance on packed plug-ins of their own
// choice: a fresh folder under /tmp holding copies of them, removed after the
// test. The decoders name TCP and UDP themselves there.
#ifndef KEST_TESTS_PLUGINFOLDER_H
#define KEST_TESTS_PLUGINFOLDER_H

#include "InstanceFixture.h"

#include <filesystem>
#include <initializer_list>
#include <stdlib.h>

namespace kest_test {

class PluginFolderFixture : public InstanceFixture {
protected:
  void TearDown() override {
    InstanceFixture::TearDown();
    if (!dir.empty()) {
      std::filesystem::remove_all(dir);
    }
  }
  // Copies the files into a new folder and returns it.
  std::string Folder(std::initializer_list<const char *> files) {
    SetTransportRegistration(false);
    char pattern[] = "/tmp/kest-plugins-XXXXXX";
    if (mkdtemp(pattern) == nullptr) {
      ADD_FAILURE() << "no folder";
      return "";
    }
    dir = pattern;
    for (const char *file : files) {
      std::filesystem::copy_file(file, dir / std::filesystem::path(file).filename());
    }
    return dir.string();
  }
  std::filesystem::path dir;
};

} // namespace kest_test

#endif
