// Compares the queue with a sorted map.
#include "generic/sink/kltt_queue.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>

namespace {

// Adds nodes and removes the nodes that are due, in turns. Their times are less than `ahead` after
// the current time or up to `back` before it, in units of `scale`; some are kNever.
TEST(KlttQueue, ReturnsNodesByTimeAndThenByArrival) {
  const uint64_t cases[][3] = {{1, 0, 1},  {5, 0, 8192},  {1000, 0, 1},  {5000, 0, 1ULL << 50},
                               {1, 20, 1}, {40, 3, 8192}, {10, 1000, 1}, {200000, 0, 1}};
  for (const auto& [ahead, back, scale] : cases) {
    SCOPED_TRACE(ahead);
    std::mt19937_64 random(ahead + back);
    KLTT_Queue queue;
    std::multimap<uint64_t, std::string> model;  // equal times in order of arrival
    uint64_t now = back;
    for (uint32_t id = 0; id < 6000 || !model.empty(); now += random() % 3) {
      for (uint64_t k = id < 6000 ? random() % 4 : 0; k > 0; --k, ++id) {
        const uint64_t soon = (now + random() % ahead - random() % (back + 1)) * scale;
        const uint64_t time = random() % 99 == 0 ? KLTT_Queue::kNever : soon;
        const std::string text = std::to_string(id) + std::string(id % 50, 'x');
        queue.addComment(time, text);
        model.emplace(time, text);
      }
      const bool all = id >= 6000 || random() % 200 == 0;
      while (!model.empty() && (all || model.begin()->first < now * scale)) {
        ASSERT_EQ(queue.nextTime(), model.begin()->first);
        ASSERT_EQ(queue.text(queue.front()), model.begin()->second);
        queue.pop();
        model.erase(model.begin());
      }
      ASSERT_EQ(queue.size(), model.size());
      ASSERT_EQ(queue.nextTime(), model.empty() ? KLTT_Queue::kNever : model.begin()->first);
    }
  }
}

}  // namespace
