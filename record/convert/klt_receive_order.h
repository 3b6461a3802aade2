// Restores the order in which equal receives were posted.
//
// A merge pairs messages with equal keys first in, first out. MPI does the same, but in the order
// in which receives are posted; they may complete in another order. Where that happens, a receive
// waits here until those posted before it have been written, and keeps its time.
#pragma once

#include <cstdint>
#include <map>
#include <span>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "record/runtime/klt_spool.h"

namespace record {

class ReceiveOrder {
 public:
  // Finds the receives of a thread that completed out of order.
  explicit ReceiveOrder(std::span<const std::span<const klt_record>> parts);

  [[nodiscard]] bool isNeeded() const { return !queues_.empty(); }
  // The receives to write now that `receive` is complete; valid until the next call.
  [[nodiscard]] std::span<const klt_record> next(const klt_record& receive);

 private:
  using Key = std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>;  // process, comm, tag, bytes
  struct Queue {
    std::vector<uint16_t> posts;  // in order
    size_t written = 0;
    std::vector<klt_record> waiting;
  };
  [[nodiscard]] static Key keyOf(const klt_record& receive) {
    return {receive.u.two.c & 0xffff, receive.small, receive.u.two.b, receive.a};
  }

  std::map<Key, Queue> queues_;  // of keys with receives out of order
  std::vector<klt_record> result_;
};

}  // namespace record
