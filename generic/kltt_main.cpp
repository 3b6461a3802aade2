// Starts the program, chooses the operation and returns the exit status. See kltt_main.h.
//
// The order of start-up matters: first messages, memory and the process group; then the
// configuration, which may already report errors; then the checks of the selected options; and only
// then the trace is opened. Extractions are in kltt_extract, merges and summaries in kltt_merge,
// operations on files in klt_files.
#include "generic/kltt_main.h"

#include <fcntl.h>
#include <sys/auxv.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "generic/RK_socketpc.h"
#include "generic/extract/kltt_extract.h"
#include "generic/extract/kltt_print.h"
#include "generic/kltt_advice.h"
#include "generic/merge/kltt_merge.h"
#include "generic/options/RK_conf.h"
#include "generic/options/RK_hint.h"
#include "generic/options/kltt_help.h"
#include "generic/text/RK_output.h"
#include "generic/text/kltt_exit.h"
#include "generic/text/kltt_guard.h"
#include "klt/index/klt_files.h"
#include "klt/index/klt_intern.h"
#include "klt/klt.h"
#include "klt/write/klt_write_context.h"
#include "util/pal_error.h"
#include "util/pal_mem.h"
#include "util/pal_strings.h"

namespace {

enum : int { kSuccess = 0, kCantOpen = 1, kUsageError = 10 };

// Arguments and environment are at the start of the stack. If they leave too little of it, the
// limit is raised. If that isn't allowed, the process ends with a message, instead of a signal
// later.
void ensureStack() {
  constexpr rlim_t kNeeded = 20 << 10;  // operations take up to 17 KiB
  constexpr rlim_t kRaised = 1 << 20;
  constexpr std::string_view kMessage =
      "klttool: arguments and environment leave less than 20 KiB of the stack (ulimit -s)\n";
  rlimit limit{};
  const uintptr_t start = getauxval(AT_EXECFN);
  const auto used = start - reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  if (getrlimit(RLIMIT_STACK, &limit) != 0 || used > limit.rlim_cur) return;  // another stack
  if (limit.rlim_cur - used >= kNeeded) return;
  limit.rlim_cur = std::min(limit.rlim_max, used + kRaised);
  if (limit.rlim_cur - used >= kNeeded && setrlimit(RLIMIT_STACK, &limit) == 0) return;
  (void)!write(STDERR_FILENO, kMessage.data(), kMessage.size());
  _exit(kCantOpen);
}

// Opens closed standard descriptors on /dev/null. Otherwise the first opened file would get such a
// descriptor and receive the program's text. Descriptor 1 is read-only, so that writing to it
// fails.
void occupyStandardDescriptors() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) != -1) continue;
    const int access = descriptor == STDERR_FILENO ? O_WRONLY : O_RDONLY;
    if (open("/dev/null", access) != descriptor) _exit(kCantOpen);
  }
}

// The `serial` argument of the readers. Nonzero: they deliver events in order of time; 0: stream by
// stream.
int32_t deliveryOrder() {
  const char* text = std::getenv("KLTT_SERIAL");
  return text == nullptr ? 1 : static_cast<int32_t>(std::strtol(text, nullptr, 10));
}

// If messages, progress or statistics are written to a closed pipe, the operation must still be
// completed.
void ignoreBrokenPipes() { std::signal(SIGPIPE, SIG_IGN); }

bool writesContainerToStandardOutput() {
  return RK_conf.logfile_name == "-" && RK_conf.logfile_format_set && RK_conf.output_format == 1;
}

// Prints RK_conf.echo, the characters of the configuration that belong to no option: on standard
// output, or on standard error if a trace is written to standard output.
void printEcho() {
  if (writesContainerToStandardOutput())
    std::fwrite(RK_conf.echo.data(), 1, RK_conf.echo.size(), stderr);
  else
    RK_OutputWrite(RK_Stdout(), RK_conf.echo);
  RK_conf.echo.clear();
}

[[noreturn]] void usage() {
  printEcho();
  std::fputs(KLTT_Banner().c_str(), stderr);
  std::fwrite(KLTT_UsageText().data(), 1, KLTT_UsageText().size(), stderr);
  KLTT_AdviseOnUsage();
  KLTT_Exit(kUsageError);
}

[[noreturn]] void printProgramInfo(bool help) {
  RK_OutputWrite(RK_Stdout(), KLTT_Banner());
  if (help)
    RK_OutputWrite(RK_Stdout(), KLTT_HelpText());
  else
    RK_OutputWrite(RK_Stdout(), KLTT_VersionLine());
  KLTT_Exit(kSuccess);
}

void readConfiguration(int argc, char** argv) {
  const PAL_Place here;
  const char* const input = argv[1];
  argv[0] = nullptr;
  argv[1] = nullptr;
  // No warnings: the collector may use the same file and variables, with options of its own.
  PAL_messages.infoEnabled = 0;
  static char rank[] = "RK_CONF_RANK=0";
  putenv(rank);
  (void)RK_ConfigInit("rk");
  PAL_messages.infoEnabled = 1;
  RK_conf.input = input;
  if (RK_ConfigParseArgs(argc, argv, &usage) != 0) usage();
}

void checkSelection() {
  const RK_Conf& c = RK_conf;
  const bool operation = c.print_errors != 0 || c.remove != 0 || c.print_threads != 0 ||
                         c.print_files != 0 || c.dump != 0 || c.print_statistics != 0 ||
                         c.print_reports != 0;
  const bool summaryOnly = c.sumdata != 0 && c.merge == 0;
  if (!operation && !c.logfile_name_set && !summaryOnly) {
    PAL_Error("neither any output file nor any kind of information retrieval selected\n");
    usage();
  }
  if ((c.merge != 0 || c.sumdata != 0) && c.output_format != 1) {
    PAL_Error("merge & summary operations are applicable to KLT format traces only\n");
    usage();
  }
  // Otherwise "-" would become the new name of the files.
  if (c.move != 0 && (c.dump != 0 || (c.logfile_name_set && c.logfile_name == "-"))) {
    PAL_Error("a trace can't be moved to standard output\n");
    usage();
  }
}

void chooseFormat() {
  if (RK_conf.dump != 0) {
    RK_conf.logfile_name = "-";
    RK_conf.logfile_name_set = true;
    RK_conf.output_format = 0;
    RK_conf.logfile_format_set = true;
  } else if (RK_conf.matched_rkf != 0 && RK_conf.output_format != 0) {
    PAL_Warning("Requested option --matchedrkf only available for RKF-ASCII format. Ignored.");
    RK_conf.matched_rkf = 0;
  }
  if (RK_conf.output_format == 1) RK_conf.matched_rkf = 1;
}

KLT_FileHandle* openInput(const char* name) {
  const PAL_Place here;
  KLT_FileHandle* handle = KLT_Open(name);
  if (handle != nullptr) return handle;
  std::fprintf(stderr, "Could not open file %s for reading.\n", PAL_Printable(name).c_str());
  KLTT_AdviseOnInput(name);
  KLTT_Exit(kCantOpen);
}

// Completes the output's name. Without a format the output is text, whatever the name's suffix.
void prepareOutput() {
  if (!RK_conf.logfile_name_set) return;
  RK_ConfigOutputName();
  if (!RK_conf.logfile_format_set) RK_conf.output_format = 0;
  if (RK_conf.verbose != 0 && RK_conf.move == 0)
    std::fprintf(stderr, "Writing tracefile %s\n", PAL_Printable(RK_conf.logfile_name).c_str());
  KLTT_AdviseOnFormat();
}

[[noreturn]] void failWithoutName(const char* directive) {
  std::fprintf(stderr, "No output filename selected, use %s or --logfile-name\n", directive);
  KLTT_Exit(kUsageError);
}

int extract(KLT_FileHandle* handle, int32_t serial) {
  const RK_Conf& c = RK_conf;
  if (c.logfile_name_set && c.remove == 0 && c.move == 0 && c.print_threads == 0) {
    KLTT_RefuseInput(handle, c.logfile_name.c_str());
    const bool listing = c.print_statistics != 0 || c.print_reports != 0;
    if (c.logfile_name != "-" && !listing) ignoreBrokenPipes();
  }
  return KLTT_Extract(handle, serial);
}

void showProgress(RK_Output* stream, int state, int percent) {
  if (state == 0)
    RK_OutputPrintf(stream, "\r=== done: %3d (%%)\r", percent);
  else
    RK_OutputWrite(stream, "\n");
  RK_OutputFlush(stream);
}

// Reports why a merge failed, unless the merge has already reported it.
void reportMergeFailure(int result, const char* input) {
  switch (result) {
    case KLTM_WRONG_OPERATION:
      std::fputs("Wrong operation requested\n", stderr);
      break;
    case KLTM_NO_OUTPUT:
      std::fprintf(stderr, "Could not open file for writing: %s\n",
                   PAL_Printable(RK_conf.logfile_name).c_str());
      break;
    case KLTM_INPUT_NOT_REMOVED:
      std::fprintf(stderr, "Could not remove input file after merging: %s\n",
                   PAL_Printable(input).c_str());
      break;
    case KLTM_WRONG_TRACE:
      PAL_Error(RK_conf.sumdata != 0 ? "summary operation isn't applicable to unmerged traces\n"
                                     : "merge operation isn't applicable to merged traces\n");
      if (RK_conf.sumdata != 0 && RK_conf.merge == 0)
        RK_Hint("Merge it first: klttool %s --merge run.klt --logfile-format KLT --sumdata",
                PAL_Printable(input).c_str());
      break;
    default:
      break;
  }
}

const char* outputDirectory() {
  return RK_conf.current_dir.empty() ? nullptr : RK_conf.current_dir.c_str();
}

[[noreturn]] void merge(KLT_FileHandle* handle, const char* input) {
  const PAL_Place here;
  const RK_Conf& c = RK_conf;
  const char* target = c.logfile_name_set ? c.logfile_name.c_str() : nullptr;
  int flags = 0;
  if (c.merge != 0) flags |= KLTM_MERGE;
  if (c.sumdata != 0) flags |= KLTM_SUMMARY;
  if (c.output_single_file != 0) flags |= KLTM_SINGLE_FILE;
  if (c.delete_raw_data != 0) flags |= KLTM_DELETE_INPUT;
  ignoreBrokenPipes();
  const int result = KLTM_Merge(outputDirectory(), target, handle, flags,
                                c.verbose != 0 ? &showProgress : nullptr, RK_Stdout());
  reportMergeFailure(result, input);
  KLTT_Exit(result == KLTM_DONE ? kSuccess : kCantOpen);
}

[[noreturn]] void convert(KLT_FileHandle* handle) {
  const PAL_Place here;
  if (RK_conf.logfile_name != "-") ignoreBrokenPipes();
  KLTT_Exit(KLT_Convert(handle, outputDirectory(), RK_conf.logfile_name.c_str(),
                        RK_conf.output_single_file, KLTT_InputFiles(handle)));
}

[[noreturn]] void move(KLT_FileHandle* handle) {
  const PAL_Place here;
  if (!RK_conf.logfile_name_set) failWithoutName("--move <filename>");
  ignoreBrokenPipes();
  const std::string source = handle->base;
  const int status = KLT_Move(handle, RK_conf.logfile_name.c_str(), KLTT_InputFiles(handle));
  if (status == kSuccess) KLTT_AdviseOnSummaries(source.c_str(), "moved");
  KLTT_Exit(status);
}

[[noreturn]] void remove(KLT_FileHandle* handle) {
  const PAL_Place here;
  ignoreBrokenPipes();
  const std::string source = handle->base;
  const int status = KLT_Remove(handle);
  if (status == kSuccess) KLTT_AdviseOnSummaries(source.c_str(), "removed");
  KLTT_Exit(status);
}

// Converts, merges or summarises with binary output.
[[noreturn]] void rewrite(KLT_FileHandle* handle, const char* input) {
  const RK_Conf& c = RK_conf;
  if (!c.logfile_name_set && c.merge != 0)
    failWithoutName(c.sumdata != 0 ? "--merge <filename> or --sumdata <filename>"
                                   : "--merge <filename>");
  if (c.merge != 0 || c.sumdata != 0) merge(handle, input);
  if (!c.logfile_name_set) failWithoutName("--convert <filename>");
  convert(handle);
}

// Runs the selected operation and returns the exit status. Conversions, merges and summaries with
// binary output, moves and removals end the process themselves.
int runOperation(KLT_FileHandle* handle, const char* input, int32_t serial) {
  const RK_Conf& c = RK_conf;
  if (c.convert != 0 || c.merge != 0 || c.sumdata != 0) {
    if (c.output_format == 1) rewrite(handle, input);
    return extract(handle, serial);
  }
  if (c.print_files != 0) {
    KLTT_PrintFiles(handle);
    return KLT_FilesAreKnown(handle) ? kSuccess : kCantOpen;
  }
  if (c.move != 0) move(handle);
  if (c.remove != 0) remove(handle);
  return extract(handle, serial);
}

}  // namespace

void KLTT_Main(int argc, char** argv) {
  const PAL_Place here;
  ensureStack();
  occupyStandardDescriptors();
  std::signal(SIGXFSZ, SIG_IGN);  // a write beyond the file size limit must fail and be reported
  const int32_t serial = deliveryOrder();
  PAL_messages.programName = "klttool";
  PAL_MemInit();
  RK_IPCInit(HERE);
  if (argc < 2) usage();
  const bool help = PAL_StrCaseCmp(argv[1], "--help") == 0;
  if (help || PAL_StrCaseCmp(argv[1], "--version") == 0) printProgramInfo(help);

  const char* input = argv[1];
  readConfiguration(argc, argv);
  checkSelection();
  chooseFormat();
  printEcho();
  KLT_FileHandle* handle = openInput(input);
  prepareOutput();
  KLTT_AdviseOnOperations();
  const int status = runOperation(handle, input, serial);
  KLT_Close(handle);
  KLTT_Exit(status);
}
