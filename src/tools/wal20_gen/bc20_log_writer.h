// bc20_log_writer: writes format 2.0 metadata logs (`LOG`) and location maps, for tests,
// benchmarks and the sample generator. The converter itself never links it.
//
// The writer owns its file and its output buffer (1 MiB by default); everything goes to disk
// through the px_* seam, and bc20_log_writer_close reports the first failure. It writes exactly
// the records it is told to, one function per record kind with the record's fields in file
// order; it keeps no model of the database, so the validity of a history is the caller's.
// Helpers named bc20_log_damage_* write deliberately broken records for reader tests.
//
// Byte order: little-endian by default. With `big_endian` the mark is written as 04 D2 and every
// typed integer (including string lengths) byte-reversed; bulk bytes (payloads, col_ids, jis
// groups) are written exactly as given, never reversed.
#ifndef J480_TOOLS_WAL20_GEN_BC20_LOG_WRITER_H
#define J480_TOOLS_WAL20_GEN_BC20_LOG_WRITER_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "tools/wal_converter/bc20_logger.h"

// One record as written, for recording hooks: numbers and strings in file order, bulk areas in
// file order. Pointers are valid during the hook call only.
struct bc20_log_record {
  uint32_t tag;
  int32_t n_nums;
  int64_t nums[8];   // every int and lng field, int fields widened (unsigned ones as written)
  uint32_t skipped;  // bit i set: nums[i] is a field the reader drops
  int32_t n_strs;
  std::string_view strs[4];
  uint32_t str_skipped;  // bit i set: strs[i] is dropped by the reader
  int32_t n_bulk;
  const void* bulk[2];
  int64_t bulk_size[2];
};

typedef void (*bc20_log_hook)(void* ctx, const bc20_log_record* record);

struct bc20_log_writer_options {
  int big_endian = 0;
  // Damage: bytes at and after this file offset are dropped (the file is cut there); -1: none.
  int64_t cut_at = -1;
  // The version word after the mark.
  int64_t version = BC20_LOG_VERSION_20;
  size_t buffer_size = size_t{1} << 20;
  // Called after each record (not for damage records); null: none.
  bc20_log_hook hook = nullptr;
  void* hook_ctx = nullptr;
};

struct bc20_log_writer;

// Creates (or truncates) `path` and writes the mark and the version word. Null on failure, with
// the message logged (facility WAL20_GEN).
bc20_log_writer* bc20_log_writer_open(const char* path, const bc20_log_writer_options* options);
// Flushes, closes and frees the writer: 0, or -1 when any write, the flush or the close failed
// (logged). Null is accepted and gives -1.
int bc20_log_writer_close(bc20_log_writer* w);
// Bytes of the log so far, mark and version word included (counted as if not cut).
int64_t bc20_log_writer_offset(const bc20_log_writer* w);
// True once a write has failed; the writer then drops everything.
bool bc20_log_writer_failed(const bc20_log_writer* w);
// True between a tr_new and its tr_end.
bool bc20_log_writer_in_transaction(const bc20_log_writer* w);

// ---- records, fields in file order ----
// tr_new must stand outside a transaction and tr_end close the open one with its trid (both
// asserted); use the damage helpers to break the framing on purpose.
void bc20_log_tr_new(bc20_log_writer* w, int64_t trid);
void bc20_log_tr_end(bc20_log_writer* w, int64_t trid);
// cs_new and cs_new_defaultfile: id; name (dropped by readers); blksz; three skipped fields.
void bc20_log_cs_new(bc20_log_writer* w, bool defaultfile, int32_t id, std::string_view name,
                     int32_t blksz, int32_t skip1 = 8, int32_t skip2 = 1, int64_t skip3 = 128);
void bc20_log_col_new(bc20_log_writer* w, int32_t colid, int32_t type, int32_t skipped = 0);
void bc20_log_col_del(bc20_log_writer* w, int32_t colid, int32_t type, int32_t skipped = 0);
void bc20_log_blk_new_defaultfile(bc20_log_writer* w, int32_t colid, int64_t block_nr,
                                  int32_t bytes_used, int32_t num_tuples, int32_t skipped = 0);
void bc20_log_blk_del_defaultfile(bc20_log_writer* w, int32_t colid, int64_t block_nr,
                                  int32_t skipped = 0);
void bc20_log_blk_new(bc20_log_writer* w, int32_t colid, int64_t file_nr, int64_t block_nr,
                      int32_t bytes_used, int32_t num_tuples);
void bc20_log_blk_del(bc20_log_writer* w, int32_t colid, int64_t file_nr, int64_t block_nr);
void bc20_log_cat_table_new(bc20_log_writer* w, int64_t table_id, std::string_view name,
                            int64_t colgroup_id);
void bc20_log_cat_table_del(bc20_log_writer* w, int64_t table_id);
void bc20_log_cat_column_new(bc20_log_writer* w, int64_t colid, std::string_view adt,
                             int32_t ctype, std::string_view ltype, int32_t digits, int32_t scale,
                             std::string_view compression, std::string_view col_name,
                             uint32_t flags);
void bc20_log_cat_column_del(bc20_log_writer* w, int64_t column_id);
// cat_colgroup_new, or with `defaultfile` cat_colgroup_new_defaultfile (which carries one more,
// skipped, lng before ncols). col_ids are written as raw 8-byte items.
void bc20_log_cat_colgroup_new(bc20_log_writer* w, bool defaultfile, int64_t cg_id,
                               int64_t store_id, int64_t parent_id, int32_t type, int32_t ncols,
                               const int64_t* col_ids, int64_t skipped = 0);
void bc20_log_cat_colgroup_del(bc20_log_writer* w, int64_t colgroup_id);
void bc20_log_cat_index_new(bc20_log_writer* w, int64_t index_id, std::string_view index_name,
                            int32_t type, int64_t table_id, int64_t colgroup_id,
                            int64_t scolgroup_id, int64_t key_id);
void bc20_log_cat_index_del(bc20_log_writer* w, int64_t index_id);
void bc20_log_minmax_size(bc20_log_writer* w, int64_t index_id, int64_t maxgroups,
                          int64_t numtuples, int64_t groupsize);
// minmax_data (vardata false): the overflow area is 2 * overflow_datasize bytes;
// minmax_vardata (vardata true): overflow_datasize bytes.
void bc20_log_minmax_data(bc20_log_writer* w, bool vardata, int64_t index_id, int32_t column_nr,
                          const void* data, int64_t datasize, int32_t overflow,
                          const void* overflow_data, int64_t overflow_datasize);
void bc20_log_jis_size(bc20_log_writer* w, int64_t index_id, int64_t maxgroups,
                       int64_t numgroups, int64_t groupsize);
// `groups` is numgroups 8-byte words, written raw.
void bc20_log_jis_data(bc20_log_writer* w, int64_t index_id, int32_t jis_column,
                       int64_t numgroups, const void* groups);
// pdt_new carries a 32-bit unsigned size, pdt_new_64 a 64-bit one.
void bc20_log_pdt_new(bc20_log_writer* w, int64_t object_id, const void* data, uint32_t size);
void bc20_log_pdt_new_64(bc20_log_writer* w, int64_t object_id, const void* data, int64_t size);
void bc20_log_cat_location_new(bc20_log_writer* w, int64_t location_id, std::string_view name,
                               int32_t usage);
void bc20_log_cat_location_del(bc20_log_writer* w, int64_t location_id);
void bc20_log_cat_location_update(bc20_log_writer* w, int64_t location_id, int32_t usage);
void bc20_log_file_new(bc20_log_writer* w, int64_t file_nr, int64_t location_id,
                       std::string_view filename);
void bc20_log_file_del(bc20_log_writer* w, int64_t file_nr);
void bc20_log_colgroup_file_new(bc20_log_writer* w, int64_t colgroup_id, int64_t file_nr);
void bc20_log_colgroup_file_del(bc20_log_writer* w, int64_t colgroup_id, int64_t file_nr);

// ---- deliberate damage ----
// A bare tag with no fields (a tag no reader knows, e.g. 3 or 39).
void bc20_log_damage_tag(bc20_log_writer* w, int32_t tag);
// Closes the open transaction with a tr_end whose trid differs from its tr_new.
void bc20_log_damage_tr_end_wrong_trid(bc20_log_writer* w);
// A tr_new while a transaction is open.
void bc20_log_damage_nested_tr_new(bc20_log_writer* w, int64_t trid);
// A record of `tag` whose length field (string length, ncols, datasize, numgroups or payload
// size) is `length`, with plausible fields before it and nothing behind it. Tags: cs_new,
// cat_table_new, cat_column_new (adt), cat_index_new, cat_location_new, file_new,
// cat_colgroup_new, minmax_data, minmax_vardata, jis_data, pdt_new, pdt_new_64. False, with
// nothing written, for other tags and for a length that doesn't fit the field's width.
bool bc20_log_damage_oversize(bc20_log_writer* w, bc20_tag tag, int64_t length);

// ---- location map ----
struct bc20_location_map_entry {
  std::string_view name;
  std::string_view path;
};
// Writes `path` as "name,path\n" lines, in order: 0, or -1 (logged) when an entry can't be read
// back (an empty element, one over 1023 bytes, a comma or line feed inside) or a write fails.
int bc20_location_map_write(const char* path, const bc20_location_map_entry* entries, size_t n);

#endif  // J480_TOOLS_WAL20_GEN_BC20_LOG_WRITER_H
