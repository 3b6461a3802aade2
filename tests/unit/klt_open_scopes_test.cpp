// Open scopes against a plain list, with few and with many keys and entries.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <tuple>
#include <vector>

#include "klt/klt_context.h"

namespace {

using Scope = std::tuple<uint64_t, uint32_t, uint32_t>;

std::vector<Scope> listed(const KLT_OpenScopes& scopes) {
  std::vector<Scope> list;
  scopes.each([&](const KLT_OpenScope& s) { list.emplace_back(s.time, s.scope, s.seqnr); });
  return list;
}

// Enters and leaves at random, towards `size` open scopes and back to none, again and again.
void compareWithList(size_t size, uint32_t keys, unsigned seed) {
  std::mt19937 random(seed);
  KLT_OpenScopes scopes;
  std::vector<Scope> list;
  bool growing = true;
  for (uint64_t time = 0; time < 8 * size; ++time) {
    if (list.size() >= size) growing = false;
    if (list.empty()) growing = true;
    const auto scope = static_cast<uint32_t>(random() % keys);
    const auto seqnr = static_cast<uint32_t>(random() % keys);
    if (random() % 8 < (growing ? 6U : 2U)) {
      scopes.enter(time, scope, seqnr);
      list.emplace_back(time, scope, seqnr);
    } else {
      const auto oldest = std::find_if(list.begin(), list.end(), [&](const Scope& s) {
        return std::get<1>(s) == scope && std::get<2>(s) == seqnr;
      });
      ASSERT_EQ(scopes.leave(scope, seqnr), oldest != list.end());
      if (oldest != list.end()) list.erase(oldest);
    }
    ASSERT_EQ(scopes.empty(), list.empty());
    ASSERT_EQ(listed(scopes), list);
  }
}

TEST(KltOpenScopes, LeaveTheOldestOfAKey) {
  compareWithList(8, 2, 1);
  compareWithList(40, 1, 2);
  compareWithList(40, 3, 3);
  compareWithList(200, 2, 4);
  compareWithList(200, 8, 5);
}

TEST(KltOpenScopes, ForgetAllAndStartAgain) {
  KLT_OpenScopes scopes;
  for (uint32_t i = 0; i < 100; ++i) scopes.enter(i, 7, i);
  scopes.clear();
  EXPECT_TRUE(scopes.empty());
  EXPECT_FALSE(scopes.leave(7, 3));
  scopes.enter(5, 7, 3);
  EXPECT_EQ(listed(scopes), (std::vector<Scope>{{5, 7, 3}}));
}

}  // namespace
