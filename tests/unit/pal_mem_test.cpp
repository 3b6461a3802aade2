// The allocation contract, temporary blocks and packing.
#include "util/pal_mem.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace {

// Hooks that count. So many of the next allocations fail; so many retries answer "try again".
int allocations, releases, failures, retries;

template <auto function, class... Args>
void* counted(Args... args) {
  ++allocations;
  return failures > 0 && failures-- > 0 ? nullptr : function(args...);
}

class PalMem : public testing::Test {
 protected:
  PalMem() {
    allocations = releases = failures = retries = 0;
    PAL_allocators.malloc = &counted<std::malloc, size_t>;
    PAL_allocators.calloc = &counted<std::calloc, size_t, size_t>;
    PAL_allocators.realloc = &counted<std::realloc, void*, size_t>;
    PAL_allocators.free = [](void* block) { ++releases, std::free(block); };
    PAL_allocators.retry = [] { return retries-- > 0 ? 1 : 0; };
  }
  ~PalMem() override { PAL_allocators = saved_; }

 private:
  PAL_AllocatorTable saved_ = PAL_allocators;
};

TEST_F(PalMem, OperationsReachTheHooksUnlessTheSizeIsZero) {
  char* block = reinterpret_cast<char*>(1);
  PAL_MALLOC(block, 0);
  PAL_FREE(block);
  PAL_CALLOC(block, 0, 8);
  PAL_CALLOC(block, 8, 0);
  EXPECT_EQ(block, nullptr);
  EXPECT_EQ(allocations + releases, 0);
  failures = retries = 3;
  PAL_CALLOC(block, 2, 4);
  EXPECT_EQ(allocations, 4);
  PAL_REALLOC(block, 4096);
  EXPECT_EQ(block[7], 0);
  char* kept = block;
  PAL_allocators.noFree = 1;
  PAL_FREE(block);
  PAL_allocators.noFree = 0;
  EXPECT_EQ(block, nullptr);
  EXPECT_EQ(releases, 0);
  PAL_REALLOC(kept, 0);
  EXPECT_EQ(kept, nullptr);
  EXPECT_EQ(releases, 1);
}

TEST_F(PalMem, OperatorsGoThroughTheHooksInEveryForm) {
  struct alignas(256) Wide {
    char text[300];
  };
  {
    const std::vector<int> plain(1);
    const std::unique_ptr<Wide> wide(new Wide);
    const std::unique_ptr<Wide[]> wides(new (std::nothrow) Wide[3]);
    for (const Wide* block : {wide.get(), wides.get()})
      EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 256, 0U);
    std::memset(wides.get(), 0xff, 3 * sizeof(Wide));
    ::operator delete(::operator new(0));
    EXPECT_EQ(allocations, 4);
  }
  EXPECT_EQ(releases, 4);
}

TEST_F(PalMem, TemporaryBlockLeavesTheFrameAtTheLimit) {
  for (const size_t size : {0U, 1U, 65535U, 65536U}) {
    char* block;
    PAL_STACK_ALLOC(block, size);
    EXPECT_EQ(block == nullptr, size == 0);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % 16, 0U);
    if (size > 0) std::memset(block, 1, size);
    EXPECT_EQ(allocations, size == 65536 ? 1 : 0);
    PAL_STACK_FREE(block);
    EXPECT_EQ(block, nullptr);
  }
  EXPECT_EQ(releases, 1);
}

using PalMemDeathTest = PalMem;

TEST_F(PalMemDeathTest, ExhaustionNamesSizeAndCallerAndEndsTheProcess) {
  static char* block;
  block = PAL_StrDup("x");
  const std::pair<void (*)(), const char*> cases[] = {
      {[] { PAL_MALLOC(block, 4711, "a/f.cpp", 12); }, "memory (4711 byte) [a/f.cpp:12]"},
      {[] { PAL_CALLOC(block, 10, 8, "f", 1); }, "memory (80 byte) [f:1]"},
      {[] { PAL_REALLOC(block, 100, "f", 2); }, "memory (100 byte) [f:2]"},
      {[] { failures = 1, (void)PAL_StackBlock(nullptr, 70000, "f", 3); },
       "stack memory (70000 byte) [f:3]"},
      {[] { failures = 0, (void)PAL_StackBlock(nullptr, SIZE_MAX, "f", 4); },
       "stack memory (-1 byte) [f:4]"},
      {[] {
         const PAL_Place outer("outer", 5);
         { const PAL_Place inner("inner", 6); }
         std::vector<char> bytes(1000);
       },
       "memory (1000 byte) [outer:5]"},
  };
  const auto exhausted = [](void (*call)()) {
    failures = 1 << 20;  // also what the report itself might want
    retries = 2;
    call();
  };
  for (const auto& [call, message] : cases) {
    const std::string line = std::string("ERROR: out of ") + message + ", aborting.\n";
    EXPECT_EXIT(exhausted(call), testing::ExitedWithCode(1),
                testing::Matcher<const std::string&>(line));
  }
  const auto init = [] {
    PAL_allocators.calloc = nullptr;
    PAL_MemInit();
    const bool isFilled = PAL_allocators.calloc == &std::calloc;
    PAL_allocators.free = nullptr;
    PAL_MemInit();
    std::_Exit(isFilled && !PAL_allocators.free && PAL_allocators.malloc != &std::malloc ? 0 : 1);
  };
  EXPECT_EXIT(init(), testing::ExitedWithCode(0), "") << "only the first call, only empty slots";
}

TEST(PalPack, WhatIsPackedComesBackAndNoMore) {
  const PAL_PackType types[] = {{PAL_PACK_BYTE, 8},
                                {PAL_PACK_INT32, 8},
                                {PAL_PACK_PAD, 8},
                                {PAL_PACK_INT64, 8},
                                {PAL_PACK_END, 0}};
  int64_t sent[] = {1, 0x7f7f7f7f, 3, -4, 255, INT32_MAX, 6, INT64_MIN};
  PAL_Buffer buffer;
  ASSERT_TRUE(PAL_PackArray({sent, 2, 2}, types, 32, buffer));
  for (const char* text : {static_cast<const char*>(nullptr), "", "name"})
    ASSERT_TRUE(PAL_PackString(text, buffer));
  EXPECT_EQ(buffer.length, 4 + 2 * 13 + 3 * 4 + 1 + 5U);
  EXPECT_EQ(std::exchange(buffer.capacity, buffer.length), 1024U);
  const uint32_t length = std::exchange(buffer.length, 0U);
  PAL_Array array{nullptr, 2, 0};
  PAL_CALLOC(array.data, 2, 32);
  ASSERT_TRUE(PAL_UnpackArray(array, types, 32, buffer));
  sent[2] = sent[6] = 0;  // the padding
  EXPECT_EQ(std::memcmp(array.data, sent, sizeof sent), 0);
  char* copy = PAL_StrDup("old");
  PAL_UnpackStringCopy(copy, buffer);
  EXPECT_EQ(copy, nullptr);
  EXPECT_STREQ(PAL_UnpackString(buffer), "");
  EXPECT_STREQ(PAL_UnpackString(buffer), "name");
  EXPECT_EQ(PAL_UnpackString(buffer), nullptr);
  // Counts beyond the end, and a text without its closing zero.
  for (const uint32_t count : {UINT32_MAX, length - 3, 4U}) {
    std::memcpy(buffer.data, &count, 4);
    buffer.length = 0;
    EXPECT_EQ(PAL_UnpackString(buffer), nullptr);
    EXPECT_EQ(PAL_UnpackArray(array, nullptr, 1, buffer), count == 4);
    EXPECT_EQ(buffer.length, count == 4 ? 8U : 0U);
  }
  EXPECT_FALSE(PAL_Pack("", nullptr, 1, size_t{UINT32_MAX} + 1, buffer));
  PAL_FREE(buffer.data);
  PAL_FREE(array.data);
}

}  // namespace
