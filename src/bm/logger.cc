// The actions of the 2.5 log, their lists, the location map writer and the key files.
#include "bm/logger.h"

#include <cstdlib>
#include <cstring>

#include "bm/iobm.h"
#include "bm/paxgroup.h"
#include "kernel/ptype.h"
#include "utils/cvlog.h"
#include "utils/file.h"
#include "utils/mem.h"
#include "utils/posix.h"
#include "utils/stream.h"

int64_t wal_version = -1;

// A commit walks millions of actions: each stays within five cache-line quarters.
static_assert(sizeof(bm_logger_action) == 80, "bm_logger_action grew");

namespace {

constexpr char LOGGER[] = "LOGGER";
constexpr int kFlags = J480_MEM_ALLOWFAILURE;
constexpr char kKeyFileName[] = "db_key";

// The text shared by every action that has no compression or no name.
char g_empty[1] = "";

iobm* g_iobm = nullptr;

bm_logger_action* new_action(MemContext* mem, int32_t type, int64_t id) {
  auto* a = static_cast<bm_logger_action*>(mem_callocex(mem, sizeof(bm_logger_action), kFlags));
  if (a == nullptr) return nullptr;
  a->type = type;
  a->id = id;
  return a;
}

// A copy in `mem`; null stays null where `keep_null`, otherwise becomes "".
bool copy_text(MemContext* mem, const char* text, char** out, bool keep_null = false) {
  if (text == nullptr) {
    *out = keep_null ? nullptr : g_empty;
    return true;
  }
  *out = mem_strdup_flags(mem, text, kFlags);
  return *out != nullptr;
}

// `count` items of `width` bytes copied into `mem`; null for none. False for a count that is
// negative or too large, or a failed allocation.
bool copy_array(MemContext* mem, const void* data, int64_t count, int64_t width, void** out) {
  *out = nullptr;
  int64_t bytes;
  if (count < 0 || __builtin_mul_overflow(count, width, &bytes)) return false;
  if (bytes == 0) return true;
  void* copy = mem_mallocex(mem, static_cast<uint64_t>(bytes), kFlags);
  if (copy == nullptr) return false;
  if (data != nullptr) {
    memcpy(copy, data, static_cast<size_t>(bytes));
  } else {
    memset(copy, 0, static_cast<size_t>(bytes));
  }
  *out = copy;
  return true;
}

bm_logger_action* id_only(MemContext* mem, int32_t type, int64_t id) {
  return new_action(mem, type, id);
}

}  // namespace

// ---- constructors ----

bm_logger_action* bm_action_tr_new(MemContext* mem, int64_t trid) {
  return id_only(mem, BM_TR_NEW, trid);
}
bm_logger_action* bm_action_tr_end(MemContext* mem, int64_t trid) {
  return id_only(mem, BM_TR_END, trid);
}

bm_logger_action* bm_action_scol_new(MemContext* mem, int64_t scolid, int32_t type) {
  bm_logger_action* a = new_action(mem, BM_SCOL_NEW, scolid);
  if (a != nullptr) a->scol_new.type = type;
  return a;
}
bm_logger_action* bm_action_scol_del(MemContext* mem, int64_t scolid, int32_t type) {
  bm_logger_action* a = new_action(mem, BM_SCOL_DEL, scolid);
  if (a != nullptr) a->scol_del.type = type;
  return a;
}

bm_logger_action* bm_action_cat_table_new(MemContext* mem, int64_t table_id, const char* name,
                                          int32_t is_auto_pax) {
  bm_logger_action* a = new_action(mem, BM_CAT_TABLE_NEW, table_id);
  if (a == nullptr || !copy_text(mem, name, &a->cat_table_new.name)) return nullptr;
  a->cat_table_new.is_auto_pax = is_auto_pax;
  return a;
}
bm_logger_action* bm_action_cat_table_del(MemContext* mem, int64_t table_id) {
  return id_only(mem, BM_CAT_TABLE_DEL, table_id);
}
bm_logger_action* bm_action_cat_table_truncate(MemContext* mem, int64_t table_id) {
  return id_only(mem, BM_CAT_TABLE_TRUNCATE, table_id);
}

bm_logger_action* bm_action_cat_column_new(MemContext* mem, int64_t column_id, const char* name,
                                           int32_t nullability, int32_t adt_id, int32_t ltype_code,
                                           int64_t table_id) {
  bm_logger_action* a = new_action(mem, BM_CAT_COLUMN_NEW, column_id);
  if (a == nullptr || !copy_text(mem, name, &a->cat_column_new.name)) return nullptr;
  a->cat_column_new.nullability = nullability;
  a->cat_column_new.adt_id = adt_id;
  a->cat_column_new.ltype_code = ltype_code;
  a->cat_column_new.table_id = table_id;
  return a;
}
bm_logger_action* bm_action_cat_column_del(MemContext* mem, int64_t column_id) {
  return id_only(mem, BM_CAT_COLUMN_DEL, column_id);
}

bm_logger_action* bm_action_cat_index_new(MemContext* mem, int64_t index_id, const char* name,
                                          int32_t type, int64_t table_id, int64_t ref_key_id) {
  bm_logger_action* a = new_action(mem, BM_CAT_INDEX_NEW, index_id);
  if (a == nullptr || !copy_text(mem, name, &a->cat_index_new.name)) return nullptr;
  a->cat_index_new.type = type;
  a->cat_index_new.table_id = table_id;
  a->cat_index_new.ref_key_id = ref_key_id;
  return a;
}
bm_logger_action* bm_action_cat_index_del(MemContext* mem, int64_t index_id) {
  return id_only(mem, BM_CAT_INDEX_DEL, index_id);
}

bm_logger_action* bm_action_minmax_size(MemContext* mem, int64_t index_id, int64_t maxgroups,
                                        int64_t numtuples, int64_t groupsize) {
  bm_logger_action* a = new_action(mem, BM_MINMAX_SIZE, index_id);
  if (a != nullptr) a->minmax_size = {maxgroups, numtuples, groupsize};
  return a;
}

bm_logger_action* bm_action_minmax_data(MemContext* mem, int64_t index_id, int32_t column_nr,
                                        int64_t size, const void* mins, const void* maxs,
                                        int32_t overflow, int64_t width, const void* overflow_min,
                                        const void* overflow_max) {
  int64_t datasize, overflow_bytes;
  if (size < 0 || width < 0 || __builtin_mul_overflow(size, 2, &datasize) ||
      __builtin_mul_overflow(width, 2, &overflow_bytes))
    return nullptr;
  bm_logger_action* a = new_action(mem, BM_MINMAX_DATA, index_id);
  if (a == nullptr) return nullptr;
  bm_minmax_data_fields& f = a->minmax_data;
  void* data;
  void* over;
  if (!copy_array(mem, nullptr, datasize, 1, &data) ||
      !copy_array(mem, nullptr, overflow_bytes, 1, &over))
    return nullptr;
  if (size > 0) {
    if (mins != nullptr) memcpy(data, mins, static_cast<size_t>(size));
    if (maxs != nullptr) memcpy(static_cast<char*>(data) + size, maxs, static_cast<size_t>(size));
  }
  if (overflow != 0 && width > 0) {
    if (overflow_min != nullptr) memcpy(over, overflow_min, static_cast<size_t>(width));
    if (overflow_max != nullptr)
      memcpy(static_cast<char*>(over) + width, overflow_max, static_cast<size_t>(width));
  }
  f.column_nr = column_nr;
  f.datasize = datasize;
  f.data = data;
  f.overflow = overflow;
  f.overflow_datasize = width;
  f.overflow_data = over;
  return a;
}

namespace {

// Appends one (i64 length, i64 length) pair at `pos`.
void put_lengths(char* blob, int64_t* pos, int64_t a, int64_t b) {
  memcpy(blob + *pos, &a, 8);
  memcpy(blob + *pos + 8, &b, 8);
  *pos += 16;
}
void put_text(char* blob, int64_t* pos, const char* text, int64_t length) {
  if (length > 0) memcpy(blob + *pos, text, static_cast<size_t>(length));
  *pos += length;
}
int64_t text_length(const char* text) {
  return text ? static_cast<int64_t>(strlen(text)) : 0;
}

}  // namespace

bm_logger_action* bm_action_minmax_vardata(MemContext* mem, int64_t index_id, int32_t column_nr,
                                           int64_t ngroups, const char* const* mins,
                                           const char* const* maxs, int32_t overflow,
                                           const char* overflow_min, const char* overflow_max) {
  if (ngroups < 0) return nullptr;
  int64_t datasize;
  if (__builtin_mul_overflow(ngroups, 16, &datasize)) return nullptr;
  for (int64_t g = 0; g < ngroups; g++) datasize += text_length(mins[g]) + text_length(maxs[g]);
  bm_logger_action* a = new_action(mem, BM_MINMAX_VARDATA, index_id);
  void* blob;
  if (a == nullptr || !copy_array(mem, nullptr, datasize, 1, &blob)) return nullptr;
  char* out = static_cast<char*>(blob);
  int64_t pos = 0;
  for (int64_t g = 0; g < ngroups; g++)
    put_lengths(out, &pos, text_length(mins[g]), text_length(maxs[g]));
  for (int64_t g = 0; g < ngroups; g++) {
    put_text(out, &pos, mins[g], text_length(mins[g]));
    put_text(out, &pos, maxs[g], text_length(maxs[g]));
  }
  J480_ASSERT_MSG(LOGGER, pos == datasize, "pos=%lld, datasize=%lld", static_cast<long long>(pos),
                  static_cast<long long>(datasize));

  bm_minmax_data_fields& f = a->minmax_vardata;
  if (overflow != 0) {
    int64_t lmin = text_length(overflow_min), lmax = text_length(overflow_max);
    void* over;
    if (!copy_array(mem, nullptr, 16 + lmin + lmax, 1, &over)) return nullptr;
    int64_t opos = 0;
    put_lengths(static_cast<char*>(over), &opos, lmin, lmax);
    put_text(static_cast<char*>(over), &opos, overflow_min, lmin);
    put_text(static_cast<char*>(over), &opos, overflow_max, lmax);
    f.overflow_datasize = opos;
    f.overflow_data = over;
  }
  f.column_nr = column_nr;
  f.datasize = datasize;
  f.data = blob;
  f.overflow = overflow;
  return a;
}

bm_logger_action* bm_action_jis_size(MemContext* mem, int64_t index_id, int64_t maxgroups,
                                     int64_t numgroups, int64_t groupsize) {
  bm_logger_action* a = new_action(mem, BM_JIS_SIZE, index_id);
  if (a != nullptr) a->jis_size = {maxgroups, numgroups, groupsize};
  return a;
}

bm_logger_action* bm_action_jis_data(MemContext* mem, int64_t index_id, int32_t jis_column,
                                     int64_t count, const int64_t* data) {
  bm_logger_action* a = new_action(mem, BM_JIS_DATA, index_id);
  void* copy;
  if (a == nullptr || !copy_array(mem, data, count, 8, &copy)) return nullptr;
  a->jis_data = {jis_column, count, static_cast<int64_t*>(copy)};
  return a;
}

bm_logger_action* bm_action_pdt_new(MemContext* mem, int64_t object_id, void* data, int64_t size) {
  bm_logger_action* a = new_action(mem, BM_PDT_NEW, object_id);
  if (a != nullptr) a->pdt_new = {size, data};
  return a;
}

bm_logger_action* bm_action_cat_location_new(MemContext* mem, int64_t location_id, const char* name,
                                             int32_t usage, const char* path) {
  bm_logger_action* a = new_action(mem, BM_CAT_LOCATION_NEW, location_id);
  if (a == nullptr || !copy_text(mem, name, &a->cat_location_new.name) ||
      !copy_text(mem, path, &a->cat_location_new.path, true))
    return nullptr;
  a->cat_location_new.usage = usage;
  return a;
}
bm_logger_action* bm_action_cat_location_del(MemContext* mem, int64_t location_id,
                                             const char* path) {
  bm_logger_action* a = new_action(mem, BM_CAT_LOCATION_DEL, location_id);
  if (a == nullptr || !copy_text(mem, path, &a->cat_location_del.path, true)) return nullptr;
  return a;
}
bm_logger_action* bm_action_cat_location_update(MemContext* mem, int64_t location_id,
                                                int32_t usage) {
  bm_logger_action* a = new_action(mem, BM_CAT_LOCATION_UPDATE, location_id);
  if (a != nullptr) a->cat_location_update.usage = usage;
  return a;
}

bm_logger_action* bm_action_blk_new(MemContext* mem, int64_t scolid, int64_t file_nr,
                                    int64_t block_nr, int64_t bytes_used, int64_t num_tuples) {
  bm_logger_action* a = new_action(mem, BM_BLK_NEW, scolid);
  if (a != nullptr) a->blk_new = {file_nr, block_nr, bytes_used, num_tuples};
  return a;
}
bm_logger_action* bm_action_blk_del(MemContext* mem, int64_t scolid, int64_t file_nr,
                                    int64_t block_nr) {
  bm_logger_action* a = new_action(mem, BM_BLK_DEL, scolid);
  if (a != nullptr) a->blk_del = {file_nr, block_nr, 0, 0};
  return a;
}

bm_logger_action* bm_action_file_new(MemContext* mem, int64_t file_nr, int64_t location_id,
                                     const char* filename) {
  bm_logger_action* a = new_action(mem, BM_FILE_NEW, file_nr);
  if (a == nullptr || !copy_text(mem, filename, &a->file_new.filename)) return nullptr;
  a->file_new.location_id = location_id;
  return a;
}
bm_logger_action* bm_action_file_del(MemContext* mem, int64_t file_nr) {
  return id_only(mem, BM_FILE_DEL, file_nr);
}

bm_logger_action* bm_action_cs_new(MemContext* mem, int32_t id, int64_t blksz, int32_t type) {
  if (type != BM_CS_NEW) cv_assert_fail(__FILE__, __LINE__, LOGGER, "type == cs_new");
  bm_logger_action* a = new_action(mem, BM_CS_NEW, id);
  if (a != nullptr) a->cs_new.blksz = blksz;
  return a;
}

bm_logger_action* bm_action_paxgroup_file(MemContext* mem, int32_t type, int64_t paxgroup_id,
                                          int64_t file_nr, int64_t object_id) {
  J480_ASSERT(LOGGER, paxgroup_id && file_nr >= 0);
  J480_ASSERT(LOGGER, type == BM_PAXGROUP_FILE_NEW || type == BM_PAXGROUP_FILE_DEL);
  bm_logger_action* a = new_action(mem, type, paxgroup_id);
  if (a != nullptr) a->paxgroup_file_new = {file_nr, object_id};
  return a;
}

bm_logger_action* bm_action_cat_key_new(MemContext* mem, int64_t key_id, const char* name,
                                        int32_t type, int64_t table_id, int64_t ref_key_id,
                                        int64_t ncols, const int64_t* col_ids) {
  bm_logger_action* a = new_action(mem, BM_CAT_KEY_NEW, key_id);
  void* ids;
  if (a == nullptr || !copy_text(mem, name, &a->cat_key_new.name) ||
      !copy_array(mem, col_ids, ncols, 8, &ids))
    return nullptr;
  bm_cat_key_new_fields& f = a->cat_key_new;
  f.type = type;
  f.table_id = table_id;
  f.ref_key_id = ref_key_id;
  f.ncols = ncols;
  f.col_ids = static_cast<int64_t*>(ids);
  return a;
}
bm_logger_action* bm_action_cat_key_del(MemContext* mem, int64_t key_id) {
  return id_only(mem, BM_CAT_KEY_DEL, key_id);
}

bm_logger_action* bm_action_storage_new(MemContext* mem, int64_t storage_id, int64_t object_id) {
  bm_logger_action* a = new_action(mem, BM_STORAGE_NEW, storage_id);
  if (a != nullptr) a->storage_new.object_id = object_id;
  return a;
}
bm_logger_action* bm_action_storage_del(MemContext* mem, int64_t storage_id) {
  return id_only(mem, BM_STORAGE_DEL, storage_id);
}

bm_logger_action* bm_action_paxgroup_new(MemContext* mem, int64_t paxgroup_id, int64_t storage_id,
                                         int64_t scol_id, int64_t object_id, int64_t ncols,
                                         const pax_column_descr* descriptors) {
  bm_logger_action* a = new_action(mem, BM_PAXGROUP_NEW, paxgroup_id);
  if (a == nullptr) return nullptr;
  bm_paxgroup_new_fields& f = a->paxgroup_new;
  auto* c =
      static_cast<bm_paxgroup_columns*>(mem_callocex(mem, sizeof(bm_paxgroup_columns), kFlags));
  void *nullability, *adt_id, *compression, *implementation;
  if (c == nullptr || !copy_array(mem, nullptr, ncols, sizeof(int32_t), &nullability) ||
      !copy_array(mem, nullptr, ncols, sizeof(int32_t), &adt_id) ||
      !copy_array(mem, nullptr, ncols, sizeof(char*), &compression) ||
      !copy_array(mem, nullptr, ncols, sizeof(int32_t), &implementation))
    return nullptr;
  f.storage_id = storage_id;
  f.scol_id = scol_id;
  f.object_id = object_id;
  f.ncols = ncols;
  f.cols = c;
  c->nullability = static_cast<int32_t*>(nullability);
  c->adt_id = static_cast<int32_t*>(adt_id);
  c->compression = static_cast<char**>(compression);
  c->implementation = static_cast<int32_t*>(implementation);
  for (int64_t i = 0; i < ncols; i++) {
    const pax_column_descr* d = &descriptors[i];
    J480_ASSERT(LOGGER, d->type);
    c->nullability[i] = d->nullability;
    c->adt_id[i] = d->type->id;
    c->implementation[i] = d->implementation;
    if (!copy_text(mem, d->compression, &c->compression[i])) return nullptr;
  }
  return a;
}
bm_logger_action* bm_action_paxgroup_del(MemContext* mem, int64_t paxgroup_id, int64_t object_id) {
  bm_logger_action* a = new_action(mem, BM_PAXGROUP_DEL, paxgroup_id);
  if (a != nullptr) a->paxgroup_del.object_id = object_id;
  return a;
}

// ---- lists ----

bm_logger_action_list* action_list_new(MemContext* mem) {
  return static_cast<bm_logger_action_list*>(
      mem_callocex(mem, sizeof(bm_logger_action_list), kFlags));
}

bm_logger_action_list* action_list_append(bm_logger_action_list* list, bm_logger_action* action) {
  J480_ASSERT(LOGGER, list);
  action->next = nullptr;
  action->prev = list->tail;
  if (list->tail != nullptr) {
    list->tail->next = action;
  } else {
    list->head = action;
  }
  list->tail = action;
  return list;
}

bm_logger_action_list* action_list_join(bm_logger_action_list* a, bm_logger_action_list* b) {
  if (a == nullptr || a->head == nullptr) return b;
  if (b == nullptr || b->head == nullptr) return a;
  a->tail->next = b->head;
  b->head->prev = a->tail;
  a->tail = b->tail;
  b->head = b->tail = nullptr;
  return a;
}

void action_list_clear(bm_logger_action_list* list) {
  if (list == nullptr) return;
  list->head = list->tail = nullptr;
}

// ---- the block manager ----

void bm_logger_set_iobm(iobm* bm) {
  g_iobm = bm;
}
iobm* bm_logger_get_iobm() {
  return g_iobm;
}

// ---- location map ----

int bm_logger_write_location_map_entry(bm_logger* l, const char* name, const char* path) {
  stream* map = l != nullptr ? l->location_map : nullptr;
  if (map == nullptr || stream_error(map) != STREAM_NOERR) return 0;
  char line[BM_LOGGER_MAP_LINE_BUFSIZE];
  int n = snprintf(line, sizeof line, "%s,%s\n", name, path);
  if (n < 0 || n >= static_cast<int>(sizeof line)) {
    CV_ERROR(LOGGER, "bm_logger_write_location_map_entry: line too long, truncated line is '%s'",
             line);
    return 0;
  }
  int64_t written = stream_write(map, line, 1, static_cast<size_t>(n));
  // A line that stays in the handle's buffer is not written: the flush belongs to the write.
  if (written == n && stream_error(map) == STREAM_NOERR && stream_flush(map) == 0) return 1;
  CV_ERROR(LOGGER,
           "bm_logger_write_location_map_entry: error writing line, expected to write %llu "
           "bytes, wrote %llu bytes, error  code %d",
           static_cast<unsigned long long>(n), static_cast<unsigned long long>(written),
           stream_error(map));
  return 0;
}

// ---- key files ----

char* generate_db_key_file(const char* directory) {
  size_t size = strlen(directory) + strlen(kKeyFileName) + 2;
  char* path = static_cast<char*>(mem_calloc_plain(size));
  if (path == nullptr) {
    CV_ERROR(LOGGER, "generate_db_key_file: error allocating %lld bytes for key filename.",
             static_cast<long long>(size));
    return nullptr;
  }
  snprintf(path, size, "%s%c%s", directory, J480_PATH_SEP, kKeyFileName);
  return path;
}

int verify_or_create_db_key(const char* directory, const char* db_key) {
  if (db_key == nullptr || db_key[0] == '\0') return 1;
  if (directory == nullptr) return 0;
  if (!file_exists(directory)) {
    CV_WARN(LOGGER,
            "verify_or_create_db_key_in_path: directory '%s' should exist, but it doesn't. "
            "Recreating...",
            directory);
  }
  if (create_dir(directory) < 0) return 0;
  char* file = generate_db_key_file(directory);
  if (file == nullptr) return 0;
  int result;
  if (file_exists(file)) {
    result = verify_auth_file(file, db_key) ? 1 : 0;
  } else {
    char key[kAuthPassLen] = {};
    strncpy(key, db_key, kAuthPassLen - 1);
    result = create_auth_file(file, key, 0) == key ? 1 : 0;
  }
  free(file);
  return result;
}

int verify_or_create_db_key_in_path(const char* directory) {
  return verify_or_create_db_key(directory, g_iobm != nullptr ? iobm_get_db_key(g_iobm) : nullptr);
}
