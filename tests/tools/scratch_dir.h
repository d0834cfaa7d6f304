// Temporary directories for tests that write real files.
#pragma once

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>

namespace tellora::testtools {

// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes away.
class ScratchDir {
 public:
  ScratchDir() : path_((std::filesystem::temp_directory_path() / "tellora-tools-XXXXXX").string()) {
    if (::mkdtemp(path_.data()) == nullptr)
      throw std::runtime_error(std::string("mkdtemp: ") + std::strerror(errno));
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// The whole content of a file; empty when it cannot be read.
inline std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

}  // namespace tellora::testtools
