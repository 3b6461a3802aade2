// Fuzzes a container, mainly its directory, and the trace in it: by dump, listings, extraction,
// copy, merge and summary. Or writes its components as files, besides other files, and does an
// operation that moves or removes files.
//
//   input: options | a container
//
// Bits of the options: 0 to 2 which requests, 3 delivery without time order, 4 matched text, 5 a
// single file as output, 7 all shortcuts (else none) for the text of the copy; or 6 set, and 0 to 2
// which operation on files.
#include <algorithm>
#include <filesystem>
#include <map>
#include <set>
#include <vector>

#include "fuzz/fuzz_target.h"
#include "generic/extract/kltt_extract.h"
#include "generic/extract/kltt_print.h"
#include "generic/merge/kltt_merge.h"
#include "generic/options/RK_conf.h"
#include "generic/options/RK_scan.h"
#include "generic/text/kltt_exit.h"
#include "generic/text/kltt_guard.h"
#include "klt/index/klt_files.h"
#include "klt/index/klt_intern.h"
#include "klt/klt.h"
#include "tests/builder/recorder.h"
#include "util/pal_util.h"

namespace {

constexpr const char* kRequests[] = {
    "",
    "",
    "REQUEST 0:1\n",
    "REQUEST FUNCTIONS 0:3:2\n",
    "REQUEST MESSAGES COLLOPS COUNTERS\n",
    "TICKS on\nREQUEST 10s:500s\n",
    "TICKS on\nREQUEST 10s:500s 0:2 FUNCTIONS\nREQUEST 500s:5000s SCOPES FUNCTIONS\n",
    "TICKS on\nREQUEST 100s:1100s\nREQUEST 900s:4000s 1:3\n",
};

// The program's operations end the process. Here they end a call, by this exception.
struct Ended {
  int status;
};

template <class Function>
int statusOf(const Function& function) {
  try {
    return function();
  } catch (const Ended& end) {
    return end.status;
  }
}

int32_t serial;  // nonzero: deliver in time order

// Extracts with these options. Returns the status, or -1 if the trace can't be opened.
int extract(const std::string& input, const std::string& options) {
  RK_ConfigDefaults();
  (void)RK_ScanText(options, RK_ScanMode::config);
  (void)RK_ConfigFinish();
  RK_conf.matched_rkf |= RK_conf.output_format;
  const KLT_OwnedTrace trace(KLT_Open(input.c_str()));
  return trace == nullptr ? -1 : statusOf([&] { return KLTT_Extract(trace.get(), serial); });
}

std::string outputTo(const char* format, const std::string& name) {
  return std::string("LOGFILE-FORMAT ") + format + "\nLOGFILE-NAME " + name + '\n';
}

// The status and the text of a dump.
std::pair<int, std::string> dump(const std::string& input, const std::string& options = "") {
  const std::string output = fuzz::directory() / "out.ark";
  tb::writeFile(output, "");  // a dump that fails early creates no file
  const int status = extract(input, options + outputTo("ASCII", output));
  return {status, tb::readFile(output)};
}

// --- operations on files ------------------------------------------------------------------------

// What files below the directory hold, by name.
std::map<std::string, std::string> filesOnDisk() {
  std::map<std::string, std::string> files;
  for (const auto& file : std::filesystem::recursive_directory_iterator(fuzz::directory().path())) {
    if (file.is_regular_file()) files[file.path()] = tb::readFile(file.path());
  }
  return files;
}

// What a merge takes over: calls, sides of messages and members of operations. Only if all times
// are in order, none of them is taken for an unknown one.
struct Counts {
  uint64_t calls = 0, parts = 0, lastTime = 0;
  bool inOrder = true;
};
Counts countsOf(const std::string& name) {
  constexpr std::string_view kUnknownSide = " -922337203685477580",
                             kUnseen = "18446744073709551615";
  Counts counts;
  const KLT_OwnedTrace trace(KLT_Open(name.c_str()));
  reading::Recorder recorder;
  (void)reading::finish(
      reading::openReader(trace.get(), recorder.table, {}, 1, KLT_MODE_EVENTS).get());
  for (const std::string& line : recorder.lines) {
    counts.calls += line.starts_with("enter_") || line.starts_with("leave_");
    if (line.find("_raw_event ") != std::string::npos) {
      const uint64_t time = std::strtoull(line.c_str() + line.find(' '), nullptr, 10);
      counts.inOrder = counts.inOrder && counts.lastTime <= time && time >> 62 == 0;
      counts.lastTime = time;
      ++counts.parts;
    } else if (line.starts_with("one_to_one_communication ")) {
      counts.parts += line.find(kUnknownSide) == std::string::npos ? 2 : 1;
    } else if (line.find("_communication ") != std::string::npos) {  // start times are first
      for (size_t at = line.find('['); at < line.find(']'); at = line.find(' ', at + 1)) {
        counts.parts += line.compare(at + 1, kUnseen.size(), kUnseen) != 0;
      }
    }
  }
  return counts;
}

enum : unsigned { kMerge, kMergeAndDelete, kMergeIntoOwnName, kMove, kMoveInto, kMoveToOwnName };
constexpr const char* kTargets[] = {"m.klt", "m.klt", "t.klt.m", "moved.klt", "sub", "t.klt.m"};

// One operation, with its status. Further ones remove the trace.
int operate(KLT_OwnedTrace trace, const std::string& target, unsigned what) {
  if (what > kMoveToOwnName) return KLT_Remove(trace.get());
  if (what >= kMove) return KLT_Move(trace.get(), target.c_str(), KLTT_InputFiles(trace.get()));
  return statusOf([&] {
    return KLTM_Merge(nullptr, target.c_str(), trace.release(),
                      KLTM_MERGE | (what == kMerge ? 0 : KLTM_DELETE_INPUT), nullptr, nullptr);
  });
}

// The files of the trace in a directory with others, and one operation: no other file changes,
// nothing moves if a move is refused, and raw data goes only if all of it is merged.
void runOnFiles(const tb::TraceFiles& files, unsigned what) {
  using fuzz::require;
  const std::string in = fuzz::directory() / "in/", name = in + "t.klt";
  std::filesystem::create_directories(in + "sub/t.klt.f.1");
  for (const char* other : {"../up", "x", "t.klt.x", "t.klt.f.0.x", "sub/t.klt.x"}) {
    tb::writeFile(in + other, other);
  }
  for (const auto& [key, bytes] : files.parts()) {
    const bool isName = key[0] == '.' && key.find('/') == std::string::npos && key.size() < 99;
    if (key == " " || isName) tb::writeFile(name + (isName ? key : ""), bytes);
  }
  const auto before = filesOnDisk();
  KLT_OwnedTrace trace(KLT_Open(name.c_str()));
  if (trace == nullptr) return;
  std::set<std::string> own{name};
  for (const auto& entry : trace->files.entries()) {
    const std::string file = KLT_ComponentName(*trace, *entry.value, false);
    own.insert({file, file + ".anc"});
  }
  const std::string target = in + kTargets[std::min<unsigned>(what, kMoveToOwnName)];
  const Counts wanted = countsOf(name);
  const int status = operate(std::move(trace), target, what);

  const auto after = filesOnDisk();
  const bool isMove = what >= kMove && what <= kMoveToOwnName;
  const bool mayTake = what > kMoveToOwnName || (what != kMerge && status == 0) ||
                       (what < kMove && status == KLTM_INPUT_NOT_REMOVED);
  std::multiset<std::string> contents;
  for (const auto& [file, bytes] : after) contents.insert(bytes);
  for (const auto& [file, bytes] : before) {
    const auto found = after.find(file);
    require((mayTake && own.contains(file)) || (found != after.end() && found->second == bytes),
            "a file that should stay is gone or another one");
    require(!isMove || contents.contains(bytes), "a move has lost a file");
  }
  require(!isMove || before.size() == after.size(), "a move has changed the number of files");
  require(!isMove || status == 0 || before == after, "a refused move has moved something");
  if (what >= kMove || status != KLTM_DONE) return;
  const Counts merged = countsOf(target);
  require(dump(target).first != -1 && merged.calls == wanted.calls &&
              (merged.parts == wanted.parts || !wanted.inOrder),
          "a complete merge has other events than its input");
}

}  // namespace

void fuzz::run(std::string_view input) {
  KLTT_exitHook = [](int status) { throw Ended{status}; };
  for (const auto& file : std::filesystem::directory_iterator(directory().path())) {
    std::filesystem::remove_all(file);  // summary files aren't overwritten
  }
  const uint64_t options = load(input, 0);
  if ((options & 0x40) != 0) {
    serial = 1;
    return runOnFiles(componentsOf(rest(input)), options & 7);
  }
  const std::string name = directory() / "t.klt", copy = directory() / "copy.klt",
                    output = directory() / "out.klt", merged = directory() / "merged.klt";
  tb::writeFile(name, rest(input));
  (void)componentsOf(rest(input));  // also reads components that the index lacks
  const bool matches = (options & 0x10) != 0, single = (options & 0x20) != 0;
  const std::string requests = kRequests[options & 7];
  const std::string asText = requests + (matches ? "MATCHED-RKF on\n" : "");
  serial = (options & 8) == 0 ? 1 : 0;
  const auto text = dump(name, asText);
  if (text.first == -1) return;

  KLT_OwnedTrace trace(KLT_Open(name.c_str()));
  KLTT_PrintFiles(trace.get());
  const int failed =
      KLT_Convert(trace.get(), nullptr, copy.c_str(), 0, KLTT_InputFiles(trace.get()));
  // Anchors are found by name; those that the index doesn't declare aren't copied. They have no
  // effect without a window.
  const bool isSame = failed == 0 && !requests.starts_with("TICKS");
  PAL_fast = (options & 0x80) != 0 ? PAL_Fast::kAlways : PAL_Fast::kNever;
  require(dump(isSame ? copy : name, asText) == text,
          "a copy, or the use of shortcuts, leads to another text or status");
  PAL_fast = PAL_Fast::kIfUseful;
  for (const char* listing : {"STATISTICS", "REPORTS", "THREADS"}) {
    (void)extract(name, std::string("PRINT-") + listing + " on\n");
  }
  if ((options & 0x80) == 0) PAL_fast = PAL_Fast::kAlways;  // also the calls thread by thread
  if (extract(name, requests + outputTo(single ? "SINGLEKLT" : "KLT", output)) == 0) {
    require(dump(output).first != -1, "a complete extraction can't be opened");
  }
  PAL_fast = PAL_Fast::kIfUseful;

  RK_ConfigDefaults();
  trace.reset(KLT_Open(name.c_str()));
  const bool raw = (trace->flags & 1) != 0;  // of others only a summary can be made
  const int flags = (raw ? KLTM_MERGE : KLTM_SUMMARY) | (matches ? KLTM_SUMMARY : 0) |
                    (single ? KLTM_SINGLE_FILE : 0);
  const int status = statusOf([&] {  // which closes the trace
    return KLTM_Merge(nullptr, merged.c_str(), trace.release(), flags, nullptr, nullptr);
  });
  if (raw && status == KLTM_DONE) (void)dump(merged);
}

bool fuzz::mutate(Random& random, std::string& input) {
  tb::TraceFiles files = componentsOf(rest(input));
  const size_t which = below(random, 8);
  if (which == 1 && input.size() > 24) {  // change a number or a byte of the directory
    const uint64_t begin = load(input, input.size() - 8, 8);
    std::string directory = input.substr(begin < input.size() - 9 ? 1 + begin : 1);
    input.resize(input.size() - directory.size());
    mutateBytes(random, directory);
    input += directory;
    return true;
  }
  if (which == 0 || files.parts().size() < 3) return false;
  for (size_t times = 1 + below(random, 3); times > 0; --times) {
    const std::string key = files.parts()[below(random, files.parts().size())].first;
    const size_t what = below(random, 16);
    if (what == 0) {
      files.remove(key);
    } else if (what == 1) {
      mutateBytes(random, files[key]);
    } else if (what < 6 && key == " ") {
      // The declaration of a file that may be there, be declared already, or be an output's.
      constexpr const char* kSuffixes[] = {"f.0", "r.0", "x", "f.0.x", "m", "m.f.0", "gone", ""};
      const std::string suffix = kSuffixes[below(random, std::size(kSuffixes))];
      tb::put(files[key], 0x21, 1);
      tb::put(files[key], 0x10000 + below(random, 40), 4);
      tb::put(files[key], below(random, 4), 1);
      tb::put(files[key], suffix.size(), 2);
      files[key] += suffix;
    } else {
      mutateRecords(random, files[key], key == " " ? kIndexHeaderBytes : 0);
    }
  }
  const char options = below(random, 8) == 0 ? static_cast<char>(random()) : input[0];
  input = options + files.container();
  return true;
}
