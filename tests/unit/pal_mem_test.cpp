// The allocation contract, temporary blocks and packing.
#include "util/pal_mem.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <new>
#include <string>
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
  PAL_MALLOC(block, 64);
  std::memset(block, 1, 64);
  PAL_FREE(block);
  failures = retries = 3;
  PAL_CALLOC(block, 8, 8);
  PAL_REALLOC(block, 4096);
  EXPECT_EQ(allocations, 6);
  EXPECT_EQ(block[63], 0);
  char* kept = block;
  for (const int noFree : {1, 0}) {
    PAL_allocators.noFree = noFree;
    PAL_REALLOC(kept, 0);
    EXPECT_EQ(kept, nullptr);
    EXPECT_EQ(releases, 2 - noFree);
    kept = block;
  }
}

TEST_F(PalMem, BlocksAreAlignedAndTemporaryOnesLeaveTheFrameAtTheLimit) {
  struct alignas(256) Wide {
    char text[300];
  };
  const auto offset = [](const void* block) { return reinterpret_cast<uintptr_t>(block) % 256; };
  ::operator delete(::operator new(0));
  Wide* volatile wide = new (std::nothrow) Wide[3];  // volatile: else a compiler leaves it out
  EXPECT_EQ(offset(std::memset(wide, 0xff, 3 * sizeof(Wide))), 0U);
  delete[] wide;
  for (const size_t size : {0U, 1U, 65535U, 65536U}) {
    char* block;
    PAL_STACK_ALLOC(block, size);
    EXPECT_TRUE(size == 0 ? block == nullptr : offset(std::memset(block, 1, size)) % 16 == 0);
    EXPECT_EQ(allocations, size == 65536 ? 3 : 2);
    PAL_STACK_FREE(block);
    EXPECT_EQ(block, nullptr);
  }
  EXPECT_EQ(releases, 3);
}

using PalMemDeathTest = PalMem;

// Also when the report itself might want memory. Other sizes and places: tests/faults.
TEST_F(PalMemDeathTest, ExhaustionNamesSizeAndCallerAndEndsTheProcess) {
  const auto exhausted = [](int what) {
    failures = 1 << 20;
    retries = 2;
    const PAL_Place outer("outer", 5);
    { const PAL_Place inner("inner", 6); }
    if (what == 0) (void)PAL_AllocateZeroed(10, 8, "f", 1);
    if (what == 1) failures = 0, (void)PAL_StackBlock(nullptr, SIZE_MAX, "f", 4);
    std::vector<char> bytes(1000);
  };
  const char* messages[] = {"memory (80 byte) [f:1]",
                            "stack memory (18446744073709551615 byte) [f:4]",
                            "memory (1000 byte) [outer:5]"};
  for (const int what : {0, 1, 2}) {
    const std::string line = std::string("ERROR: out of ") + messages[what] + ", aborting.\n";
    EXPECT_EXIT(exhausted(what), testing::ExitedWithCode(1), testing::Eq(line));
  }
  for (const bool first : {true, false}) {
    PAL_allocators.calloc = nullptr;
    PAL_MemInit();
    EXPECT_EQ(PAL_allocators.calloc == &std::calloc, first);
  }
  EXPECT_NE(PAL_allocators.malloc, &std::malloc);
}

TEST(PalPack, WhatIsPackedComesBackWholeOrNotAtAll) {
  const PAL_PackType types[] = {{PAL_PACK_BYTE, 8},
                                {PAL_PACK_INT32, 8},
                                {PAL_PACK_PAD, 8},
                                {PAL_PACK_INT64, 8},
                                {PAL_PACK_END, 0}};
  int64_t sent[] = {1, 0x7f7f7f7f, 3, -4, 255, INT32_MAX, 6, INT64_MIN};
  PAL_Buffer buffer, again;
  ASSERT_TRUE(PAL_PackArray({sent, 2, 2}, types, 32, buffer) && PAL_PackString("name", buffer));
  EXPECT_FALSE(PAL_Pack(sent, types, 2, 25, buffer));
  EXPECT_FALSE(PAL_Pack("", nullptr, 1, size_t{UINT32_MAX} + 1, buffer));
  const uint32_t name = 4 + 2 * 13, end = name + 4 + 5;
  ASSERT_TRUE(buffer.length == end && buffer.capacity == 1024);
  // More and more of it is there; at last all, but the text has no closing zero.
  for (uint32_t bytes = 0; bytes <= end + 1; ++bytes) {
    buffer.capacity = std::min(bytes, end);
    if (bytes > end) buffer.data[end - 1] = '!';
    PAL_Array array{};
    buffer.length = again.length = 0;
    const bool whole = bytes >= name;
    EXPECT_EQ(PAL_UnpackArray(array, types, 32, buffer), whole);
    EXPECT_EQ(buffer.length, whole ? name : 0);
    EXPECT_TRUE(PAL_PackArray(array, types, 32, again));
    EXPECT_TRUE(!whole || std::memcmp(again.data, buffer.data, name) == 0);
    PAL_FREE(array.data);
    buffer.length = name;
    char* text = PAL_StrDup("old");
    PAL_UnpackStringCopy(text, buffer);
    EXPECT_STREQ(text, bytes == end ? "name" : nullptr);
    EXPECT_EQ(buffer.length, bytes == end ? end : name);
    PAL_FREE(text);
  }
  PAL_FREE(buffer.data);
  PAL_FREE(again.data);
}

}  // namespace
