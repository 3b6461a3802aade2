// Writes the records of one thread to a raw trace.
#pragma once

#include <cstdint>
#include <map>
#include <unordered_map>
#include <utility>
#include <vector>

#include "klt/klt_writer.h"
#include "record/convert/klt_names.h"
#include "record/convert/klt_receive_order.h"
#include "record/convert/klt_time.h"

namespace record {

// What the records of a process say about records elsewhere in it, by thread << 48 | number.
struct CrossReferences {
  std::unordered_map<uint64_t, uint64_t> completed;  // when a nonblocking operation ended, in ticks
  std::unordered_map<uint64_t, bool> takenBack;      // sends that have not happened

  explicit CrossReferences(std::span<const ThreadRecords> threads);
  [[nodiscard]] static uint64_t keyOf(uint64_t thread, uint64_t number) {
    return thread << 48 | (number & 0xffffffffffffULL);
  }
};

// Numbers the collective operations of each communicator in one process, from 1.
using CollectiveCounters = std::unordered_map<uint32_t, uint32_t>;

class ThreadWriter {
 public:
  ThreadWriter(KLT_TraceWriter* writer, Names& names, LocalIds& ids, const TimeLine& line,
               const CrossReferences& references, CollectiveCounters& counters, uint32_t gtp)
      : writer_(writer),
        names_(names),
        ids_(ids),
        line_(line),
        references_(references),
        counters_(counters),
        gtp_(gtp) {}

  // Writes all records. `start` is when main began (in ticks; 0: not in this thread), `stop` when
  // the record ended (0: with its last record).
  void write(const ThreadRecords& records, uint64_t start, uint64_t stop);

 private:
  struct Call {
    uint32_t function = 0;
    uint64_t identity = 0;  // what a leave record has of the function
  };

  // The time of `ticks`; never before that of the last event.
  uint64_t timeOf(uint64_t ticks);
  void put(const klt_record& record, uint64_t number, ReceiveOrder& order);
  void enter(uint64_t time, uint32_t function, uint64_t identity);
  void leave(uint64_t time, uint64_t identity);
  void putMessage(KLT_RawKind kind, const klt_record& record);
  void putCollective(const klt_record& record, uint64_t end);
  void finishCollective(uint64_t end);
  void putFile(const klt_record& record, uint64_t time);
  void putOther(const klt_record& record, uint64_t time);

  KLT_TraceWriter* writer_;
  Names& names_;
  LocalIds& ids_;
  const TimeLine& line_;
  const CrossReferences& references_;
  CollectiveCounters& counters_;
  uint32_t gtp_;
  uint64_t last_ = 0;
  std::vector<Call> stack_;
  klt_record collective_{};  // whose call isn't left yet; kind 0: none
  uint64_t end_ = 0;         // ticks of the end of the record
};

}  // namespace record
