// How the program talks to a person outside its regular output.
//
// Three message levels with one line format, written to standard error and to optional further
// targets. Owns the process-wide settings PAL_messages. Messages never end the process, and short
// ones need no heap memory, so that the exhaustion of it can be told.
#pragma once

#include <cstddef>
#include <cstdio>

#include "util/pal_strings.h"  // PAL_Printable, for the names in messages

struct PAL_MessageSettings {
  const char* programName;  // word ahead of the level, or null
  const char* processName;  // name of this process in a group, shown in brackets, or null
  int showTime;             // nonzero adds the date and time to each line
  int infoEnabled;          // gate of PAL_Info and PAL_Warning
  int errorEnabled;         // gate of PAL_Error
  FILE* logStream;          // second target, or null
  void (*logCallback)(void* context, const char* text, size_t length);  // third target, or null
};
extern PAL_MessageSettings PAL_messages;

// Each formats one message and writes every non-empty line of it with the prefix of its level, in
// one piece. Names from traces and from the user go through PAL_Printable first. errno is kept.
void PAL_Info(const char* format, ...) __attribute__((format(printf, 1, 2)));
void PAL_Warning(const char* format, ...) __attribute__((format(printf, 1, 2)));
void PAL_Error(const char* format, ...) __attribute__((format(printf, 1, 2)));

// What is read twice would be complained of twice: while this lives, a message of the second time
// is left out if the first time gave it. There is one at a time.
class PAL_MessagesOnce {
 public:
  PAL_MessagesOnce();  // the first time begins
  ~PAL_MessagesOnce();
  void beginSecond();
  PAL_MessagesOnce(const PAL_MessagesOnce&) = delete;
  PAL_MessagesOnce& operator=(const PAL_MessagesOnce&) = delete;
};

void PAL_SetLogStream(FILE* stream);
void PAL_SetLogCallback(void (*callback)(void* context, const char* text, size_t length));

// perror: "`text`: <text of errno>" on standard error, without a level; control bytes of `text`
// are escaped. errno is kept.
void PAL_Perror(const char* text);
