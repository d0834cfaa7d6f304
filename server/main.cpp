// tellora-server: the matching server. Prints "listening on <bind>:<port>" on
// stdout once it accepts connections; everything else goes to stderr.
#include <CLI/CLI.hpp>

#include <sys/resource.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "server/server.h"

namespace {

// Each client holds a descriptor; the soft limit is often far below the hard one.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

int main(int argc, char** argv) {
  using tellora::server::ServerOptions;
  ServerOptions options;
  std::vector<std::string> apps;
  CLI::App cli{
      "The Tellora matching server: registration (POST /register) and client sessions "
      "(WebSocket /ws) on one port.",
      "tellora-server"};
  cli.add_option("--bind", options.bindAddress, "Address to listen on")->capture_default_str();
  cli.add_option("--port", options.port, "Port to listen on; 0 picks a free one")
      ->capture_default_str();
  cli.add_option("--app", apps,
                 "An application admitted at registration, as ID:SECRET (repeatable); without "
                 "any, every application is admitted");
  cli.add_option("--db", options.databasePath,
                 "SQLite database of the issued client identities (\":memory:\" for none on disk)")
      ->capture_default_str();
  auto* certificate = cli.add_option("--tls-cert", options.tlsCertificateChainFile,
                                     "PEM certificate chain: serve https:// and wss://");
  auto* key = cli.add_option("--tls-key", options.tlsPrivateKeyFile, "PEM private key");
  certificate->needs(key);
  key->needs(certificate);
  cli.add_option("--max-connections", options.limits.maxConnections,
                 "Connections open at once; more are closed on accept")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  try {
    cli.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return cli.exit(e);
  }
  for (const auto& text : apps) {
    auto app = tellora::server::parseAppCredential(text);
    if (!app) {
      std::fprintf(stderr, "tellora-server: --app wants ID:SECRET with a 32-bit ID, not \"%s\"\n",
                   text.c_str());
      return 2;
    }
    options.apps.push_back(std::move(*app));
  }

  std::signal(SIGPIPE, SIG_IGN);
  raiseDescriptorLimit();
  try {
    tellora::server::Server server(options);
    server.stopOnSignals();
    std::printf("listening on %s:%u\n", options.bindAddress.c_str(), unsigned{server.port()});
    std::fflush(stdout);
    server.run();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "tellora-server: %s\n", e.what());
    return 1;
  }
  return 0;
}
