// Collective operations: their numbers, bytes and times, and the waiting in them.
//
// A record has the start and the duration of each member's part; these are taken as the part's
// enter and exit. They include the call, which begins just after the start.
#pragma once

#include <cstdint>
#include <vector>

#include "analyze/core/kla_calls.h"
#include "analyze/core/kla_definitions.h"
#include "analyze/core/kla_keys.h"
#include "analyze/core/kla_types.h"
#include "analyze/sums/kla_waits.h"

namespace kla {

enum class Pattern : uint8_t { kAll, kAllToAll, kAllToOne, kOneToAll };

// A record of any of the four kinds. The arrays have `members` elements; null if it has none.
struct CollectiveRecord {
  Pattern pattern;
  Time time;
  uint32_t communicator, operation, members;
  const uint64_t* starts;  // relative to `time`
  const uint64_t* durations;
  const uint32_t* sent;
  const uint32_t* received;
  uint32_t root;  // gtp
  uint32_t rootBytes;
};

// A member's part in an operation.
struct Part {
  uint32_t thread;  // index
  Time start, end;
};

class Collectives {
 public:
  struct Row {
    uint32_t operation, communicator;
    uint64_t count = 0, sent = 0, received = 0;
    Sum ticks = 0, wait = 0;
  };
  // Called for each operation with the parts that are known, by rank.
  struct Observer {
    void* user = nullptr;
    void (*operation)(void* user, const CollectiveRecord& record,
                      const std::vector<Part>& parts) = nullptr;
  };

  Collectives(Definitions& definitions, Calls& calls) : definitions_(definitions), calls_(calls) {}

  Window window;
  Observer observer;

  // Adds an operation; its waiting times go to `waits` unless that is null.
  void add(const CollectiveRecord& record, Waits* waits);

  [[nodiscard]] const std::vector<Row>& rows() const { return rows_; }
  [[nodiscard]] uint64_t count() const { return count_; }

 private:
  bool readParts(const CollectiveRecord& record);
  void addToTable(const CollectiveRecord& record);
  void findWaits(const CollectiveRecord& record, bool complete, Waits& waits);
  void waitForLast(WaitKind kind, uint32_t function, Waits& waits);
  void waitForRoot(uint32_t root, uint32_t function, Waits& waits);
  void rootWaits(uint32_t root, uint32_t function, Waits& waits);

  Definitions& definitions_;
  Calls& calls_;
  std::vector<Part> parts_;  // of the current record
  KeyIndex keys_;
  std::vector<Row> rows_;
  uint64_t count_ = 0;
};

}  // namespace kla
