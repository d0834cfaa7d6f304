#include "registration/device_sources.h"

#include <sys/utsname.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <vector>

namespace tellora {
namespace {

constexpr std::size_t kMaxSourceFileBytes = 64 * 1024;
constexpr std::size_t kMaxHardwareNameBytes = 64;

std::string environmentValue(const char* name) {
  const char* value = std::getenv(name);
  return value ? std::string(value) : std::string();
}

std::optional<std::string> readSmallFile(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  std::string text(kMaxSourceFileBytes, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(file.gcount()));
  return text;
}

bool isAsciiAlpha(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isAsciiDigit(char c) {
  return c >= '0' && c <= '9';
}

char asciiLower(char c) {
  return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

char asciiUpper(char c) {
  return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
}

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  const auto last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

// glibc modifiers that name a script; others ("euro", "valencia") say nothing
// a language tag carries.
std::optional<std::string> scriptOfModifier(std::string_view modifier) {
  if (modifier == "latin") return "Latn";
  if (modifier == "cyrillic") return "Cyrl";
  if (modifier == "devanagari") return "Deva";
  return std::nullopt;
}

// The value part of an os-release line: a double-quoted string with
// backslash escapes, a single-quoted string, or a bare word.
std::string unquote(std::string_view raw) {
  if (raw.empty()) return {};
  const char quote = raw.front();
  if (quote != '"' && quote != '\'') return std::string(trimmed(raw));
  std::string value;
  for (std::size_t i = 1; i < raw.size(); ++i) {
    const char c = raw[i];
    if (c == quote) break;
    if (c == '\\' && quote == '"' && i + 1 < raw.size()) {
      value.push_back(raw[++i]);
    } else {
      value.push_back(c);
    }
  }
  return value;
}

// Printable text only, trimmed and shortened without splitting a UTF-8 sequence.
std::string cleanName(std::string_view raw) {
  std::string text;
  for (const char c : raw) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7f) text.push_back(c);
  }
  text = std::string(trimmed(text));
  if (text.size() > kMaxHardwareNameBytes) {
    std::size_t cut = kMaxHardwareNameBytes;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80)
      --cut;
    text = std::string(trimmed(std::string_view(text).substr(0, cut)));
  }
  return text;
}

// What firmware writes when the maker filled nothing in.
bool isPlaceholder(const std::string& name) {
  static const std::array<std::string_view, 14> placeholders = {"to be filled by o.e.m.",
                                                                "to be filled by oem",
                                                                "default string",
                                                                "not specified",
                                                                "not applicable",
                                                                "system product name",
                                                                "system product family",
                                                                "system family",
                                                                "type1productfamily",
                                                                "none",
                                                                "n/a",
                                                                "unknown",
                                                                "oem",
                                                                "invalid"};
  std::string lower;
  std::transform(name.begin(), name.end(), std::back_inserter(lower), asciiLower);
  return std::find(placeholders.begin(), placeholders.end(), lower) != placeholders.end();
}

}  // namespace

LocaleEnvironment LocaleEnvironment::current() {
  return {environmentValue("LANGUAGE"), environmentValue("LC_ALL"), environmentValue("LC_MESSAGES"),
          environmentValue("LANG")};
}

std::optional<std::string> languageTagFromLocale(std::string_view locale) {
  std::string_view modifier;
  if (const auto at = locale.find('@'); at != std::string_view::npos) {
    modifier = locale.substr(at + 1);
    locale = locale.substr(0, at);
  }
  if (const auto dot = locale.find('.'); dot != std::string_view::npos) {
    locale = locale.substr(0, dot);
  }
  if (locale == "C" || locale == "POSIX") return "en";

  std::string_view language = locale;
  std::string_view territory;
  if (const auto underscore = locale.find('_'); underscore != std::string_view::npos) {
    language = locale.substr(0, underscore);
    territory = locale.substr(underscore + 1);
  }
  if (language.size() < 2 || language.size() > 3 ||
      !std::all_of(language.begin(), language.end(), isAsciiAlpha)) {
    return std::nullopt;
  }
  const bool letterTerritory =
      territory.size() == 2 && std::all_of(territory.begin(), territory.end(), isAsciiAlpha);
  const bool numericTerritory =
      territory.size() == 3 && std::all_of(territory.begin(), territory.end(), isAsciiDigit);
  if (!territory.empty() && !letterTerritory && !numericTerritory) return std::nullopt;

  std::string tag;
  std::transform(language.begin(), language.end(), std::back_inserter(tag), asciiLower);
  if (const auto script = scriptOfModifier(modifier)) tag += "-" + *script;
  if (!territory.empty()) {
    tag += '-';
    std::transform(territory.begin(), territory.end(), std::back_inserter(tag), asciiUpper);
  }
  return tag;
}

std::string preferredLanguage(const LocaleEnvironment& environment) {
  std::string_view list = environment.language;
  while (!list.empty()) {
    const auto colon = list.find(':');
    const std::string_view entry = list.substr(0, colon);
    if (!entry.empty()) {
      if (auto tag = languageTagFromLocale(entry)) return *tag;
    }
    if (colon == std::string_view::npos) break;
    list = list.substr(colon + 1);
  }
  for (const std::string* locale :
       {&environment.lcAll, &environment.lcMessages, &environment.lang}) {
    if (locale->empty()) continue;
    return languageTagFromLocale(*locale).value_or("en");
  }
  return "en";
}

std::map<std::string, std::string> parseOsRelease(std::string_view text) {
  std::map<std::string, std::string> values;
  while (!text.empty()) {
    const auto newline = text.find('\n');
    const std::string_view line = trimmed(text.substr(0, newline));
    text = newline == std::string_view::npos ? std::string_view() : text.substr(newline + 1);
    if (line.empty() || line.front() == '#') continue;
    const auto equals = line.find('=');
    if (equals == std::string_view::npos || equals == 0) continue;
    const std::string_view key = line.substr(0, equals);
    const bool validKey = std::all_of(key.begin(), key.end(), [](char c) {
      return isAsciiAlpha(c) || isAsciiDigit(c) || c == '_';
    });
    if (!validKey) continue;
    values[std::string(key)] = unquote(line.substr(equals + 1));
  }
  return values;
}

OperatingSystem describeOperatingSystem(const std::map<std::string, std::string>& osRelease,
                                        std::string_view unameSysname,
                                        std::string_view unameRelease) {
  const auto pick = [&](const char* key, std::string_view fallback,
                        const char* last) -> std::string {
    if (const auto found = osRelease.find(key); found != osRelease.end()) {
      const std::string value = cleanName(found->second);
      if (!value.empty()) return value;
    }
    const std::string value = cleanName(fallback);
    return value.empty() ? last : value;
  };
  return {pick("NAME", unameSysname, "Linux"), pick("VERSION_ID", unameRelease, "unknown")};
}

OperatingSystem currentOperatingSystem() {
  std::optional<std::string> text = readSmallFile("/etc/os-release");
  if (!text) text = readSmallFile("/usr/lib/os-release");
  utsname names{};
  const bool haveUname = uname(&names) == 0;
  return describeOperatingSystem(parseOsRelease(text.value_or("")), haveUname ? names.sysname : "",
                                 haveUname ? names.release : "");
}

std::string hardwareName(const std::optional<std::string>& dmiProductFamily,
                         const std::optional<std::string>& deviceTreeModel) {
  for (const auto* source : {&dmiProductFamily, &deviceTreeModel}) {
    if (!*source) continue;
    const std::string name = cleanName(**source);
    if (!name.empty() && !isPlaceholder(name)) return name;
  }
  return "Linux PC";
}

std::string currentHardwareName() {
  return hardwareName(readSmallFile("/sys/class/dmi/id/product_family"),
                      readSmallFile("/sys/firmware/devicetree/base/model"));
}

std::optional<std::string> executableName() {
  std::error_code error;
  const std::filesystem::path target = std::filesystem::read_symlink("/proc/self/exe", error);
  if (!error) {
    std::string name = target.filename().string();
    constexpr std::string_view kDeleted = " (deleted)";
    if (name.size() > kDeleted.size() && name.ends_with(kDeleted))
      name.resize(name.size() - kDeleted.size());
    if (!name.empty()) return name;
  }
  if (auto comm = readSmallFile("/proc/self/comm")) {
    std::string name(trimmed(*comm));
    if (!name.empty()) return name;
  }
  return std::nullopt;
}

}  // namespace tellora
