// Where the device description comes from on Linux. The parsers are pure
// functions over text so that they can be tried on any input; the readers of
// the live system are thin wrappers around them.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace tellora {

// The variables that name the user's language; an empty string means unset.
struct LocaleEnvironment {
  std::string language;    // LANGUAGE: a colon-separated list, most preferred first
  std::string lcAll;       // LC_ALL
  std::string lcMessages;  // LC_MESSAGES
  std::string lang;        // LANG

  static LocaleEnvironment current();
};

// The most preferred language as a language tag ("en-US"): the first usable
// entry of LANGUAGE; else the first variable set among LC_ALL, LC_MESSAGES
// and LANG; "en" when that is "C", "POSIX", unusable, or nothing is set.
std::string preferredLanguage(const LocaleEnvironment& environment);

// One locale name, language[_TERRITORY][.codeset][@modifier], as a language
// tag: "en_US.UTF-8" -> "en-US", "sr_RS@latin" -> "sr-Latn-RS", "C" and
// "POSIX" (with any codeset) -> "en". nullopt for anything else.
std::optional<std::string> languageTagFromLocale(std::string_view locale);

// The KEY=value assignments of an os-release file, quotes and escapes removed.
std::map<std::string, std::string> parseOsRelease(std::string_view text);

struct OperatingSystem {
  std::string name;     // os-release NAME ("Debian GNU/Linux"), else uname's sysname
  std::string version;  // os-release VERSION_ID ("12"), else uname's release
};
// Never empty: "Linux" and "unknown" when every source is blank.
OperatingSystem describeOperatingSystem(const std::map<std::string, std::string>& osRelease,
                                        std::string_view unameSysname,
                                        std::string_view unameRelease);
OperatingSystem currentOperatingSystem();

// A generic model name, never a serial number or machine id: the DMI product
// family ("ThinkPad X1 Carbon"), else the device-tree model ("Raspberry Pi 4
// Model B Rev 1.4"), when it holds a real name rather than a firmware
// placeholder ("To be filled by O.E.M."); else "Linux PC".
std::string hardwareName(const std::optional<std::string>& dmiProductFamily,
                         const std::optional<std::string>& deviceTreeModel);
std::string currentHardwareName();

// The file name of the running executable, or nullopt when it cannot be read.
std::optional<std::string> executableName();

}  // namespace tellora
