// The device description: the Linux sources behind it, and the parsing of the
// locale variables, os-release and firmware names. (Its dictionary is checked
// on the wire, in the registration request.)
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "registration/device_info.h"
#include "registration/device_sources.h"
#include "transport/transport.h"

namespace tellora {
namespace {

// --- The live values -----------------------------------------------------------------

TEST(CurrentDeviceInfoTest, EveryValueIsANonEmptyStringAndHostSettingsNameTheApplication) {
  setHostAppIdentifier("com.example.host");
  setHostAppVersion("3.1");
  const TLRDeviceInfo info = TLRDeviceInfo::currentDeviceInfo();
  EXPECT_EQ(info.bundleID(), "com.example.host");
  EXPECT_EQ(info.appVersion(), "3.1");
  const nlohmann::json dictionary = info.dictionary();
  ASSERT_EQ(dictionary.size(), 6u);
  for (const auto& [key, value] : dictionary.items())
    EXPECT_TRUE(value.is_string() && !value.get<std::string>().empty()) << key;

  // Cleared: the program's own name, and no version.
  setHostAppIdentifier("");
  setHostAppVersion("");
  EXPECT_EQ(TLRDeviceInfo::currentDeviceInfo().bundleID(), "registration_tests");
  EXPECT_EQ(TLRDeviceInfo::currentDeviceInfo().appVersion(), "unknown");
}

// --- Language ------------------------------------------------------------------------

TEST(PreferredLanguageTest, FromTheLocaleVariables) {
  // {LANGUAGE, LC_ALL, LC_MESSAGES, LANG} and the language they name.
  const std::vector<std::pair<LocaleEnvironment, std::string>> cases = {
      {{"", "", "", "en_US.UTF-8"}, "en-US"},
      {{"", "", "", ""}, "en"},
      {{"", "", "", "C.UTF-8"}, "en"},
      {{"", "POSIX", "", "de_DE.UTF-8"}, "en"},  // LC_ALL overrides LANG
      {{"", "", "fr_CA.ISO-8859-1", "de_DE.UTF-8"}, "fr-CA"},
      {{"pt_BR:pt:en", "de_DE.UTF-8", "", ""}, "pt-BR"},  // LANGUAGE first
      {{":?:nl", "", "", "de_DE"}, "nl"},                 // first usable entry of LANGUAGE
      {{"::", "", "", "de_DE"}, "de-DE"},
      {{"", "", "", "de_DE@euro"}, "de-DE"},
      {{"", "", "", "sr_RS.UTF-8@latin"}, "sr-Latn-RS"},
      {{"", "", "", "ast_ES"}, "ast-ES"},
      {{"", "", "", "es_419"}, "es-419"},
      {{"", "", "", "EN_us"}, "en-US"},
      {{"", "", "", "/usr/share/locale"}, "en"},
      {{"", "", "", "en_USA"}, "en"}};
  for (const auto& [environment, expected] : cases) {
    EXPECT_EQ(preferredLanguage(environment), expected)
        << environment.language << "|" << environment.lcAll << "|" << environment.lcMessages << "|"
        << environment.lang;
  }
}

// --- Operating system ----------------------------------------------------------------

TEST(OsReleaseTest, QuotedEscapedAndBareValuesThenUnameThenFixedNames) {
  const auto values = parseOsRelease(
      "# comment\n"
      "NAME=\"Debian GNU/Linux\"\n"
      "VERSION_ID='12'\n"
      "  ID=debian  \r\n"
      "PRETTY_NAME=\"Say \\\"hi\\\" \\\\ now\"\n"
      "broken line\n"
      "=novalue\n"
      "BAD KEY=x\n"
      "EMPTY=\n"
      "UNTERMINATED=\"open");
  EXPECT_EQ(values.at("NAME"), "Debian GNU/Linux");
  EXPECT_EQ(values.at("VERSION_ID"), "12");
  EXPECT_EQ(values.at("ID"), "debian");
  EXPECT_EQ(values.at("PRETTY_NAME"), "Say \"hi\" \\ now");
  EXPECT_EQ(values.at("EMPTY"), "");
  EXPECT_EQ(values.at("UNTERMINATED"), "open");
  EXPECT_EQ(values.size(), 6u);

  // The operating system falls back to uname (a rolling distribution has no
  // VERSION_ID: the kernel release stands in), then to fixed names.
  const auto described = [](std::map<std::string, std::string> osRelease, const char* sysname,
                            const char* release) {
    const auto os = describeOperatingSystem(osRelease, sysname, release);
    return os.name + " / " + os.version;
  };
  EXPECT_EQ(described({{"NAME", "Fedora Linux"}, {"VERSION_ID", "40"}}, "Linux", "6.8"),
            "Fedora Linux / 40");
  EXPECT_EQ(described({{"NAME", "Arch Linux"}}, "Linux", "6.8-arch1"), "Arch Linux / 6.8-arch1");
  EXPECT_EQ(described({{"NAME", "  "}}, "", ""), "Linux / unknown");
}

// --- Hardware --------------------------------------------------------------------------

TEST(HardwareNameTest, RealFamilyNameWinsOverPlaceholdersAndLongOnesAreCutOnACharacter) {
  EXPECT_EQ(hardwareName(std::string("ThinkPad X1 Carbon 7th\n"), std::nullopt),
            "ThinkPad X1 Carbon 7th");
  EXPECT_EQ(hardwareName(std::string("To Be Filled By O.E.M."),
                         std::string("Raspberry Pi 4 Model B Rev 1.4\0", 31)),
            "Raspberry Pi 4 Model B Rev 1.4");
  EXPECT_EQ(hardwareName(std::string("Default string"), std::string("")), "Linux PC");
  EXPECT_EQ(hardwareName(std::nullopt, std::nullopt), "Linux PC");
  EXPECT_EQ(hardwareName(std::string("\x01\x02 \t"), std::nullopt), "Linux PC");

  // 40 two-byte characters: 80 bytes, cut to at most 64 without a split character.
  std::string name;
  for (int i = 0; i < 40; ++i)
    name += "\xc3\xa9";
  const std::string cut = hardwareName(name, std::nullopt);
  EXPECT_LE(cut.size(), 64u);
  EXPECT_EQ(cut.size() % 2, 0u);
  EXPECT_EQ(cut, name.substr(0, cut.size()));
}

}  // namespace
}  // namespace tellora
