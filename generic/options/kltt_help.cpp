// The texts of the banner, the version, the usage and the help. See kltt_help.h.
#include "generic/options/kltt_help.h"

#include "klt_version.h"
#include "util/pal_strings.h"

namespace {

constexpr std::string_view kUsage =
    "Usage: klttool <input file> <config options>\n"
    "               --help\n"
    "               --version\n";

// Lines have at most 80 columns. Every entry of "Supported Directives" starts with the directive as
// the user writes it and, for a switch, its default in parentheses.
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
trace between its storage forms; lists, moves and removes all files of a trace
together; prints what a trace stores besides its events; merges the raw trace of
a run into its final form; and summarises a trace in time bins.

The first argument is always the input: the index file or the single file. All
other arguments are directives: an option with "--" in front, followed by its
value. Case doesn't matter in options, keywords and categories. A later
directive overrides an earlier one; only requests add up. A value with blanks
must be quoted in the shell, to be one argument:

  klttool run.klt --logfile-name 'my run.ark'

The environment variable RK_CONFIG can name a configuration file with the same
options, one on each line and without the "--"; lines that begin with # are
comments. Each option also has an environment variable: RK_, then its name with
"_" for "-", for example RK_LOGFILE_NAME. The environment overrides the file,
and the command line overrides both. KLTT_SERIAL=0 in the environment
delivers the events stream by stream instead of in the order of time.

Text goes to a file, or to standard output if the file name is "-". These write
a whole trace as text:

  klttool run.klt --dump
  klttool run.klt --logfile-name run.ark

Conversion copies a trace into another storage form, byte for byte, and needs
the format to write: here a single file, and then separate files again:

  klttool run.klt --convert one.klt --logfile-format SINGLEKLT
  klttool one.klt --convert two.klt --logfile-format KLT

Extraction decodes the trace and writes what the requests select: the functions
of one second of processes 0 to 3 as text, and all of a time window as a trace:

  klttool run.klt --request 1s:2s 0:3 FUNCTIONS --dump
  klttool run.klt --request 0.5s:1.5s --logfile-name slice.klt \
          --logfile-format KLT

Exit status: 0 for success; 1 if an input or output can't be opened or written,
the trace is unusable or memory runs out; 2 if a part of the trace couldn't be
read, but the rest could; 3 if none of it could be read; 4 if a record couldn't
be processed; 10 for a mistake in the options. If --move or --remove fails, the
status comes from the operation on the files.

Supported Directives
====================

--convert [<filename>] (off)
  Converts the whole trace; requests are ignored. With --logfile-format KLT or
  SINGLEKLT the files of the trace are copied into the separate or the single
  form, byte for byte, without reading the records. SINGLEKLT can go to
  standard output (filename "-"). Without --logfile-format, or with ASCII, the
  trace is written as text. A filename here is the same as --logfile-name.

--move [<file/dirname>] (off)
  Moves all files of the trace. If the name is that of a directory, the files
  are moved there and keep their names; otherwise it is the new name of the
  trace and replaces the old one in the names of all files. A name is needed,
  here or by --logfile-name. The exit status shows a failure; files moved before
  the failure stay moved.

--remove (off)
  Removes the trace with all its files. It doesn't ask for confirmation.

--merge [<filename>] (off)
  Merges a raw trace, in which each side of a communication is an event of its
  own, into the final form: sends are matched with receives and the members of
  collective operations with each other, and statistics are added. Needs a
  filename and --logfile-format KLT or SINGLEKLT; without the format the trace
  is written as text. The input isn't changed unless --delete-raw-data is given.
  A trace that is already merged is refused.

--delete-raw-data (off)
  Removes the input after a merge.

--sumdata [<filename>] (off)
  Summarises a trace in time bins: call trees, collective operations, messages,
  counters and reports, each in a file of its own. Their names are the filename,
  or else that of the trace, with .sum.fnc, .sum.cop, .sum.msg, .sum.cnt and
  .sum.rep appended. A filename also needs --logfile-format KLT. Applies to
  merged traces; with --merge, a raw trace is merged and summarised in one run.

--print-files (off)
  Lists the files of the trace with their sizes in bytes. For a single file
  these are the components inside it.

--print-statistics (off)
  Prints the statistics that were stored when the trace was written: for
  functions, messages and collective operations. Each line that begins with INFO
  is one of them; lines that begin with # name the columns. Times of INFO
  ACTSTATS are in seconds, those of the profiles in raw time: clock ticks, if a
  tick has no event bits. No events are read.

--print-reports (off)
  Prints the reports of the message checker: the process, WARNING or ERROR, the
  kind of the report, its description and the calls involved. With
  --print-statistics only the statistics are printed.

--print-threads (off)
  Prints the native threads of the run: process and thread number, host name, IP
  addresses, process and thread id of the operating system, and start and end of
  the trace by the thread's own clock.

--print-errors (off)
  Prints nothing on standard output. The definitions of the trace are read, and
  messages and the exit status show whether they are intact.

--dump (off)
  Writes the trace as text to standard output: short for --logfile-name - with
  --logfile-format ASCII. It overrides both.

--request "<type>", <thread triplets>, <categories>, <window>
  Selects what an extraction writes. Without a request it writes everything;
  with several it writes each event that any of them selects, once. The parts of
  a request may come in any order, separated by blanks or commas, and each may
  be left out. The type is accepted, but has no effect.

  A thread triplet is first:last:stride: 0:10:2 means 0, 2, 4, 6, 8 and 10, 0:3
  means 0 to 3, and 5 means 5 alone. The number of thread t of process p is
  p + 65536 * t, so the numbers below 65536 are the first threads of the
  processes. N means the highest process number of klttool itself, which is 0.
  Without triplets all threads are selected.

  Categories are FUNCTIONS, SCOPES, FILEIO, COUNTERS, MESSAGES and COLLOPS. A
  request may name several; without any, all are selected. Comments and other
  records that belong to all categories are always included. The words OPENMP,
  ERRORS, RAW_EVENTS, REQUESTS, frames, thumbnails and internal are accepted,
  but an extraction writes nothing for them.

  A window is start:end; an event at the start belongs to it and one at the end
  doesn't. If the end is before the start, there is no end. A time is a number
  with one of the units s (seconds), l (milliseconds), c (microseconds),
  m (minutes), h (hours), d (days) and w (weeks), and may be a sum: 1h+30m. A
  number without a unit is in seconds, but at least one of the two times needs a
  unit or a fraction: 10s:20 is a window, 10:20 a triplet. What is open at the
  start of a window is written first: calls, scopes, messages in flight and
  collective operations in progress; and the last sample of each counter, but
  only if the request names COUNTERS and neither MESSAGES nor COLLOPS. At the
  end of a window the open calls and scopes are closed.

    --request 1s:2s
    --request 250l:1.5s 0:3 FUNCTIONS MESSAGES
    --request 1h+30m:2h, 0:31:2, COLLOPS

--ticks (off)
  Times in requests are time stamps as the trace stores them, instead of
  seconds. Their lowest bits count events within a tick of the clock. A unit
  still multiplies the number by its length in seconds, and a window needs a
  unit to differ from a triplet: --request 1000s:2000s --ticks.

--logfile-name <file name>
  The output, "-" for standard output. The suffix of the name doesn't choose the
  format: without --logfile-format the output is text. An existing file is
  overwritten, unless it is a file of the input.

--logfile-format [ASCII|KLT|KLTSINGLE|SINGLEKLT]
  The format of the output: ASCII for text, KLT for a binary trace of separate
  files, KLTSINGLE or SINGLEKLT for a binary trace in one file. KLTASCII is the
  same as KLT.

--extended-rkf (off in MOR, on in klttool)
  Text contains the extensions of the format: EVENTBITS, DURATION, DEFSCOPE,
  BEGINSCOPE and ENDSCOPE lines, the names of communicators and the functions of
  messages. MOR, the collector, has the same option.

--matched-rkf (off)
  Writes a communication as one line of text, ONETOONE for a message and COLLOP
  for a collective operation, instead of a line for each side or member. Binary
  output always has one record for each. Without --logfile-format ASCII, text in
  a file whose name doesn't end in .ark always has these lines.

--verbose [on|off|<level>] (on)
  The amount of messages on standard error. 0 or off: warnings and errors only.
  1 or on: also hints, the name of the output, and the progress of a merge, on
  standard output. 2: also the progress of an extraction into a file, if standard
  error is a terminal. 3 and above: also date and time in each message.
  The level must be given: --verbose alone is an error that changes nothing.
)HELP";

}  // namespace

std::string KLTT_Banner() { return "klttool " KLT_VERSION " - trace file utility\n\n"; }

std::string KLTT_VersionLine() {
  return PAL_asprintf("klttool Version %s Build %04d%02d%02d\n", KLT_VERSION, KLT_BUILD_YEAR,
                      KLT_BUILD_MONTH, KLT_BUILD_DAY);
}

std::string_view KLTT_UsageText() { return kUsage; }

std::string_view KLTT_HelpText() { return kHelp; }
