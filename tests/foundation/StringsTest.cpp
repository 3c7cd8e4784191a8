#include "qrl/foundation/Strings.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "support/TemporaryFolder.h"
#include "support/TestSupport.h"

namespace qrl {
namespace {

namespace fs = std::filesystem;

TEST(StringsParseTest, ReadsEntriesCommentsAndEscapes) {
    const char* text = R"(/* A comment
   over two lines */
"Unable to get graphics card name" = "Grafikkarte unbekannt";
// a line comment
"Tab\there" = "Zeile\nneu \"zitiert\" \\ \U00e9\U20ac \101";
"Only key";
plain_word = "unquoted key";
"Copy Link" = "Link kopieren"; "Copy Link" = "Link kopieren!";
"Surrogates" = "\UD83D\UDE00";
)";
    std::string error;
    const auto table = Strings::parse(text, &error);
    ASSERT_TRUE(table) << error;
    EXPECT_EQ(table->size(), 6u);
    EXPECT_EQ(table->at("Unable to get graphics card name"), "Grafikkarte unbekannt");
    EXPECT_EQ(table->at("Tab\there"), "Zeile\nneu \"zitiert\" \\ \xc3\xa9\xe2\x82\xac A");
    EXPECT_EQ(table->at("Only key"), "Only key");
    EXPECT_EQ(table->at("plain_word"), "unquoted key");
    EXPECT_EQ(table->at("Copy Link"), "Link kopieren!");
    EXPECT_EQ(table->at("Surrogates"), "\xf0\x9f\x98\x80");
    EXPECT_TRUE(Strings::parse("")->empty());
    EXPECT_TRUE(Strings::parse("  /* only */ // comments\n")->empty());
}

TEST(StringsParseTest, ReportsTheLineOfASyntaxError) {
    const std::pair<const char*, const char*> rows[] = {
        {"\"a\" = \"b\"\n\"c\" = \"d\";", "line 2: expected ';' after a value"},
        {"\"a\" = \"b\";\n\n\"c\" \"d\";", "line 3: expected '=' or ';' after a key"},
        {"\"a\" = \"unterminated;\n", "line 1: unterminated string"},
        {"\"a\" = \"b\";\n/* open", "line 2: unterminated comment"},
        {"\"a\" = \"\\U12\";", "line 1: expected four hexadecimal digits after \\U"},
        {"\"a\" = \"\\UDC00\";", "line 1: unpaired surrogate in \\U escape"},
        {"\"a\" = ;", "line 1: expected a quoted string"},
        {"\"a\" =", "line 1: unexpected end of file"},
    };
    for (const auto& [text, message] : rows) {
        std::string error;
        EXPECT_FALSE(Strings::parse(text, &error)) << text;
        EXPECT_EQ(error, message) << text;
    }
    EXPECT_FALSE(Strings::parse("\"x\" = ;", nullptr));  // no error pointer: nothing written
}

class StringsFilesTest : public ::testing::Test {
protected:
    std::string write(const std::string& dir, const std::string& lang, const std::string& table,
                      const std::string& bytes) {
        const fs::path folder = fs::path(root_.path()) / dir / (lang + ".lproj");
        fs::create_directories(folder);
        const fs::path file = folder / (table + ".strings");
        std::ofstream(file, std::ios::binary) << bytes;
        return file.string();
    }
    std::string dir(const std::string& name) const { return root_.file(name); }

    test::TemporaryFolder root_{"qrl-strings"};
};

TEST_F(StringsFilesTest, LooksUpTheMostSpecificLanguageFirstAndFallsBackToTheKey) {
    write("a", "de_DE", "Localizable", "\"Cancel\" = \"Abbrechen (DE)\";");
    write("a", "de", "Localizable", "\"Cancel\" = \"Abbrechen\"; \"Link\" = \"Verweis\";");
    write("b", "de", "Localizable", "\"Link\" = \"never read: the first directory serves de\";");
    write("b", "fr", "Localizable", "\"Link\" = \"Lien\";");
    write("a", "de", "Other", "\"Link\" = \"Anderer Verweis\";");

    Strings strings;
    strings.setSearchPaths({dir("missing"), dir("a"), dir("b")});
    strings.setLanguage("de_DE.UTF-8");
    EXPECT_EQ(strings.preferredLanguages(), (std::vector<std::string>{"de_DE", "de"}));
    EXPECT_EQ(strings.localizedString("Cancel"), "Abbrechen (DE)");
    EXPECT_EQ(strings.localizedString("Link"), "Verweis");
    EXPECT_EQ(strings.localizedString("Link", "Other"), "Anderer Verweis");
    EXPECT_EQ(strings.localizedString("Not translated"), "Not translated");
    EXPECT_EQ(strings.translation("Not translated"), std::nullopt);
    EXPECT_EQ(strings.localizedString("Link", "NoSuchTable"), "Link");
    EXPECT_EQ(strings.pathForTable("Localizable"), dir("a") + "/de_DE.lproj/Localizable.strings");
    EXPECT_EQ(strings.pathForTable("NoSuchTable"), std::nullopt);

    strings.setLanguage("fr");
    EXPECT_EQ(strings.localizedString("Link"), "Lien");
    strings.setLanguage("C");
    EXPECT_TRUE(strings.preferredLanguages().empty());
    EXPECT_EQ(strings.localizedString("Link"), "Link");
    EXPECT_EQ(strings.lastError(), "");
}

TEST_F(StringsFilesTest, ReadsUtf16FilesWithAByteOrderMark) {
    auto utf16 = [](const std::u16string& s, bool big) {
        std::string out = big ? "\xFE\xFF" : "\xFF\xFE";
        for (char16_t c : s) {
            const char hi = static_cast<char>(c >> 8), lo = static_cast<char>(c & 0xff);
            out += big ? hi : lo;
            out += big ? lo : hi;
        }
        return out;
    };
    write("a", "fr", "Localizable", utf16(u"\"Open\" = \"Ouvrir \u00e9\U0001F600\";", false));
    write("a", "ja", "Localizable", utf16(u"\"Open\" = \"\u958b\u304f\";", true));
    Strings strings;
    strings.setSearchPaths({dir("a")});
    strings.setLanguage("fr");
    EXPECT_EQ(strings.localizedString("Open"), "Ouvrir \xc3\xa9\xf0\x9f\x98\x80");
    strings.setLanguage("ja");
    EXPECT_EQ(strings.localizedString("Open"), "\xe9\x96\x8b\xe3\x81\x8f");
    EXPECT_EQ(strings.lastError(), "");
}

TEST_F(StringsFilesTest, AMalformedFileGivesTheKeysAndARecordedError) {
    const std::string bad = write("a", "de", "Localizable", "\"Cancel\" = \"Abbrechen\";\n\"Link\" = \"Verweis\"\n");
    const std::string odd = write("a", "it", "Localizable", std::string("\xFF\xFE\x41", 3));
    Strings strings;
    strings.setSearchPaths({dir("a")});
    strings.setLanguage("de");
    EXPECT_EQ(strings.localizedString("Cancel"), "Cancel");
    EXPECT_EQ(strings.lastError(), bad + ": line 3: expected ';' after a value");
    strings.setLanguage("it");
    EXPECT_EQ(strings.localizedString("Cancel"), "Cancel");
    EXPECT_EQ(strings.lastError(), odd + ": UTF-16 text with an odd number of bytes");
    strings.clearCache();
    EXPECT_EQ(strings.lastError(), "");
}

using ScopedEnv = test::ScopedEnvironmentVariable;

TEST(StringsEnvironmentTest, LanguageComesFromTheUsualVariablesInOrder) {
    ScopedEnv language("LANGUAGE", std::nullopt), all("LC_ALL", std::nullopt), messages("LC_MESSAGES", std::nullopt),
        lang("LANG", "de_DE.UTF-8");
    EXPECT_EQ(Strings::languagesFromEnvironment(), (std::vector<std::string>{"de_DE", "de"}));
    {
        ScopedEnv m("LC_MESSAGES", "fr_CA@x");
        EXPECT_EQ(Strings::languagesFromEnvironment(), (std::vector<std::string>{"fr_CA", "fr"}));
        ScopedEnv a("LC_ALL", "C.UTF-8");
        EXPECT_TRUE(Strings::languagesFromEnvironment().empty());
        ScopedEnv l("LANGUAGE", "pt_BR:pt:en");
        EXPECT_EQ(Strings::languagesFromEnvironment(), (std::vector<std::string>{"pt_BR", "pt", "en"}));
    }
    Strings strings;
    EXPECT_EQ(strings.preferredLanguages(), (std::vector<std::string>{"de_DE", "de"}));
}

}  // namespace
}  // namespace qrl
