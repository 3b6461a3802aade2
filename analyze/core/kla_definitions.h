// The definitions of a trace that the analysis needs: clock, names of functions, communicators,
// operations, counters and files.
//
// Names are kept as the trace has them; analyze/tables makes them safe to print. An id that isn't
// defined gets a name such as "function 7". Any number of definitions can share one long text, so
// names are pointers to the texts of the trace, which has to stay open.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "analyze/core/kla_keys.h"
#include "analyze/core/kla_types.h"
#include "klt/klt.h"

namespace kla {

struct Function {
  const char* name;
  uint32_t classIndex;  // kNone: none
  bool isMpi;           // class "MPI" or below it, or a name that begins with "MPI_"
};

struct FunctionClass {
  const char* own;  // the last part of the path, or all of it
  uint32_t parent;  // index, kNone: none
  bool isMpi;
};

struct Communicator {
  std::string name;
  PAL_Triplets members;  // by rank; none of them is empty
};

struct Counter {
  const char* name;
  std::string unit;
  bool isFloat;
};

struct Definitions {
  double resolution = 1;   // seconds of a unit of raw time
  uint32_t eventBits = 0;  // bits of raw time that count events within a tick of the clock
  bool hasClock = false;
  Window run;  // the declared start and end
  bool hasRun = false;
  std::vector<uint32_t> threads;    // number of threads by process
  KeyIndex functionIds{1 << 16};    // ids of functions, defined or not
  std::vector<Function> functions;  // by index, as the following
  KeyIndex classIds{1 << 16};
  std::vector<FunctionClass> classes;
  KeyIndex communicatorIds{1 << 16};
  std::vector<Communicator> communicators;
  KeyIndex operationIds{1 << 8};
  std::vector<std::string> operations;
  KeyIndex counterIds{1 << 16};
  std::vector<Counter> counters;
  KeyIndex fileIds{1 << 16}, scopeIds{1 << 16}, namedThreads{1 << 16};
  std::vector<const char*> files, scopes, threadNames;

  // The index of a function id, which is added with a made-up name if it isn't defined.
  uint32_t functionIndex(uint32_t id) {
    const uint32_t index = functionIds.find(id);
    return index != kNone ? index : addUndefined(id);
  }
  // The index of an operation's name in `functions`, for waiting times in no recorded call.
  uint32_t functionOfOperation(uint32_t operation);

  // Names of at most 1,000 bytes.
  [[nodiscard]] std::string functionName(uint32_t index) const;
  [[nodiscard]] std::string counterName(uint32_t id) const;
  // The path of a function's class, "MPI" or "Application:solver"; empty if it has none.
  [[nodiscard]] std::string className(const Function& function) const;
  [[nodiscard]] std::string operationName(uint32_t id) const;
  [[nodiscard]] std::string communicatorName(uint32_t id) const;
  [[nodiscard]] std::string fileName(uint32_t id) const;
  [[nodiscard]] std::string scopeName(uint32_t id) const;
  // The trace's name of a thread; empty if it has none.
  [[nodiscard]] std::string threadName(uint32_t gtp) const;

 private:
  uint32_t addUndefined(uint32_t id);

  std::deque<std::string> madeUp_;  // names of functions that the trace doesn't contain
};

// Reads the definitions of a trace. Returns the reader's last result, and sets `lostData` if parts
// couldn't be read.
int readDefinitions(KLT_FileHandle* trace, Definitions& definitions, bool& lostData);

// Reads to the end with this reader, also after damage, which the reader reports. Returns the last
// result other than KLT_STATUS_CONTINUING, and sets `damaged` after any damage.
int readAll(KLT_Reader* reader, bool& damaged);

}  // namespace kla
