// The user-defaults store reading a file that holds the input. Whatever the
// file says, the store answers for each string and bool it holds, and writing
// the store back (one key changed) keeps every one of them.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <map>
#include <string>
#include <variant>

#include <nlohmann/json.hpp>

#include "fuzz/support/harness.h"
#include "runtime/user_defaults.h"
#include "tellora/tellora.h"

namespace {

using tellora::fuzzing::fail;

using tellora::UserDefaults;
using Values = std::map<std::string, std::variant<bool, std::string>>;

constexpr const char* kWrittenKey = "fuzz-written";

void writeFile(const std::string& path, const uint8_t* data, size_t size) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0 || ::write(fd, data, size) != static_cast<ssize_t>(size))
    fail("cannot write the input file");
  ::close(fd);
}

// The strings and bools of the file's top-level object; other kinds are not
// the store's to keep.
Values valuesOf(const std::string& text) {
  Values values;
  const auto json = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (!json.is_object()) return values;
  for (const auto& [key, value] : json.items()) {
    if (value.is_string()) values[key] = value.get<std::string>();
    if (value.is_boolean()) values[key] = value.get<bool>();
  }
  return values;
}

void expectValues(const UserDefaults& store, const Values& values) {
  for (const auto& [key, value] : values) {
    if (const auto* text = std::get_if<std::string>(&value)) {
      if (store.stringForKey(key) != *text) fail("string value lost or changed");
      if (store.boolForKey(key)) fail("a string read as true");
    } else {
      if (store.boolForKey(key) != std::get<bool>(value)) fail("bool value lost or changed");
      if (store.stringForKey(key)) fail("a bool read as a string");
    }
  }
}

std::string* inputPath = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  tellora::fuzzing::prepareQuietSdk(/*debug=*/false);
  inputPath = new std::string((tellora::fuzzing::scratchFolder() / "defaults.json").string());
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  writeFile(*inputPath, data, size);
  Values values = valuesOf(std::string(reinterpret_cast<const char*>(data), size));

  UserDefaults store(*inputPath);
  // What the SDK itself reads.
  (void)store.stringForKey(::UDClientID);
  (void)store.stringForKey(::UDClientSecret);
  (void)store.boolForKey("debug");
  expectValues(store, values);

  // Any change rewrites the whole file; a fresh reader must see the same.
  const bool written = !store.boolForKey(kWrittenKey);
  store.setBool(kWrittenKey, written);
  values[kWrittenKey] = written;
  struct stat status;
  if (::stat(inputPath->c_str(), &status) != 0 || (status.st_mode & 0777) != 0600)
    fail("store file missing or readable by others");
  expectValues(UserDefaults(*inputPath), values);

  store.removeObject(::UDClientSecret);
  values.erase(::UDClientSecret);
  store.reload();
  expectValues(store, values);
  return 0;
}
