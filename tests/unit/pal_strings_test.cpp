// Locale-free comparison, classification and formatting; the stack.
#include "util/pal_strings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <string>
#include <utility>
#include <vector>

#include "util/pal_stack.h"

namespace {

TEST(PalStrings, ComparisonIgnoresTheCaseOfAsciiLettersOnly) {
  EXPECT_EQ(PAL_StrCaseCmp("--dump", "--DuMp"), 0);
  EXPECT_EQ(PAL_StrCaseCmp("LOGFILE", "LOGFILE-NAME"), -'-');
  EXPECT_EQ(PAL_StrCaseCmp("\xe4", "a"), 0xe4 - 'A');
  EXPECT_NE(PAL_StrCaseCmp("\xe4", "\xc4"), 0);
  EXPECT_EQ(PAL_StrCaseCmp("_", "a"), '_' - 'A');
  for (int byte = 1; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    const bool ascii = byte < 128;
    EXPECT_EQ(PAL_IsSpace(c), ascii && std::isspace(byte) != 0) << byte;
    EXPECT_EQ(PAL_ToUpper(c), static_cast<char>(ascii ? std::toupper(byte) : byte)) << byte;
    EXPECT_EQ(PAL_IsDigits(std::string{'1', c}.c_str()), ascii && std::isdigit(byte)) << byte;
  }
  EXPECT_EQ(PAL_IsDigits(""), 0);
}

TEST(PalStrings, NamesAndFormattedTextsAreWhole) {
  const std::pair<const char*, const char*> names[] = {
      {"a/b\\c", "b\\c"}, {"a\\b/c", "c"}, {"a\\b", "b"}, {"plain", "plain"}, {"dir/", ""}};
  for (const auto& [path, name] : names) EXPECT_STREQ(PAL_BaseName(path), name);
  for (const size_t length : {0U, 1022U, 1023U, 1024U, 100000U}) {
    const std::string text(length, 'y');
    EXPECT_EQ(PAL_asprintf("%d%s", 7, text.c_str()), "7" + text);
  }
  const wchar_t invalid[] = {static_cast<wchar_t>(0x7fffffff), 0};
  EXPECT_EQ(PAL_asprintf("<%ls>", invalid), "<%ls>");
}

TEST(PalStack, KeepsItsItemsWhileItGrowsAndMoves) {
  PAL_Stack<uint64_t> stack;
  std::vector<uint64_t> model;
  for (uint64_t i = 0; i < 1000; ++i) {
    stack.push(i % 3 == 2 ? stack.top() : i);  // its own item while it grows, too
    model.push_back(i % 3 == 2 ? model.back() : i);
    if (i % 7 == 6) stack.pop(), model.pop_back();
    if (i % 100 == 99) {
      PAL_Stack<uint64_t> other(std::move(stack));
      stack = std::move(other);
    }
    ASSERT_TRUE(std::equal(stack.begin(), stack.end(), model.begin(), model.end())) << i;
  }
}

}  // namespace
