#include "tools/wal_converter/bc20_logger.h"

#include <array>
#include <climits>
#include <cstdint>

#include "tools/wal_converter/bc20_iobm.h"
#include "utils/cvlog.h"
#include "utils/mem.h"
#include "utils/posix.h"
#include "utils/stream.h"

namespace {

constexpr char LOGGER[] = "LOGGER";

// What one call of the transaction reader knows about its stream.
struct reader {
  MemContext* mem;
  stream* s;
  int64_t size;  // file size; kSizeUnasked until a length needs it, -1 where it can't be known
};
constexpr int64_t kSizeUnasked = STREAM_SIZE_UNASKED;

// Bytes left behind the stream position. Lengths read from the file are held against it before
// anything is allocated or read. A stream that isn't a regular file has no bound but the
// allocation itself.
int64_t remaining(reader* r) { return stream_remaining(r->s, &r->size); }

inline bool rd_int(reader* r, int32_t* v) { return stream_read_int(r->s, v) == 1; }
inline bool rd_lng(reader* r, int64_t* v) { return stream_read_lng(r->s, v) == 1; }
inline bool skip_int(reader* r) {
  int32_t dropped;
  return rd_int(r, &dropped);
}
inline bool skip_lng(reader* r) {
  int64_t dropped;
  return rd_lng(r, &dropped);
}

// Exactly `n` raw bytes; a stream already in error reads nothing.
bool rd_raw(reader* r, void* buffer, int64_t n) {
  if (n == 0) return true;
  if (r->s->errnr != STREAM_NOERR) return false;
  return stream_read(r->s, buffer, 1, static_cast<size_t>(n)) == n &&
         r->s->errnr == STREAM_NOERR;
}

// A string of 0 to 511 bytes, copied zero-terminated into the transaction's context.
bool rd_string(reader* r, char** out) {
  int32_t length;
  if (!rd_int(r, &length)) return false;
  if (length < 0 || length >= BC20_STRING_BUFSIZE || length > remaining(r)) return false;
  char* text = static_cast<char*>(mem_mallocex(r->mem, static_cast<uint64_t>(length) + 1,
                                               J480_MEM_ALLOWFAILURE));
  if (text == nullptr || !rd_raw(r, text, length)) return false;
  text[length] = '\0';
  *out = text;
  return true;
}

// `count` items of `width` bytes, copied raw into the context; null for none. Negative counts,
// sizes that don't fit 64 bits and sizes beyond the end of the file are refused unread.
bool rd_payload(reader* r, int64_t count, int64_t width, void** out) {
  *out = nullptr;
  if (count < 0 || count > INT64_MAX / width) return false;
  int64_t n = count * width;
  if (n == 0) return true;
  if (n > remaining(r)) return false;
  void* data = mem_mallocex(r->mem, static_cast<uint64_t>(n), J480_MEM_ALLOWFAILURE);
  if (data == nullptr || !rd_raw(r, data, n)) return false;
  *out = data;
  return true;
}

inline bc20_action* new_action(reader* r, uint32_t type) {
  auto* a = static_cast<bc20_action*>(
      mem_callocex(r->mem, sizeof(bc20_action), J480_MEM_ALLOWFAILURE));
  if (a != nullptr) a->type = type;
  return a;
}

// ---- One reader per record layout: exactly its fields, the action or null ----

bc20_action* read_tr(reader* r, uint32_t tag) {
  bc20_action* a = new_action(r, tag);
  if (a == nullptr || !rd_lng(r, &a->tr_new.trid)) return nullptr;
  return a;
}

bc20_action* read_cs_new(reader* r, uint32_t type) {
  J480_ASSERT(LOGGER, type == bc20_cs_new || type == bc20_cs_new_defaultfile);
  bc20_action* a = new_action(r, type);
  if (a == nullptr || !rd_int(r, &a->cs_new.id)) return nullptr;
  int32_t length;
  if (!rd_int(r, &length)) return nullptr;
  if (length < 0 || length >= BC20_STRING_BUFSIZE) {
    CV_ERROR(LOGGER, "read_cs_new: unexpected values in log");
    return nullptr;
  }
  char name[BC20_STRING_BUFSIZE];  // the name isn't kept
  if (length > remaining(r) || !rd_raw(r, name, length)) return nullptr;
  if (!rd_int(r, &a->cs_new.blksz) || !skip_int(r) || !skip_int(r) || !skip_lng(r))
    return nullptr;
  return a;
}

bc20_action* read_col(reader* r, uint32_t tag) {
  bc20_action* a = new_action(r, tag);
  if (a == nullptr || !rd_int(r, &a->col_new.colid) || !skip_int(r) ||
      !rd_int(r, &a->col_new.type))
    return nullptr;
  return a;
}

bc20_action* read_blk_new_defaultfile(reader* r, uint32_t) {
  bc20_action* a = new_action(r, bc20_blk_new);
  if (a == nullptr) return nullptr;
  bc20_blk_fields* f = &a->blk_new;
  if (!rd_int(r, &f->colid) || !rd_lng(r, &f->block_nr) || !skip_int(r) ||
      !rd_int(r, &f->bytes_used) || !rd_int(r, &f->num_tuples))
    return nullptr;
  f->file_nr = bc20_iobm_default_file_nr();
  return a;
}

bc20_action* read_blk_del_defaultfile(reader* r, uint32_t) {
  bc20_action* a = new_action(r, bc20_blk_del);
  if (a == nullptr) return nullptr;
  bc20_blk_fields* f = &a->blk_del;
  if (!rd_int(r, &f->colid) || !rd_lng(r, &f->block_nr) || !skip_int(r)) return nullptr;
  f->file_nr = bc20_iobm_default_file_nr();
  return a;
}

bc20_action* read_blk_new(reader* r, uint32_t tag) {
  bc20_action* a = new_action(r, tag);
  if (a == nullptr) return nullptr;
  bc20_blk_fields* f = &a->blk_new;
  if (!rd_int(r, &f->colid) || !rd_lng(r, &f->file_nr) || !rd_lng(r, &f->block_nr) ||
      !rd_int(r, &f->bytes_used) || !rd_int(r, &f->num_tuples))
    return nullptr;
  return a;
}

bc20_action* read_blk_del(reader* r, uint32_t tag) {
  bc20_action* a = new_action(r, tag);
  if (a == nullptr) return nullptr;
  bc20_blk_fields* f = &a->blk_del;
  if (!rd_int(r, &f->colid) || !rd_lng(r, &f->file_nr) || !rd_lng(r, &f->block_nr))
    return nullptr;
  return a;
}

// The records that hold one lng id.
bc20_action* read_id(reader* r, uint32_t tag) {
  bc20_action* a = new_action(r, tag);
  if (a == nullptr) return nullptr;
  int64_t* id = nullptr;
  switch (tag) {
    case bc20_cat_table_del: id = &a->cat_table_del.table_id; break;
    case bc20_cat_column_del: id = &a->cat_column_del.column_id; break;
    case bc20_cat_colgroup_del: id = &a->cat_colgroup_del.colgroup_id; break;
    case bc20_cat_index_del: id = &a->cat_index_del.index_id; break;
    case bc20_cat_location_del: id = &a->cat_location_del.location_id; break;
    case bc20_file_del: id = &a->file_del.file_nr; break;
    default: J480_ASSERT(LOGGER, !"record with one id"); break;
  }
  if (!rd_lng(r, id)) return nullptr;
  return a;
}

bc20_action* read_cat_table_new(reader* r, uint32_t tag) {
  bc20_action* a = new_action(r, tag);
  if (a == nullptr) return nullptr;
  bc20_cat_table_new_fields* f = &a->cat_table_new;
  if (!rd_lng(r, &f->table_id) || !rd_string(r, &f->name) || !rd_lng(r, &f->colgroup_id))
    return nullptr;
  return a;
}

bc20_action* read_cat_column_new(reader* r, uint32_t tag) {
  bc20_action* a = new_action(r, tag);
  if (a == nullptr) return nullptr;
  bc20_cat_column_new_fields* f = &a->cat_column_new;
  int32_t flags;
  if (!rd_lng(r, &f->colid) || !rd_string(r, &f->adt) || !rd_int(r, &f->ctype) ||
      !rd_string(r, &f->ltype) || !rd_int(r, &f->digits) || !rd_int(r, &f->scale) ||
      !rd_string(r, &f->compression) || !rd_string(r, &f->col_name) || !rd_int(r, &flags))
    return nullptr;
  f->flags = static_cast<uint32_t>(flags);
  return a;
}

// cat_colgroup_new, and its defaultfile form with one more (dropped) lng before ncols.
bc20_action* read_cat_colgroup_new(reader* r, uint32_t tag) {
  bc20_action* a = new_action(r, tag);
  if (a == nullptr) return nullptr;
  bc20_cat_colgroup_new_fields* f = &a->cat_colgroup_new;
  if (!rd_lng(r, &f->cg_id) || !rd_lng(r, &f->store_id) || !rd_lng(r, &f->parent_id) ||
      !rd_int(r, &f->type))
    return nullptr;
  if (tag == bc20_cat_colgroup_new_defaultfile && !skip_lng(r)) return nullptr;
  void* col_ids;
  if (!rd_int(r, &f->ncols) || !rd_payload(r, f->ncols, 8, &col_ids)) return nullptr;
  f->col_ids = static_cast<int64_t*>(col_ids);
  int64_t colgroup_id = f->cg_id;
  J480_ASSERT(LOGGER, colgroup_id);
  return a;
}

bc20_action* read_cat_index_new(reader* r, uint32_t tag) {
  bc20_action* a = new_action(r, tag);
  if (a == nullptr) return nullptr;
  bc20_cat_index_new_fields* f = &a->cat_index_new;
  if (!rd_lng(r, &f->index_id) || !rd_string(r, &f->index_name) || !rd_int(r, &f->type) ||
      !rd_lng(r, &f->table_id) || !rd_lng(r, &f->colgroup_id) || !rd_lng(r, &f->scolgroup_id) ||
      !rd_lng(r, &f->key_id))
    return nullptr;
  return a;
}

bc20_action* read_minmax_size(reader* r, uint32_t tag) {
  bc20_action* a = new_action(r, tag);
  if (a == nullptr) return nullptr;
  bc20_minmax_size_fields* f = &a->minmax_size;
  if (!rd_lng(r, &f->index_id) || !rd_lng(r, &f->maxgroups) || !rd_lng(r, &f->numtuples) ||
      !rd_lng(r, &f->groupsize))
    return nullptr;
  return a;
}

// minmax_data and minmax_vardata: the overflow area holds 2 or 1 bytes per overflow_datasize.
bc20_action* read_minmax_data(reader* r, uint32_t tag) {
  bc20_action* a = new_action(r, tag);
  if (a == nullptr) return nullptr;
  bc20_minmax_data_fields* f = &a->minmax_data;
  int64_t overflow_width = tag == bc20_minmax_data ? 2 : 1;
  if (!rd_lng(r, &f->index_id) || !rd_int(r, &f->column_nr) || !rd_lng(r, &f->datasize) ||
      !rd_payload(r, f->datasize, 1, &f->data) || !rd_int(r, &f->overflow) ||
      !rd_lng(r, &f->overflow_datasize) ||
      !rd_payload(r, f->overflow_datasize, overflow_width, &f->overflow_data))
    return nullptr;
  return a;
}

bc20_action* read_jis_size(reader* r, uint32_t tag) {
  bc20_action* a = new_action(r, tag);
  if (a == nullptr) return nullptr;
  bc20_jis_size_fields* f = &a->jis_size;
  if (!rd_lng(r, &f->index_id) || !rd_lng(r, &f->maxgroups) || !rd_lng(r, &f->numgroups) ||
      !rd_lng(r, &f->groupsize))
    return nullptr;
  return a;
}

bc20_action* read_jis_data(reader* r, uint32_t tag) {
  bc20_action* a = new_action(r, tag);
  if (a == nullptr) return nullptr;
  bc20_jis_data_fields* f = &a->jis_data;
  if (!rd_lng(r, &f->index_id) || !rd_int(r, &f->jis_column) || !rd_lng(r, &f->numgroups) ||
      !rd_payload(r, f->numgroups, 8, &f->groups))
    return nullptr;
  return a;
}

// pdt_new: a 32-bit unsigned size, read as pdt_new_64.
bc20_action* read_pdt_new(reader* r, uint32_t) {
  bc20_action* a = new_action(r, bc20_pdt_new_64);
  if (a == nullptr) return nullptr;
  bc20_pdt_new_64_fields* f = &a->pdt_new_64;
  int32_t data_size;
  if (!rd_lng(r, &f->object_id) || !rd_int(r, &data_size)) return nullptr;
  f->size = static_cast<uint32_t>(data_size);
  if (!rd_payload(r, f->size, 1, &f->data)) return nullptr;
  CV_DEBUG(LOGGER, "converting pdt_new log action to pdt_new_64, object_id=%lld, data_size=%lld",
           static_cast<long long>(f->object_id), static_cast<long long>(f->size));
  return a;
}

bc20_action* read_pdt_new_64(reader* r, uint32_t tag) {
  bc20_action* a = new_action(r, tag);
  if (a == nullptr) return nullptr;
  bc20_pdt_new_64_fields* f = &a->pdt_new_64;
  if (!rd_lng(r, &f->object_id) || !rd_lng(r, &f->size) || !rd_payload(r, f->size, 1, &f->data))
    return nullptr;
  return a;
}

bc20_action* read_cat_location_new(reader* r, uint32_t tag) {
  bc20_action* a = new_action(r, tag);
  if (a == nullptr) return nullptr;
  bc20_cat_location_new_fields* f = &a->cat_location_new;
  if (!rd_lng(r, &f->location_id) || !rd_string(r, &f->name) || !rd_int(r, &f->usage))
    return nullptr;
  return a;
}

bc20_action* read_cat_location_update(reader* r, uint32_t tag) {
  bc20_action* a = new_action(r, tag);
  if (a == nullptr) return nullptr;
  bc20_cat_location_update_fields* f = &a->cat_location_update;
  if (!rd_lng(r, &f->location_id) || !rd_int(r, &f->usage)) return nullptr;
  return a;
}

bc20_action* read_file_new(reader* r, uint32_t tag) {
  bc20_action* a = new_action(r, tag);
  if (a == nullptr) return nullptr;
  bc20_file_new_fields* f = &a->file_new;
  if (!rd_lng(r, &f->file_nr) || !rd_lng(r, &f->location_id) || !rd_string(r, &f->filename))
    return nullptr;
  return a;
}

bc20_action* read_colgroup_file(reader* r, uint32_t tag) {
  bc20_action* a = new_action(r, tag);
  if (a == nullptr) return nullptr;
  bc20_colgroup_file_fields* f = &a->colgroup_file_new;
  if (!rd_lng(r, &f->colgroup_id) || !rd_lng(r, &f->file_nr)) return nullptr;
  int64_t colgroup_id = f->colgroup_id;
  int64_t file_nr = f->file_nr;
  J480_ASSERT(LOGGER, colgroup_id && file_nr >= 0);
  return a;
}

// ---- Dispatch ----

using read_fn = bc20_action* (*)(reader*, uint32_t);

struct tag_entry {
  read_fn read;         // null: not a tag of the format
  const char* failure;  // logged when the record can't be read; null logs nothing
};

constexpr std::array<tag_entry, BC20_MAX_TAG + 1> make_tag_table() {
  std::array<tag_entry, BC20_MAX_TAG + 1> t{};
  t[bc20_tr_new] = {read_tr, nullptr};
  t[bc20_tr_end] = {read_tr, "incorrect transaction\n"};
  t[bc20_cs_new_defaultfile] = {read_cs_new, "incorrect cs_new\n"};
  t[bc20_col_new] = {read_col, "incorrect col_new\n"};
  t[bc20_col_del] = {read_col, "incorrect col_del\n"};
  t[bc20_blk_new_defaultfile] = {read_blk_new_defaultfile, "incorrect blk_new_defaultfile"};
  t[bc20_blk_del_defaultfile] = {read_blk_del_defaultfile, "incorrect blk_del_defaultfile"};
  t[bc20_cat_table_new] = {read_cat_table_new, "incorrect cat_table_new\n"};
  t[bc20_cat_table_del] = {read_id, "incorrect cat_table_del\n"};
  t[bc20_cat_column_new] = {read_cat_column_new, "incorrect cat_column_new\n"};
  t[bc20_cat_column_del] = {read_id, "incorrect cat_column_del\n"};
  t[bc20_cat_colgroup_new_defaultfile] = {read_cat_colgroup_new,
                                          "incorrect cat_colgroup_new_defaultfile\n"};
  t[bc20_cat_colgroup_del] = {read_id, "incorrect cat_colgroup_del\n"};
  t[bc20_cat_index_new] = {read_cat_index_new, "incorrect cat_index_new\n"};
  t[bc20_cat_index_del] = {read_id, "incorrect cat_index_del\n"};
  t[bc20_minmax_size] = {read_minmax_size, "incorrect minmax_size"};
  t[bc20_minmax_data] = {read_minmax_data, "incorrect minmax_data"};
  t[bc20_minmax_vardata] = {read_minmax_data, "incorrect minmax_vardata"};
  t[bc20_jis_size] = {read_jis_size, "incorrect jis_size"};
  t[bc20_jis_data] = {read_jis_data, "incorrect jis_data"};
  t[bc20_pdt_new] = {read_pdt_new, "incorrect pdt_new"};
  t[bc20_pdt_new_64] = {read_pdt_new_64, "incorrect pdt_new_64"};
  t[bc20_cat_location_new] = {read_cat_location_new, "incorrect cat_location_new"};
  t[bc20_cat_location_del] = {read_id, "incorrect cat_location_del"};
  t[bc20_cat_location_update] = {read_cat_location_update, "incorrect cat_location_update"};
  t[bc20_blk_new] = {read_blk_new, "incorrect blk_new"};
  t[bc20_blk_del] = {read_blk_del, "incorrect blk_del"};
  t[bc20_file_new] = {read_file_new, "incorrect file_new"};
  t[bc20_file_del] = {read_id, "incorrect file_del"};
  t[bc20_cs_new] = {read_cs_new, "incorrect cs_new\n"};
  t[bc20_colgroup_file_new] = {read_colgroup_file, "incorrect colgroup_file_new\n"};
  t[bc20_colgroup_file_del] = {read_colgroup_file, "incorrect colgroup_file_del\n"};
  t[bc20_cat_colgroup_new] = {read_cat_colgroup_new, "incorrect cat_colgroup_new\n"};
  return t;
}

constexpr std::array<tag_entry, BC20_MAX_TAG + 1> kTags = make_tag_table();

}  // namespace

// A tag that can't be read is the end of the log only where the file has ended: a read error
// there is logged and fails the transaction, so that a log is never taken for shorter than it is.
static bool read_error(stream* s) {
  if (stream_at_end(s)) return false;
  CV_ERROR(LOGGER, "error reading log file '%s'", stream_name(s));
  return true;
}

int bc20_logger_read_transaction(MemContext* mem, stream* s, bc20_action** actions) {
  reader r = {mem, s, kSizeUnasked};
  bc20_action* head = nullptr;
  bc20_action** tail = &head;
  bool in_transaction = false;
  int64_t trid = 0;
  int32_t tag;

  if (!rd_int(&r, &tag)) {
    *actions = nullptr;
    if (!read_error(s)) return 0;
    return 1;
  }
  for (;;) {
    uint32_t type = static_cast<uint32_t>(tag);
    if (type > BC20_MAX_TAG || kTags[type].read == nullptr) {
      CV_ERROR(LOGGER, "Unhandled log value %d", tag);
      break;
    }
    if (type == bc20_tr_new && in_transaction) {
      CV_ERROR(LOGGER, "tr_new called while in transaction");
      break;
    }
    if (type == bc20_tr_end && !in_transaction) {
      CV_ERROR(LOGGER, "tr_end called while not in transaction\n");
      break;
    }
    bc20_action* a = kTags[type].read(&r, type);
    if (a == nullptr) {
      if (kTags[type].failure != nullptr) CV_ERROR(LOGGER, "%s", kTags[type].failure);
      break;
    }
    if (type == bc20_tr_new) {
      trid = a->tr_new.trid;
      in_transaction = true;
    } else if (type == bc20_tr_end) {
      if (a->tr_end.trid != trid) {
        CV_ERROR(LOGGER, "incorrect transaction\n");
        break;
      }
      in_transaction = false;
    }
    *tail = a;
    tail = &a->next;
    if (type == bc20_tr_end) {
      *actions = head;
      return 1;
    }
    if (!rd_int(&r, &tag)) {
      if (read_error(s)) break;
      if (!in_transaction) {
        *actions = head;
        return 0;
      }
      CV_ERROR(LOGGER, "reading transaction finished while still in open transaction");
      break;
    }
  }
  *actions = nullptr;
  return 1;
}

int64_t bc20_logger_read_version(stream* s) {
  int64_t word = -1;
  if (s == nullptr || stream_read_lng(s, &word) != 1) return -1;
  return word;
}

int bc20_logger_version_test(int64_t word) {
  if (word >= 0 && word != BC20_LOG_VERSION_20) {
    CV_ERROR(LOGGER, "Incompatible database version detected, database already converted.");
    return -1;
  }
  return 0;
}
