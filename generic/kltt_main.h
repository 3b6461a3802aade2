// The entry point of the program, called by main().
#pragma once

// Runs the program with the arguments of a `main` and ends the process.
[[noreturn]] void KLTT_Main(int argc, char** argv);
