#include "tools/wal20_gen/bc20_log_writer.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "utils/cvlog.h"
#include "utils/posix.h"

namespace {

constexpr char MODULE[] = "WAL20_GEN";

}  // namespace

struct bc20_log_writer {
  int fd;
  int big_endian;
  int failed;
  int in_tr;
  int64_t trid;
  int64_t cut_at;   // -1: no cut
  int64_t offset;   // logical bytes so far
  uint8_t* buf;
  size_t cap;
  size_t pos;
  char* path;
  bc20_log_hook hook;
  void* hook_ctx;
};

namespace {

bool flush_buffer(bc20_log_writer* w) {
  size_t done = 0;
  while (done < w->pos) {
    ssize_t n = px_write(w->fd, w->buf + done, w->pos - done);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (!w->failed) CV_ERROR(MODULE, "error writing %s: %s", w->path, strerror(errno));
      w->failed = 1;
      w->pos = 0;
      return false;
    }
    done += static_cast<size_t>(n);
  }
  w->pos = 0;
  return true;
}

// Appends raw bytes, dropping those at and after the cut.
void emit(bc20_log_writer* w, const void* p, size_t n) {
  if (w->failed || n == 0) return;
  if (__builtin_expect(w->cut_at >= 0, 0)) {
    int64_t room = w->cut_at - w->offset;
    size_t keep = room <= 0 ? 0 : (static_cast<uint64_t>(room) < n ? static_cast<size_t>(room) : n);
    w->offset += static_cast<int64_t>(n);
    n = keep;
  } else {
    w->offset += static_cast<int64_t>(n);
  }
  const uint8_t* src = static_cast<const uint8_t*>(p);
  while (n > 0) {
    if (w->pos == w->cap && !flush_buffer(w)) return;
    size_t chunk = w->cap - w->pos < n ? w->cap - w->pos : n;
    memcpy(w->buf + w->pos, src, chunk);
    w->pos += chunk;
    src += chunk;
    n -= chunk;
  }
}

inline void put_int(bc20_log_writer* w, int32_t v) {
  uint32_t u = static_cast<uint32_t>(v);
  if (w->big_endian) u = __builtin_bswap32(u);
  emit(w, &u, sizeof u);
}

inline void put_lng(bc20_log_writer* w, int64_t v) {
  uint64_t u = static_cast<uint64_t>(v);
  if (w->big_endian) u = __builtin_bswap64(u);
  emit(w, &u, sizeof u);
}

inline void put_str(bc20_log_writer* w, std::string_view s) {
  put_int(w, static_cast<int32_t>(s.size()));
  emit(w, s.data(), s.size());
}

// Builds the record description for the hook alongside the bytes.
struct rec_builder {
  bc20_log_writer* w;
  bc20_log_record r;
  rec_builder(bc20_log_writer* writer, uint32_t tag) : w(writer), r{} {
    r.tag = tag;
    put_int(w, static_cast<int32_t>(tag));
  }
  void i32(int32_t v, bool skipped = false) {
    put_int(w, v);
    num(v, skipped);
  }
  void u32(uint32_t v) {
    put_int(w, static_cast<int32_t>(v));
    num(static_cast<int64_t>(v), false);
  }
  void i64(int64_t v, bool skipped = false) {
    put_lng(w, v);
    num(v, skipped);
  }
  void str(std::string_view s, bool skipped = false) {
    put_str(w, s);
    if (skipped) r.str_skipped |= 1u << r.n_strs;
    r.strs[r.n_strs++] = s;
  }
  void bulk(const void* p, int64_t n) {
    emit(w, p, static_cast<size_t>(n));
    r.bulk[r.n_bulk] = p;
    r.bulk_size[r.n_bulk++] = n;
  }
  void num(int64_t v, bool skipped) {
    if (skipped) r.skipped |= 1u << r.n_nums;
    r.nums[r.n_nums++] = v;
  }
  ~rec_builder() {
    if (w->hook != nullptr) w->hook(w->hook_ctx, &r);
  }
};

}  // namespace

namespace {
// The buffered file under both the log and the map: null on failure (logged).
bc20_log_writer* writer_create(const char* path, size_t buffer_size) {
  auto* w = static_cast<bc20_log_writer*>(calloc(1, sizeof(bc20_log_writer)));
  if (w != nullptr) {
    w->cap = buffer_size < 64 ? 64 : buffer_size;
    w->buf = static_cast<uint8_t*>(malloc(w->cap));
    w->path = strdup(path);
  }
  if (w == nullptr || w->buf == nullptr || w->path == nullptr) {
    CV_ERROR(MODULE, "bc20_log_writer_open: out of memory");
  } else {
    w->cut_at = -1;
    w->fd = px_open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (w->fd >= 0) return w;
    CV_ERROR(MODULE, "cannot create %s: %s", path, strerror(errno));
  }
  if (w != nullptr) {
    free(w->buf);
    free(w->path);
    free(w);
  }
  return nullptr;
}
}  // namespace

bc20_log_writer* bc20_log_writer_open(const char* path, const bc20_log_writer_options* options) {
  bc20_log_writer_options defaults;
  if (options == nullptr) options = &defaults;
  bc20_log_writer* w = writer_create(path, options->buffer_size);
  if (w == nullptr) return nullptr;
  w->big_endian = options->big_endian;
  w->cut_at = options->cut_at;
  w->hook = options->hook;
  w->hook_ctx = options->hook_ctx;
  const uint8_t mark[2] = {0xD2, 0x04};
  const uint8_t mark_be[2] = {0x04, 0xD2};
  emit(w, w->big_endian ? mark_be : mark, 2);
  put_lng(w, options->version);
  return w;
}

int bc20_log_writer_close(bc20_log_writer* w) {
  if (w == nullptr) return -1;
  if (!w->failed) flush_buffer(w);
  if (px_close(w->fd) != 0 && !w->failed) {
    CV_ERROR(MODULE, "error closing %s: %s", w->path, strerror(errno));
    w->failed = 1;
  }
  int result = w->failed ? -1 : 0;
  free(w->buf);
  free(w->path);
  free(w);
  return result;
}

int64_t bc20_log_writer_offset(const bc20_log_writer* w) { return w->offset; }
bool bc20_log_writer_failed(const bc20_log_writer* w) { return w->failed != 0; }
bool bc20_log_writer_in_transaction(const bc20_log_writer* w) { return w->in_tr != 0; }

void bc20_log_tr_new(bc20_log_writer* w, int64_t trid) {
  J480_ASSERT(MODULE, !w->in_tr);
  rec_builder b(w, bc20_tr_new);
  b.i64(trid);
  w->in_tr = 1;
  w->trid = trid;
}

void bc20_log_tr_end(bc20_log_writer* w, int64_t trid) {
  J480_ASSERT(MODULE, w->in_tr && w->trid == trid);
  rec_builder b(w, bc20_tr_end);
  b.i64(trid);
  w->in_tr = 0;
}

void bc20_log_cs_new(bc20_log_writer* w, bool defaultfile, int32_t id, std::string_view name,
                     int32_t blksz, int32_t skip1, int32_t skip2, int64_t skip3) {
  rec_builder b(w, defaultfile ? bc20_cs_new_defaultfile : bc20_cs_new);
  b.i32(id);
  b.str(name, true);
  b.i32(blksz);
  b.i32(skip1, true);
  b.i32(skip2, true);
  b.i64(skip3, true);
}

namespace {
void col_record(bc20_log_writer* w, uint32_t tag, int32_t colid, int32_t type, int32_t skipped) {
  rec_builder b(w, tag);
  b.i32(colid);
  b.i32(skipped, true);
  b.i32(type);
}
}  // namespace

void bc20_log_col_new(bc20_log_writer* w, int32_t colid, int32_t type, int32_t skipped) {
  col_record(w, bc20_col_new, colid, type, skipped);
}

void bc20_log_col_del(bc20_log_writer* w, int32_t colid, int32_t type, int32_t skipped) {
  col_record(w, bc20_col_del, colid, type, skipped);
}

void bc20_log_blk_new_defaultfile(bc20_log_writer* w, int32_t colid, int64_t block_nr,
                                  int32_t bytes_used, int32_t num_tuples, int32_t skipped) {
  rec_builder b(w, bc20_blk_new_defaultfile);
  b.i32(colid);
  b.i64(block_nr);
  b.i32(skipped, true);
  b.i32(bytes_used);
  b.i32(num_tuples);
}

void bc20_log_blk_del_defaultfile(bc20_log_writer* w, int32_t colid, int64_t block_nr,
                                  int32_t skipped) {
  rec_builder b(w, bc20_blk_del_defaultfile);
  b.i32(colid);
  b.i64(block_nr);
  b.i32(skipped, true);
}

void bc20_log_blk_new(bc20_log_writer* w, int32_t colid, int64_t file_nr, int64_t block_nr,
                      int32_t bytes_used, int32_t num_tuples) {
  rec_builder b(w, bc20_blk_new);
  b.i32(colid);
  b.i64(file_nr);
  b.i64(block_nr);
  b.i32(bytes_used);
  b.i32(num_tuples);
}

void bc20_log_blk_del(bc20_log_writer* w, int32_t colid, int64_t file_nr, int64_t block_nr) {
  rec_builder b(w, bc20_blk_del);
  b.i32(colid);
  b.i64(file_nr);
  b.i64(block_nr);
}

namespace {
void id_record(bc20_log_writer* w, uint32_t tag, int64_t id) {
  rec_builder b(w, tag);
  b.i64(id);
}
}  // namespace

void bc20_log_cat_table_new(bc20_log_writer* w, int64_t table_id, std::string_view name,
                            int64_t colgroup_id) {
  rec_builder b(w, bc20_cat_table_new);
  b.i64(table_id);
  b.str(name);
  b.i64(colgroup_id);
}

void bc20_log_cat_table_del(bc20_log_writer* w, int64_t table_id) {
  id_record(w, bc20_cat_table_del, table_id);
}

void bc20_log_cat_column_new(bc20_log_writer* w, int64_t colid, std::string_view adt,
                             int32_t ctype, std::string_view ltype, int32_t digits, int32_t scale,
                             std::string_view compression, std::string_view col_name,
                             uint32_t flags) {
  rec_builder b(w, bc20_cat_column_new);
  b.i64(colid);
  b.str(adt);
  b.i32(ctype);
  b.str(ltype);
  b.i32(digits);
  b.i32(scale);
  b.str(compression);
  b.str(col_name);
  b.u32(flags);
}

void bc20_log_cat_column_del(bc20_log_writer* w, int64_t column_id) {
  id_record(w, bc20_cat_column_del, column_id);
}

void bc20_log_cat_colgroup_new(bc20_log_writer* w, bool defaultfile, int64_t cg_id,
                               int64_t store_id, int64_t parent_id, int32_t type, int32_t ncols,
                               const int64_t* col_ids, int64_t skipped) {
  rec_builder b(w, defaultfile ? bc20_cat_colgroup_new_defaultfile : bc20_cat_colgroup_new);
  b.i64(cg_id);
  b.i64(store_id);
  b.i64(parent_id);
  b.i32(type);
  if (defaultfile) b.i64(skipped, true);
  b.i32(ncols);
  b.bulk(col_ids, 8 * static_cast<int64_t>(ncols));
}

void bc20_log_cat_colgroup_del(bc20_log_writer* w, int64_t colgroup_id) {
  id_record(w, bc20_cat_colgroup_del, colgroup_id);
}

void bc20_log_cat_index_new(bc20_log_writer* w, int64_t index_id, std::string_view index_name,
                            int32_t type, int64_t table_id, int64_t colgroup_id,
                            int64_t scolgroup_id, int64_t key_id) {
  rec_builder b(w, bc20_cat_index_new);
  b.i64(index_id);
  b.str(index_name);
  b.i32(type);
  b.i64(table_id);
  b.i64(colgroup_id);
  b.i64(scolgroup_id);
  b.i64(key_id);
}

void bc20_log_cat_index_del(bc20_log_writer* w, int64_t index_id) {
  id_record(w, bc20_cat_index_del, index_id);
}

namespace {
void size_record(bc20_log_writer* w, uint32_t tag, int64_t a, int64_t b_, int64_t c, int64_t d) {
  rec_builder b(w, tag);
  b.i64(a);
  b.i64(b_);
  b.i64(c);
  b.i64(d);
}
}  // namespace

void bc20_log_minmax_size(bc20_log_writer* w, int64_t index_id, int64_t maxgroups,
                          int64_t numtuples, int64_t groupsize) {
  size_record(w, bc20_minmax_size, index_id, maxgroups, numtuples, groupsize);
}

void bc20_log_minmax_data(bc20_log_writer* w, bool vardata, int64_t index_id, int32_t column_nr,
                          const void* data, int64_t datasize, int32_t overflow,
                          const void* overflow_data, int64_t overflow_datasize) {
  rec_builder b(w, vardata ? bc20_minmax_vardata : bc20_minmax_data);
  b.i64(index_id);
  b.i32(column_nr);
  b.i64(datasize);
  b.bulk(data, datasize);
  b.i32(overflow);
  b.i64(overflow_datasize);
  b.bulk(overflow_data, vardata ? overflow_datasize : 2 * overflow_datasize);
}

void bc20_log_jis_size(bc20_log_writer* w, int64_t index_id, int64_t maxgroups,
                       int64_t numgroups, int64_t groupsize) {
  size_record(w, bc20_jis_size, index_id, maxgroups, numgroups, groupsize);
}

void bc20_log_jis_data(bc20_log_writer* w, int64_t index_id, int32_t jis_column,
                       int64_t numgroups, const void* groups) {
  rec_builder b(w, bc20_jis_data);
  b.i64(index_id);
  b.i32(jis_column);
  b.i64(numgroups);
  b.bulk(groups, 8 * numgroups);
}

void bc20_log_pdt_new(bc20_log_writer* w, int64_t object_id, const void* data, uint32_t size) {
  rec_builder b(w, bc20_pdt_new);
  b.i64(object_id);
  b.u32(size);
  b.bulk(data, size);
}

void bc20_log_pdt_new_64(bc20_log_writer* w, int64_t object_id, const void* data, int64_t size) {
  rec_builder b(w, bc20_pdt_new_64);
  b.i64(object_id);
  b.i64(size);
  b.bulk(data, size);
}

void bc20_log_cat_location_new(bc20_log_writer* w, int64_t location_id, std::string_view name,
                               int32_t usage) {
  rec_builder b(w, bc20_cat_location_new);
  b.i64(location_id);
  b.str(name);
  b.i32(usage);
}

void bc20_log_cat_location_del(bc20_log_writer* w, int64_t location_id) {
  id_record(w, bc20_cat_location_del, location_id);
}

void bc20_log_cat_location_update(bc20_log_writer* w, int64_t location_id, int32_t usage) {
  rec_builder b(w, bc20_cat_location_update);
  b.i64(location_id);
  b.i32(usage);
}

void bc20_log_file_new(bc20_log_writer* w, int64_t file_nr, int64_t location_id,
                       std::string_view filename) {
  rec_builder b(w, bc20_file_new);
  b.i64(file_nr);
  b.i64(location_id);
  b.str(filename);
}

void bc20_log_file_del(bc20_log_writer* w, int64_t file_nr) {
  id_record(w, bc20_file_del, file_nr);
}

namespace {
void colgroup_file_record(bc20_log_writer* w, uint32_t tag, int64_t colgroup_id,
                          int64_t file_nr) {
  rec_builder b(w, tag);
  b.i64(colgroup_id);
  b.i64(file_nr);
}
}  // namespace

void bc20_log_colgroup_file_new(bc20_log_writer* w, int64_t colgroup_id, int64_t file_nr) {
  colgroup_file_record(w, bc20_colgroup_file_new, colgroup_id, file_nr);
}

void bc20_log_colgroup_file_del(bc20_log_writer* w, int64_t colgroup_id, int64_t file_nr) {
  colgroup_file_record(w, bc20_colgroup_file_del, colgroup_id, file_nr);
}

// ---- damage ----

void bc20_log_damage_tag(bc20_log_writer* w, int32_t tag) { put_int(w, tag); }

void bc20_log_damage_tr_end_wrong_trid(bc20_log_writer* w) {
  put_int(w, bc20_tr_end);
  put_lng(w, w->trid + 1);
  w->in_tr = 0;
}

void bc20_log_damage_nested_tr_new(bc20_log_writer* w, int64_t trid) {
  put_int(w, bc20_tr_new);
  put_lng(w, trid);
  w->in_tr = 1;
  w->trid = trid;
}

bool bc20_log_damage_oversize(bc20_log_writer* w, bc20_tag tag, int64_t length) {
  auto len32 = [&] { put_int(w, static_cast<int32_t>(length)); };
  bool wide = tag == bc20_minmax_data || tag == bc20_minmax_vardata || tag == bc20_jis_data ||
              tag == bc20_pdt_new_64;
  bool fits = tag == bc20_pdt_new ? length >= 0 && length <= UINT32_MAX
                                  : length >= INT32_MIN && length <= INT32_MAX;
  if (!wide && !fits) return false;
  switch (tag) {
    case bc20_cs_new:
      put_int(w, tag);
      put_int(w, 0);
      len32();
      return true;
    case bc20_cat_table_new:
    case bc20_cat_location_new:
    case bc20_cat_index_new:
      put_int(w, tag);
      put_lng(w, 1);
      len32();
      return true;
    case bc20_file_new:
      put_int(w, tag);
      put_lng(w, 1);
      put_lng(w, 1);
      len32();
      return true;
    case bc20_cat_column_new:
      put_int(w, tag);
      put_lng(w, 1);
      len32();
      return true;
    case bc20_cat_colgroup_new:
      put_int(w, tag);
      put_lng(w, 1);
      put_lng(w, 0);
      put_lng(w, 0);
      put_int(w, 0);
      len32();
      return true;
    case bc20_minmax_data:
    case bc20_minmax_vardata:
      put_int(w, tag);
      put_lng(w, 1);
      put_int(w, 0);
      put_lng(w, length);
      return true;
    case bc20_jis_data:
      put_int(w, tag);
      put_lng(w, 1);
      put_int(w, 0);
      put_lng(w, length);
      return true;
    case bc20_pdt_new:
      put_int(w, tag);
      put_lng(w, 1);
      len32();
      return true;
    case bc20_pdt_new_64:
      put_int(w, tag);
      put_lng(w, 1);
      put_lng(w, length);
      return true;
    default:
      return false;
  }
}

// ---- location map ----

namespace {
bool map_element_ok(std::string_view e) {
  return !e.empty() && e.size() <= 1023 && e.find(',') == std::string_view::npos &&
         e.find('\n') == std::string_view::npos;
}
}  // namespace

int bc20_location_map_write(const char* path, const bc20_location_map_entry* entries, size_t n) {
  for (size_t i = 0; i < n; i++) {
    if (!map_element_ok(entries[i].name) || !map_element_ok(entries[i].path)) {
      CV_ERROR(MODULE, "bc20_location_map_write: entry %zu can't stand in a location map", i);
      return -1;
    }
  }
  bc20_log_writer* w = writer_create(path, 64 * 1024);
  if (w == nullptr) return -1;
  for (size_t i = 0; i < n; i++) {
    emit(w, entries[i].name.data(), entries[i].name.size());
    emit(w, ",", 1);
    emit(w, entries[i].path.data(), entries[i].path.size());
    emit(w, "\n", 1);
  }
  return bc20_log_writer_close(w);
}
