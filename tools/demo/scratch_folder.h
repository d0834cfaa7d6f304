// The demo's working folder (sound files, identity stores, logs): removed at
// the end unless it should be kept for a look.
#pragma once

#include <string>

namespace tellora::demo {

class ScratchFolder {
 public:
  // Throws std::runtime_error when no folder can be made.
  ScratchFolder();
  ~ScratchFolder();
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  void keep() { keep_ = true; }

 private:
  std::string path_;
  bool keep_ = false;
};

}  // namespace tellora::demo
