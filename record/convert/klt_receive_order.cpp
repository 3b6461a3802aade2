// Restores the order of receives. See klt_receive_order.h.
#include "record/convert/klt_receive_order.h"

#include <algorithm>

namespace record {
namespace {

uint16_t postOf(const klt_record& receive) { return static_cast<uint16_t>(receive.u.two.c >> 16); }

// Numbers of posts wrap around, so they are compared by their distance.
bool isBefore(uint16_t a, uint16_t b) { return static_cast<int16_t>(a - b) < 0; }

template <class Visit>
void forReceives(std::span<const std::span<const klt_record>> parts, const Visit& visit) {
  for (const auto& part : parts) {
    for (const klt_record& record : part) {
      if (record.kind == KLT_RECEIVE) visit(record);
    }
  }
}

bool isOrdered(std::span<const std::span<const klt_record>> parts) {
  bool ordered = true;
  bool isFirst = true;
  uint16_t last = 0;
  forReceives(parts, [&](const klt_record& receive) {
    if (!isFirst && isBefore(postOf(receive), last)) ordered = false;
    isFirst = false;
    last = postOf(receive);
  });
  return ordered;
}

}  // namespace

ReceiveOrder::ReceiveOrder(std::span<const std::span<const klt_record>> parts) {
  if (isOrdered(parts)) return;
  std::map<Key, Queue> all;
  std::map<Key, bool> isMixed;
  forReceives(parts, [&](const klt_record& receive) {
    std::vector<uint16_t>& posts = all[keyOf(receive)].posts;
    if (!posts.empty() && isBefore(postOf(receive), posts.back())) isMixed[keyOf(receive)] = true;
    posts.push_back(postOf(receive));
  });
  for (const auto& [key, mixed] : isMixed) {
    Queue& queue = queues_[key] = std::move(all[key]);
    // An insertion sort, as receives are only a few places away from their own, and an order by
    // distance isn't one of all numbers.
    for (size_t i = 1; i < queue.posts.size(); ++i) {
      for (size_t j = i; j > 0 && isBefore(queue.posts[j], queue.posts[j - 1]); --j)
        std::swap(queue.posts[j], queue.posts[j - 1]);
    }
  }
}

std::span<const klt_record> ReceiveOrder::next(const klt_record& receive) {
  result_.assign(1, receive);
  const auto found = queues_.find(keyOf(receive));
  if (found == queues_.end()) return result_;
  Queue& queue = found->second;
  queue.waiting.push_back(receive);
  result_.clear();
  bool isFound = true;
  while (isFound && queue.written < queue.posts.size()) {
    const auto wanted = std::find_if(
        queue.waiting.begin(), queue.waiting.end(),
        [&](const klt_record& one) { return postOf(one) == queue.posts[queue.written]; });
    isFound = wanted != queue.waiting.end();
    if (!isFound) break;
    result_.push_back(*wanted);
    queue.waiting.erase(wanted);
    ++queue.written;
  }
  return result_;
}

}  // namespace record
