// Writes messages to the user, separate from the program's regular output.
//
// There are three levels with one line format, written to standard error and to optional further
// targets. Owns the process-wide settings PAL_messages. Messages never end the process. Short
// messages need no heap memory, so that exhausted heap memory can be reported.
#pragma once

#include <cstddef>
#include <cstdio>

#include "util/pal_strings.h"  // PAL_Printable, for the names in messages

struct PAL_MessageSettings {
  const char* programName;  // word before the level, or null
  const char* processName;  // process in a group, in brackets unless equal to programName, or null
  int showTime;             // nonzero adds the date and time to each line
  int infoEnabled;          // nonzero enables PAL_Info and PAL_Warning
  int errorEnabled;         // nonzero enables PAL_Error
  FILE* logStream;          // second target, or null
  void (*logCallback)(void* context, const char* text, size_t length);  // third target, or null
  // If set, it receives all messages instead of standard error and the other targets.
  void (*replacement)(void* context, const char* text, size_t length) = nullptr;
  void* replacementContext = nullptr;
};
extern PAL_MessageSettings PAL_messages;

// Each of these formats one message and writes its non-empty lines with the prefix of the level, by
// one call per target. The caller passes names from traces and from the user through PAL_Printable.
// errno is kept.
void PAL_Info(const char* format, ...) __attribute__((format(printf, 1, 2)));
void PAL_Warning(const char* format, ...) __attribute__((format(printf, 1, 2)));
void PAL_Error(const char* format, ...) __attribute__((format(printf, 1, 2)));

// For data that is read twice: after beginSecond(), each message is left out as often as it was
// written between construction and beginSecond(). At most one object exists at a time.
class PAL_MessagesOnce {
 public:
  PAL_MessagesOnce();  // the first reading begins
  ~PAL_MessagesOnce();
  void beginSecond();
  PAL_MessagesOnce(const PAL_MessagesOnce&) = delete;
  PAL_MessagesOnce& operator=(const PAL_MessagesOnce&) = delete;
};

void PAL_SetLogStream(FILE* stream);
void PAL_SetLogCallback(void (*callback)(void* context, const char* text, size_t length));

// Writes "`text`: <text of errno>" to standard error or the replacement, without a level, like
// perror(); without the first part if `text` is null or empty. Control bytes of `text` are escaped.
// errno is kept.
void PAL_Perror(const char* text);
