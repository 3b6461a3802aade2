// A whole trace through dump, listings, extraction, copy, merge and summary.
//
//   input: options | a container
//
// Bits of the options: 0 to 2 which requests, 3 delivery in time order, 4 matched text, 5 a single
// file as output.

#include <filesystem>
#include <string>
#include <string_view>

#include "fuzz/fuzz_target.h"
#include "fuzz/fuzz_trace_bytes.h"
#include "generic/RK_conf.h"
#include "generic/RK_scan.h"
#include "generic/kltt_exit.h"
#include "generic/kltt_extract.h"
#include "generic/kltt_guard.h"
#include "generic/kltt_merge.h"
#include "generic/kltt_print.h"
#include "klt/klt.h"
#include "klt/klt_files.h"
#include "klt/klt_intern.h"

namespace {

// The program's operations end the process; here only a call ends.
struct Ended {
  int status;
};

constexpr const char* kRequests[] = {
    "",
    "",
    "REQUEST 0:1\n",
    "REQUEST FUNCTIONS 0:3:2\n",
    "REQUEST MESSAGES COLLOPS COUNTERS\n",
    "TICKS on\nREQUEST 10s:500s\n",
    ("TICKS on\nREQUEST 10s:500s 0:2 FUNCTIONS\n"
     "REQUEST 500s:5000s SCOPES FUNCTIONS\n"),
    "TICKS on\nREQUEST 100s:1100s\nREQUEST 900s:4000s 1:3\n",
};

class Run {
 public:
  explicit Run(uint8_t options) : options_(options) {}

  // Exit statuses; -1 if the trace can't be opened.
  int dump(const std::string& name) const {
    configure();
    RK_conf.matched_rkf = options_ >> 4 & 1;
    output("out.ark", 0);
    return extract(name);
  }
  [[nodiscard]] bool hasWindow() const {
    return std::string_view(kRequests[options_ & 7]).find("TICKS") != std::string_view::npos;
  }
  // What the last dump wrote, which is gone then. One that fails early creates no file.
  static std::string takeText() {
    const std::string name = fuzz::directory() / "out.ark";
    if (!std::filesystem::exists(name)) return {};
    std::string text = tb::readFile(name);
    std::filesystem::remove(name);
    return text;
  }
  int write(const std::string& name) const {
    configure();
    RK_conf.matched_rkf = 1;
    output("out.klt", 1);
    return extract(name);
  }
  void list(const std::string& name) const {
    for (const auto what :
         {&RK_Conf::print_statistics, &RK_Conf::print_reports, &RK_Conf::print_threads}) {
      RK_ConfigDefaults();
      RK_conf.*what = 1;
      (void)extract(name);
    }
  }
  // Copies the trace into files of its own.
  bool copy(const std::string& name) const {
    KLT_FileHandle* trace = KLT_Open(name.c_str());
    if (trace == nullptr) return false;
    KLTT_PrintFiles(trace);
    const std::string target = fuzz::directory() / "copy.klt";
    const int status = KLT_Convert(trace, nullptr, target.c_str(), 0, KLTT_InputFiles(trace));
    KLT_Close(trace);
    return status == 0;
  }
  // Whether there is a merged trace: a summary is all that others give.
  bool mergeOrSummarise(const std::string& name) const {
    RK_ConfigDefaults();
    KLT_FileHandle* trace = KLT_Open(name.c_str());
    if (trace == nullptr) return false;
    const bool raw = (trace->flags & 1) != 0;
    int flags = raw ? KLTM_MERGE : KLTM_SUMMARY;
    if (raw && (options_ & 0x10) != 0) flags |= KLTM_SUMMARY;
    if ((options_ & 0x20) != 0) flags |= KLTM_SINGLE_FILE;
    const int result = ended([&] {
      return KLTM_Merge(nullptr, (fuzz::directory() / "merged.klt").c_str(), trace, flags, nullptr,
                        nullptr);
    });
    return raw && result == KLTM_DONE;
  }

 private:
  template <class Function>
  static int ended(const Function& function) {
    try {
      return function();
    } catch (const Ended& end) {
      return end.status;
    }
  }
  void configure() const {
    RK_ConfigDefaults();
    (void)RK_ScanText(kRequests[options_ & 7], RK_ScanMode::config);
  }
  void output(const char* name, int format) const {
    RK_conf.logfile_name = fuzz::directory() / name;
    RK_conf.logfile_name_set = true;
    RK_conf.logfile_format_set = true;
    RK_conf.output_format = format;
    RK_conf.output_single_file = options_ >> 5 & 1;
  }
  int extract(const std::string& name) const {
    KLT_FileHandle* trace = KLT_Open(name.c_str());
    if (trace == nullptr) return -1;
    const int status = ended([&] { return KLTT_Extract(trace, (options_ & 8) == 0); });
    KLT_Close(trace);
    return status;
  }

  uint8_t options_;
};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  KLTT_exitHook = [](int status) { throw Ended{status}; };
  fuzz::clearDirectory();  // summary files aren't overwritten
  const std::string name = fuzz::directory() / "t.klt";
  tb::writeFile(name, fuzz::view(data, size).substr(1));
  const Run run(data[0]);
  const int status = run.dump(name);
  if (status == -1) return 0;
  // Anchors are found by name; those that the index doesn't declare aren't copied. They don't
  // matter without a window.
  if (run.copy(name) && !run.hasWindow()) {
    const std::string text = Run::takeText();
    const int again = run.dump(fuzz::directory() / "copy.klt");
    fuzz::require(again == status, "a complete copy gives another status");
    fuzz::require(Run::takeText() == text, "a copy has another text");
  }
  run.list(name);
  if (run.write(name) == 0) {
    const int again = Run(0).dump(fuzz::directory() / "out.klt");
    fuzz::require(again != -1, "a complete extraction can't be opened");
  }
  if (run.mergeOrSummarise(name)) (void)Run(0).dump(fuzz::directory() / "merged.klt");
  return 0;
}

size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t limit, unsigned seed) {
  fuzz::Random random(seed);
  std::string input(fuzz::view(data, size));
  std::optional<tb::TraceFiles> files;
  if (!input.empty() && fuzz::below(random, 8) != 0)
    files = fuzz::takeApart(std::string_view(input).substr(1));
  if (!files) return LLVMFuzzerMutate(data, size, limit);
  char options = input[0];
  if (fuzz::below(random, 8) == 0) options = static_cast<char>(random());
  for (size_t times = 1 + fuzz::below(random, 3); times > 0; --times) {
    fuzz::mutateTrace(random, *files);
  }
  return fuzz::give(options + files->container(), data, limit);
}

size_t LLVMFuzzerCustomCrossOver(const uint8_t* data, size_t size, const uint8_t* donor,
                                 size_t donorSize, uint8_t* out, size_t limit, unsigned seed) {
  if (size == 0 || donorSize == 0) return 0;
  fuzz::Random random(seed);
  auto files = fuzz::takeApart(fuzz::view(data, size).substr(1));
  const auto other = fuzz::takeApart(fuzz::view(donor, donorSize).substr(1));
  if (!files || !other) return 0;
  fuzz::crossTraces(random, *files, *other);
  return fuzz::give(static_cast<char>(data[0]) + files->container(), out, limit);
}
