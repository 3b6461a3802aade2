// Delivers the calls of each thread on their own, before the other records.
//
// A writer needs the records of one component in time order, but not those of different components.
// If a component has the calls of one thread and nothing else, its stream isn't merged with others:
// it is opened when its turn comes, read to its end and closed. This takes half of the time of a
// merge by time with thousands of streams, and the memory of one stream.
//
// The handler of a record can ask for a repetition. Then the record is delivered again, to another
// table, in the merge by time of all streams, in which a stream that has been read consists of its
// repeated records. So the caller learns the order of these records among all others. If records of
// different streams have the same time, this order can be different from that in a merge of all
// records.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "klt/format/klt_handlers.h"
#include "klt/format/klt_record.h"
#include "klt/klt.h"

struct KLT_Reader;

// The state of a reader that hasn't read all of these streams.
struct KLT_AloneStreams {
  KLT_AloneReceiver receiver;
  std::vector<bool> isAlone;  // by stream
  size_t next = 0;            // stream
  KLT_RecordBuffer repeated;  // records of the stream `next`
  uint64_t lastTime = 0;      // of the last of them
  KLT_HandlerTable merged;    // handlers of the merge by time
};

// The streams of the reader that can be read on their own. Null if they are few.
[[nodiscard]] std::unique_ptr<KLT_AloneStreams> KLT_ChooseAlone(const KLT_Reader& reader);
// Reads them. Returns a status as KLT_ReadEvents; KLT_STATUS_FINISHED if all are read and the merge
// by time is next.
[[nodiscard]] int KLT_ReadAlone(KLT_Reader& reader);
// Opens the other streams, which are all if `reader.alone` is null, and fills each of them once if
// delivery is in time order.
void KLT_OpenStreams(KLT_Reader& reader);
