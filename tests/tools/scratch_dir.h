// Temporary directories for tests that write real files.
#pragma once

#include <string>

namespace tellora::testtools {

// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes away.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// The whole content of a file; empty when it cannot be read.
std::string readFile(const std::string& path);

}  // namespace tellora::testtools
