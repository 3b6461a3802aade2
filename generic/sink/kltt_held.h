// Records of histories on their way into a binary trace.
//
// What is under way when a window begins, and the last samples of counters, are delivered thread by
// thread and stream by stream, with times before the window. The records of a component are in
// order of time, so these wait here, together with the records of the moment at which the window
// begins, and are written in order once a later record comes. kltt_binary decides what waits;
// kltt_events has it written when its time comes.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <utility>
#include <vector>

struct KLT_WFileHandle;

class KLTT_HeldRecords {
 public:
  using Put = std::function<int(KLT_WFileHandle*)>;

  // Whether records wait for `moment` to be over (internal time, as all times here).
  [[nodiscard]] bool waitFor(uint64_t moment) const {
    return !moments_.empty() && moments_.contains(moment);
  }
  // Adds a record of `time`. True if it is the first that waits for `moment`.
  bool add(uint64_t moment, uint64_t time, Put put) {
    std::vector<Record>& records = moments_[moment];
    records.push_back({time, std::move(put)});
    return records.size() == 1;
  }
  // Writes what waits for `moment`; the writer itself reports what can't be written.
  void write(uint64_t moment, KLT_WFileHandle* writer) {
    auto node = moments_.extract(moment);
    if (node.empty()) return;
    std::vector<Record>& records = node.mapped();
    std::stable_sort(records.begin(), records.end(),
                     [](const Record& a, const Record& b) { return a.time < b.time; });
    for (const Record& record : records) (void)record.put(writer);
  }

 private:
  struct Record {
    uint64_t time;
    Put put;
  };
  std::map<uint64_t, std::vector<Record>> moments_;
};
