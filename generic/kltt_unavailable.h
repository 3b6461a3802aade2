// Operations that the options can ask for and this build doesn't have yet.
//
// Each is declared as its module will offer it and reports that it isn't available. The driver
// (kltt_extract) calls them as it will call the real ones.
#pragma once

// Reports "`what` is not available in this build" and ends the process with status 1.
[[noreturn]] void KLTT_Unavailable(const char* what);
