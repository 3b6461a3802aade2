// Handles definition records. See kltt_tables.h.
#include "generic/handlers/kltt_tables.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "generic/handlers/kltt_context.h"
#include "generic/sink/RK_wtrace.h"
#include "generic/text/kltt_exit.h"
#include "util/pal_error.h"
#include "util/pal_mem.h"

namespace {

KLTT_Context& contextOf(void* user) { return *static_cast<KLTT_Context*>(user); }

const char* shown(const char* text) { return text == nullptr ? "(null)" : text; }

// A name from the trace, made safe for a message.
std::string printable(const char* text) { return PAL_Printable(shown(text)); }

// The class that a definition describes, without the definition's redundant names. Ends the process
// if the definition is invalid.
KLTT_Class checkedClass(KLTT_Context& context, uint32_t id, const char* name, const char* nameSelf,
                        uint32_t parent) {
  if (parent == 0) {
    const char* own = name != nullptr ? name : nameSelf;
    if (own == nullptr) {
      KLTT_Fatal("class def: unable to obtain full name: name %s, nameself %s, parent %d",
                 shown(name), shown(nameSelf), 0);
    }
    if (name != nullptr && nameSelf != nullptr && name != nameSelf &&
        std::string_view(name) != nameSelf) {
      KLTT_Fatal("class def with different names: %s != %s", printable(nameSelf).c_str(),
                 printable(name).c_str());
    }
    return {.key = id, .own = context.names->keep(own), .pathBytes = std::strlen(own)};
  }
  const KLTT_Class* above = context.classes.find(parent);
  if (above == nullptr) KLTT_Fatal("class def with invalid parent");
  if (nameSelf == nullptr) KLTT_Fatal("class def without nameself");
  const KLTT_Class result{.key = id,
                          .parent = parent,
                          .own = context.names->keep(nameSelf),
                          .pathBytes = above->pathBytes + 1 + std::strlen(nameSelf)};
  if (name != nullptr &&
      (std::strlen(name) != result.pathBytes || KLTT_ClassPath(context.classes, result) != name)) {
    KLTT_Fatal("class def with broken hierarchy: %s != %s",
               printable(KLTT_ClassPath(context.classes, result).c_str()).c_str(),
               printable(name).c_str());
  }
  return result;
}

}  // namespace

const KLTT_MemberList& KLTT_GetIndexInComm(const KLTT_Context& context, uint32_t id,
                                           const char* record) {
  if (id == 0) KLTT_Fatal("%s record without communicator id", record);
  const KLTT_Communicator* communicator = context.communicators.find(id);
  if (communicator == nullptr) KLTT_Fatal("%s record with undefined communicator id", record);
  return communicator->members;
}

const uint32_t* KLTT_MembersForStats(void* context, uint32_t communicator, size_t most,
                                     size_t* count) {
  KLTT_Context& own = contextOf(context);
  const KLTT_Communicator* found = own.communicators.find(communicator);
  if (found == nullptr) return nullptr;
  std::vector<uint32_t>& gtps = own.scratchMembers;
  gtps.clear();
  KLTT_MemberList::Cursor member(found->members);
  for (uint32_t gtp = 0; gtps.size() < most && member.next(&gtp);) gtps.push_back(gtp);
  *count = gtps.size();
  return gtps.data();
}

int KLTT_ProcessDeclaration(void* user, uint32_t n, const uint32_t* threads) {
  const PAL_Place here;
  KLTT_Context& context = contextOf(user);
  context.numProcesses = n;
  context.threadCounts.assign(threads, threads + n);
  context.totalThreads = 0;
  for (const uint32_t count : context.threadCounts) context.totalThreads += count;
  if (context.sink == nullptr) return 0;
  return context.sink->processDeclaration(context.threadCounts, context.totalThreads);
}

int KLTT_WillyName(void* user, uint32_t gtp, const char* name) {
  KLTT_Context& context = contextOf(user);
  return context.sink == nullptr ? 0 : context.sink->willyName(gtp, name);
}

int KLTT_WillyDefinition(void* user, uint32_t gtp, const char* hostname, const char* ip,
                         uint32_t pid, uint64_t tid, double offset, double skew) {
  const PAL_Place here;
  KLTT_Context& context = contextOf(user);
  if (context.sink == nullptr) return 0;
  char line[512];  // a longer line is truncated
  std::snprintf(line, sizeof line,
                "process #%u, thread #%u: host \"%s\", ip %s, pid %llu, tid %llu, offset %f, "
                "skew %f",
                gtp & 0xffff, gtp >> 16, shown(hostname), shown(ip),
                static_cast<long long unsigned>(pid), static_cast<long long unsigned>(tid), offset,
                skew);
  context.pending.addComment(0, line);
  return 0;
}

int KLTT_ClockResolution(void* user, double resolution, uint32_t eventBits) {
  KLTT_Context& context = contextOf(user);
  context.eventBits = std::min(eventBits, uint32_t{63});
  context.counterMask = (uint64_t{1} << context.eventBits) - 1;
  context.clockPeriod = std::ldexp(resolution, static_cast<int>(context.eventBits));
  context.ticksPerSecond = 1 / context.clockPeriod;
  return context.sink == nullptr ? 0 : context.sink->clockResolution(resolution, eventBits);
}

int KLTT_Duration(void* user, uint64_t start, uint64_t end) {
  KLTT_Context& context = contextOf(user);
  context.startTime = static_cast<int64_t>(start);
  context.endTime = static_cast<int64_t>(end);
  if (context.sink == nullptr) return 0;
  return context.sink->duration(KLTT_InternalTime(context, start), KLTT_InternalTime(context, end));
}

int KLTT_ClassDefinition(void* user, uint32_t id, const char* name, const char* nameSelf,
                         uint32_t parent) {
  const PAL_Place here;
  KLTT_Context& context = contextOf(user);
  KLTT_Class defined = checkedClass(context, id, name, nameSelf, parent);
  if (context.classes.indexOf(id) != 0) {
    KLTT_Fatal("duplicate class def: %d = %s", static_cast<int>(id),
               printable(KLTT_ClassPath(context.classes, defined).c_str()).c_str());
  }
  const int result = context.sink == nullptr
                         ? 0
                         : context.sink->classDefinition(context.classes, defined, nameSelf);
  if (KLTT_Class* entry = context.classes.insert(id)) *entry = defined;
  return result;
}

int KLTT_FunctionDefinition(void* user, uint32_t id, const char* name, uint32_t classId) {
  const PAL_Place here;
  KLTT_Context& context = contextOf(user);
  if (classId == 0) {
    KLTT_Fatal("class id of function #%d %s is zero", static_cast<int>(id),
               printable(name).c_str());
  }
  if (context.classes.indexOf(classId) == 0) {
    KLTT_Fatal("function def record with an undefined class id");
  }
  KLTT_TableInsert(context.functions, *context.names, id, name, classId);
  return context.sink == nullptr ? 0 : context.sink->functionDefinition(id, name, classId);
}

int KLTT_ScopeDefinition(void* user, uint32_t id, const char* name, uint32_t classId,
                         uint32_t startScl, uint32_t endScl) {
  KLTT_Context& context = contextOf(user);
  if (classId == 0) {
    KLTT_Fatal("class id of scope #%d %s is zero", static_cast<int>(id), printable(name).c_str());
  }
  if (context.classes.indexOf(classId) == 0) {
    KLTT_Fatal("scope def record with an undefined class id");
  }
  if (context.sink == nullptr) return 0;
  return context.sink->scopeDefinition(id, name, classId, startScl, endScl);
}

int KLTT_CommunicatorDefinition(void* user, uint32_t id, const char* name, uint32_t numTriplets,
                                const PAL_Triplet* triplets, int32_t leftSize) {
  const PAL_Place here;
  KLTT_Context& context = contextOf(user);
  const PAL_Triplets members = PAL_TripletsExpandable({triplets, numTriplets});
  if (KLTT_Communicator* communicator = context.communicators.insert(id)) {
    communicator->members = KLTT_MemberList(members);
  }
  if (context.sink == nullptr) return 0;
  return RK_SinkDefineCommunicator(context.sink, name, id, members,
                                   static_cast<uint32_t>(leftSize));
}

int KLTT_CollectiveOperationDefinition(void* user, uint32_t id, const char* name, uint32_t kind) {
  const PAL_Place here;
  KLTT_Context& context = contextOf(user);
  KLTT_TableInsert(context.collops, *context.names, id, name, kind);
  return context.sink == nullptr ? 0 : context.sink->collectiveOperationDefinition(id, name, kind);
}

int KLTT_CounterDefinition(void* user, uint32_t id, const char* name, uint32_t flags,
                           const uint64_t* bounds, uint32_t gtp, uint32_t classId,
                           const char* unit) {
  const PAL_Place here;
  KLTT_Context& context = contextOf(user);
  if (KLTT_Counter* counter = context.counters.insert(id)) counter->flags = flags;
  if (context.sink == nullptr) return 0;
  return context.sink->counterDefinition(id, name, flags, bounds, gtp, classId, unit);
}

int KLTT_GroupDefinition(void* user, uint32_t id, const char* name, uint32_t count,
                         const uint32_t* members) {
  KLTT_Context& context = contextOf(user);
  return context.sink == nullptr ? 0 : context.sink->groupDefinition(id, name, {members, count});
}

int KLTT_FileDefinition(void* user, uint32_t id, const char* name) {
  RK_Sink* sink = contextOf(user).sink;
  uint32_t outId = 0;
  return sink == nullptr ? 0 : RK_SinkDefineFile(sink, id, name, &outId);
}

int KLTT_SclDefinition(void* user, uint32_t id, uint32_t n, const uint32_t* files,
                       const uint32_t* lines, const char* const* symbols,
                       const char* const* objects) {
  KLTT_Context& context = contextOf(user);
  if (context.sink == nullptr) return 0;
  return context.sink->sclDefinition(id, n, files, lines, symbols, objects);
}

int KLTT_FileIoFileDefinition(void* user, uint32_t id, uint32_t communicator, const char* name) {
  KLTT_Context& context = contextOf(user);
  return context.sink == nullptr ? 0 : context.sink->ioFileDefinition(id, communicator, name);
}

int KLTT_Info(void* user, uint32_t classId, const char* text) {
  const PAL_Place here;
  KLTT_Context& context = contextOf(user);
  if (context.sink == nullptr) return 0;
  if (classId == 0) KLTT_Fatal("info record without a proper class id");
  if (context.classes.indexOf(classId) == 0) {
    KLTT_Fatal("info record with an undefined class id");
  }
  context.pending.addComment(0, shown(text), classId);
  return 0;
}
