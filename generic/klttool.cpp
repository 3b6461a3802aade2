// The executable. Everything else is in the libraries.
#include "generic/kltt_main.h"

int main(int argc, char** argv) { KLTT_Main(argc, argv); }
