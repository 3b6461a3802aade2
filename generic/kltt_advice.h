// Advice on standard error, after the messages of kltt_main: what an unusable input is, what is
// missing, and which of the selected operations is done. With VERBOSE 0 there is none (RK_Hint).
#pragma once

// After the usage: what the command line lacks.
void KLTT_AdviseOnUsage();

// After a failure to open `name` as a trace: what it is, and where the trace may be.
void KLTT_AdviseOnInput(const char* name);

// Says that the output is text if its name or the operation suggests a trace.
void KLTT_AdviseOnFormat();

// Says which operation is done if several are selected. REQUIRES: the output's format is final.
void KLTT_AdviseOnOperations();

// Says that the summary files of `name` aren't moved or removed with the trace, if there are any.
void KLTT_AdviseOnSummaries(const char* name, const char* done);
