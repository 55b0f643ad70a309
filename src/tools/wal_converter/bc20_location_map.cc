#include "tools/wal_converter/bc20_location_map.h"

#include <cstdlib>

#include "tools/wal_converter/bc20_catalog.h"
#include "utils/cvlog.h"
#include "utils/stream.h"

namespace {
constexpr const char* kModule = "LOGGER";
constexpr int64_t kNoComma = -2;
}  // namespace

int64_t bm_logger_replay_location_map(stream* s, struct bc20_catalog* catalog) {
  auto* line = static_cast<char*>(malloc(BC20_MAP_LINE_BUFSIZE));
  if (line == nullptr) {
    CV_ERROR(kModule, "bm_logger_replay_location_map: failed allocating %lld bytes for line buffer",
             static_cast<long long>(BC20_MAP_LINE_BUFSIZE));
    return -1;
  }
  const char* file = stream_name(s);
  char piece[BC20_MAP_PIECE];
  int64_t length = 0;
  int64_t location_id = kNoComma;
  long long lines = 0;
  bool ok = true;
  while (ok) {
    int64_t got = stream_read(s, piece, 1, sizeof piece);
    if (stream_error(s) != 0) {
      free(line);
      return -1;
    }
    if (got <= 0) break;
    for (int64_t i = 0; i < got && ok; i++) {
      char c = piece[i];
      if (c != ',' && c != '\n') {
        if (length == BC20_MAP_LINE_BUFSIZE - 1) {
          CV_ERROR(kModule,
                   "bm_logger_replay_location_map: element on line %lld in map file '%s' too "
                   "long (longer than %lld)",
                   lines, file, static_cast<long long>(BC20_MAP_LINE_BUFSIZE - 1));
          ok = false;
        } else {
          line[length++] = c;
        }
        continue;
      }
      if (length == 0) {
        CV_ERROR(kModule,
                 "bm_logger_replay_location_map: zero-length element on line %lld in map file "
                 "'%s'",
                 lines, file);
        ok = false;
        continue;
      }
      line[length] = '\0';
      length = 0;
      if (c == ',') {
        if (location_id != kNoComma) {
          CV_ERROR(kModule,
                   "bm_logger_replay_location_map: more than one element separator (%c) on line "
                   "%lld in map file '%s'",
                   ',', lines, file);
          ok = false;
        } else {
          location_id = bc20_catalog_location_id_by_name(catalog, line);
        }
        continue;
      }
      if (location_id == kNoComma) {
        CV_ERROR(kModule,
                 "bm_logger_replay_location_map: missing element on line %lld in map file '%s'",
                 lines, file);
        ok = false;
      } else if (location_id != -1) {
        // -1: a location the catalog doesn't know; its line is passed over uncounted.
        ok = bc20_catalog_set_location_path(catalog, location_id, line);
        lines++;
      }
      location_id = kNoComma;
    }
  }
  if (ok && (length > 0 || location_id != kNoComma))
    CV_ERROR(kModule, "bm_logger_replay_location_map: incomplete last line %lld in map file '%s'",
             lines, file);
  free(line);
  return ok ? lines : -1;
}
