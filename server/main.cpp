// tellora-server: the matching server. Prints "listening on <bind>:<port>" on
// stdout once it accepts connections; everything else goes to stderr.
#include <CLI/CLI.hpp>

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "runtime/log.h"
#include "server/log_output.h"
#include "server/server.h"
#include "server/server_config.h"

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

// Only the arguments themselves: values from the config file or the
// environment are not visible in `ps`.
bool givenOnCommandLine(int argc, char** argv, const std::string& flag) {
  for (int i = 1; i < argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg == flag || arg.starts_with(flag + "=")) return true;
  }
  return false;
}

// The command line wins over the environment, which wins over the config
// file: CLI11 lets a config file override the environment, so the
// environment's values are handed over as arguments of their own, which the
// file then cannot override.
std::vector<std::string> withEnvironment(const CLI::App& cli, int argc, char** argv) {
  std::vector<std::string> args(argv, argv + argc);
  for (const CLI::Option* option : cli.get_options()) {
    const std::string& variable = option->get_envname();
    const char* value = variable.empty() ? nullptr : std::getenv(variable.c_str());
    const std::string flag = option->get_name(false, true);
    if (value == nullptr || option == cli.get_config_ptr() || givenOnCommandLine(argc, argv, flag))
      continue;
    args.push_back(flag + "=" + value);
  }
  return args;
}

}  // namespace

int main(int argc, char** argv) {
  namespace server = tellora::server;
  server::ServerOptions options;
  auto& limits = options.limits;
  std::vector<std::string> apps;
  std::string appsFile, stateDirectory, databasePath, logFormatName = "text";
  double drainSeconds = std::chrono::duration<double>(limits.drainTime).count();
  CLI::App cli{
      "The Tellora matching server: registration (POST /register), client sessions "
      "(WebSocket /ws), /healthz and /metrics on one port.\n"
      "Every option may also come from the file given with --config (TOML or INI: "
      "port = 10000, apps-file = \"/etc/tellora/apps\") or from the environment variable "
      "named after it (TELLORA_SERVER_PORT, TELLORA_SERVER_APPS_FILE, ...); the command line "
      "wins over the environment, which wins over the file.",
      "tellora-server"};
  cli.set_version_flag("--version", "tellora-server " TELLORA_VERSION);
  cli.set_config("--config", "", "Read options from this file")->envname("TELLORA_SERVER_CONFIG");
  // Every option's environment variable: TELLORA_SERVER_ and its name in capitals.
  auto withEnv = [](CLI::Option* option) {
    std::string name = "TELLORA_SERVER_";
    for (const char c : option->get_name(false, true).substr(2))
      name.push_back(c == '-' ? '_'
                              : static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
    return option->envname(name);
  };
  withEnv(cli.add_option("--bind", options.bindAddress, "Address to listen on"))
      ->capture_default_str();
  withEnv(cli.add_option("--port", options.port, "Port to listen on; 0 picks a free one"))
      ->capture_default_str();
  withEnv(cli.add_option("--apps-file", appsFile,
                         "Applications admitted at registration, one ID:SECRET per line (# "
                         "comments); keep it mode 600. Without any application from here, "
                         "TELLORA_SERVER_APP or --app, every application is admitted"));
  withEnv(cli.add_option("--app", apps,
                         "An admitted application as ID:SECRET (repeatable; for development: "
                         "other users can read the command line)"))
      ->delimiter(',');
  withEnv(cli.add_option("--state-dir", stateDirectory,
                         "Where the database lives by default (created with mode 700); default "
                         "$STATE_DIRECTORY, $XDG_STATE_HOME/tellora-server or "
                         "~/.local/state/tellora-server"));
  withEnv(cli.add_option("--db", databasePath,
                         "SQLite database of the issued client identities (\":memory:\" for none "
                         "on disk); default STATE_DIR/tellora-server.db"));
  withEnv(cli.add_option("--redis", options.redisAddress,
                         "HOST:PORT of the Redis that joins several servers behind one load "
                         "balancer into one service: identities are kept there (configure it "
                         "with appendonly yes) instead of in --db, and the matching is spread "
                         "over the servers"));
  auto* certificate = withEnv(cli.add_option("--tls-cert", options.tlsCertificateChainFile,
                                             "PEM certificate chain: serve https:// and wss://"));
  auto* key = withEnv(cli.add_option("--tls-key", options.tlsPrivateKeyFile, "PEM private key"));
  certificate->needs(key);
  key->needs(certificate);
  withEnv(cli.add_option("--log-format", logFormatName,
                         "text: \"TIME LEVEL message\" lines; json: one object per line"))
      ->capture_default_str()
      ->check(CLI::IsMember({"text", "json"}));
  withEnv(cli.add_option("--drain-seconds", drainSeconds,
                         "On SIGTERM, close the sessions (code 1001) evenly over this long, then "
                         "exit; a second signal exits at once"))
      ->capture_default_str()
      ->check(CLI::Range(0.0, 3600.0));
  withEnv(cli.add_option("--matching-threads", limits.matchingThreads,
                         "Threads matching the applications' clients beside the sessions' thread "
                         "(each application on one); 0 matches on the sessions' thread"))
      ->capture_default_str()
      ->check(CLI::Range(0, 64));
  withEnv(cli.add_option("--max-connections", limits.maxConnections,
                         "Connections open at once; more are closed on accept"))
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  withEnv(cli.add_option(
              "--max-connections-per-address", limits.maxConnectionsPerAddress,
              "Connections one address (an IPv6 /64) may hold; 0: max(8, max-connections/16)"))
      ->capture_default_str();
  withEnv(cli.add_option("--max-pending-per-address", limits.maxPendingPerAddress,
                         "Connections one address may hold before their first request; 0: "
                         "max(4, the address share / 4)"))
      ->capture_default_str();
  withEnv(cli.add_option("--registration-burst", limits.registrationBurst,
                         "Registrations one address may make at once (429 beyond)"))
      ->capture_default_str()
      ->check(CLI::Range(1.0, 1e9));
  withEnv(cli.add_option("--registrations-per-second", limits.registrationsPerSecond,
                         "Registrations one address regains per second"))
      ->capture_default_str()
      ->check(CLI::Range(0.0, 1e9));
  withEnv(cli.add_option("--max-device-bytes", limits.maxDeviceBytes,
                         "Largest device record stored at registration (413 beyond)"))
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  withEnv(cli.add_option("--max-body-bytes", limits.maxBodyBytes,
                         "Largest HTTP request body (413 beyond); at least --max-device-bytes"))
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  try {
    const std::vector<std::string> args = withEnvironment(cli, argc, argv);
    std::vector<const char*> pointers;
    for (const auto& arg : args)
      pointers.push_back(arg.c_str());
    cli.parse(static_cast<int>(pointers.size()), pointers.data());
  } catch (const CLI::ParseError& e) {
    return cli.exit(e);
  }
  server::installServerLog(*server::parseLogFormat(logFormatName));
  limits.drainTime = std::chrono::milliseconds(std::llround(drainSeconds * 1000));

  if (givenOnCommandLine(argc, argv, "--app")) {
    tellora::warnf(
        "application secrets given with --app are visible to every user of this "
        "machine; use --apps-file or TELLORA_SERVER_APP instead");
  }
  for (const auto& text : apps) {
    auto app = server::parseAppCredential(text);
    if (!app) {
      // Never echo the value: it holds a secret.
      tellora::errorf("--app wants ID:SECRET with a 32-bit ID");
      return 2;
    }
    options.apps.push_back(std::move(*app));
  }
  if (!appsFile.empty()) {
    auto file = server::readAppsFile(appsFile);
    for (const auto& warning : file.warnings)
      tellora::warnf("%s", warning.c_str());
    for (const auto& problem : file.problems)
      tellora::errorf("%s", problem.c_str());
    if (!file.problems.empty()) return 2;
    if (file.apps.empty()) {
      tellora::errorf("the applications file \"%s\" admits no application", appsFile.c_str());
      return 2;
    }
    for (auto& app : file.apps)
      options.apps.push_back(std::move(app));
  }
  if (options.apps.empty())
    tellora::warnf("no application configured: every application key is admitted");

  if (databasePath.empty() && options.redisAddress.empty()) {
    if (stateDirectory.empty()) stateDirectory = server::defaultStateDirectory();
    if (auto problem = server::prepareStateDirectory(stateDirectory)) {
      tellora::errorf("%s", problem->c_str());
      return 1;
    }
    databasePath = stateDirectory + "/tellora-server.db";
  }
  options.databasePath = databasePath;

  std::signal(SIGPIPE, SIG_IGN);
  if (options.databasePath != ":memory:") reportBusErrors(options.databasePath);
  raiseDescriptorLimit();
  try {
    server::Server instance(options);
    instance.stopOnSignals();
    if (options.redisAddress.empty())
      tellora::logf("serving on %s:%u, database \"%s\", %zu applications",
                    options.bindAddress.c_str(), unsigned{instance.port()},
                    options.databasePath.c_str(), options.apps.size());
    else
      tellora::logf("serving on %s:%u, redis %s, %zu applications", options.bindAddress.c_str(),
                    unsigned{instance.port()}, options.redisAddress.c_str(), options.apps.size());
    std::printf("listening on %s:%u\n", options.bindAddress.c_str(), unsigned{instance.port()});
    std::fflush(stdout);
    instance.run();
  } catch (const std::exception& e) {
    tellora::errorf("tellora-server: %s", e.what());
    return 1;
  }
  return 0;
}
