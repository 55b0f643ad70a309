// The j480_wal20_converter executable.
#include "tools/wal_converter/j480_wal20_converter.h"

int main(int argc, char** argv) { return j480_wal20_converter_main(argc, argv); }
