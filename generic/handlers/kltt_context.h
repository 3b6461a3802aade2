// KLTT_Context is the state of an extraction and the `user_data` of all its handlers.
//
// The passes of kltt_extract fill it: the setup pass the clock and the process layout, the
// definition pass the tables (kltt_tables), the event pass the queue and the threads' stacks
// (kltt_events, kltt_collops). The handlers use three forms of time and name them differently: raw
// time and internal time (kltt_clock), and the time in a line of text (RK_SinkTime).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "generic/sink/RK_framewrite.h"
#include "generic/sink/RK_sink.h"
#include "generic/sink/kltt_clock.h"
#include "generic/sink/kltt_queue.h"
#include "generic/tables/kltt_classes.h"
#include "generic/tables/kltt_idtable.h"
#include "generic/tables/kltt_members.h"
#include "generic/text/RK_output.h"

struct KLTT_Communicator {
  uint32_t key = 0;
  KLTT_MemberList members;
};

struct KLTT_Counter {
  uint32_t key = 0;
  uint32_t flags = 0;  // bit 0: integer values
};

// A member's entry into a collective operation.
struct KLTT_PerfMember {
  uint32_t gtp;
  uint64_t time;  // raw
};

class KLTT_ByThread;

struct KLTT_Context : KLTT_Clock {
  // Duration and clock, from the setup pass.
  int64_t startTime = -1;     // raw
  int64_t endTime = 0;        // raw
  double clockPeriod = 0;     // seconds per tick
  double ticksPerSecond = 0;  // its reciprocal

  // Process layout. `totalThreads` isn't checked, so no memory is allocated per declared thread.
  uint32_t numProcesses = 1;
  std::vector<uint32_t> threadCounts;  // of each process; empty before the declaration
  uint64_t totalThreads = 0;

  // Definitions by id.
  KLTT_Table<KLTT_Counter> counters;
  KLTT_Table<KLTT_Communicator> communicators;
  std::shared_ptr<KLT_Texts> names = std::make_shared<KLT_Texts>();  // of all definitions
  KLTT_Classes classes;
  KLTT_Table<KLTT_Named> functions;  // extra: the class
  KLTT_Table<KLTT_Named> collops;    // extra: the kind, 1 one-to-all to 4 all
  KLTT_Table<KLTT_Named> statistics;

  // Events.
  RK_Sink* sink = nullptr;     // null while nothing is written
  bool matched = false;        // one line for a message or operation, not for each side
  uint64_t commentAmount = 0;  // the part of the sink's amount() that comes from definitions
  uint64_t lastEventTime = 0;  // raw; the largest since the last begin_of_history
  KLTT_Queue pending;
  RK_FrameWriter frames;
  KLTT_ByThread* byThread = nullptr;  // null unless the calls of each thread are read on their own

  // Listings, and which of their header lines have been written.
  RK_Output* listing = RK_Stdout();
  bool functionHeader = false;
  bool messageHeader = false;
  bool collectiveHeader = false;

  // For the performance test (kltt_perf): the members of all operations, one operation after
  // another, and for each operation the index of the end of its members.
  std::vector<KLTT_PerfMember> perfMembers;
  std::vector<size_t> perfEnds;

  // Buffers for the arrays of one record.
  std::vector<uint32_t> scratchBytes;
  std::vector<uint32_t> scratchMembers;
  std::vector<uint8_t> scratchTypes;
};
