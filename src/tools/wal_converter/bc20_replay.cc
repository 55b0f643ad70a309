#include "tools/wal_converter/bc20_replay.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "bm/columnspace.h"
#include "bm/iobm.h"
#include "tools/wal_converter/bc20_catalog.h"
#include "tools/wal_converter/bc20_colgroup.h"
#include "tools/wal_converter/bc20_column.h"
#include "tools/wal_converter/bc20_index.h"
#include "tools/wal_converter/bc20_iobm.h"
#include "tools/wal_converter/bc20_location_map.h"
#include "tools/wal_converter/bc20_logger.h"
#include "utils/cvlog.h"
#include "utils/file.h"
#include "utils/mem.h"
#include "utils/posix.h"
#include "utils/stream.h"

namespace {

constexpr char LOGGER[] = "LOGGER";
constexpr char CBM[] = "CBM";

struct handler_entry {
  bc20_action_handler function;
  void* context;
};

handler_entry handlers[MAX_HANDLERS];
int32_t num_handlers = 0;
bool g_types_registered = false;
// The file iobm_init is reading, while it reads it.
stream* g_open_stream = nullptr;

// The size of the file behind `s`, 0 where it can't be told (no progress lines then).
uint64_t stream_file_size(stream* s) {
  struct stat st;
  if (s == nullptr || s->handle == nullptr || px_fstat(fileno(s->handle), &st) != 0) return 0;
  return st.st_size > 0 ? static_cast<uint64_t>(st.st_size) : 0;
}

// Offers each action of `list` to every handler; all handlers see an action even after one has
// failed, but the next action is not offered then.
int dispatch(bc20_action* list) {
  for (bc20_action* a = list; a != nullptr; a = a->next) {
    int ok = 1;
    for (int32_t h = 0; h < num_handlers; h++)
      ok = (handlers[h].function(handlers[h].context, a) != 0) && ok;
    if (!ok) return 0;
  }
  return 1;
}

std::string cbm_file(iobm* bm, const char* name) {
  std::string path = iobm_get_path(bm);
  path += J480_PATH_SEP;
  path += name;
  return path;
}

}  // namespace

void bc20_bm_logger_add_handler(bc20_action_handler function, void* context) {
  J480_ASSERT(LOGGER, num_handlers < MAX_HANDLERS);
  handlers[num_handlers].function = function;
  handlers[num_handlers].context = context;
  num_handlers++;
}

int32_t bc20_bm_logger_num_handlers() { return num_handlers; }

void bc20_replay_abandon() {
  if (g_open_stream != nullptr) stream_close_destroy(g_open_stream);
  g_open_stream = nullptr;
  bc20_iobm_forget_replay();
}

void bc20_replay_reset_registry() {
  num_handlers = 0;
  g_types_registered = false;
}

int64_t bc20_bm_logger_replay(stream* s, int32_t* fatal) {
  int64_t version = -1;
  stream_read_lng(s, &version);
  uint64_t size = stream_file_size(s);
  *fatal = 0;
  CV_INFO(LOGGER, "Reading old catalog...");
  if (bc20_logger_version_test(version) < 0) {
    *fatal = 1;
    return -1;
  }
  uint64_t last_percent = 0;
  for (;;) {
    MemContext* mem = mem_context_create(nullptr, "logger_replay_tc");
    int64_t position = 0;
    stream_getpos(s, &position);
    uint64_t percent = size > 0 ? static_cast<uint64_t>(position) * 100 / size : 0;
    if (percent - last_percent >= 10 && percent > last_percent) {
      CV_INFO(LOGGER, "Parsing %lld%% done.", static_cast<long long>(percent));
      last_percent = percent;
    }
    bc20_action* actions = nullptr;
    int rc = bc20_logger_read_transaction(mem, s, &actions);
    if (rc == 0) {
      mem_context_remove(mem);
      return 0;
    }
    if (actions == nullptr) {
      CV_WARN(LOGGER, "bc20_bm_logger_replay: failed reading, last known good is %lld",
              static_cast<long long>(position));
      mem_context_remove(mem);
      return position;
    }
    int ok = dispatch(actions);
    mem_context_remove(mem);
    if (!ok) {
      *fatal = 1;
      return position;
    }
  }
}

void bc20_register_types() {
  if (g_types_registered) return;
  g_types_registered = true;
  bc20_column_register_types();
  bc20_colgroup_register_types();
  bc20_index_register_types();
  bc20_bm_logger_add_handler(bc20_minmax_action_handler, nullptr);
  bc20_bm_logger_add_handler(jis_action_handler, nullptr);
}

int iobm_init(iobm* bm) {
  std::string log_path = cbm_file(bm, "LOG");
  bc20_bm_logger_add_handler(bc20_catalog_replay_handler, bm);
  bc20_bm_logger_add_handler(bc20_storage_replay_handler, bm);

  int32_t fatal = 0;
  int64_t result = 0;
  stream* s = open_binary_read_stream(log_path.c_str());
  if (s != nullptr) {
    g_open_stream = s;
    if (stream_error(s) == 0) {
      result = bc20_bm_logger_replay(s, &fatal);
      stream_close(s);
    }
    g_open_stream = nullptr;
    stream_destroy(s);
  }
  bc20_iobm_drop_default_file_ref(bm);
  if (fatal) return 0;
  if (result != 0) {
    CV_ERROR(CBM, "iobm_init: to-be-converted WAL '%s' not in consistent state.",
             log_path.c_str());
    return 0;
  }

  std::string map_path = cbm_file(bm, "location_map");
  // No map is a database without one; a map that can't be looked at is not.
  const bool map_missing = !file_exists(map_path.c_str());
  if (map_missing && errno == ENOENT) return 1;
  int64_t map_result = -1;
  stream* m = map_missing ? nullptr : open_text_read_stream(map_path.c_str());
  if (m == nullptr || stream_error(m) != 0) {
    CV_ERROR(LOGGER, "Could not open location map file %s.", map_path.c_str());
  } else {
    g_open_stream = m;
    map_result = bm_logger_replay_location_map(m, bc20_catalog);
    g_open_stream = nullptr;
    stream_close(m);
  }
  if (m != nullptr) stream_destroy(m);
  if (map_result < 0) {
    CV_ERROR(LOGGER, "Error replaying map file '%s'", map_path.c_str());
    return 0;
  }
  return 1;
}
