/*
 * The text of one key's file.
 */
#include "settings_file.h"

#include <gmock/gmock.h>

#include <climits>

using namespace corvane::platform;
using testing::ElementsAre;

namespace {

constexpr std::chrono::system_clock::time_point kEpoch{};
constexpr const char *kHead = "int 3\nchange 42 since 2026-11-21T11:54:26.123456Z\n";

std::string composeInt(int value, const std::string &before) {
    return composeSettingsFile(value, before, kEpoch);
}

std::vector<SettingValue> allValues(const std::string &text) {
    SettingsFile file;
    EXPECT_TRUE(parseSettingsFile(text, file)) << text;
    return parseSettingValues(file, file.sequence);
}

} // namespace

TEST(SettingsFile, FirstValueBeginsTheFile) {
    using namespace std::chrono;
    const auto now = kEpoch + seconds(1'795'262'066) + microseconds(123'456);
    EXPECT_EQ("int -3\nchange 1 since 2026-11-21T11:54:26.123456Z\n",
              composeSettingsFile(-3, "", now));
}

TEST(SettingsFile, LaterValuesKeepTheOnesBefore) {
    const std::string text =
        composeSettingsFile(std::string("off"), std::string(kHead) + "int 2\ntext on\n", kEpoch);
    EXPECT_EQ("text off\nchange 43 since 2026-11-21T11:54:26.123456Z\nint 3\nint 2\ntext on\n",
              text);
    EXPECT_THAT(allValues(text), ElementsAre(SettingValue("off"), SettingValue(3), SettingValue(2),
                                             SettingValue("on")));
}

TEST(SettingsFile, EveryValueReadsBackAsItWasWritten) {
    std::string everyByte;
    for (int byte = 1; byte < 256; ++byte)
        everyByte += static_cast<char>(byte);
    for (const SettingValue &value :
         {SettingValue(0), SettingValue(INT_MAX), SettingValue(INT_MIN), SettingValue(""),
          SettingValue("a\\b\nint 7\n"), SettingValue("\\x0a"), SettingValue(everyByte)}) {
        const std::string text = composeSettingsFile(value, "", kEpoch);
        EXPECT_THAT(allValues(text), ElementsAre(value)) << text;
    }
}

TEST(SettingsFile, TextWithLineEndsStaysOnOneLine) {
    const std::string text = composeSettingsFile(std::string("a\nb\x7f"), "", kEpoch);
    EXPECT_EQ("text a\\x0ab\\x7f", text.substr(0, text.find('\n')));
}

TEST(SettingsFile, OldValuesAreDroppedBeyondTheSize) {
    std::string text;
    for (int value = 0; value < 2000; ++value)
        text = composeInt(value, text);
    EXPECT_LE(text.size(), kSettingsFileSize);
    EXPECT_GT(text.size(), kSettingsFileSize - 10);
    EXPECT_EQ('\n', text.back());
    const auto values = allValues(text);
    for (std::size_t i = 0; i < values.size(); ++i)
        EXPECT_EQ(SettingValue(1999 - static_cast<int>(i)), values[i]);
}

TEST(SettingsFile, SixteenOldValuesAreKeptWhateverTheirSize) {
    std::string text;
    for (int i = 0; i < 30; ++i)
        text = composeSettingsFile(std::string(kMaxSettingText, static_cast<char>('a' + i % 26)),
                                   text, kEpoch);
    EXPECT_EQ(1 + kMinOldValues, allValues(text).size());
}

TEST(SettingsFile, EveryCutWithinTheHeadIsDamage) {
    const std::string head = kHead;
    SettingsFile file;
    for (std::size_t size = 0; size < head.size(); ++size)
        EXPECT_FALSE(parseSettingsFile(head.substr(0, size), file)) << size;
    EXPECT_TRUE(parseSettingsFile(head, file));
}

TEST(SettingsFile, MalformedHeadIsDamage) {
    const std::string change = "change 42 since 2026-11-21T11:54:26.123456Z\n";
    SettingsFile file;
    for (const std::string &text :
         {"3\n" + change, "int\n" + change, "int 3 \n" + change, "int 0x3\n" + change,
          "int 2147483648\n" + change, "text \\y\n" + change, "text \\x1\n" + change,
          "text \\\n" + change, std::string(100, '\0'),
          std::string("int 3\nchange 0 since 2026-11-21T11:54:26.123456Z\n"),
          std::string("int 3\nchange -1 since 2026-11-21T11:54:26.123456Z\n"),
          std::string("int 3\nchange 1 since yesterday\n"), std::string("int 3\nint 2\n")})
        EXPECT_FALSE(parseSettingsFile(text, file)) << text;
}

TEST(SettingsFile, MalformedOldValueEndsTheList) {
    EXPECT_THAT(allValues(std::string(kHead) + "int 2\nrubbish\nint 1\n"),
                ElementsAre(SettingValue(3), SettingValue(2)));
}

TEST(SettingsFile, DamagedFileIsBegunAnew) {
    EXPECT_EQ("int 5\nchange 1 since 1970-01-01T00:00:00.000000Z\n", composeInt(5, "int 3\n"));
}
