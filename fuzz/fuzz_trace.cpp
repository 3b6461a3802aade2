// A whole trace through dump, listings, extraction, copy, merge and summary.
//
//   input: options | a container
//
// Bits of the options: 0 to 2 which requests, 3 delivery in time order, 4 matched text, 5 a single
// file as output.
#include <filesystem>

#include "fuzz/fuzz_records.h"
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

namespace {

constexpr std::string_view kRequests[] = {
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

// The program's operations end the process; here only a call ends.
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

std::string fileFor(const char* name) { return fuzz::directory() / name; }

// One extraction as the options say, with a listing if one is given. Its status, or -1 if the trace
// can't be opened.
int extract(const std::string& input, uint8_t options, const char* output = nullptr, int form = 0,
            int32_t RK_Conf::*listing = nullptr) {
  RK_ConfigDefaults();
  if (listing == nullptr) (void)RK_ScanText(kRequests[options & 7], RK_ScanMode::config);
  if (listing != nullptr) RK_conf.*listing = 1;
  if (output != nullptr) {
    RK_conf.logfile_name = fileFor(output);
    RK_conf.logfile_name_set = RK_conf.logfile_format_set = true;
    RK_conf.output_format = form;
    RK_conf.output_single_file = options >> 5 & 1;
    RK_conf.matched_rkf = form | (options >> 4 & 1);
  }
  const KLT_OwnedTrace trace(KLT_Open(input.c_str()));
  if (trace == nullptr) return -1;
  return statusOf([&] { return KLTT_Extract(trace.get(), (options & 8) == 0); });
}

// The text of a dump that is gone then. One that fails early creates no file.
std::pair<int, std::string> dump(const std::string& input, uint8_t options) {
  std::filesystem::remove(fileFor("out.ark"));
  const int status = extract(input, options, "out.ark");
  return {status,
          std::filesystem::exists(fileFor("out.ark")) ? tb::readFile(fileFor("out.ark")) : ""};
}

// Whether all of the trace is in files of its own now.
bool copy(const std::string& input) {
  const KLT_OwnedTrace trace(KLT_Open(input.c_str()));
  KLTT_PrintFiles(trace.get());
  return KLT_Convert(trace.get(), nullptr, fileFor("copy.klt").c_str(), 0,
                     KLTT_InputFiles(trace.get())) == 0;
}

// Whether there is a merged trace: a summary is all that others give.
bool mergeOrSummarise(const std::string& input, uint8_t options) {
  RK_ConfigDefaults();
  KLT_FileHandle* trace = KLT_Open(input.c_str());  // which the merge closes
  const bool raw = (trace->flags & 1) != 0;
  int flags = raw ? KLTM_MERGE : KLTM_SUMMARY;
  if (raw && (options & 0x10) != 0) flags |= KLTM_SUMMARY;
  if ((options & 0x20) != 0) flags |= KLTM_SINGLE_FILE;
  const std::string target = fileFor("merged.klt");
  const int status =
      statusOf([&] { return KLTM_Merge(nullptr, target.c_str(), trace, flags, nullptr, nullptr); });
  return raw && status == KLTM_DONE;
}

}  // namespace

void fuzz::run(std::string_view input) {
  KLTT_exitHook = [](int status) { throw Ended{status}; };
  for (const auto& file : std::filesystem::directory_iterator(directory().path())) {
    std::filesystem::remove_all(file);  // summary files aren't overwritten
  }
  const std::string name = fileFor("t.klt");
  const uint8_t options = firstByte(input);
  tb::writeFile(name, rest(input));
  const auto text = dump(name, options);
  if (text.first == -1) return;
  // Anchors are found by name; those that the index doesn't declare aren't copied. They don't
  // matter without a window.
  const bool hasWindow = kRequests[options & 7].starts_with("TICKS");
  if (copy(name) && !hasWindow) {
    require(dump(fileFor("copy.klt"), options) == text, "a copy has another text or status");
  }
  for (const auto listing :
       {&RK_Conf::print_statistics, &RK_Conf::print_reports, &RK_Conf::print_threads}) {
    (void)extract(name, options, nullptr, 0, listing);
  }
  if (extract(name, options, "out.klt", 1) == 0) {
    require(dump(fileFor("out.klt"), 0).first != -1, "a complete extraction can't be opened");
  }
  if (mergeOrSummarise(name, options)) (void)dump(fileFor("merged.klt"), 0);
}

bool fuzz::mutate(Random& random, std::string& input) {
  tb::TraceFiles files = takeApart(rest(input));
  if (below(random, 8) == 0) return false;
  char options = input[0];
  if (below(random, 8) == 0) options = static_cast<char>(random());
  for (size_t times = 1 + below(random, 3); times > 0; --times) {
    if (files.parts().empty()) return false;
    const std::string key = files.parts()[below(random, files.parts().size())].first;
    const size_t what = below(random, 16);
    if (what == 0) {
      files.remove(key);
    } else if (what == 1) {
      mutateBytes(random, files[key]);
    } else if (what == 2 && !files.contains(key + ".anc")) {
      files.add(key + ".anc", files[key]);
    } else {
      mutateRecords(random, files[key], key == " " ? kIndexHeaderBytes : 0);
    }
  }
  input = options + files.container();
  return true;
}
