#include "generic/kltt_queue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

namespace {

struct Expected {
  uint64_t time;
  uint32_t id;
};

// Adds nodes and takes out what is due in turns, beside a list that is sorted anew each time. Nodes
// come at up to `ahead` behind the current time, or at up to `back` before it.
void compareWithModel(uint32_t seed, uint64_t ahead, uint64_t back, uint64_t scale) {
  std::mt19937_64 random(seed);
  KLTT_Queue queue;
  std::vector<Expected> model;
  uint64_t now = back;
  uint32_t id = 0;
  for (int step = 0; step < 3000; ++step) {
    for (uint64_t k = random() % 4; k > 0; --k) {
      const uint64_t time = (now + random() % ahead - random() % (back + 1)) * scale;
      KLTT_Delayed& node = queue.add(time);
      node.kind = KLTT_DelayedKind::kSendMsg;
      node.gtp = id;
      model.push_back({time, id++});
    }
    std::stable_sort(model.begin(), model.end(),
                     [](const Expected& a, const Expected& b) { return a.time < b.time; });
    now += random() % 3;
    size_t due = 0;
    while (due < model.size() && model[due].time < now * scale) {
      ASSERT_EQ(queue.nextTime(), model[due].time);
      ASSERT_EQ(queue.front().gtp, model[due].id);
      queue.pop();
      ++due;
    }
    model.erase(model.begin(), model.begin() + static_cast<std::ptrdiff_t>(due));
    ASSERT_EQ(queue.size(), model.size());
    ASSERT_EQ(queue.nextTime(), model.empty() ? KLTT_Queue::kNever : model.front().time);
  }
}

TEST(KlttQueue, OrdersByTimeAndThenByArrival) {
  compareWithModel(1, 1, 0, 1);
  compareWithModel(2, 5, 0, 8192);
  compareWithModel(3, 1000, 0, 1);
  compareWithModel(4, 3000, 0, uint64_t{1} << 50);
}

TEST(KlttQueue, OrdersNodesThatComeTooLate) {
  compareWithModel(5, 1, 20, 1);
  compareWithModel(6, 40, 3, 8192);
  compareWithModel(7, 10, 1000, 1);
}

TEST(KlttQueue, ReversedArrivalComesOutInOrder) {
  KLTT_Queue queue;
  constexpr uint32_t kNodes = 300000;
  for (uint32_t i = 0; i < kNodes; ++i) queue.add(kNodes - i).gtp = kNodes - i;
  for (uint32_t i = 1; i <= kNodes; ++i) {
    ASSERT_EQ(queue.front().gtp, i);
    queue.pop();
  }
  EXPECT_TRUE(queue.empty());
}

TEST(KlttQueue, HoldsNodesAtTheEndOfTime) {
  KLTT_Queue queue;
  queue.add(KLTT_Queue::kNever).gtp = 1;
  queue.add(KLTT_Queue::kNever).gtp = 2;
  queue.add(7).gtp = 3;
  std::vector<uint32_t> order;
  for (; !queue.empty(); queue.pop()) order.push_back(queue.front().gtp);
  EXPECT_EQ(order, (std::vector<uint32_t>{3, 1, 2}));
}

TEST(KlttQueue, KeepsTheTextsOfComments) {
  KLTT_Queue queue;
  for (int round = 0; round < 3; ++round) {
    const std::string mark = std::to_string(round);
    queue.addComment(0, "first " + mark);
    queue.addComment(0, std::string(5000, 'x') + mark);
    EXPECT_EQ(queue.text(queue.front()), "first " + mark);
    queue.pop();
    queue.addComment(0, "third");
    EXPECT_EQ(queue.text(queue.front()), std::string(5000, 'x') + mark);
    queue.pop();
    EXPECT_EQ(queue.text(queue.front()), "third");
    queue.pop();
  }
}

}  // namespace
