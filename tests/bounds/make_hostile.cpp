// Makes hostile traces: large, deeply nested, with huge numbers, inconsistent.
//
//   make_hostile CASE DIRECTORY SIZE    the trace is DIRECTORY/t.klt
//   make_hostile                        prints the cases
//
// SIZE is the number of calls, definitions, scopes or messages in most cases.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "tests/builder/trace_builder.h"

namespace {

constexpr uint64_t kLatest = ~uint64_t{0};

void basics(tb::Trace& trace) {
  trace.clock(1e-6, 0).processes({1, 1}).defineClass(1, "A").function(1, "f", 1);
}

// Many definitions, open calls and scopes, and messages that are never received.
void crowd(tb::Trace& trace, uint64_t size) {
  basics(trace);
  trace.scope(1, "s", 1).communicator(1, "c", {{0, 1, 1}});
  tb::Stream& functions = trace.stream("f.0", tb::FUNCTIONS, {0});
  tb::Stream& scopes = trace.stream("s.0", tb::SCOPES, {0});
  tb::Stream& messages = trace.stream("msg", tb::MESSAGES);
  for (uint64_t i = 1; i <= size; ++i) {
    const auto number = static_cast<uint32_t>(i);
    trace.function(1 + number, "g", 1);
    functions.at(i).enter(0, 1);
    scopes.at(i).enterScope(0, 1, number);
    messages.at(i).message({.receiver = 1, .receiveTime = tb::kNoReceive, .communicator = 1});
  }
  for (uint64_t i = 1; i <= size; ++i) {
    scopes.at(size + i).leaveScope(0, 1, static_cast<uint32_t>(i));
  }
}

// Class paths of a long chain, and function names, that together are much longer than the trace.
void longNames(tb::Trace& trace, uint64_t size) {
  constexpr uint64_t kChainShare = 10;
  constexpr uint64_t kOthersShare = 50;
  constexpr uint64_t kLocationsShare = 5;
  basics(trace);
  const uint32_t self = trace.text("c");
  const auto deepest = static_cast<uint32_t>(2 + size / kChainShare);
  for (uint32_t id = 2; id <= deepest; ++id) {
    trace.declarations().record(12, {{"id", id}, {"nameself", self}, {"parent", id - 1}});
  }
  const std::string name(65535, 'n');
  for (uint32_t i = 0; i < size / kOthersShare; ++i) {
    trace.function(2 + i, name, 1);
    trace.declarations().record(47, {{"info_class", deepest}, {"info", "i"}});
  }
  const std::vector<uint32_t> texts(8, trace.text(name));
  for (uint32_t id = 1; id <= size / kLocationsShare; ++id) {
    trace.define("scl_definition", {{"id", id}, {"symbol", texts}, {"object", texts}});
  }
  trace.stream("f.0", tb::FUNCTIONS, {0}).at(1).enter(0, 1).at(2).leave(0);
}

void threads(tb::Trace& trace, uint64_t size) {
  basics(trace);
  tb::Stream& s = trace.stream("f", tb::FUNCTIONS);
  for (uint64_t i = 1; i <= size; ++i) {
    s.at(i).enter(static_cast<uint32_t>(i * 2654435761U), 1);
  }
}

constexpr size_t kHead = 8;  // bytes of a collective operation before the times of its members

// A component of which each 8 bytes are the head of an operation of 65,535 members.
tb::Stream& largeOperations(tb::Trace& trace) {
  trace.communicator(1, "c", {{0, 65534, 1}}).operation(1, "o", 4);
  tb::Stream& c = trace.streamOf("cop", tb::COLLOPS, {{0, 0, 1}});
  for (int i = 0; i < 1 << 18; ++i) c.bytes({"\3\0\0\0\1\1\xff\xff", kHead});
  return c;
}

// Components that share an anchor file, and entries of a history for one large record.
void seekPoints(tb::Trace& trace, uint64_t size) {
  constexpr uint64_t kShare = 50;
  basics(trace);
  tb::Stream& f = trace.streamOf("f.0", tb::FUNCTIONS, {{0, 0, 1}}).at(1).enter(0, 1).leave(0);
  tb::Stream& c = largeOperations(trace);
  for (uint32_t i = 0; i < size / kShare; ++i) {
    trace.declareComponent(100 + i, "f.0", tb::FUNCTIONS, f.fileId());
    for (int k = 0; k < 10; ++k) f.anchorRecord(9, {{"time_prev", 1}});
    c.anchorRecord(46, {{"file", c.fileId()}, {"offset", kHead * i}});
  }
  c.anchorRecord(9, {{"time_prev", 1}, {"offset", c.size()}});
}

// Components that share a file of large records, or whose seek points refer to it.
void sharedRecords(tb::Trace& trace, uint64_t size) {
  constexpr uint64_t kShare = 1000;
  basics(trace);
  trace.duration(0, kLatest);
  tb::Stream& c = largeOperations(trace);
  for (uint32_t i = 0; i < size / kShare; ++i) {
    trace.declareComponent(0x20000 + i, "cop", tb::COLLOPS);
    trace.streamOf("c." + std::to_string(i), tb::COLLOPS, {{0, 0, 1}})
        .at(1)
        .anchorRecord(46, {{"file", c.fileId()}, {"offset", kHead * i}})
        .anchorRecord(9, {{"time_prev", 1}});
  }
}

void wildTimes(tb::Trace& trace, uint64_t size) {
  basics(trace);
  trace.duration(0, kLatest);
  trace.declarations().record(
      47, {{"info_class", 1},
           {"info",
            "number of events: 4000000000 functions, 1 onetoones, 0 collectives, 0 scopes, "
            "0 counters"}});
  tb::Stream& s = trace.stream("f.0", tb::FUNCTIONS, {0}).anchorEvery(0x1000);
  for (uint64_t i = 0; i < size; ++i) {
    s.at(i).enter(0, 1).at(i % 3 == 0 ? kLatest - i : i + 1).leave(0);
  }
  s.at(kLatest).enter(0, 1);
}

void hugeDeclarations(tb::Trace& trace, uint64_t) {
  trace.clock(0, 63);
  trace.processes(std::vector<uint32_t>(65535, 0xffffffff));
  for (const tb::Triplet& t :
       {tb::Triplet{0, 2147483647, 1}, tb::Triplet{-2147483647 - 1, 2147483647, 1},
        tb::Triplet{0, 5, 0}, tb::Triplet{2147483647, -2147483647, -2147483647 - 1}}) {
    trace.communicator(1, "c", {t});
    trace.streamOf("f." + std::to_string(t.first), tb::FUNCTIONS, {t}).at(1).enter(0, 1);
  }
}

// Components with lists of billions of threads, for requests of a few threads.
void threadLists(tb::Trace& trace, uint64_t size) {
  constexpr uint64_t kShare = 50;
  basics(trace);
  for (uint64_t i = 0; i < 1 + size / kShare; ++i) {
    const auto k = static_cast<int32_t>(i);
    trace
        .streamOf("f." + std::to_string(i), tb::FUNCTIONS,
                  {{0, 2147483647, 2}, {k, 2147483647, 3}, {1, 2147483647, 5}, {2, 2147483647, 7}})
        .at(1)
        .enter(0, 1)
        .leave(0);
  }
}

// Components that share one long list of threads, with calls that stay open on a few of them.
void sharedList(tb::Trace& trace, uint64_t size) {
  basics(trace);
  std::vector<tb::Triplet> list;
  for (auto first = static_cast<int32_t>(5 * size); first > 0; first -= 10) {
    list.push_back({first, first + 5, 5});
  }
  for (uint32_t i = 0; i < size / 20; ++i) {
    trace.streamOf("f." + std::to_string(i), tb::FUNCTIONS, list).at(1 + i).enter(10 + i % 9, 1);
  }
}

void communicators(tb::Trace& trace, uint64_t size) {
  basics(trace);
  for (uint32_t i = 1; i <= size / 10; ++i) trace.communicator(i, "c", {{0, (1 << 20) - 1, 1}});
  trace.stream("r.0", tb::RAW_EVENTS, {0}).at(1).rawMessage({.kind = 8, .other = 1});
}

void names(tb::Trace& trace, uint64_t) {
  using namespace std::string_view_literals;
  basics(trace);
  trace.function(2, std::string(65535, 'n'), 1)
      .function(3, "a\0b"sv, 1)
      .function(4, "\"quoted\"\n\r\x1b[31mred\x07\\", 1)
      .counter(1, "\x1b]0;title\x07", {});
  trace.willyName(0, "\x1b[2J");
  tb::Stream& s = trace.stream("f.\x1b[31m", tb::FUNCTIONS, {0});
  s.at(1).enter(0, 4).bytes("\xfe\xff");
}

void rawCrowd(tb::Trace& trace, uint64_t size) {
  basics(trace);
  trace.communicator(1, "c", {{0, 1, 1}});
  tb::Stream& s = trace.stream("r.0", tb::RAW_EVENTS, {0});
  for (uint64_t i = 1; i <= size; ++i) {  // receives without sends, operations of one event
    s.at(i).rawMessage({.kind = 8, .other = 1, .tag = static_cast<uint32_t>(i % 7)});
    if (i % 4 == 0) {
      s.rawCollective({.kind = 10,
                       .operation = static_cast<uint32_t>(i % 50),
                       .communicator = 1,
                       .counter = static_cast<uint32_t>(i),
                       .end = -5});
    }
  }
}

// A record of 4 GB in a compressed component that inflates to a part of it.
void inflated(tb::Trace& trace, uint64_t size) {
  constexpr uint64_t kRatio = 1000;
  basics(trace);
  tb::Stream& s = trace.stream("f.0", tb::FUNCTIONS, {0});
  s.bytes({"\x40\0\1\0\0\0\0\xff\xff\xff\xff", 11}).bytes(std::string(kRatio * size, '\0'));
}

// Operations of a communicator with many members, few of which come. They begin again and again,
// with and without a counter, on more and more communicators.
void lonelyMembers(tb::Trace& trace, uint64_t size) {
  constexpr uint64_t kShare = 2000;
  basics(trace);
  tb::Stream& s = trace.stream("r.0", tb::RAW_EVENTS, {0});
  for (uint32_t i = 0; i < size / kShare; ++i) {
    if (i % 16 == 0) trace.communicator(1 + i / 16, "c", {{0, 65534, 1}});
    s.at(1 + i).rawCollective(
        {.kind = 10, .operation = 1, .communicator = 1 + i / 16, .counter = i % 32 < 16 ? 0 : i});
  }
}

// A file that is declared many times, and far more events than it holds.
void repeatedFiles(tb::Trace& trace, uint64_t size) {
  constexpr uint64_t kShare = 8;
  wildTimes(trace, size / kShare);
  for (uint32_t i = 0; i < size / kShare; ++i) {
    trace.extraIndex().record(33, {{"id", 0x20000 + i}, {"suffix", "f.0"}});
    if (i % kShare == 0) trace.define("willy_definition", {{"willy_gtp", i}});
  }
}

struct Case {
  std::string_view name;
  void (*make)(tb::Trace&, uint64_t size);
  unsigned flags = 0;
};
constexpr Case kCases[] = {{"crowd", crowd},
                           {"long_names", longNames},
                           {"threads", threads},
                           {"seek_points", seekPoints},
                           {"shared_records", sharedRecords},
                           {"wild_times", wildTimes},
                           {"huge_declarations", hugeDeclarations},
                           {"thread_lists", threadLists},
                           {"shared_list", sharedList},
                           {"communicators", communicators, 1},
                           {"names", names},
                           {"raw_crowd", rawCrowd, 1},
                           {"inflated", inflated, 3},
                           {"repeated_files", repeatedFiles},
                           {"lonely_members", lonelyMembers, 1}};

}  // namespace

int main(int argc, char** argv) {
  for (const Case& c : kCases) {
    if (argc == 1) std::puts(c.name.data());
    if (argc != 4 || c.name != argv[1]) continue;
    tb::Trace trace(c.flags);
    c.make(trace, std::strtoull(argv[3], nullptr, 10));
    const std::string base = std::string(argv[2]) + "/t.klt";
    const tb::TraceFiles files = trace.files();
    for (auto [key, bytes] : files.parts()) {
      if (c.flags == 3 && key == ".f.0") bytes.replace(0, 8, 8, '\xff');  // the inflated length
      tb::writeFile(key == " " ? base : base + key, bytes);
    }
    return 0;
  }
  return argc == 1 ? 0 : 1;
}
