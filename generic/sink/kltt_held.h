// KLTT_HeldRecords sorts the records of histories by time before they are written to a binary
// trace.
//
// Messages and operations in progress at the start of a window, and the last samples of counters,
// are delivered thread by thread and stream by stream, with times before the window. A component of
// a trace has to be in order of time. So these records wait here, together with the records at the
// start of the window itself, and are written in order before the first later record. kltt_binary
// decides which records wait; kltt_events makes it write them when their time is reached.
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
  using WriteFunction = std::function<int(KLT_WFileHandle*)>;

  // Whether records are held for exactly this `moment`. All times are internal.
  [[nodiscard]] bool waitFor(uint64_t moment) const {
    return !moments_.empty() && moments_.contains(moment);
  }
  // Holds a record of the time `time` until `moment`. True if it is the first of `moment`.
  bool add(uint64_t moment, uint64_t time, WriteFunction write) {
    std::vector<Record>& records = moments_[moment];
    records.push_back({time, std::move(write)});
    return records.size() == 1;
  }
  // Writes and removes the records that wait for `moment`. The writer itself reports failures.
  void write(uint64_t moment, KLT_WFileHandle* writer) {
    auto node = moments_.extract(moment);
    if (node.empty()) return;
    std::vector<Record>& records = node.mapped();
    std::stable_sort(records.begin(), records.end(),
                     [](const Record& a, const Record& b) { return a.time < b.time; });
    for (const Record& record : records) (void)record.write(writer);
  }

 private:
  struct Record {
    uint64_t time;
    WriteFunction write;
  };
  std::map<uint64_t, std::vector<Record>> moments_;
};
