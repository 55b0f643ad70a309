// write_log: the finish of the conversion: the new files beside the old ones, the commit, and
// the exchange of the names.
//
// Until the first move the live files are only read. A move never leaves its content without a
// name: the target is linked to it before the source name goes, and a move that can't finish
// stops the exchange where it stands, so the old log is always under LOG or LOG.j480_20.
#include "tools/wal_converter/write_log.h"

#include <cerrno>
#include <cstring>

#include "bm/iobm.h"
#include "bm/logger.h"
#include "tools/wal_converter/bc20_catalog.h"
#include "tools/wal_converter/bc20_iobm.h"
#include "utils/cvlog.h"
#include "utils/file.h"
#include "utils/mem.h"
#include "utils/posix.h"
#include "utils/stream.h"

namespace {

constexpr char kModule[] = "LOGGER";
constexpr char kLog[] = "LOG";
constexpr char kLocationMap[] = "location_map";
constexpr char kNewSuffix[] = ".new";
constexpr char kOldSuffix[] = ".j480_20";
// Byte-order mark and version word.
constexpr int64_t kNewLogHeader = 2 + 8;

// "<cbm>/<base><suffix>" in `mem`, or null.
char* cbm_file(MemContext* mem, const char* base, const char* suffix) {
  return mem_printf(mem, J480_MEM_ALLOWFAILURE, "%s%c%s%s", iobm_get_path(bc20_iobm), J480_PATH_SEP,
                    base, suffix);
}

// 1 where `path` exists, 0 where it doesn't, -1 where that can't be told (errno set).
int name_exists(const char* path) {
  if (px_access(path, F_OK) == 0) return 1;
  return errno == ENOENT ? 0 : -1;
}

// Takes a leftover of an earlier run away: 0 once `path` is gone, -1 (logged) otherwise. A file
// left here would be appended to, and a stale transaction ahead of ours would spoil the log.
int remove_leftover(const char* path) {
  file_remove(path);
  if (name_exists(path) == 0) return 0;
  CV_ERROR(kModule, "create_new_log: removing '%s' failed: %s", path, strerror(errno));
  return -1;
}

// Gives the content of `from` the name `to` alone: 0, or -1 with the message logged. A missing
// `from` is nothing to do.
int move_file(const char* from, const char* to) {
  int err = 0;
  int from_state = name_exists(from);
  if (from_state == 0) return 0;
  if (from_state < 0) {
    err = errno != 0 ? errno : EIO;
  } else {
    int to_state = name_exists(to);
    if (to_state < 0 || (to_state == 1 && file_remove(to) != 0) || px_link(from, to) != 0 ||
        file_remove(from) != 0)
      err = errno != 0 ? errno : EIO;
  }
  if (err == 0) return 0;
  CV_ERROR(kModule, "write_new25_log: moving '%s' to '%s' failed: %s", from, to, strerror(err));
  return -1;
}

// Makes the names in the CBM directory durable: 0, or -1 with the message logged.
int sync_directory(const char* path) {
  int fd = px_open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0 || px_fsync(fd) != 0) {
    int err = errno;
    if (fd >= 0) px_close(fd);
    CV_ERROR(kModule, "write_new25_log: syncing directory '%s' failed: %s", path, strerror(err));
    return -1;
  }
  px_close(fd);  // read-only: nothing can be lost here
  return 0;
}

// The four moves in their fixed order, then the directory.
int exchange_files(MemContext* mem) {
  const char* moves[4][2] = {
      {cbm_file(mem, kLog, ""), cbm_file(mem, kLog, kOldSuffix)},
      {cbm_file(mem, kLocationMap, ""), cbm_file(mem, kLocationMap, kOldSuffix)},
      {cbm_file(mem, kLog, kNewSuffix), cbm_file(mem, kLog, "")},
      {cbm_file(mem, kLocationMap, kNewSuffix), cbm_file(mem, kLocationMap, "")},
  };
  for (const auto& move : moves) {
    if (move[0] == nullptr || move[1] == nullptr) {
      CV_ERROR(kModule, "write_new25_log: out of memory");
      return -1;
    }
  }
  for (const auto& move : moves)
    if (move_file(move[0], move[1]) != 0) return -1;
  return sync_directory(iobm_get_path(bc20_iobm));
}

}  // namespace

int create_new_log(MemContext* mem) {
  char* log_path = cbm_file(mem, kLog, kNewSuffix);
  char* map_path = cbm_file(mem, kLocationMap, kNewSuffix);
  if (log_path == nullptr || map_path == nullptr) {
    CV_ERROR(kModule, "write_new25_log: out of memory");
    return 0;
  }
  if (remove_leftover(log_path) != 0 || remove_leftover(map_path) != 0) return 0;
  bm_logger* logger = bm_logger_open(log_path);
  if (logger == nullptr) return 0;
  // One logger per block manager: one that stands from an earlier call goes.
  bm_logger_close(iobm_get_logger(bc20_iobm));
  iobm_set_logger(bc20_iobm, logger);
  // The file was made just now: it must hold its mark and version word and nothing else, or
  // what is committed behind would not read as a log.
  int64_t position = -1;
  if (stream_getpos(logger->log, &position) != 0 || position != kNewLogHeader) {
    CV_ERROR(kModule, "create_new_log: '%s' is not an empty new log", log_path);
    return 0;
  }
  return bm_logger_open_location_map(logger, map_path);
}

int write_new25_log() {
  J480_ASSERT(kModule, bc20_iobm);
  MemContext* mem = mem_context_create(nullptr, "write_log");
  columnspace* cs = iobm_get_columnspace(bc20_iobm);
  ordered_tables* order = nullptr;
  bm_logger_action_list* list = nullptr;
  int result = -1;
  CV_INFO(kModule, "Analyzing catalog...");

  if (cs == nullptr) {
    CV_WARN(kModule, "Empty catalog, not converting.");
    goto tail;
  }
  order = init_ordered_tables(bc20_catalog, mem);
  if (order == nullptr) {
    CV_ERROR(kModule, "write_new25_log: out of memory");
    goto tail;
  }
  if (count_table_references(bc20_catalog, order, mem) != 0) goto tail;
  sort_ordered_tables(order);
  if (!create_new_log(mem)) goto tail;

  CV_INFO(kModule, "Generating new catalog...");
  list = generate_catalog(bc20_catalog, cs, order, mem);
  if (list == nullptr) goto tail;

  CV_INFO(kModule, "Writing new catalog...");
  if (!bm_logger_commit(iobm_get_logger(bc20_iobm), list, 0)) {
    CV_ERROR(kModule, "Failed to write log.");
    goto tail;
  }
  if (exchange_files(mem) != 0) goto tail;
  result = 0;

tail:
  action_list_clear(list);
  ordered_tables_free(order);
  mem_context_remove(mem);
  return result;
}
