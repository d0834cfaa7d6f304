// tellora: command-line access to the audio hash. Subcommands register
// themselves from their own files (tools/commands.h).
#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>

#include "tools/commands.h"
#include "tools/input_error.h"

namespace {

constexpr int kInputFailure = 1;
constexpr int kUsageFailure = 2;

// Every failure is one line on stderr, whatever the message held.
int fail(std::string message, int status) {
  for (char& c : message) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  std::fprintf(stderr, "tellora: %s\n", message.c_str());
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Find nearby devices by the sound they hear, and work with audio hashes.",
               "tellora"};
  app.set_version_flag("--version", "tellora " TELLORA_VERSION);
  app.require_subcommand(1);
  using Registration = void (*)(CLI::App&);
  for (Registration addCommand :
       {tellora::cli::addHashCommand, tellora::cli::addCompareCommand,
        tellora::cli::addFingerprintCommand, tellora::cli::addSearchCommand}) {
    addCommand(app);
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    return fail(e.what(), kUsageFailure);
  } catch (const tellora::cli::CommandExit& e) {
    std::fflush(stdout);
    return e.status;
  } catch (const tellora::cli::InputError& e) {
    return fail(e.what(), kInputFailure);
  } catch (const std::bad_alloc&) {
    return fail("out of memory", kInputFailure);
  }
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    return fail(std::string("cannot write the output: ") + std::strerror(errno), kInputFailure);
  }
  return 0;
}
