#include "util/pal_stack.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

namespace {

struct Item {
  uint32_t number;
  uint64_t square;
  bool operator==(const Item&) const = default;
};

Item item(uint32_t i) { return {i, uint64_t{i} * i}; }

TEST(PalStack, KeepsItsItemsWhileItGrowsAndMoves) {
  PAL_Stack<Item> stack;
  EXPECT_TRUE(stack.empty());
  EXPECT_EQ(stack.begin(), stack.end());
  std::vector<Item> model;
  for (uint32_t i = 0; i < 1000; ++i) {
    stack.push(i % 3 == 2 ? stack.top() : item(i));  // its own item while it grows, too
    model.push_back(i % 3 == 2 ? model.back() : item(i));
    if (i % 7 == 6) {
      stack.pop();
      model.pop_back();
    }
    if (i % 100 == 99) {
      PAL_Stack<Item> other(std::move(stack));
      stack = std::move(other);
    }
    ASSERT_EQ(stack.size(), model.size());
    ASSERT_TRUE(std::equal(stack.begin(), stack.end(), model.begin(), model.end()));
  }
  while (!stack.empty()) {
    ASSERT_EQ(stack.top(), model.back());
    stack.pop();
    model.pop_back();
  }
  EXPECT_TRUE(model.empty());
}

}  // namespace
