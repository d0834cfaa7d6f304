#include "runtime/user_defaults.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

#include "runtime/log.h"

namespace tellora {

namespace fs = std::filesystem;

namespace {

std::string errnoText(int error) {
  return std::strerror(error);
}

std::optional<std::string> environment(const char* name) {
  const char* value = std::getenv(name);
  if (!value || !*value) return std::nullopt;
  return std::string(value);
}

std::optional<std::string> homeFolder() {
  if (auto home = environment("HOME")) return home;
  // Daemons often run without HOME; the password database still knows it.
  const passwd* entry = getpwuid(getuid());
  if (entry && entry->pw_dir && *entry->pw_dir) return std::string(entry->pw_dir);
  return std::nullopt;
}

// Reads the whole file. nullopt with errno set on failure.
std::optional<std::string> readFile(const fs::path& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  std::string text;
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
      text.append(buffer, static_cast<size_t>(n));
    } else if (n == 0) {
      break;
    } else if (errno != EINTR) {
      const int error = errno;
      ::close(fd);
      errno = error;
      return std::nullopt;
    }
  }
  ::close(fd);
  return text;
}

bool writeAll(int fd, const std::string& text) {
  size_t written = 0;
  while (written < text.size()) {
    const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    written += static_cast<size_t>(n);
  }
  return true;
}

// Creates the missing folders of `folder` with mode 0700 (the store holds a
// secret); folders that already exist keep their mode.
bool makeFolders(const fs::path& folder) {
  fs::path partial;
  for (const auto& piece : folder) {
    partial /= piece;
    if (::mkdir(partial.c_str(), 0700) != 0 && errno != EEXIST) return false;
  }
  return true;
}

// Replaces `path` with `text` atomically: a reader sees the old file or the
// new one, never a half-written one. Returns an error text on failure.
std::optional<std::string> replaceFile(const fs::path& path, const std::string& text) {
  const fs::path folder = path.has_parent_path() ? path.parent_path() : fs::path(".");
  if (!makeFolders(folder)) return "cannot create " + folder.string() + ": " + errnoText(errno);

  std::string tempName = (folder / ("." + path.filename().string() + ".XXXXXX")).string();
  const int fd = ::mkostemp(tempName.data(), O_CLOEXEC);  // created with mode 0600
  if (fd < 0) return "cannot create a file in " + folder.string() + ": " + errnoText(errno);

  std::optional<std::string> failure;
  if (::fchmod(fd, 0600) != 0 || !writeAll(fd, text) || ::fsync(fd) != 0) {
    failure = "cannot write " + tempName + ": " + errnoText(errno);
  }
  if (::close(fd) != 0 && !failure) failure = "cannot write " + tempName + ": " + errnoText(errno);
  if (!failure && ::rename(tempName.c_str(), path.c_str()) != 0) {
    failure = "cannot replace " + path.string() + ": " + errnoText(errno);
  }
  if (failure) {
    ::unlink(tempName.c_str());
    return failure;
  }
  // Make the rename itself durable; a failure here loses nothing already written.
  const int folderFd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folderFd >= 0) {
    ::fsync(folderFd);
    ::close(folderFd);
  }
  return std::nullopt;
}

std::mutex& standardMutex() {
  static std::mutex* const mutex = new std::mutex;
  return *mutex;
}

std::atomic<UserDefaults*> standardInstance{nullptr};

void logProblem(const std::optional<std::string>& problem) {
  if (problem) logLine(*problem);
}

}  // namespace

UserDefaults::UserDefaults(fs::path path, std::optional<std::string>& problem)
    : path_(std::move(path)) {
  std::lock_guard lock(mutex_);
  problem = load();
}

UserDefaults::UserDefaults(fs::path path) {
  std::optional<std::string> problem;
  {
    std::lock_guard lock(mutex_);
    path_ = std::move(path);
    problem = load();
  }
  logProblem(problem);
}

UserDefaults& UserDefaults::standard() {
  if (auto* instance = standardInstance.load(std::memory_order_acquire)) return *instance;
  std::optional<std::string> problem;
  UserDefaults* instance = nullptr;
  {
    std::lock_guard lock(standardMutex());
    instance = standardInstance.load(std::memory_order_relaxed);
    if (instance) return *instance;
    // Never destroyed: debug log sites on SDK threads read it until the process ends.
    instance = new UserDefaults(defaultPath(), problem);
    standardInstance.store(instance, std::memory_order_release);
  }
  logProblem(problem);
  return *instance;
}

void UserDefaults::setStandardPath(const fs::path& path) {
  {
    std::optional<std::string> problem;
    std::unique_lock lock(standardMutex());
    if (!standardInstance.load(std::memory_order_relaxed)) {
      // Not created yet: never touch the default file at all.
      standardInstance.store(new UserDefaults(path, problem), std::memory_order_release);
      lock.unlock();
      logProblem(problem);
      return;
    }
  }
  UserDefaults& store = standard();
  std::unique_lock lock(store.mutex_);
  store.path_ = path;
  auto problem = store.load();
  lock.unlock();
  logProblem(problem);
}

fs::path UserDefaults::defaultPath() {
  if (auto explicitPath = environment("TELLORA_DEFAULTS_PATH")) return *explicitPath;
  // Relative XDG_CONFIG_HOME values are invalid and must be ignored.
  if (auto config = environment("XDG_CONFIG_HOME"); config && config->front() == '/') {
    return fs::path(*config) / "tellora" / "defaults.json";
  }
  if (auto home = homeFolder()) return fs::path(*home) / ".config" / "tellora" / "defaults.json";
  return fs::path(".tellora-defaults.json");
}

std::optional<std::string> UserDefaults::stringForKey(const std::string& key) const {
  std::lock_guard lock(mutex_);
  const auto found = values_.find(key);
  if (found == values_.end()) return std::nullopt;
  if (const auto* text = std::get_if<std::string>(&found->second)) return *text;
  return std::nullopt;
}

bool UserDefaults::boolForKey(const std::string& key) const {
  std::lock_guard lock(mutex_);
  const auto found = values_.find(key);
  if (found == values_.end()) return false;
  const auto* flag = std::get_if<bool>(&found->second);
  return flag && *flag;
}

void UserDefaults::setString(const std::string& key, const std::optional<std::string>& value) {
  if (!value) {
    removeObject(key);
    return;
  }
  std::unique_lock lock(mutex_);
  const auto found = values_.find(key);
  if (found != values_.end() && found->second == Value(*value)) return;
  values_[key] = *value;
  auto problem = persist();
  lock.unlock();
  logProblem(problem);
}

void UserDefaults::setBool(const std::string& key, bool value) {
  std::unique_lock lock(mutex_);
  const auto found = values_.find(key);
  if (found != values_.end() && found->second == Value(value)) return;
  values_[key] = value;
  auto problem = persist();
  lock.unlock();
  logProblem(problem);
}

void UserDefaults::removeObject(const std::string& key) {
  std::unique_lock lock(mutex_);
  if (values_.erase(key) == 0) return;
  auto problem = persist();
  lock.unlock();
  logProblem(problem);
}

fs::path UserDefaults::path() const {
  std::lock_guard lock(mutex_);
  return path_;
}

void UserDefaults::reload() {
  std::unique_lock lock(mutex_);
  auto problem = load();
  lock.unlock();
  logProblem(problem);
}

std::optional<std::string> UserDefaults::load() {
  values_.clear();
  const auto text = readFile(path_);
  if (!text) {
    // A missing file is the normal first launch.
    if (errno == ENOENT) return std::nullopt;
    return strprintf("Tellora: cannot read user defaults %s (%s), starting empty", path_.c_str(),
                     errnoText(errno).c_str());
  }
  const auto json = nlohmann::json::parse(*text, nullptr, /*allow_exceptions=*/false);
  if (json.is_discarded() || !json.is_object()) {
    return strprintf("Tellora: user defaults %s are not a JSON object, starting empty",
                     path_.c_str());
  }
  for (const auto& [key, value] : json.items()) {
    if (value.is_string()) {
      values_[key] = value.get<std::string>();
    } else if (value.is_boolean()) {
      values_[key] = value.get<bool>();
    }
    // Other kinds are not ours; they are dropped at the next write.
  }
  return std::nullopt;
}

std::optional<std::string> UserDefaults::persist() {
  nlohmann::json json = nlohmann::json::object();
  for (const auto& [key, value] : values_) {
    std::visit([&json, &key = key](const auto& v) { json[key] = v; }, value);
  }
  // Replace invalid UTF-8 instead of throwing: keys and values come from servers.
  const std::string text =
      json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  if (auto failure = replaceFile(path_, text))
    return "Tellora: cannot save user defaults: " + *failure;
  return std::nullopt;
}

}  // namespace tellora
