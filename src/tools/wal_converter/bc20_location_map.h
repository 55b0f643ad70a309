// bc20_location_map: the reader of the location map, which gives each storage location its
// path, one "name,path\n" line per location.
//
// Reads a text stream in 512-byte pieces into a 1024-byte line buffer of its own and sets the
// paths in the legacy catalog; it owns nothing it returns and never writes the map (the 2.5
// logger does). Failures are logged at ERROR under LOGGER where they are found.
//
// Format: each line is <name>,<path> and a line feed. One comma per line; both elements hold
// 1 to 1023 bytes, white space included; no header, comment or escape. A name the catalog
// doesn't know is skipped; for a name given twice the last line wins. Text after the last line
// feed is reported as an incomplete last line and dropped, without failing the read.
#ifndef J480_TOOLS_WAL_CONVERTER_BC20_LOCATION_MAP_H
#define J480_TOOLS_WAL_CONVERTER_BC20_LOCATION_MAP_H

#include <cstdint>

struct stream;
struct bc20_catalog;

constexpr int64_t BC20_MAP_LINE_BUFSIZE = 1024;
constexpr int64_t BC20_MAP_PIECE = 512;

// Reads the whole stream: the number of lines applied, or -1 with the failure logged (a stream
// error alone ends it with -1 and no message).
int64_t bm_logger_replay_location_map(stream* s, struct bc20_catalog* catalog);

#endif  // J480_TOOLS_WAL_CONVERTER_BC20_LOCATION_MAP_H
