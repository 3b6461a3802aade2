// Implements the public writer (klt/klt_writer.h): checks arguments, chooses the row of a record,
// and counts events.
#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <utility>

#include "klt/format/klt_values.h"
#include "klt/format/klt_wire.h"
#include "klt/klt_writer.h"
#include "klt/storage/klt_storage.h"
#include "klt/write/klt_write.h"
#include "util/triplets/pal_triplets.h"

namespace {

using klt::CollopKind;

struct Operation {
  const char* name;
  CollopKind kind;
};

// The operations by id, from 1.
constexpr std::array<Operation, 45> kOperations = {{
    {"MPI_Barrier", CollopKind::kAll},
    {"MPI_Ibarrier", CollopKind::kAll},
    {"MPI_Bcast", CollopKind::kOneToAll},
    {"MPI_Ibcast", CollopKind::kOneToAll},
    {"MPI_Gather", CollopKind::kAllToOne},
    {"MPI_Igather", CollopKind::kAllToOne},
    {"MPI_Gatherv", CollopKind::kAllToOne},
    {"MPI_Igatherv", CollopKind::kAllToOne},
    {"MPI_Scatter", CollopKind::kOneToAll},
    {"MPI_Iscatter", CollopKind::kOneToAll},
    {"MPI_Scatterv", CollopKind::kOneToAll},
    {"MPI_Iscatterv", CollopKind::kOneToAll},
    {"MPI_Allgather", CollopKind::kAllToAll},
    {"MPI_Iallgather", CollopKind::kAllToAll},
    {"MPI_Allgatherv", CollopKind::kAllToAll},
    {"MPI_Iallgatherv", CollopKind::kAllToAll},
    {"MPI_Alltoall", CollopKind::kAllToAll},
    {"MPI_Ialltoall", CollopKind::kAllToAll},
    {"MPI_Alltoallv", CollopKind::kAllToAll},
    {"MPI_Ialltoallv", CollopKind::kAllToAll},
    {"MPI_Alltoallw", CollopKind::kAllToAll},
    {"MPI_Ialltoallw", CollopKind::kAllToAll},
    {"MPI_Neighbor_allgather", CollopKind::kAllToAll},
    {"MPI_Ineighbor_allgather", CollopKind::kAllToAll},
    {"MPI_Neighbor_allgatherv", CollopKind::kAllToAll},
    {"MPI_Ineighbor_allgatherv", CollopKind::kAllToAll},
    {"MPI_Neighbor_alltoall", CollopKind::kAllToAll},
    {"MPI_Ineighbor_alltoall", CollopKind::kAllToAll},
    {"MPI_Neighbor_alltoallv", CollopKind::kAllToAll},
    {"MPI_Ineighbor_alltoallv", CollopKind::kAllToAll},
    {"MPI_Neighbor_alltoallw", CollopKind::kAllToAll},
    {"MPI_Ineighbor_alltoallw", CollopKind::kAllToAll},
    {"MPI_Reduce", CollopKind::kAllToOne},
    {"MPI_Reduce_local", CollopKind::kAllToOne},
    {"MPI_Ireduce", CollopKind::kAllToOne},
    {"MPI_Allreduce", CollopKind::kAllToAll},
    {"MPI_Iallreduce", CollopKind::kAllToAll},
    {"MPI_Reduce_Scatter", CollopKind::kAllToAll},
    {"MPI_Reduce_Scatter_Block", CollopKind::kAllToAll},
    {"MPI_Ireduce_Scatter", CollopKind::kAllToAll},
    {"MPI_Ireduce_Scatter_Block", CollopKind::kAllToAll},
    {"MPI_Scan", CollopKind::kAllToAll},
    {"MPI_Iscan", CollopKind::kAllToAll},
    {"MPI_Exscan", CollopKind::kAllToAll},
    {"MPI_Iexscan", CollopKind::kAllToAll},
}};

constexpr const char* kNotWritten = "a file of the trace can't be written";
constexpr uint32_t kInteger = 1;
constexpr uint32_t kReal = 2;
constexpr uint32_t kRawCollective = 10;
constexpr uint32_t kAllProcessesGroup = kKltAllProcesses & 0x7fffffff;
constexpr uint32_t kMaxProcesses = 0x10000;
constexpr uint32_t kMaxId16 = 0xffff;

// Numbers of processes as parallel arrays of triplets, the form in which a record contains them.
struct Members {
  explicit Members(std::span<const uint32_t> processes) {
    std::vector<int32_t> numbers(processes.begin(), processes.end());
    const PAL_Triplets triplets = PAL_TripletsCompress(numbers, false);
    count = static_cast<uint32_t>(triplets.size());
    parts = PAL_TripletsToParallel(triplets);
  }
  [[nodiscard]] const uint32_t* first() const {
    return reinterpret_cast<const uint32_t*>(parts.data());
  }
  [[nodiscard]] const uint32_t* last() const { return first() + count; }
  [[nodiscard]] const int32_t* stride() const { return parts.data() + 2 * size_t{count}; }

  uint32_t count = 0;
  std::vector<int32_t> parts;
};

}  // namespace

struct KLT_TraceWriter {
  struct Closer {
    void operator()(KLT_WFileHandle* handle) const { KLT_WriterFree(handle); }
  };

  std::unique_ptr<KLT_WFileHandle, Closer> out;
  std::string error;  // the first failure
  uint64_t end = 0;   // the latest time of all events
  unsigned processBits = 2;
  bool hasProcesses = false;
  uint64_t definedOperations = 0;  // a bit for each id
  KLT_EventCounts counts;

  bool fail(const char* reason) {
    if (error.empty()) error = reason;
    return false;
  }
  template <int Row, class... Args>
  bool put(Args... args) {
    if (out == nullptr) return fail("the trace is finished");
    if (KLT_Write<Row>(out.get(), nullptr, args...) != 0) [[likely]]
      return true;
    return fail(kNotWritten);
  }
  void sawTime(uint64_t time) { end = std::max(end, time); }
  bool defineOperation(uint32_t operation);
  [[nodiscard]] uint32_t rawKind(uint32_t kind, uint32_t thread) const {
    return kind | klt::processOf(thread) << 6 | klt::threadOf(thread) << (6 + processBits);
  }
};

// Defines a collective operation when it is used for the first time.
bool KLT_TraceWriter::defineOperation(uint32_t operation) {
  if (operation == 0 || operation > kOperations.size())
    return fail("there is no such collective operation");
  if ((definedOperations >> operation & 1) != 0) [[likely]]
    return true;
  definedOperations |= uint64_t{1} << operation;
  const Operation& known = kOperations[operation - 1];
  return put<KLT_Row::collectiveOperationDefinition>(operation, known.name,
                                                     static_cast<uint32_t>(known.kind));
}

KLT_TraceWriter* KLT_CreateTrace(const std::string& name, const KLT_TraceOptions& options,
                                 std::string& error) {
  if (!(options.resolution > 0)) {
    error = "the resolution must be positive";
    return nullptr;
  }
  auto writer = std::make_unique<KLT_TraceWriter>();
  errno = 0;
  writer->out.reset(KLT_WriterOpen(nullptr, name.c_str(), 1,
                                   options.single ? KLT_FORM_SINGLE : KLT_FORM_PLAIN,
                                   options.raw ? 1 : 0, nullptr));
  if (writer->out == nullptr) {
    error = errno != 0 ? std::strerror(errno) : "the trace can't be created";
    return nullptr;
  }
  KLT_TraceWriter* const w = writer.get();
  const bool defined =
      w->put<KLT_Row::clockResolution>(options.resolution, uint32_t{0}) &&
      w->put<KLT_Row::classDefinition>(kKltClassApplication, "Application", "Application", 0U) &&
      w->put<KLT_Row::classDefinition>(kKltClassMpi, "MPI", "MPI", 0U);
  if (!defined) {
    error = w->error;
    return nullptr;
  }
  return writer.release();
}

std::string KLT_FinishTrace(KLT_TraceWriter* writer) {
  if (writer->out == nullptr) return "the trace is finished";
  if (!writer->hasProcesses) writer->fail("the processes aren't defined");
  writer->put<KLT_Row::duration>(uint64_t{0}, writer->end);
  // A merge needs the class of the text.
  if (!KLT_WriteEventCounts(writer->out.get(), writer->counts, kKltClassApplication))
    writer->fail(kNotWritten);
  bool isComplete = false;
  if (const char* problem = KLT_WriterClose(writer->out.release(), &isComplete))
    writer->fail(problem);
  if (!isComplete) writer->fail("a file of the trace is incomplete");
  return writer->error;
}

void KLT_FreeTrace(KLT_TraceWriter* writer) { delete writer; }

bool KLT_DefineProcesses(KLT_TraceWriter* writer, const std::vector<uint32_t>& threads) {
  const auto n = static_cast<uint32_t>(threads.size());
  if (writer->hasProcesses) return writer->fail("the processes are defined already");
  if (n == 0 || threads.size() > kMaxProcesses) return writer->fail("1 to 65536 processes, please");
  writer->hasProcesses = true;
  writer->processBits = std::max(2U, static_cast<unsigned>(std::bit_width(n - 1)));
  std::vector<uint32_t> all(n);
  for (uint32_t p = 0; p < n; ++p) all[p] = p;
  return writer->put<KLT_Row::processDeclaration>(n, threads.data()) &&
         writer->put<KLT_Row::groupDefinition>(kAllProcessesGroup, "All processes", n, all.data());
}

bool KLT_DefineThreadName(KLT_TraceWriter* writer, uint32_t thread, const char* name) {
  return writer->put<KLT_Row::willyName>(thread, name);
}

bool KLT_DefineHost(KLT_TraceWriter* writer, uint32_t thread, const char* host, uint32_t pid) {
  return writer->put<KLT_Row::willyDefinition>(thread, host, "", pid, uint64_t{0}, 0.0, 1.0);
}

bool KLT_DefineClass(KLT_TraceWriter* writer, uint32_t id, const char* name) {
  if (id <= kKltClassMpi) return writer->fail("classes have ids above 2");
  return writer->put<KLT_Row::classDefinition>(id, name, name, 0U);
}

bool KLT_DefineFunction(KLT_TraceWriter* writer, uint32_t id, const char* name, uint32_t classId) {
  return writer->put<KLT_Row::functionDefinition>(id, name, classId);
}

bool KLT_DefineScope(KLT_TraceWriter* writer, uint32_t id, const char* name, uint32_t classId) {
  return writer->put<KLT_Row::scopeDefinition>(id, name, classId, 0U, 0U);
}

bool KLT_DefineCommunicator(KLT_TraceWriter* writer, uint32_t id, const char* name,
                            std::span<const uint32_t> processes, int32_t leftSize) {
  if (id == 0 || id > kMaxId16) return writer->fail("communicators have ids from 1 to 65535");
  const Members members(processes);
  return writer->put<KLT_Row::communicatorDefinition>(id, name, members.count, members.first(),
                                                      members.last(), members.stride(), leftSize);
}

bool KLT_DefineFile(KLT_TraceWriter* writer, uint32_t id, const char* name, uint32_t communicator) {
  if (id == 0 || id > kMaxId16) return writer->fail("files have ids from 1 to 65535");
  return writer->put<KLT_Row::fileIoFileDefinition>(id, communicator, name);
}

bool KLT_DefineCounter(KLT_TraceWriter* writer, uint32_t id, const char* name, const char* unit,
                       bool isReal, uint32_t owner) {
  if (id == 0 || id > kMaxId16) return writer->fail("counters have ids from 1 to 65535");
  return writer->put<KLT_Row::counterDefinition>(id, name, isReal ? kReal : kInteger, 0U,
                                                 uint64_t{0}, uint64_t{0}, owner,
                                                 kKltClassApplication, unit);
}

bool KLT_DefineInfo(KLT_TraceWriter* writer, const char* text) {
  return writer->put<KLT_Row::info>(kKltClassApplication, text);
}

bool KLT_PutEnter(KLT_TraceWriter* writer, uint64_t time, uint32_t thread, uint32_t function) {
  writer->sawTime(time);
  ++writer->counts.functions;
  return writer->put<KLT_Row::enterFunction>(time, thread, function);
}

bool KLT_PutLeave(KLT_TraceWriter* writer, uint64_t time, uint32_t thread) {
  writer->sawTime(time);
  return writer->put<KLT_Row::leaveFunction>(time, thread);
}

bool KLT_PutScopeBegin(KLT_TraceWriter* writer, uint64_t time, uint32_t thread, uint32_t scope,
                       uint32_t instance) {
  writer->sawTime(time);
  ++writer->counts.scopes;
  return writer->put<KLT_Row::enterScope>(time, thread, scope, instance);
}

bool KLT_PutScopeEnd(KLT_TraceWriter* writer, uint64_t time, uint32_t thread, uint32_t scope,
                     uint32_t instance) {
  writer->sawTime(time);
  return writer->put<KLT_Row::leaveScope>(time, thread, scope, instance);
}

bool KLT_PutSample(KLT_TraceWriter* writer, uint64_t time, uint32_t thread, uint32_t counter,
                   int64_t value) {
  writer->sawTime(time);
  ++writer->counts.counters;
  const uint64_t bytes = klt::bigEndian(std::bit_cast<uint64_t>(value));
  return writer->put<KLT_Row::counterValue>(time, thread, 1U, &bytes, &counter);
}

bool KLT_PutRealSample(KLT_TraceWriter* writer, uint64_t time, uint32_t thread, uint32_t counter,
                       double value) {
  return KLT_PutSample(writer, time, thread, counter, std::bit_cast<int64_t>(value));
}

bool KLT_PutFileBegin(KLT_TraceWriter* writer, uint64_t time, uint32_t thread,
                      KLT_FileOperation operation, uint32_t file, uint32_t bytes) {
  writer->sawTime(time);
  return writer->put<KLT_Row::fileIoBegin>(time, thread, static_cast<uint32_t>(operation), file,
                                           bytes);
}

bool KLT_PutFileEnd(KLT_TraceWriter* writer, uint64_t time, uint32_t thread,
                    KLT_FileOperation operation, uint32_t file, uint32_t bytes) {
  writer->sawTime(time);
  return writer->put<KLT_Row::fileIoEnd>(time, thread, static_cast<uint32_t>(operation), file,
                                         bytes);
}

bool KLT_PutComment(KLT_TraceWriter* writer, uint64_t time, uint32_t thread, const char* text) {
  writer->sawTime(time);
  return writer->put<KLT_Row::comment>(time, thread, text);
}

uint32_t KLT_CollectiveOperation(const char* name) {
  const auto found =
      std::find_if(kOperations.begin(), kOperations.end(),
                   [name](const auto& known) { return std::strcmp(known.name, name) == 0; });
  return found == kOperations.end() ? 0 : static_cast<uint32_t>(found - kOperations.begin()) + 1;
}

bool KLT_PutMessage(KLT_TraceWriter* writer, const KLT_MessageSide& sender,
                    const KLT_MessageSide& receiver, const KLT_Envelope& envelope) {
  const uint64_t start = std::min(sender.time, receiver.time);
  const auto delay = static_cast<int64_t>(receiver.time - sender.time);
  writer->sawTime(std::max(sender.time, receiver.time));
  ++writer->counts.oneToOnes;
  if (envelope.tag > kMaxId16) {
    return writer->put<KLT_Row::oneToOneCommunicationWide>(
        start, sender.thread, delay, receiver.thread, envelope.communicator, envelope.bytes,
        envelope.tag, sender.function, receiver.function);
  }
  return writer->put<KLT_Row::oneToOneCommunication>(
      start, sender.thread, delay, receiver.thread, envelope.communicator, envelope.bytes,
      envelope.tag, sender.function, receiver.function);
}

bool KLT_PutCollective(KLT_TraceWriter* writer, uint32_t operation, uint32_t communicator,
                       uint32_t root, std::span<const KLT_CollectivePart> parts) {
  if (!writer->defineOperation(operation)) return false;
  if (parts.empty()) return writer->fail("a collective operation has no members");
  uint64_t time = ~uint64_t{0};
  for (const KLT_CollectivePart& part : parts) time = std::min(time, part.begin);
  std::vector<uint64_t> starts;
  std::vector<uint64_t> deltas;
  std::vector<uint32_t> sent;
  std::vector<uint32_t> received;
  for (const KLT_CollectivePart& part : parts) {
    writer->sawTime(part.end);
    starts.push_back(part.begin - time);
    deltas.push_back(part.end - part.begin);
    sent.push_back(part.sent);
    received.push_back(part.received);
  }
  ++writer->counts.collectives;
  const auto n = static_cast<uint32_t>(parts.size());
  // The amount of the root is the largest one, since it has no rank here.
  switch (kOperations[operation - 1].kind) {
    case CollopKind::kOneToAll:
      return writer->put<KLT_Row::oneToAllCommunication>(
          time, root, *std::max_element(sent.begin(), sent.end()), communicator, operation, n,
          starts.data(), deltas.data(), received.data());
    case CollopKind::kAllToOne:
      return writer->put<KLT_Row::allToOneCommunication>(
          time, root, *std::max_element(received.begin(), received.end()), communicator, operation,
          n, starts.data(), deltas.data(), sent.data());
    case CollopKind::kAllToAll:
      return writer->put<KLT_Row::allToAllCommunication>(time, communicator, operation, n,
                                                         starts.data(), deltas.data(), sent.data(),
                                                         received.data());
    default:
      return writer->put<KLT_Row::allCommunication>(time, communicator, operation, n, starts.data(),
                                                    deltas.data());
  }
}

bool KLT_PutRawMessage(KLT_TraceWriter* writer, KLT_RawKind kind, const KLT_MessageSide& self,
                       uint32_t peer, const KLT_Envelope& envelope) {
  if (!writer->hasProcesses) return writer->fail("raw events need defined processes");
  writer->sawTime(self.time);
  const uint32_t word = writer->rawKind(static_cast<uint32_t>(kind), self.thread);
  if (envelope.tag > kMaxId16) {
    return writer->put<KLT_Row::messageRawEventWide>(
        self.time, self.thread, word, peer, envelope.tag, envelope.bytes, envelope.communicator,
        self.function, klt::kNoScl);
  }
  return writer->put<KLT_Row::messageRawEvent>(self.time, self.thread, word, peer, envelope.tag,
                                               envelope.bytes, envelope.communicator, self.function,
                                               klt::kNoScl);
}

bool KLT_PutRawCollective(KLT_TraceWriter* writer, uint32_t thread, uint32_t operation,
                          uint32_t communicator, uint32_t root, uint32_t counter,
                          const KLT_CollectivePart& part) {
  if (!writer->hasProcesses) return writer->fail("raw events need defined processes");
  if (!writer->defineOperation(operation)) return false;
  writer->sawTime(part.end);
  return writer->put<KLT_Row::collopRawEvent>(
      part.begin, thread, writer->rawKind(kRawCollective, thread), operation, communicator, counter,
      root, part.sent, part.received, static_cast<int64_t>(part.end), klt::kNoScl);
}
