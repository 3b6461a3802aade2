// The allocation contract, temporary blocks and packing.
#include "util/pal_mem.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "util/pal_error.h"

namespace {

// Hooks that count, and that fail on demand.
struct HookState {
  int allocations = 0;
  int releases = 0;
  int failures = 0;  // so many of the next allocations fail
  int retries = 0;
  int retryBudget = 0;  // so many retries answer "try again"
};
HookState hooks;

bool Fails() { return hooks.failures > 0 && hooks.failures-- > 0; }

void* CountingMalloc(size_t bytes) {
  ++hooks.allocations;
  return Fails() ? nullptr : std::malloc(bytes);
}
void* CountingCalloc(size_t count, size_t size) {
  ++hooks.allocations;
  return Fails() ? nullptr : std::calloc(count, size);
}
void* CountingRealloc(void* block, size_t bytes) {
  ++hooks.allocations;
  return Fails() ? nullptr : std::realloc(block, bytes);
}
void CountingFree(void* block) {
  ++hooks.releases;
  std::free(block);
}
int Retry() {
  ++hooks.retries;
  return hooks.retries <= hooks.retryBudget ? 1 : 0;
}

class PalMem : public testing::Test {
 protected:
  void SetUp() override {
    hooks = {};
    PAL_allocators = {&CountingMalloc, &CountingCalloc, &CountingRealloc,
                      &CountingFree,   nullptr,         0};
  }
  void TearDown() override { PAL_allocators = saved_; }

 private:
  PAL_AllocatorTable saved_ = PAL_allocators;
};

TEST_F(PalMem, SizeZeroYieldsNullWithoutReachingAHook) {
  char* block = reinterpret_cast<char*>(1);
  PAL_MALLOC(block, 0);
  EXPECT_EQ(block, nullptr);
  PAL_CALLOC(block, 0, 8);
  PAL_CALLOC(block, 8, 0);
  PAL_FREE(block);
  EXPECT_EQ(block, nullptr);
  EXPECT_EQ(hooks.allocations, 0);
  EXPECT_EQ(hooks.releases, 0);
}

TEST_F(PalMem, ReallocAllocatesGrowsAndReleases) {
  char* block = nullptr;
  PAL_REALLOC(block, 4);
  ASSERT_NE(block, nullptr);
  std::memcpy(block, "abc", 4);
  PAL_REALLOC(block, 4096);
  EXPECT_STREQ(block, "abc");
  PAL_REALLOC(block, 0);
  EXPECT_EQ(block, nullptr);
  EXPECT_EQ(hooks.releases, 1);
}

TEST_F(PalMem, NoFreeClearsThePointerAndKeepsTheBlock) {
  char* block = PAL_StrDup("kept");
  char* kept = block;
  PAL_allocators.noFree = 1;
  PAL_FREE(block);
  EXPECT_EQ(block, nullptr);
  EXPECT_EQ(hooks.releases, 0);
  EXPECT_STREQ(kept, "kept");
  PAL_allocators.noFree = 0;
  PAL_FREE(kept);
}

TEST_F(PalMem, RetryIsAskedUntilTheAllocationSucceeds) {
  PAL_allocators.retry = &Retry;
  hooks.failures = 3;
  hooks.retryBudget = 5;
  int* numbers = nullptr;
  PAL_CALLOC(numbers, 10, sizeof *numbers);
  EXPECT_EQ(hooks.retries, 3);
  EXPECT_EQ(numbers[9], 0);
  PAL_FREE(numbers);
}

TEST_F(PalMem, InitFillsOnlyEmptySlots) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a process in which nothing was filled yet
  PAL_allocators.calloc = nullptr;
  EXPECT_EXIT(
      {
        PAL_MemInit();
        const bool filled = PAL_allocators.calloc == &std::calloc;
        PAL_allocators.calloc = nullptr;
        PAL_MemInit();
        const bool once = PAL_allocators.calloc == nullptr;
        std::_Exit(filled && once && PAL_allocators.malloc == &CountingMalloc ? 7 : 8);
      },
      testing::ExitedWithCode(7), "");
}

// Everything fails from here on, also what the report itself might want.
void Exhaust() {
  PAL_messages.programName = "klttool";
  hooks.failures = 1 << 20;
}

using PalMemDeathTest = PalMem;

TEST_F(PalMemDeathTest, ExhaustionNamesSizeAndCallerAndEndsTheProcess) {
  char* block = nullptr;
  EXPECT_EXIT(
      {
        Exhaust();
        PAL_MALLOC(block, 4711, "a/file.cpp", 12);
      },
      testing::ExitedWithCode(1),
      "^klttool ERROR: out of memory \\(4711 byte\\) \\[a/file.cpp:12\\], aborting\\.\n$");
  EXPECT_EXIT(
      {
        Exhaust();
        PAL_CALLOC(block, 10, 8, "f", 1);
      },
      testing::ExitedWithCode(1), "out of memory \\(80 byte\\)");
  block = PAL_StrDup("x");
  EXPECT_EXIT(
      {
        Exhaust();
        PAL_allocators.retry = &Retry;
        hooks.retryBudget = 2;
        PAL_REALLOC(block, 100);
      },
      testing::ExitedWithCode(1), "out of memory \\(100 byte\\) \\[.*pal_mem_test\\.cpp:[0-9]+\\]");
  PAL_FREE(block);
}

TEST_F(PalMemDeathTest, StandardContainersObeyTheContract) {
  EXPECT_EXIT(
      {
        std::vector<char> bytes;
        Exhaust();
        bytes.resize(1000);
      },
      testing::ExitedWithCode(1), "out of memory \\(1000 byte\\)");
  // Named is the innermost place that is still there.
  EXPECT_EXIT(
      {
        std::vector<char> bytes;
        const PAL_Place outer("outer.cpp", 1);
        { const PAL_Place inner("inner.cpp", 2); }
        Exhaust();
        bytes.resize(1000);
      },
      testing::ExitedWithCode(1), "\\[outer\\.cpp:1\\], aborting");
  EXPECT_EXIT(
      {
        std::vector<char> bytes(3);
        const PAL_Place outer("outer.cpp", 1);
        PAL_MakeRoom(bytes, "room.cpp", 3);
        bytes.clear();
        Exhaust();
        for (int i = 0; i < 100; ++i) {
          PAL_MakeRoom(bytes, "room.cpp", 4);
          bytes.push_back(0);
        }
      },
      testing::ExitedWithCode(1), "out of memory \\(12 byte\\) \\[room\\.cpp:4\\], aborting");
  EXPECT_EXIT(
      {
        Exhaust();
        static_cast<void>(::operator new[](77, std::nothrow));
      },
      testing::ExitedWithCode(1), "out of memory \\(77 byte\\)");
}

TEST_F(PalMemDeathTest, ExitHandlerThatRunsOutToo) {
  EXPECT_EXIT(
      {
        Exhaust();
        std::atexit([] { static_cast<void>(PAL_StrDup("flush")); });
        static_cast<void>(PAL_StrDup("first"));
      },
      testing::ExitedWithCode(1), "\\(6 byte\\)");
}

struct alignas(256) Wide {
  char text[300];
};

TEST_F(PalMem, OperatorsGoThroughTheHooksInEveryForm) {
  // Through a volatile pointer, so that the pairs aren't optimised away.
  const auto use = [](void* block) {
    void* volatile seen = block;
    return reinterpret_cast<uintptr_t>(seen);
  };
  auto* plain = new int(1);
  auto* array = new int[100];
  auto* wide = new Wide;
  auto* wides = new Wide[3];
  void* empty = ::operator new(0);
  EXPECT_NE(use(empty), 0U);
  EXPECT_EQ(use(wide) % 256, 0U);
  EXPECT_EQ(use(wides) % 256, 0U);
  std::memset(wides, 0xff, 3 * sizeof(Wide));
  use(plain);
  use(array);
  EXPECT_EQ(hooks.allocations, 5);
  delete plain;
  delete[] array;
  delete wide;
  delete[] wides;
  ::operator delete(empty);
  EXPECT_EQ(hooks.releases, 5);
}

TEST_F(PalMem, TemporaryBlockLeavesTheFrameAtTheLimit) {
  {
    PAL_StackBlock below(65535);
    PAL_StackBlock at(65536);
    EXPECT_EQ(below.header(), PAL_StackBlock::ON_STACK);
    EXPECT_EQ(at.header(), PAL_StackBlock::ON_HEAP);
    EXPECT_EQ(hooks.allocations, 1);
    for (PAL_StackBlock* block : {&below, &at}) {
      EXPECT_EQ(reinterpret_cast<uintptr_t>(block->data()) % 16, 0U);
    }
    std::memset(below.data(), 1, 65535);
    std::memset(at.data(), 1, 65536);
    EXPECT_EQ(PAL_StackBlock(0).data(), nullptr);
  }
  EXPECT_EQ(hooks.releases, 1);
}

TEST_F(PalMemDeathTest, TemporaryBlockHasItsOwnMessageAndNoRetry) {
  EXPECT_EXIT(
      {
        Exhaust();
        PAL_allocators.retry = &Retry;
        hooks.retryBudget = 1 << 20;
        PAL_StackBlock block(70000, "frame.cpp", 3);
      },
      testing::ExitedWithCode(1),
      "out of stack memory \\(70000 byte\\) \\[frame.cpp:3\\], aborting\\.");
  EXPECT_EXIT(PAL_StackBlock block(SIZE_MAX), testing::ExitedWithCode(1), "out of stack memory");
}

struct Packable {
  unsigned char flag;
  int32_t number;
  uint64_t address;  // not carried over
  int64_t large;
};
constexpr PAL_PackType PACKABLE[] = {
    {PAL_PACK_BYTE, offsetof(Packable, number)},
    {PAL_PACK_INT32, offsetof(Packable, address) - offsetof(Packable, number)},
    {PAL_PACK_PAD, offsetof(Packable, large) - offsetof(Packable, address)},
    {PAL_PACK_INT64, sizeof(Packable) - offsetof(Packable, large)},
    {PAL_PACK_END, 0}};
constexpr size_t PACKED_BYTES = 13;

TEST(PalPack, StructuresComeBackWithoutTheirPadding) {
  Packable out[2] = {{1, -2, 3, -4}, {255, INT32_MAX, 6, INT64_MIN}};
  PAL_Array array{out, 2, 2};
  PAL_Buffer buffer;
  ASSERT_TRUE(PAL_PackArray(array, PACKABLE, sizeof(Packable), buffer));
  EXPECT_EQ(buffer.length, 4 + 2 * PACKED_BYTES);
  EXPECT_EQ(buffer.capacity, 1024U);
  EXPECT_EQ(buffer.data[4], 1);
  buffer.length = 0;
  PAL_Array back;
  ASSERT_TRUE(PAL_UnpackArray(back, PACKABLE, sizeof(Packable), buffer));
  ASSERT_EQ(back.length, 2U);
  const auto* in = static_cast<const Packable*>(back.data);
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(in[i].flag, out[i].flag);
    EXPECT_EQ(in[i].number, out[i].number);
    EXPECT_EQ(in[i].address, 0U);
    EXPECT_EQ(in[i].large, out[i].large);
  }
  PAL_FREE(back.data);
  PAL_FREE(buffer.data);
}

TEST(PalPack, BufferGrowsByAKilobyteOrToWhatIsNeeded) {
  PAL_Buffer buffer;
  const std::string bytes(1500, 'x');
  ASSERT_TRUE(PAL_Pack(bytes.data(), nullptr, 1, 1500, buffer));
  EXPECT_EQ(buffer.capacity, 1500U);
  ASSERT_TRUE(PAL_Pack(bytes.data(), nullptr, 1, 1, buffer));
  EXPECT_EQ(buffer.capacity, 2524U);
  EXPECT_FALSE(PAL_Pack(bytes.data(), nullptr, 1, size_t{UINT32_MAX}, buffer));
  EXPECT_EQ(buffer.length, 1501U);
  PAL_FREE(buffer.data);
}

TEST(PalPack, TextsKeepTheDifferenceBetweenNullAndEmpty) {
  PAL_Buffer buffer;
  for (const char* text : {static_cast<const char*>(nullptr), "", "name"}) {
    ASSERT_TRUE(PAL_PackString(text, buffer));
  }
  buffer.length = 0;
  EXPECT_EQ(PAL_UnpackString(buffer), nullptr);
  EXPECT_STREQ(PAL_UnpackString(buffer), "");
  char* copy = PAL_StrDup("old");
  PAL_UnpackStringCopy(copy, buffer);
  EXPECT_STREQ(copy, "name");
  buffer.length = 0;
  PAL_UnpackStringCopy(copy, buffer);
  EXPECT_EQ(copy, nullptr);
  PAL_FREE(buffer.data);
}

TEST(PalPack, CountsBeyondTheBufferAreRefused) {
  unsigned char bytes[] = {0xff, 0xff, 0xff, 0xff, 'a', 'b', 'c', 'd'};
  PAL_Buffer buffer{bytes, sizeof bytes, 0};
  PAL_Array array;
  EXPECT_FALSE(PAL_UnpackArray(array, nullptr, 16, buffer));
  EXPECT_EQ(array.data, nullptr);
  EXPECT_EQ(PAL_UnpackString(buffer), nullptr);
  EXPECT_EQ(buffer.length, 0U);
  const uint32_t four = 4;
  std::memcpy(bytes, &four, sizeof four);
  EXPECT_EQ(PAL_UnpackString(buffer), nullptr) << "a text without its closing zero";
  uint64_t target[2];
  EXPECT_FALSE(PAL_Unpack(target, nullptr, 1, sizeof target, buffer));
  EXPECT_EQ(buffer.length, 0U);
}

}  // namespace
