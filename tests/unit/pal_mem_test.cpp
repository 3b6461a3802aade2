// The allocation contract, temporary blocks and packing.
#include "util/pal_mem.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

namespace {

// The hooks count. The next `failures` allocations fail; the next `retries` retries return 1.
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
  EXPECT_EQ(block, nullptr);
  EXPECT_EQ(allocations + releases, 0);
  failures = retries = 3;
  PAL_CALLOC(block, 8, 8);
  PAL_REALLOC(block, 4096);
  EXPECT_EQ(allocations, 5);
  EXPECT_EQ(block[63], 0);
  char* kept = block;
  for (const int noFree : {1, 0}) {
    PAL_allocators.noFree = noFree;
    PAL_REALLOC(kept, 0);
    EXPECT_EQ(kept, nullptr);
    EXPECT_EQ(releases, 1 - noFree);
    kept = block;
  }
}

TEST_F(PalMem, BlocksAreAlignedAndTemporaryOnesFromTheLimitOnAreOnTheHeap) {
  struct alignas(256) Wide {
    char text[300];
  };
  const auto offset = [](const void* block) { return reinterpret_cast<uintptr_t>(block) % 256; };
  ::operator delete(::operator new(0));
  Wide* volatile wide = new (std::nothrow) Wide[3];  // volatile: else the compiler removes it
  EXPECT_EQ(offset(std::memset(wide, 0xff, 3 * sizeof(Wide))), 0U);
  delete[] wide;
  for (const size_t size : {0U, 65535U, 65536U}) {
    char* block;
    PAL_STACK_ALLOC(block, size);
    EXPECT_TRUE(size == 0 ? block == nullptr : offset(std::memset(block, 1, size)) % 16 == 0);
    PAL_STACK_FREE(block);
  }
  EXPECT_EQ(releases, 3);
}

using PalMemDeathTest = PalMem;

// Also if no memory is left for the report. Other sizes and locations: tests/faults.
TEST_F(PalMemDeathTest, ExhaustionNamesSizeAndCallerAndEndsTheProcess) {
  const auto exhausted = [] {
    failures = 1 << 20;
    retries = 2;
    const PAL_Place outer("outer", 5);
    { const PAL_Place inner("inner", 6); }
    std::vector<char> bytes(1000);
  };
  EXPECT_EXIT(exhausted(), testing::ExitedWithCode(1),
              testing::Eq("ERROR: out of memory (1000 byte) [outer:5], aborting.\n"));
}

TEST(PalPack, UnpacksAllOfAnItemOrNothing) {
  const PAL_PackType types[] = {{PAL_PACK_BYTE, 8}, {PAL_PACK_INT32, 8}, {PAL_PACK_END, 0}};
  int64_t sent[] = {1, 0x7f7f7f7f, 255, -4};
  PAL_Buffer buffer, again;
  ASSERT_TRUE(PAL_PackArray({sent, 2, 2}, types, 16, buffer) && PAL_PackString("name", buffer));
  const uint32_t name = 4 + 2 * 5, end = name + 4 + 5;
  ASSERT_EQ(buffer.length, end);
  for (buffer.capacity = 0; buffer.capacity <= end; ++buffer.capacity) {
    PAL_Array array{};
    buffer.length = 0;
    EXPECT_EQ(PAL_UnpackArray(array, types, 16, buffer), buffer.capacity >= name);
    again.length = 0;
    EXPECT_TRUE(PAL_PackArray(array, types, 16, again));
    EXPECT_TRUE(buffer.length == 0 || std::memcmp(again.data, buffer.data, name) == 0);
    PAL_FREE(array.data);
    buffer.length = name;
    char* text = PAL_StrDup("old");
    PAL_UnpackStringCopy(text, buffer);
    EXPECT_STREQ(text, buffer.capacity == end ? "name" : nullptr);
    PAL_FREE(text);
  }
  PAL_FREE(buffer.data);
  PAL_FREE(again.data);
}

}  // namespace
