// The subcommands of the tellora tool. Each one lives in its own cmd_*.cpp and
// adds itself to the app; main.cpp lists the registration functions.
#pragma once

namespace CLI {
class App;
}

namespace tellora::cli {

// tellora hash FILE [--toggles P] [--rate SR]
void addHashCommand(CLI::App& app);

// tellora compare SHORT LONG [--block-size BS] [--threshold T]
void addCompareCommand(CLI::App& app);

// tellora fingerprint FILE [--json]
void addFingerprintCommand(CLI::App& app);

// tellora search [--api-key KEY | --register-url URL --ws-url URL --app-id N --app-secret S] ...
void addSearchCommand(CLI::App& app);

}  // namespace tellora::cli
