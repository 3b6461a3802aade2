// Locale-free comparison, classification and formatting.
#include "util/pal_strings.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstring>
#include <string>

namespace {

TEST(PalStrings, ComparisonIgnoresTheCaseOfAsciiLettersOnly) {
  EXPECT_EQ(PAL_StrCaseCmp("--dump", "--DuMp"), 0);
  EXPECT_EQ(PAL_StrCaseCmp("abc", "ABD"), 'C' - 'D');
  EXPECT_EQ(PAL_StrCaseCmp("LOGFILE", "LOGFILE-NAME"), -'-');
  EXPECT_EQ(PAL_StrCaseCmp("a", ""), 'A');
  EXPECT_EQ(PAL_StrCaseCmp("\xe4", "a"), 0xe4 - 'A');
  EXPECT_NE(PAL_StrCaseCmp("\xe4", "\xc4"), 0);
  EXPECT_GT(PAL_StrCaseCmp("_", "a"), 0);
}

TEST(PalStrings, TablesAgreeWithTheCLocaleOnAscii) {
  for (int byte = 0; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    const bool ascii = byte < 128;
    EXPECT_EQ(PAL_IsSpace(c), ascii && std::isspace(byte) != 0) << byte;
    EXPECT_EQ(PAL_ToUpper(c), static_cast<char>(ascii ? std::toupper(byte) : byte)) << byte;
    if (byte == 0) continue;
    EXPECT_EQ(PAL_IsDigits(std::string(1, c).c_str()), ascii && std::isdigit(byte) ? 1 : 0) << byte;
  }
  EXPECT_EQ(PAL_IsDigits(""), 0);
  EXPECT_EQ(PAL_IsDigits("0123456789"), 1);
  EXPECT_EQ(PAL_IsDigits("12a"), 0);
}

TEST(PalStrings, BaseNameTakesTheSlashFirst) {
  EXPECT_STREQ(PAL_BaseName("a/b\\c"), "b\\c");
  EXPECT_STREQ(PAL_BaseName("a\\b/c"), "c");
  EXPECT_STREQ(PAL_BaseName("a\\b"), "b");
  EXPECT_STREQ(PAL_BaseName("plain"), "plain");
  EXPECT_STREQ(PAL_BaseName("dir/"), "");
}

TEST(PalStrings, FormattedTextsAreWholeAroundTheFirstBuffer) {
  for (const size_t length : {0U, 1U, 1022U, 1023U, 1024U, 1025U, 100000U}) {
    const std::string text(length, 'y');
    EXPECT_EQ(PAL_asprintf("%s", text.c_str()), text);
    EXPECT_EQ(PAL_asprintf("%d%s", 7, text.c_str()), "7" + text);
  }
}

TEST(PalStrings, FormatThatTheLibraryRefusesComesBack) {
  const wchar_t invalid[] = {static_cast<wchar_t>(0x7fffffff), 0};
  EXPECT_EQ(PAL_asprintf("<%ls>", invalid), "<%ls>");
}

}  // namespace
