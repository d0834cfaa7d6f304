// tellora-server: the matching server. Prints "listening on <bind>:<port>" on
// stdout once it accepts connections; everything else goes to stderr.
#include <CLI/CLI.hpp>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
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

// SQLite maps the WAL index ("<db>-shm"); when that file cannot be backed
// (a full or read-only file system, a truncated file) the access raises
// SIGBUS, which would end the server without a word. The line is written
// before anything else happens, then the default action takes over.
char busErrorLine[1024];
std::size_t busErrorLength = 0;

void onBusError(int signal) {
  [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, busErrorLine, busErrorLength);
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

void reportBusErrors(const std::string& databasePath) {
  const int length =
      std::snprintf(busErrorLine, sizeof busErrorLine,
                    "tellora-server: bus error (SIGBUS) in a memory-mapped file: most likely the "
                    "database's shared-memory file \"%s-shm\" could not be written (disk full or "
                    "read-only?); database \"%s\"\n",
                    databasePath.c_str(), databasePath.c_str());
  if (length <= 0) return;
  busErrorLength = std::min<std::size_t>(static_cast<std::size_t>(length), sizeof busErrorLine - 1);
  struct sigaction action {};
  action.sa_handler = onBusError;
  sigemptyset(&action.sa_mask);
  sigaction(SIGBUS, &action, nullptr);
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
  auto& limits = options.limits;
  cli.add_option("--max-connections-per-address", limits.maxConnectionsPerAddress,
                 "Connections one address (an IPv6 /64) may hold; 0: max(8, max-connections/16)")
      ->capture_default_str();
  cli.add_option("--max-pending-per-address", limits.maxPendingPerAddress,
                 "Connections one address may hold before their first request; 0: max(4, the "
                 "address share / 4)")
      ->capture_default_str();
  cli.add_option("--registration-burst", limits.registrationBurst,
                 "Registrations one address may make at once (429 beyond)")
      ->capture_default_str()
      ->check(CLI::Range(1.0, 1e9));
  cli.add_option("--registrations-per-second", limits.registrationsPerSecond,
                 "Registrations one address regains per second")
      ->capture_default_str()
      ->check(CLI::Range(0.0, 1e9));
  cli.add_option("--max-device-bytes", limits.maxDeviceBytes,
                 "Largest device record stored at registration (413 beyond)")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  cli.add_option("--max-body-bytes", limits.maxBodyBytes,
                 "Largest HTTP request body (413 beyond); at least --max-device-bytes")
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
  if (options.databasePath != ":memory:") reportBusErrors(options.databasePath);
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
