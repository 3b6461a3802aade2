// Reads definitions. See kla_definitions.h.
#include "analyze/core/kla_definitions.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <span>
#include <string_view>
#include <utility>

namespace kla {

namespace {

// Keys in `functionIds` of the names of operations, above all ids of functions.
constexpr uint64_t kOperationKey = uint64_t{1} << 32;
constexpr uint32_t kFloatCounter = 2;
constexpr size_t kMostNameBytes = 1000;
constexpr size_t kMaxClassParts = 16;  // a longer path is cut at its root
constexpr size_t kMaxClassBytes = 256;

Definitions& in(void* user) { return *static_cast<Definitions*>(user); }
// A text, shortened: many results can have the same long name.
std::string textOf(const char* text) {
  return text == nullptr ? "" : std::string(text, strnlen(text, kMostNameBytes));
}

// Stores the value of a new id; the first definition of an id is valid.
template <class Value>
void store(KeyIndex& ids, std::vector<Value>& values, uint64_t id, Value value) {
  if (ids.find(id) != kNone) return;
  (void)ids[id];
  values.push_back(std::move(value));
}

// `start` has the first four bytes of a path.
bool isMpiClass(std::string_view start) { return start == "MPI" || start == "MPI:"; }

bool startsWithMpi(const char* text) {
  std::string_view name(text, strnlen(text, 6));
  constexpr std::string_view kPrefix = "mpi_";
  if (name.size() > 5 && (name.front() == 'P' || name.front() == 'p')) name.remove_prefix(1);
  return name.size() > kPrefix.size() &&
         std::equal(kPrefix.begin(), kPrefix.end(), name.begin(), [](char a, char b) {
           return a == std::tolower(static_cast<unsigned char>(b));
         });
}

int onClock(void* user, double resolution, uint32_t eventBits) {
  Definitions& d = in(user);
  d.hasClock = std::isfinite(resolution) && resolution > 0;
  if (d.hasClock) d.resolution = resolution;
  d.eventBits = eventBits;
  return 0;
}
int onDuration(void* user, uint64_t start, uint64_t end) {
  Definitions& d = in(user);
  d.hasRun = start < end;
  if (d.hasRun) d.run = {start, end};
  return 0;
}
int onProcesses(void* user, uint32_t count, const uint32_t* threads) {
  in(user).threads.assign(threads, threads + count);
  return 0;
}
int onClass(void* user, uint32_t id, const char* name, const char* own, uint32_t parentId) {
  Definitions& d = in(user);
  const uint32_t parent = parentId == 0 ? kNone : d.classIds.find(parentId);
  const char* part = parent != kNone || name == nullptr ? own : name;
  if (part == nullptr) part = "";
  const bool isMpi = parent != kNone ? d.classes[parent].isMpi
                                     : isMpiClass(std::string_view(part, strnlen(part, 4)));
  store(d.classIds, d.classes, id, FunctionClass{part, parent, isMpi});
  return 0;
}
int onFunction(void* user, uint32_t id, const char* name, uint32_t classId) {
  Definitions& d = in(user);
  if (name == nullptr) return 0;
  const uint32_t index = d.classIds.find(classId);
  const bool isMpi = (index != kNone && d.classes[index].isMpi) || startsWithMpi(name);
  store(d.functionIds, d.functions, id, Function{name, index, isMpi});
  return 0;
}
int onCommunicator(void* user, uint32_t id, const char* name, uint32_t count,
                   const PAL_Triplet* members, int32_t) {
  Definitions& d = in(user);
  Communicator communicator{textOf(name), {}};
  for (const PAL_Triplet& t : std::span(members, count)) {
    const bool isEmpty = t.stride == 0 || (t.stride > 0 ? t.first > t.last : t.first < t.last);
    if (!isEmpty) communicator.members.push_back(t);
  }
  store(d.communicatorIds, d.communicators, id, std::move(communicator));
  return 0;
}
int onOperation(void* user, uint32_t id, const char* name, uint32_t) {
  Definitions& d = in(user);
  store(d.operationIds, d.operations, id, textOf(name));
  return 0;
}
int onCounter(void* user, uint32_t id, const char* name, uint32_t type, const uint64_t*, uint32_t,
              uint32_t, const char* unit) {
  Definitions& d = in(user);
  store(d.counterIds, d.counters, id, Counter{name, textOf(unit), (type & kFloatCounter) != 0});
  return 0;
}
int onFile(void* user, uint32_t id, uint32_t, const char* name) {
  Definitions& d = in(user);
  store(d.fileIds, d.files, id, name);
  return 0;
}
int onScope(void* user, uint32_t id, const char* name, uint32_t, uint32_t, uint32_t) {
  Definitions& d = in(user);
  store(d.scopeIds, d.scopes, id, name);
  return 0;
}
int onThreadName(void* user, uint32_t gtp, const char* name) {
  Definitions& d = in(user);
  store(d.namedThreads, d.threadNames, gtp, name);
  return 0;
}

KLT_HandlerTable handlers(Definitions& definitions) {
  KLT_HandlerTable table;
  table.user_data = &definitions;
  table.clock_resolution = &onClock;
  table.duration = &onDuration;
  table.process_declaration = &onProcesses;
  table.class_definition = &onClass;
  table.function_definition = &onFunction;
  table.communicator_definition = &onCommunicator;
  table.collective_operation_definition = &onOperation;
  table.counter_definition = &onCounter;
  table.file_io_file_definition = &onFile;
  table.scope_definition = &onScope;
  table.willy_name = &onThreadName;
  return table;
}

std::string numbered(const char* what, uint32_t id) {
  return std::string(what) + " " + std::to_string(id);
}

// The name with this id; a made-up one if there is none, or if it is empty.
std::string nameOr(const KeyIndex& ids, const std::vector<const char*>& names, uint32_t id,
                   const char* what) {
  const uint32_t index = ids.find(id);
  const char* name = index == kNone ? nullptr : names[index];
  return name != nullptr && *name != 0 ? textOf(name) : numbered(what, id);
}

}  // namespace

uint32_t Definitions::addUndefined(uint32_t id) {
  madeUp_.push_back(numbered("function", id));
  functions.push_back({madeUp_.back().c_str(), kNone, false});
  return functionIds[id];
}

uint32_t Definitions::functionOfOperation(uint32_t operation) {
  const uint64_t key = kOperationKey + operation;
  if (functionIds.find(key) == kNone) {
    madeUp_.push_back(operationName(operation));
    functions.push_back({madeUp_.back().c_str(), kNone, true});
  }
  return functionIds[key];
}

std::string Definitions::functionName(uint32_t index) const {
  return textOf(functions[index].name);
}

std::string Definitions::counterName(uint32_t id) const {
  const uint32_t index = counterIds.find(id);
  const char* name = index == kNone ? nullptr : counters[index].name;
  return name != nullptr && *name != 0 ? textOf(name) : numbered("counter", id);
}

std::string Definitions::className(const Function& function) const {
  std::vector<const char*> parts;
  for (uint32_t at = function.classIndex; at != kNone && parts.size() < kMaxClassParts;) {
    parts.push_back(classes[at].own);
    at = classes[at].parent;
  }
  std::string path;
  for (auto part = parts.rbegin(); part != parts.rend() && path.size() < kMaxClassBytes; ++part) {
    path += path.empty() ? "" : ":";
    path.append(*part, strnlen(*part, kMaxClassBytes));
  }
  return path;
}

std::string Definitions::operationName(uint32_t id) const {
  const uint32_t index = operationIds.find(id);
  if (index != kNone && !operations[index].empty()) return operations[index];
  return numbered("operation", id);
}
std::string Definitions::communicatorName(uint32_t id) const {
  const uint32_t index = communicatorIds.find(id);
  if (index != kNone && !communicators[index].name.empty()) return communicators[index].name;
  return numbered("communicator", id);
}
std::string Definitions::fileName(uint32_t id) const { return nameOr(fileIds, files, id, "file"); }
std::string Definitions::scopeName(uint32_t id) const {
  return nameOr(scopeIds, scopes, id, "scope");
}
std::string Definitions::threadName(uint32_t gtp) const {
  const uint32_t index = namedThreads.find(gtp);
  return index == kNone ? "" : textOf(threadNames[index]);
}

int readAll(KLT_Reader* reader, bool& damaged) {
  if (reader == nullptr) return KLT_STATUS_ABORTING;
  int status = KLT_ReadEvents(reader, -1);
  for (; status == KLT_STATUS_CONTINUING; status = KLT_ReadEvents(reader, -1)) damaged = true;
  damaged = damaged || status != KLT_STATUS_FINISHED || KLT_ReaderLostData(reader);
  return status;
}

int readDefinitions(KLT_FileHandle* trace, Definitions& definitions, bool& lostData) {
  const KLT_HandlerTable table = handlers(definitions);
  const KLT_OwnedReader reader(KLT_OpenReader(trace, KLT_MODE_DEFINITIONS, 0, nullptr, &table, 1));
  return readAll(reader.get(), lostData);
}

}  // namespace kla
