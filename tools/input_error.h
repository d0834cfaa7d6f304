// A failure caused by what the user handed in (a file, a value the hash
// refuses). main() prints it as one line and exits with status 1.
#pragma once

#include <stdexcept>

namespace tellora::cli {

class InputError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Thrown by a command that finished and wants this exit status (for example a
// search that ended with an error).
struct CommandExit {
  int status;
};

}  // namespace tellora::cli
