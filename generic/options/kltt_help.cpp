// Banner, version, usage, help. See kltt_help.h.
#include "generic/options/kltt_help.h"

#include "klt_version.h"
#include "util/pal_strings.h"

namespace {

constexpr std::string_view kUsage =
    "Usage: klttool <input file> <config options>\n"
    "               --help\n"
    "               --version\n";

// Lines stay below 80 columns. Every paragraph of "Supported Directives" starts with the directive
// as the user writes it and its default.
constexpr std::string_view kHelp = R"HELP(Synopsis
========

klttool <input file> <config options>
klttool --help
klttool --version

Description
===========

klttool works on traces of parallel programs in the binary format KLT. Two other
programs share them: MOR, the collector, writes a trace while a program runs,
and NEP, the analyser, shows it in timelines and profiles. A trace is an
index file with component files beside it (run.klt, run.klt.dcl, run.klt.f.0,
...) or one single file that holds all of them. klttool extracts all of a trace
or a part of it, as text in the format RKF or as a new binary trace; converts a
trace between its storage forms; lists, moves and removes it as the set of files
that it is; prints what is stored in it beside the events; merges the raw trace
of a run into its final form; and summarises it in time bins.

The first argument is always the input: the index file or the single file. All
others are directives, each an option with "--" in front and its value behind
it. Case doesn't matter in options, keywords and categories. A later directive
overrides an earlier one; only --request adds up. A value with blanks in it is
one argument of the shell:

  klttool run.klt --logfile-name 'my run.ark'

The same options can stand in a configuration file, one on a line and without
the "--", which the environment variable RK_CONFIG names; lines that begin with
# are comments. Each option also has an environment variable: RK_, then its name
with "_" for "-", for example RK_LOGFILE_NAME. The environment overrides the
file, and the command line overrides both. KLTT_SERIAL=0 in the environment
delivers the events stream by stream instead of in the order of time.

Text goes to a file, or to standard output if the file name is "-". These write
a whole trace as text:

  klttool run.klt --dump
  klttool run.klt --logfile-name run.ark

Conversion copies a trace into another storage form, byte for byte, and needs a
format to write to: here a single file, and the separate files again:

  klttool run.klt --convert one.klt --logfile-format SINGLEKLT
  klttool one.klt --convert two.klt --logfile-format KLT

Extraction decodes the trace and writes what the requests select: the functions
of one second of processes 0 to 3 as text, and all of a time window as a trace:

  klttool run.klt --request 1s:2s 0:3 FUNCTIONS --dump
  klttool run.klt --request 0.5s:1.5s --logfile-name slice.klt \
          --logfile-format KLT

Exit status: 0 for success; 1 if an input or output can't be opened or written,
the trace is unusable or memory runs out; 2 if a part of the trace couldn't be
read and the rest was; 3 if none of it could be read; 4 if a record couldn't be
processed; 10 for a mistake in the options. --move and --remove hand on the
failure of the operation on the files.

Supported Directives
====================

--convert [<filename>] (off)
  Converts the whole trace; requests are ignored. With --logfile-format KLT or
  SINGLEKLT the files of the trace are copied into the separate or the single
  form, byte for byte, without a look at the records. SINGLEKLT can go to
  standard output (filename "-"). Without --logfile-format, or with ASCII, the
  trace is written as text. A filename here is the same as --logfile-name.

--move [<file/dirname>] (off)
  Moves all files of the trace: into the directory if the name is that of one,
  keeping their names, else to the new name, which replaces the old one in the
  names of all files. A name is needed, here or by --logfile-name. The exit
  status tells a failure; files moved until then stay moved.

--remove (off)
  Removes the trace with all its files. Nothing asks whether that is meant.

--merge [<filename>] (off)
  Merges a raw trace, in which each side of a communication is an event of its
  own, into the final form: sends are matched with receives and the members of
  collective operations with each other, and statistics are added. Needs a
  filename and --logfile-format KLT or SINGLEKLT; without the format the trace
  is written as text. The input stays as it is unless --delete-raw-data is
  given. A trace that is merged already is refused.

--delete-raw-data (off)
  Removes the input after a merge.

--sumdata [<filename>] (off)
  Summarises a trace in time bins: call trees, collective operations, messages,
  counters and reports, each in a file of its own, named after the trace or the
  filename with .sum.fnc, .sum.cop, .sum.msg, .sum.cnt and .sum.rep behind it. A
  filename needs --logfile-format KLT as well. Applies to merged traces; with
  --merge a raw trace is merged and summarised in one go.

--print-files (off)
  Lists the files of the trace with their sizes in bytes. For a single file
  these are the components inside it.

--print-statistics (off)
  Prints the statistics that were stored when the trace was written: for
  functions, messages and collective operations, one on a line that begins with
  INFO; lines that begin with # name the columns. Times of INFO ACTSTATS are in
  seconds, those of the profiles in clock ticks. No events are read.

--print-reports (off)
  Prints the reports of the message checker: the process, WARNING or ERROR, the
  kind of the report, its description and the calls involved. With
  --print-statistics only the statistics are printed.

--print-threads (off)
  Prints the native threads of the run: process and thread number, host name, IP
  addresses, process and thread id of the operating system, and start and end of
  the trace by the thread's own clock.

--print-errors (off)
  Selects no output. The definitions of the trace are read, so that the messages
  and the exit status tell whether that works.

--dump (off)
  Writes the trace as text to standard output: short for --logfile-name - with
  --logfile-format ASCII, and stronger than both.

--request "<type>", <thread triplets>, <categories>, <window>
  Selects what an extraction writes. Without a request that is everything; with
  several it is what any of them selects, each event once. The parts may come in
  any order, separated by blanks or commas, and each may be left out. The type
  is accepted and selects nothing.

  A thread triplet is first:last:stride: 0:10:2 stands for 0, 2, 4, 6, 8 and 10,
  0:3 for 0 to 3, and 5 for 5 alone. The number of thread t of process p is
  p + 65536 * t, so the numbers below 65536 are the first threads of the
  processes. N stands for the highest process number of klttool itself, which is
  0. Without triplets all threads are selected.

  Categories are FUNCTIONS, SCOPES, FILEIO, COUNTERS, MESSAGES and COLLOPS; any
  number of them is selected together, and all if there is none. Comments and
  other records that belong to everything come with each. The words OPENMP,
  ERRORS, RAW_EVENTS, REQUESTS, frames, thumbnails and internal are accepted,
  but an extraction writes nothing for them.

  A window is start:end; an event at the start belongs to it and one at the end
  doesn't. An end before the start leaves the window open. A time is a number
  with one of the units s (seconds), l (milliseconds), c (microseconds),
  m (minutes), h (hours), d (days) and w (weeks), and may be a sum: 1h+30m. A
  number without a unit is in seconds, but at least one of the two times needs a
  unit or a fraction: 10s:20 is a window, 10:20 a triplet. At the start of a
  window the calls and scopes that are open there, the messages on their way and
  the collective operations that run are written first; the last samples of the
  counters only if the request names COUNTERS and neither MESSAGES nor COLLOPS.
  At its end the open calls and scopes are closed.

    --request 1s:2s
    --request 250l:1.5s 0:3 FUNCTIONS MESSAGES
    --request 1h+30m:2h, 0:31:2, COLLOPS

--ticks (off)
  Times in requests are the time stamps of the trace as they are stored, in
  which the lowest bits count events within a tick of the clock, instead of
  seconds. Units still count as factors, and are needed to tell a window from a
  triplet: --request 1000s:2000s --ticks.

--logfile-name <file name>
  The output, "-" for standard output. The suffix of the name doesn't choose the
  format: without --logfile-format the output is text. A file that exists is
  overwritten, but never one of the input's own.

--logfile-format [ASCII|KLT|KLTSINGLE|SINGLEKLT]
  The format of the output: text; a binary trace of separate files; or a binary
  trace in one file, for which there are two words. KLTASCII is the same as KLT.

--extended-rkf (off in MOR, on in klttool)
  Text has lines and parts beyond the standard of the format: EVENTBITS,
  DURATION, DEFSCOPE, BEGINSCOPE and ENDSCOPE lines, the names of communicators
  and the functions of messages. MOR, the collector, has the same option.

--matched-rkf (off)
  Writes a communication as one line of text, ONETOONE for a message and COLLOP
  for a collective operation, instead of a line for each side or member. Binary
  output is always matched, and so is text under a name that neither ends in
  .ark nor is "-", unless --logfile-format ASCII is given.

--verbose [on|off|<level>] (on)
  How much is said on standard error: 0 or off nothing but warnings and errors;
  1 or on the name of the output as well, and the progress of a merge, this on
  standard output; 2 the progress of an extraction into a file, too, if standard
  error is a terminal; 3 and above date and time on each message. The level must
  be given: --verbose alone is an error that changes nothing.
)HELP";

}  // namespace

std::string KLTT_Banner() { return "klttool " KLT_VERSION " - trace file utility\n\n"; }

std::string KLTT_VersionLine() {
  return PAL_asprintf("klttool Version %s Build %04d%02d%02d\n", KLT_VERSION, KLT_BUILD_YEAR,
                      KLT_BUILD_MONTH, KLT_BUILD_DAY);
}

std::string_view KLTT_UsageText() { return kUsage; }

std::string_view KLTT_HelpText() { return kHelp; }
