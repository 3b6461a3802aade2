// Fuzzes a container, mainly its directory, and the trace in it: by dump, listings, extraction,
// copy, merge and summary.
//
//   input: options | a container
//
// Bits of the options: 0 to 2 which requests, 3 delivery without time order, 4 matched text, 5 a
// single file as output, 6 all shortcuts (else none) for the text of the copy.
#include <filesystem>

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

}  // namespace

void fuzz::run(std::string_view input) {
  KLTT_exitHook = [](int status) { throw Ended{status}; };
  for (const auto& file : std::filesystem::directory_iterator(directory().path())) {
    std::filesystem::remove_all(file);  // summary files aren't overwritten
  }
  const std::string name = directory() / "t.klt", copy = directory() / "copy.klt",
                    output = directory() / "out.klt", merged = directory() / "merged.klt";
  tb::writeFile(name, rest(input));
  (void)componentsOf(rest(input));  // also reads components that the index lacks
  const uint64_t options = load(input, 0);
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
  PAL_fast = (options & 0x40) != 0 ? PAL_Fast::kAlways : PAL_Fast::kNever;
  require(dump(isSame ? copy : name, asText) == text,
          "a copy, or the use of shortcuts, leads to another text or status");
  PAL_fast = PAL_Fast::kIfUseful;
  for (const char* listing : {"STATISTICS", "REPORTS", "THREADS"}) {
    (void)extract(name, std::string("PRINT-") + listing + " on\n");
  }
  if (extract(name, requests + outputTo(single ? "SINGLEKLT" : "KLT", output)) == 0) {
    require(dump(output).first != -1, "a complete extraction can't be opened");
  }

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
    } else {
      mutateRecords(random, files[key], key == " " ? kIndexHeaderBytes : 0);
    }
  }
  const char options = below(random, 8) == 0 ? static_cast<char>(random()) : input[0];
  input = options + files.container();
  return true;
}
