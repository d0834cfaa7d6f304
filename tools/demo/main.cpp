// tellora-demo: three simulated phones find and lose each other through a
// local tellora-server, with a timeline of who found whom.
#include <CLI/CLI.hpp>
#include <filesystem>
#include <string>
#include <system_error>

#include "tools/demo/demo_run.h"

namespace {

// The build tree this binary sits in: <build>/tools/demo/tellora-demo.
std::filesystem::path buildTree() {
  std::error_code error;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return ".";
  return (self.parent_path() / ".." / "..").lexically_normal();
}

}  // namespace

int main(int argc, char** argv) {
  tellora::demo::DemoOptions o;
  o.serverPath = (buildTree() / "server" / "tellora-server").string();
  o.cliPath = (buildTree() / "tools" / "tellora").string();

  CLI::App app{
      "Three simulated phones search for each other through a local tellora-server: A and B "
      "hear one room, C another, and halfway through A is carried into a third room. Prints a "
      "timeline and a summary; the exit status is 0 when exactly the expected found and lost "
      "events happened.",
      "tellora-demo"};
  app.add_option("--server", o.serverPath, "tellora-server to run")
      ->check(CLI::ExistingFile)
      ->capture_default_str();
  app.add_option("--cli", o.cliPath, "tellora command-line tool to run the clients with")
      ->check(CLI::ExistingFile)
      ->capture_default_str();
  app.add_option("--seed", o.seed, "Seed of the generated sound")->capture_default_str();
  app.add_option("--duration", o.duration, "Seconds every client searches")
      ->check(CLI::Range(16.0, 300.0))
      ->capture_default_str();
  app.add_flag("--keep", o.keepFiles, "Keep the sound files and logs (always kept on failure)");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : 2;
  }
  return tellora::demo::runDemo(o);
}
