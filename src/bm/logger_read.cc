// The reader of the 2.5 log: one decoder per record kind, one loop over a transaction.
#include <cstring>

#include "bm/logger.h"
#include "bm/paxgroup.h"
#include "kernel/ptype.h"
#include "utils/cvlog.h"
#include "utils/mem.h"
#include "utils/posix.h"
#include "utils/stream.h"

namespace {

constexpr char LOGGER[] = "LOGGER";
constexpr int kFlags = J480_MEM_ALLOWFAILURE;
constexpr int64_t kSizeUnasked = STREAM_SIZE_UNASKED;

// The path that read locations get: the converter has none.
const char* const kDefaultLocationPath = nullptr;

struct reader {
  MemContext* mem;
  stream* s;
  int64_t size;  // file size; kSizeUnasked until a length needs it, -1 where it can't be known
  char name[BM_LOGGER_NAME_BUFSIZE];
};

// Bytes left behind the stream position: every length and count from the file is held against
// it before anything is allocated or read. A stream that is not a regular file has no bound but
// the record's own limits and the allocation.
int64_t remaining(reader* r) { return stream_remaining(r->s, &r->size); }

inline bool rd32(reader* r, int32_t* v) {
  return stream_read_int(r->s, v) == 1;
}
inline bool rd64(reader* r, int64_t* v) {
  return stream_read_lng(r->s, v) == 1;
}

bool rd_raw(reader* r, void* buffer, int64_t n) {
  if (n == 0) return true;
  if (r->s->errnr != STREAM_NOERR) return false;
  return stream_read(r->s, buffer, 1, static_cast<size_t>(n)) == n && r->s->errnr == STREAM_NOERR;
}

// A str field into the 512-byte name buffer, terminated; longer ones are refused unread.
bool rd_name(reader* r) {
  int32_t n;
  if (!rd32(r, &n) || n < 0 || n >= BM_LOGGER_NAME_BUFSIZE || n > remaining(r) ||
      !rd_raw(r, r->name, n))
    return false;
  r->name[n] = '\0';
  return true;
}

// `count` items of `width` bytes into the context; null for none.
bool rd_payload(reader* r, int64_t count, int64_t width, void** out) {
  *out = nullptr;
  int64_t n;
  if (count < 0 || __builtin_mul_overflow(count, width, &n)) return false;
  if (n == 0) return true;
  if (n > remaining(r)) return false;
  void* data = mem_mallocex(r->mem, static_cast<uint64_t>(n), kFlags);
  if (data == nullptr || !rd_raw(r, data, n)) return false;
  *out = data;
  return true;
}

bm_logger_action* new_action(reader* r, int32_t type, int64_t id) {
  auto* a = static_cast<bm_logger_action*>(mem_callocex(r->mem, sizeof(bm_logger_action), kFlags));
  if (a == nullptr) return nullptr;
  a->type = type;
  a->id = id;
  return a;
}

// ---- one decoder per record layout: exactly its fields, the action or null ----

bm_logger_action* read_id_only(reader* r, int32_t tag) {
  int64_t id;
  if (!rd64(r, &id)) return nullptr;
  // A deleted location gets no path either: the default is none.
  return new_action(r, tag, id);
}

bm_logger_action* read_scol(reader* r, int32_t tag) {
  int64_t id;
  int32_t type;
  if (!rd64(r, &id) || !rd32(r, &type)) return nullptr;
  return tag == BM_SCOL_NEW ? bm_action_scol_new(r->mem, id, type)
                            : bm_action_scol_del(r->mem, id, type);
}

bm_logger_action* read_cat_table_new(reader* r, int32_t) {
  int64_t id;
  int32_t is_auto_pax;
  if (!rd64(r, &id) || !rd_name(r) || !rd32(r, &is_auto_pax)) return nullptr;
  return bm_action_cat_table_new(r->mem, id, r->name, is_auto_pax);
}

bm_logger_action* read_cat_column_new(reader* r, int32_t) {
  int64_t id, table_id;
  int32_t nullability, adt_id, ltype_code;
  if (!rd64(r, &id) || !rd_name(r) || !rd32(r, &nullability) || !rd32(r, &adt_id) ||
      !rd32(r, &ltype_code) || !rd64(r, &table_id))
    return nullptr;
  return bm_action_cat_column_new(r->mem, id, r->name, nullability, adt_id, ltype_code, table_id);
}

bm_logger_action* read_cat_index_new(reader* r, int32_t) {
  int64_t id, table_id, ref_key_id;
  int32_t type;
  if (!rd64(r, &id) || !rd_name(r) || !rd32(r, &type) || !rd64(r, &table_id) ||
      !rd64(r, &ref_key_id))
    return nullptr;
  return bm_action_cat_index_new(r->mem, id, r->name, type, table_id, ref_key_id);
}

bm_logger_action* read_size(reader* r, int32_t tag) {
  int64_t id, maxgroups, num, groupsize;
  if (!rd64(r, &id) || !rd64(r, &maxgroups) || !rd64(r, &num) || !rd64(r, &groupsize))
    return nullptr;
  return tag == BM_MINMAX_SIZE ? bm_action_minmax_size(r->mem, id, maxgroups, num, groupsize)
                               : bm_action_jis_size(r->mem, id, maxgroups, num, groupsize);
}

// minmax_data and minmax_vardata: the overflow area is 2 * overflow_datasize bytes for the first.
bm_logger_action* read_minmax(reader* r, int32_t tag) {
  int64_t id;
  if (!rd64(r, &id)) return nullptr;
  bm_logger_action* a = new_action(r, tag, id);
  if (a == nullptr) return nullptr;
  bm_minmax_data_fields& f = a->minmax_data;
  if (!rd32(r, &f.column_nr) || !rd64(r, &f.datasize) || !rd_payload(r, f.datasize, 1, &f.data) ||
      !rd32(r, &f.overflow) || !rd64(r, &f.overflow_datasize) ||
      !rd_payload(r, f.overflow_datasize, tag == BM_MINMAX_DATA ? 2 : 1, &f.overflow_data))
    return nullptr;
  return a;
}

bm_logger_action* read_jis_data(reader* r, int32_t) {
  int64_t id;
  if (!rd64(r, &id)) return nullptr;
  bm_logger_action* a = new_action(r, BM_JIS_DATA, id);
  void* data;
  if (a == nullptr || !rd32(r, &a->jis_data.jis_column) || !rd64(r, &a->jis_data.numgroups) ||
      !rd_payload(r, a->jis_data.numgroups, 8, &data))
    return nullptr;
  a->jis_data.data = static_cast<int64_t*>(data);
  return a;
}

bm_logger_action* read_pdt_new(reader* r, int32_t) {
  int64_t id, size;
  void* data;
  if (!rd64(r, &id) || !rd64(r, &size) || !rd_payload(r, size, 1, &data)) return nullptr;
  return bm_action_pdt_new(r->mem, id, data, size);
}

bm_logger_action* read_cat_location_new(reader* r, int32_t) {
  int64_t id;
  int32_t usage;
  if (!rd64(r, &id) || !rd_name(r) || !rd32(r, &usage)) return nullptr;
  return bm_action_cat_location_new(r->mem, id, r->name, usage, kDefaultLocationPath);
}

bm_logger_action* read_cat_location_update(reader* r, int32_t) {
  int64_t id;
  int32_t usage;
  if (!rd64(r, &id) || !rd32(r, &usage)) return nullptr;
  return bm_action_cat_location_update(r->mem, id, usage);
}

bm_logger_action* read_blk(reader* r, int32_t tag) {
  int64_t v[5];
  const int n = tag == BM_BLK_NEW ? 5 : 3;
  for (int i = 0; i < n; i++)
    if (!rd64(r, &v[i])) return nullptr;
  return tag == BM_BLK_NEW ? bm_action_blk_new(r->mem, v[0], v[1], v[2], v[3], v[4])
                           : bm_action_blk_del(r->mem, v[0], v[1], v[2]);
}

bm_logger_action* read_file_new(reader* r, int32_t) {
  int64_t id, location_id;
  if (!rd64(r, &id) || !rd64(r, &location_id) || !rd_name(r)) return nullptr;
  return bm_action_file_new(r->mem, id, location_id, r->name);
}

bm_logger_action* read_cs_new(reader* r, int32_t) {
  int32_t id;
  int64_t blksz, reserved;
  if (!rd32(r, &id) || !rd64(r, &blksz) || !rd64(r, &reserved)) return nullptr;
  return bm_action_cs_new(r->mem, id, blksz, BM_CS_NEW);
}

bm_logger_action* read_paxgroup_file(reader* r, int32_t tag) {
  int64_t paxgroup_id, file_nr, object_id;
  if (!rd64(r, &paxgroup_id) || !rd64(r, &file_nr) || !rd64(r, &object_id)) return nullptr;
  return bm_action_paxgroup_file(r->mem, tag, paxgroup_id, file_nr, object_id);
}

bm_logger_action* read_cat_key_new(reader* r, int32_t) {
  int64_t id, table_id, ref_key_id, ncols;
  int32_t type;
  if (!rd64(r, &id) || !rd_name(r) || !rd32(r, &type) || !rd64(r, &table_id) ||
      !rd64(r, &ref_key_id) || !rd64(r, &ncols))
    return nullptr;
  bm_logger_action* a = new_action(r, BM_CAT_KEY_NEW, id);
  void* ids;
  if (a == nullptr || !rd_payload(r, ncols, 8, &ids)) return nullptr;
  bm_cat_key_new_fields& f = a->cat_key_new;
  f.name = mem_strdup_flags(r->mem, r->name, kFlags);
  if (f.name == nullptr) return nullptr;
  f.type = type;
  f.table_id = table_id;
  f.ref_key_id = ref_key_id;
  f.ncols = ncols;
  f.col_ids = static_cast<int64_t*>(ids);
  // The list is written in one piece, but it is a list of integers: it follows the mark.
  if (r->s->byteorder != STREAM_BYTEORDER)
    for (int64_t i = 0; i < ncols; i++)
      f.col_ids[i] = static_cast<int64_t>(__builtin_bswap64(static_cast<uint64_t>(f.col_ids[i])));
  return a;
}

bm_logger_action* read_storage_new(reader* r, int32_t) {
  int64_t id, object_id;
  if (!rd64(r, &id) || !rd64(r, &object_id)) return nullptr;
  return bm_action_storage_new(r->mem, id, object_id);
}

bm_logger_action* read_paxgroup_del(reader* r, int32_t) {
  int64_t id, object_id;
  if (!rd64(r, &id) || !rd64(r, &object_id)) return nullptr;
  return bm_action_paxgroup_del(r->mem, id, object_id);
}

// The smallest column of a paxgroup on disk: three i32 and an empty str.
constexpr int64_t kMinPaxColumnBytes = 16;

bm_logger_action* read_paxgroup_new(reader* r, int32_t) {
  int64_t id, storage_id, scol_id, object_id, ncols;
  if (!rd64(r, &id) || !rd64(r, &storage_id) || !rd64(r, &scol_id) || !rd64(r, &object_id) ||
      !rd64(r, &ncols))
    return nullptr;
  int64_t least;
  if (ncols < 0 || __builtin_mul_overflow(ncols, kMinPaxColumnBytes, &least) ||
      least > remaining(r))
    return nullptr;
  pax_column_descr* d = nullptr;
  if (ncols > 0) {
    d = static_cast<pax_column_descr*>(
        mem_callocex(r->mem, static_cast<uint64_t>(ncols) * sizeof(pax_column_descr), kFlags));
    if (d == nullptr) return nullptr;
  }
  for (int64_t i = 0; i < ncols; i++)
    if (!rd32(r, &d[i].nullability)) return nullptr;
  for (int64_t i = 0; i < ncols; i++) {
    int32_t adt_id;
    if (!rd32(r, &adt_id) || (d[i].type = ptype_by_id(adt_id)) == nullptr) return nullptr;
  }
  for (int64_t i = 0; i < ncols; i++) {
    int32_t n;
    if (!rd32(r, &n) || n < 0 || n > remaining(r)) return nullptr;
    char* text = static_cast<char*>(mem_mallocex(r->mem, static_cast<uint64_t>(n) + 1, kFlags));
    if (text == nullptr || !rd_raw(r, text, n)) return nullptr;
    text[n] = '\0';
    d[i].compression = text;
  }
  for (int64_t i = 0; i < ncols; i++)
    if (!rd32(r, &d[i].implementation)) return nullptr;
  return bm_action_paxgroup_new(r->mem, id, storage_id, scol_id, object_id, ncols, d);
}

struct tag_entry {
  bm_logger_action* (*read)(reader* r, int32_t tag);
  const char* failure;
};

const tag_entry kTags[BM_LOGGER_MAX_TAG + 1] = {
    {read_id_only, "incorrect transaction\n"},  // tr_new: only a cut file fails here
    {read_id_only, "incorrect transaction\n"},
    {read_scol, "incorrect scol_new\n"},
    {read_scol, "incorrect scol_del\n"},
    {read_cat_table_new, "incorrect cat_table_new\n"},
    {read_id_only, "incorrect cat_table_del\n"},
    {read_id_only, "incorrect cat_table_truncate\n"},
    {read_cat_column_new, "incorrect cat_column_new\n"},
    {read_id_only, "incorrect cat_column_del\n"},
    {read_cat_index_new, "incorrect cat_index_new\n"},
    {read_id_only, "incorrect cat_index_del\n"},
    {read_size, "incorrect minmax_size"},
    {read_minmax, "incorrect minmax_data"},
    {read_minmax, "incorrect minmax_vardata"},
    {read_size, "incorrect jis_size"},
    {read_jis_data, "incorrect jis_data"},
    {read_pdt_new, "incorrect pdt_new"},
    {read_cat_location_new, "incorrect cat_location_new"},
    {read_id_only, "incorrect cat_location_del"},
    {read_cat_location_update, "incorrect cat_location_update"},
    {read_blk, "incorrect blk_new"},
    {read_blk, "incorrect blk_del"},
    {read_file_new, "incorrect file_new"},
    {read_id_only, "incorrect file_del"},
    {read_cs_new, "incorrect cs_new\n"},
    {read_paxgroup_file, "incorrect paxgroup_file_new\n"},
    {read_paxgroup_file, "incorrect paxgroup_file_del\n"},
    {read_cat_key_new, "incorrect cat_key_new"},
    {read_id_only, "incorrect cat_key_del"},
    {read_storage_new, "incorrect storage_new"},
    {read_id_only, "incorrect storage_del"},
    {read_paxgroup_new, "incorrect paxgroup_new"},
    {read_paxgroup_del, "incorrect paxgroup_del"},
};

}  // namespace

// A tag that can't be read is the end of the log only where the file has ended: a read error
// there is logged and fails the transaction, so that a log is never taken for shorter than it is.
static bool read_error(stream* s) {
  if (stream_at_end(s)) return false;
  CV_ERROR(LOGGER, "error reading log file '%s'", stream_name(s));
  return true;
}

int bm_logger_read_transaction(MemContext* mem, stream* s, bm_logger_action_list** list_out) {
  reader r;
  r.mem = mem;
  r.s = s;
  r.size = kSizeUnasked;
  bm_logger_action_list* list = nullptr;
  bool in_transaction = false;
  int64_t trid = 0;
  int32_t tag;

  *list_out = nullptr;
  if (!rd32(&r, &tag)) return read_error(s) ? 1 : 0;
  for (;;) {
    if (tag < 0 || tag > BM_LOGGER_MAX_TAG) {
      CV_ERROR(LOGGER, "Unhandled log value %d", tag);
      return 1;
    }
    bm_logger_action* a = kTags[tag].read(&r, tag);
    if (a == nullptr) {
      CV_ERROR(LOGGER, "%s", kTags[tag].failure);
      return 1;
    }
    if (tag == BM_TR_NEW) {
      if (in_transaction) {
        CV_ERROR(LOGGER, "tr_new called while in transaction");
        return 1;
      }
      trid = a->id;
      in_transaction = true;
    } else if (tag == BM_TR_END) {
      if (!in_transaction) {
        CV_ERROR(LOGGER, "tr_end called while not in transaction\n");
        return 1;
      }
      if (a->id != trid) {
        CV_ERROR(LOGGER, "incorrect transaction\n");
        return 1;
      }
      in_transaction = false;
    }
    if (list == nullptr && (list = action_list_new(mem)) == nullptr) {
      CV_ERROR(LOGGER, "%s", kTags[tag].failure);
      return 1;
    }
    action_list_append(list, a);
    if (tag == BM_TR_END) {
      *list_out = list;
      return 1;
    }
    if (!rd32(&r, &tag)) {
      if (read_error(s)) return 1;
      if (!in_transaction) {
        *list_out = list;
        return 0;
      }
      CV_ERROR(LOGGER, "reading transaction finished while still in open transaction");
      return 1;
    }
  }
}

int64_t bm_logger_read_version(stream* s) {
  int64_t word = -1;
  if (s == nullptr || stream_read_lng(s, &word) != 1) return -1;
  return word;
}
