// j480_wal20_converter: the run sequence of the tool, from the option parse to the tail.
#ifndef J480_TOOLS_WAL_CONVERTER_J480_WAL20_CONVERTER_H
#define J480_TOOLS_WAL_CONVERTER_J480_WAL20_CONVERTER_H

// The whole run; the exit value of the process (0 or -1).
int j480_wal20_converter_main(int argc, char** argv);

#endif
