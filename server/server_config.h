// Where an installed server keeps its state and reads its secrets, so that
// neither needs the command line: a state directory for the database, and
// an applications file of "ID:SECRET" lines.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "server/registration.h"

namespace tellora::server {

// $STATE_DIRECTORY (set by systemd's StateDirectory=), else
// $XDG_STATE_HOME/tellora-server, else ~/.local/state/tellora-server, else
// the working directory.
std::string defaultStateDirectory();

// Creates `path` (and its parents) with mode 0700 when missing. Returns the
// problem, if any.
std::optional<std::string> prepareStateDirectory(const std::string& path);

struct AppsFile {
  std::vector<AppCredential> apps;
  std::vector<std::string> problems;  // "line 3: ..." and the file's own
  std::vector<std::string> warnings;  // e.g. readable by others
};

// One "ID:SECRET" per line; blank lines and lines starting with '#' are skipped.
AppsFile readAppsFile(const std::string& path);

}  // namespace tellora::server
