#include "tools/wal_converter/j480_wal20_converter.h"

int j480_wal20_converter_main(int, char**) { return -1; }
