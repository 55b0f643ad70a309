// The writer of the 2.5 log: one write function per record kind, the logger's life and commit.
#include <stdio_ext.h>

#include <cstdlib>
#include <cstring>

#include "bm/logger.h"
#include "utils/cvlog.h"
#include "utils/file.h"
#include "utils/posix.h"
#include "utils/stream.h"

namespace {

constexpr char LOGGER[] = "LOGGER";

// Every write but tr_new needs an open transaction; each leaves `state` at its own tag.
inline void enter(bm_logger* l, int32_t tag) {
  if (__builtin_expect(l->state == BM_TR_END, 0))
    cv_assert_fail(__FILE__, __LINE__, LOGGER, "l->state != tr_end");
  l->state = tag;
}

inline bool w32(stream* s, int32_t v) {
  return stream_write_int(s, v) != 0;
}
inline bool w64(stream* s, int64_t v) {
  return stream_write_lng(s, v) != 0;
}

// `n` raw bytes in one write.
bool wbytes(stream* s, const void* data, int64_t n) {
  if (n == 0) return true;
  if (n < 0 || data == nullptr) return false;
  return stream_write(s, data, 1, static_cast<size_t>(n)) == n && stream_error(s) == STREAM_NOERR;
}

inline int64_t text_length(const char* text) {
  return text != nullptr ? static_cast<int64_t>(strlen(text)) : 0;
}

// A str field without a limit.
bool wstr(stream* s, const char* text) {
  int64_t n = text_length(text);
  return n <= INT32_MAX && w32(s, static_cast<int32_t>(n)) && wbytes(s, text, n);
}

// A str field of the limited kinds: the length is written, the bytes only below the limit.
bool wname(stream* s, const char* text) {
  int64_t n = text_length(text);
  if (n > INT32_MAX || !w32(s, static_cast<int32_t>(n))) return false;
  return n < BM_LOGGER_NAME_BUFSIZE && wbytes(s, text, n);
}

// Records of a tag and one i64.
int write_id(bm_logger* l, int32_t tag, int64_t id) {
  enter(l, tag);
  return w32(l->log, tag) && w64(l->log, id);
}

}  // namespace

int bm_logger_tr_new(bm_logger* l, int64_t trid) {
  if (l->state != BM_TR_END) cv_assert_fail(__FILE__, __LINE__, LOGGER, "l->state == tr_end");
  l->state = BM_TR_NEW;
  return w32(l->log, BM_TR_NEW) && w64(l->log, trid);
}

int bm_logger_tr_end(bm_logger* l, int64_t trid) {
  return write_id(l, BM_TR_END, trid);
}

int bm_logger_scol_new(bm_logger* l, const bm_logger_action* a) {
  return write_id(l, BM_SCOL_NEW, a->id) && w32(l->log, a->scol_new.type);
}
int bm_logger_scol_del(bm_logger* l, const bm_logger_action* a) {
  return write_id(l, BM_SCOL_DEL, a->id) && w32(l->log, a->scol_del.type);
}

int bm_logger_cat_table_new(bm_logger* l, const bm_logger_action* a) {
  stream* s = l->log;
  return write_id(l, BM_CAT_TABLE_NEW, a->id) && wstr(s, a->cat_table_new.name) &&
         w32(s, a->cat_table_new.is_auto_pax);
}
int bm_logger_cat_table_del(bm_logger* l, const bm_logger_action* a) {
  return write_id(l, BM_CAT_TABLE_DEL, a->id);
}
int bm_logger_cat_table_truncate(bm_logger* l, const bm_logger_action* a) {
  return write_id(l, BM_CAT_TABLE_TRUNCATE, a->id);
}

int bm_logger_cat_column_new(bm_logger* l, const bm_logger_action* a) {
  stream* s = l->log;
  const bm_cat_column_new_fields& f = a->cat_column_new;
  return write_id(l, BM_CAT_COLUMN_NEW, a->id) && wname(s, f.name) && w32(s, f.nullability) &&
         w32(s, f.adt_id) && w32(s, f.ltype_code) && w64(s, f.table_id);
}
int bm_logger_cat_column_del(bm_logger* l, const bm_logger_action* a) {
  return write_id(l, BM_CAT_COLUMN_DEL, a->id);
}

int bm_logger_cat_index_new(bm_logger* l, const bm_logger_action* a) {
  stream* s = l->log;
  const bm_cat_index_new_fields& f = a->cat_index_new;
  return write_id(l, BM_CAT_INDEX_NEW, a->id) && wname(s, f.name) && w32(s, f.type) &&
         w64(s, f.table_id) && w64(s, f.ref_key_id);
}
int bm_logger_cat_index_del(bm_logger* l, const bm_logger_action* a) {
  return write_id(l, BM_CAT_INDEX_DEL, a->id);
}

int bm_logger_minmax_size(bm_logger* l, const bm_logger_action* a) {
  stream* s = l->log;
  const bm_minmax_size_fields& f = a->minmax_size;
  return write_id(l, BM_MINMAX_SIZE, a->id) && w64(s, f.maxgroups) && w64(s, f.numtuples) &&
         w64(s, f.groupsize);
}

namespace {
int write_minmax(bm_logger* l, int32_t tag, const bm_logger_action* a,
                 const bm_minmax_data_fields& f, int64_t overflow_bytes) {
  stream* s = l->log;
  return write_id(l, tag, a->id) && w32(s, f.column_nr) && w64(s, f.datasize) &&
         wbytes(s, f.data, f.datasize) && w32(s, f.overflow) && w64(s, f.overflow_datasize) &&
         wbytes(s, f.overflow_data, overflow_bytes);
}
}  // namespace

int bm_logger_minmax_data(bm_logger* l, const bm_logger_action* a) {
  const bm_minmax_data_fields& f = a->minmax_data;
  int64_t bytes;
  if (__builtin_mul_overflow(f.overflow_datasize, 2, &bytes)) bytes = -1;
  return write_minmax(l, BM_MINMAX_DATA, a, f, bytes);
}
int bm_logger_minmax_vardata(bm_logger* l, const bm_logger_action* a) {
  const bm_minmax_data_fields& f = a->minmax_vardata;
  return write_minmax(l, BM_MINMAX_VARDATA, a, f, f.overflow_datasize);
}

int bm_logger_jis_size(bm_logger* l, const bm_logger_action* a) {
  stream* s = l->log;
  const bm_jis_size_fields& f = a->jis_size;
  return write_id(l, BM_JIS_SIZE, a->id) && w64(s, f.maxgroups) && w64(s, f.numgroups) &&
         w64(s, f.groupsize);
}
int bm_logger_jis_data(bm_logger* l, const bm_logger_action* a) {
  stream* s = l->log;
  const bm_jis_data_fields& f = a->jis_data;
  int64_t bytes;
  if (__builtin_mul_overflow(f.numgroups, 8, &bytes)) bytes = -1;
  return write_id(l, BM_JIS_DATA, a->id) && w32(s, f.jis_column) && w64(s, f.numgroups) &&
         wbytes(s, f.data, bytes);
}

int bm_logger_pdt_new(bm_logger* l, const bm_logger_action* a) {
  stream* s = l->log;
  return write_id(l, BM_PDT_NEW, a->id) && w64(s, a->pdt_new.size) &&
         wbytes(s, a->pdt_new.data, a->pdt_new.size);
}

int bm_logger_cat_location_new(bm_logger* l, const bm_logger_action* a) {
  stream* s = l->log;
  const bm_cat_location_new_fields& f = a->cat_location_new;
  int ok = write_id(l, BM_CAT_LOCATION_NEW, a->id) && wstr(s, f.name) && w32(s, f.usage);
  // The map line goes out even where the record failed; the commit fails either way.
  if (f.path != nullptr && f.path[0] != '\0') {
    ok = bm_logger_write_location_map_entry(l, f.name, f.path) && ok;
    if (ok) ok = verify_or_create_db_key_in_path(f.path);
  }
  return ok;
}

int bm_logger_cat_location_del(bm_logger* l, const bm_logger_action* a) {
  int ok = write_id(l, BM_CAT_LOCATION_DEL, a->id);
  // The location's key goes whatever the record gave; its map line stays.
  if (a->cat_location_del.path != nullptr) {
    char* key_file = generate_db_key_file(a->cat_location_del.path);
    if (key_file != nullptr && file_remove(key_file) != 0)
      CV_WARN(LOGGER, "bm_logger_cat_location_del: unable to unlink db_key file '%s'", key_file);
    free(key_file);
  }
  return ok;
}

int bm_logger_cat_location_update(bm_logger* l, const bm_logger_action* a) {
  return write_id(l, BM_CAT_LOCATION_UPDATE, a->id) && w32(l->log, a->cat_location_update.usage);
}

int bm_logger_blk_new(bm_logger* l, const bm_logger_action* a) {
  stream* s = l->log;
  const bm_blk_fields& f = a->blk_new;
  return write_id(l, BM_BLK_NEW, a->id) && w64(s, f.file_nr) && w64(s, f.block_nr) &&
         w64(s, f.bytes_used) && w64(s, f.num_tuples);
}
int bm_logger_blk_del(bm_logger* l, const bm_logger_action* a) {
  stream* s = l->log;
  return write_id(l, BM_BLK_DEL, a->id) && w64(s, a->blk_del.file_nr) &&
         w64(s, a->blk_del.block_nr);
}

int bm_logger_file_new(bm_logger* l, const bm_logger_action* a) {
  stream* s = l->log;
  return write_id(l, BM_FILE_NEW, a->id) && w64(s, a->file_new.location_id) &&
         wstr(s, a->file_new.filename);
}
int bm_logger_file_del(bm_logger* l, const bm_logger_action* a) {
  return write_id(l, BM_FILE_DEL, a->id);
}

int bm_logger_cs_new(bm_logger* l, const bm_logger_action* a) {
  if (l->state != BM_TR_NEW) cv_assert_fail(__FILE__, __LINE__, LOGGER, "l->state == tr_new");
  l->state = BM_CS_NEW;
  stream* s = l->log;
  // One columnspace: its id and the reserved word are always 0 on disk.
  return w32(s, BM_CS_NEW) && w32(s, 0) && w64(s, a->cs_new.blksz) && w64(s, 0);
}

int bm_logger_paxgroup_file_new(bm_logger* l, const bm_logger_action* a) {
  stream* s = l->log;
  return write_id(l, BM_PAXGROUP_FILE_NEW, a->id) && w64(s, a->paxgroup_file_new.file_nr) &&
         w64(s, a->paxgroup_file_new.object_id);
}
int bm_logger_paxgroup_file_del(bm_logger* l, const bm_logger_action* a) {
  stream* s = l->log;
  return write_id(l, BM_PAXGROUP_FILE_DEL, a->id) && w64(s, a->paxgroup_file_del.file_nr) &&
         w64(s, a->paxgroup_file_del.object_id);
}

int bm_logger_cat_key_new(bm_logger* l, const bm_logger_action* a) {
  stream* s = l->log;
  const bm_cat_key_new_fields& f = a->cat_key_new;
  int64_t bytes;
  if (f.ncols < 0 || __builtin_mul_overflow(f.ncols, 8, &bytes)) bytes = -1;
  return write_id(l, BM_CAT_KEY_NEW, a->id) && wname(s, f.name) && w32(s, f.type) &&
         w64(s, f.table_id) && w64(s, f.ref_key_id) && w64(s, f.ncols) &&
         wbytes(s, f.col_ids, bytes);
}
int bm_logger_cat_key_del(bm_logger* l, const bm_logger_action* a) {
  return write_id(l, BM_CAT_KEY_DEL, a->id);
}

int bm_logger_storage_new(bm_logger* l, const bm_logger_action* a) {
  return write_id(l, BM_STORAGE_NEW, a->id) && w64(l->log, a->storage_new.object_id);
}
int bm_logger_storage_del(bm_logger* l, const bm_logger_action* a) {
  return write_id(l, BM_STORAGE_DEL, a->id);
}

int bm_logger_paxgroup_new(bm_logger* l, const bm_logger_action* a) {
  stream* s = l->log;
  const bm_paxgroup_new_fields& f = a->paxgroup_new;
  const bm_paxgroup_columns& c = *f.cols;
  if (!write_id(l, BM_PAXGROUP_NEW, a->id) || !w64(s, f.storage_id) || !w64(s, f.scol_id) ||
      !w64(s, f.object_id) || !w64(s, f.ncols))
    return 0;
  for (int64_t i = 0; i < f.ncols; i++)
    if (!w32(s, c.nullability[i])) return 0;
  for (int64_t i = 0; i < f.ncols; i++)
    if (!w32(s, c.adt_id[i])) return 0;
  for (int64_t i = 0; i < f.ncols; i++)
    if (!wstr(s, c.compression[i])) return 0;
  for (int64_t i = 0; i < f.ncols; i++)
    if (!w32(s, c.implementation[i])) return 0;
  return 1;
}
int bm_logger_paxgroup_del(bm_logger* l, const bm_logger_action* a) {
  return write_id(l, BM_PAXGROUP_DEL, a->id) && w64(l->log, a->paxgroup_del.object_id);
}

namespace {

// Writes one action through its tag's function: one switch, so that the common kinds inline.
int write_action(bm_logger* l, const bm_logger_action* a) {
  switch (a->type) {
    case BM_BLK_NEW:
      return bm_logger_blk_new(l, a);
    case BM_BLK_DEL:
      return bm_logger_blk_del(l, a);
    case BM_SCOL_NEW:
      return bm_logger_scol_new(l, a);
    case BM_SCOL_DEL:
      return bm_logger_scol_del(l, a);
    case BM_CAT_TABLE_NEW:
      return bm_logger_cat_table_new(l, a);
    case BM_CAT_TABLE_DEL:
      return bm_logger_cat_table_del(l, a);
    case BM_CAT_TABLE_TRUNCATE:
      return bm_logger_cat_table_truncate(l, a);
    case BM_CAT_COLUMN_NEW:
      return bm_logger_cat_column_new(l, a);
    case BM_CAT_COLUMN_DEL:
      return bm_logger_cat_column_del(l, a);
    case BM_CAT_INDEX_NEW:
      return bm_logger_cat_index_new(l, a);
    case BM_CAT_INDEX_DEL:
      return bm_logger_cat_index_del(l, a);
    case BM_MINMAX_SIZE:
      return bm_logger_minmax_size(l, a);
    case BM_MINMAX_DATA:
      return bm_logger_minmax_data(l, a);
    case BM_MINMAX_VARDATA:
      return bm_logger_minmax_vardata(l, a);
    case BM_JIS_SIZE:
      return bm_logger_jis_size(l, a);
    case BM_JIS_DATA:
      return bm_logger_jis_data(l, a);
    case BM_PDT_NEW:
      return bm_logger_pdt_new(l, a);
    case BM_CAT_LOCATION_NEW:
      return bm_logger_cat_location_new(l, a);
    case BM_CAT_LOCATION_DEL:
      return bm_logger_cat_location_del(l, a);
    case BM_CAT_LOCATION_UPDATE:
      return bm_logger_cat_location_update(l, a);
    case BM_FILE_NEW:
      return bm_logger_file_new(l, a);
    case BM_FILE_DEL:
      return bm_logger_file_del(l, a);
    case BM_CS_NEW:
      return bm_logger_cs_new(l, a);
    case BM_PAXGROUP_FILE_NEW:
      return bm_logger_paxgroup_file_new(l, a);
    case BM_PAXGROUP_FILE_DEL:
      return bm_logger_paxgroup_file_del(l, a);
    case BM_CAT_KEY_NEW:
      return bm_logger_cat_key_new(l, a);
    case BM_CAT_KEY_DEL:
      return bm_logger_cat_key_del(l, a);
    case BM_STORAGE_NEW:
      return bm_logger_storage_new(l, a);
    case BM_STORAGE_DEL:
      return bm_logger_storage_del(l, a);
    case BM_PAXGROUP_NEW:
      return bm_logger_paxgroup_new(l, a);
    case BM_PAXGROUP_DEL:
      return bm_logger_paxgroup_del(l, a);
    default:  // tr_new and tr_end are the commit's own
      CV_ERROR(LOGGER, "Unhandled log action type %d during writing", a->type);
      return 0;
  }
}

// Drops what the handle still buffers of a failed transaction and puts the log back at `start`.
void rewind_to(bm_logger* l, int64_t start) {
  stream* s = l->log;
  stream_clear_error(s);
  if (s->handle != nullptr) {
    __fpurge(s->handle);
    clearerr_unlocked(s->handle);
  }
  stream_setpos(s, start);
}

}  // namespace

int bm_logger_commit(bm_logger* l, const bm_logger_action_list* list, int64_t transaction_id) {
  if (list == nullptr) return 1;
  stream* s = l->log;
  // Whatever stands before the transaction leaves the handle's buffer first, so that a failure
  // can drop the buffer and lose only the transaction's own bytes.
  int64_t start = -1;
  bool ok = stream_flush(s) == 0 && stream_getpos(s, &start) == 0;
  const bool bracket = list->head != nullptr && transaction_id >= 0;
  if (ok && bracket) ok = bm_logger_tr_new(l, transaction_id);
  for (const bm_logger_action* a = list->head; ok && a != nullptr; a = a->next)
    ok = write_action(l, a);
  if (ok && bracket) ok = bm_logger_tr_end(l, transaction_id);
  // The map goes to disk with the log: a committed log whose locations lost their paths would
  // leave their files unreachable.
  if (ok && l->location_map != nullptr)
    ok = stream_flush(l->location_map) == 0 && stream_fsync(l->location_map) == 0;
  if (ok) ok = stream_flush(s) == 0 && stream_fsync(s) == 0;
  if (ok) return 1;

  CV_ERROR(LOGGER, "bm_logger_commit: failed writing LOG");
  if (start >= 0) {
    CV_WARN(LOGGER, "bm_logger_commit: seeking %s to %lld", stream_name(s),
            static_cast<long long>(start));
    rewind_to(l, start);
  } else {
    stream_clear_error(s);
  }
  l->state = BM_TR_END;
  return 0;
}

bm_logger* bm_logger_create(stream* s) {
  auto* l = static_cast<bm_logger*>(calloc(1, sizeof(bm_logger)));
  if (l == nullptr) return nullptr;
  wal_version = BM_LOGGER_VERSION_25;
  // A new file holds the mark alone and takes the version word. A position that can't be read
  // would leave a new file without its word, and a log that no reader takes: refused.
  int64_t position = -1;
  if (stream_getpos(s, &position) != 0) {
    free(l);
    return nullptr;
  }
  if (position == 2) {
    if (!stream_write_lng(s, wal_version) || stream_flush(s) != 0) {
      free(l);
      return nullptr;
    }
  }
  l->state = BM_TR_END;
  l->log = s;
  return l;
}

bm_logger* bm_logger_open(const char* path) {
  stream* s = open_binary_append_stream(path);
  if (s != nullptr && stream_error(s) == STREAM_NOERR) {
    stream_close_destroy(s);
    s = open_binary_update_stream(path);
    if (s != nullptr && stream_error(s) == STREAM_NOERR && s->handle != nullptr &&
        px_fseeko(s->handle, 0, SEEK_END) != 0)
      s->errnr = STREAM_WRITE_ERROR;
  }
  bm_logger* l = nullptr;
  if (s != nullptr && stream_error(s) == STREAM_NOERR) l = bm_logger_create(s);
  if (l == nullptr) {
    if (s != nullptr) stream_close_destroy(s);
    CV_ERROR(LOGGER, "bm_logger_open: failed creating WAL file '%s'", path);
  }
  return l;
}

int bm_logger_open_location_map(bm_logger* l, const char* path) {
  stream* s = open_text_append_stream(path);
  if (s != nullptr && stream_error(s) == STREAM_NOERR) {
    l->location_map = s;
    return 1;
  }
  if (s != nullptr) stream_close_destroy(s);
  return 0;
}

void bm_logger_close(bm_logger* l) {
  if (l == nullptr) return;
  if (l->log != nullptr) stream_close_destroy(l->log);
  if (l->location_map != nullptr) stream_close_destroy(l->location_map);
  free(l);
}
