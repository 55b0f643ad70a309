// bc20_logger: the record reader of the format 2.0 metadata log `LOG`.
//
// Reads one transaction at a time from a binary read stream into a linked list of bc20_action
// records. Everything it allocates (actions, strings, payload copies) comes from the memory
// context the caller passes, and dies with it. It does not look inside payloads, run handlers
// or write logs; the replay and the XML dump are built on it.
//
// File layout (integers in the writer's byte order, told by the mark; the stream swaps them):
//
//   offset  size  content
//   0       2     byte-order mark: 1234 (0x04D2) in the writer's order
//   2       8     version word: "CRWAL" in the high 40 bits (first letter highest), format
//                 version in the low 24 (2.0 = 0, 2.5 = 1). 2.0 in a little-endian file:
//                 00 00 00 4C 41 57 52 43
//   10      ...   records back to back: an int tag, then the tag's fields. No length, no
//                 checksum, no padding; an unknown tag ends the reading.
//
// Field encodings: int = 4 bytes, lng = 8 bytes (both swapped on reading where the mark says
// so); string = int length + that many bytes, no terminator (kept zero-terminated in memory);
// bytes(n) = n raw bytes, never swapped (8-byte arrays included). "-" = read and dropped.
//
//   tag name                          fields, in file order
//   0   tr_new                        lng trid
//   1   tr_end                        lng trid
//   2   cs_new_defaultfile            as cs_new
//   4   col_new                       int colid; int -; int type
//   5   col_del                       int colid; int -; int type
//   7   blk_new_defaultfile           int colid; lng block_nr; int -; int bytes_used;
//                                     int num_tuples                  -> blk_new, default file
//   8   blk_del_defaultfile           int colid; lng block_nr; int -  -> blk_del, default file
//   13  cat_table_new                 lng table_id; string name (<512); lng colgroup_id
//   14  cat_table_del                 lng table_id
//   15  cat_column_new                lng colid; string adt (<512); int ctype;
//                                     string ltype (<512); int digits; int scale;
//                                     string compression (<512); string col_name (<512);
//                                     int flags (unsigned)
//   16  cat_column_del                lng column_id
//   17  cat_colgroup_new_defaultfile  lng cg_id; lng store_id; lng parent_id; int type; lng -;
//                                     int ncols; bytes(8 * ncols) col_ids
//   18  cat_colgroup_del              lng colgroup_id
//   19  cat_index_new                 lng index_id; string index_name (<512); int type;
//                                     lng table_id; lng colgroup_id; lng scolgroup_id;
//                                     lng key_id
//   20  cat_index_del                 lng index_id
//   21  minmax_size                   lng index_id; lng maxgroups; lng numtuples; lng groupsize
//   22  minmax_data                   lng index_id; int column_nr; lng datasize;
//                                     bytes(datasize) data; int overflow;
//                                     lng overflow_datasize; bytes(2 * overflow_datasize)
//   23  minmax_vardata                as minmax_data, overflow area bytes(overflow_datasize)
//   24  jis_size                      lng index_id; lng maxgroups; lng numgroups; lng groupsize
//   25  jis_data                      lng index_id; int jis_column; lng numgroups;
//                                     bytes(8 * numgroups) groups
//   26  pdt_new                       lng object_id; int data_size (unsigned);
//                                     bytes(data_size) data           -> pdt_new_64
//   27  pdt_new_64                    lng object_id; lng size; bytes(size) data
//   28  cat_location_new              lng location_id; string name (<512); int usage
//                                     (no path in the file: the location map gives it)
//   29  cat_location_del              lng location_id
//   30  cat_location_update           lng location_id; int usage
//   31  blk_new                       int colid; lng file_nr; lng block_nr; int bytes_used;
//                                     int num_tuples
//   32  blk_del                       int colid; lng file_nr; lng block_nr
//   33  file_new                      lng file_nr; lng location_id; string filename (<512)
//   34  file_del                      lng file_nr
//   35  cs_new                        int id; string name (0..511, dropped); int blksz; int -;
//                                     int -; lng -
//   36  colgroup_file_new             lng colgroup_id; lng file_nr
//   37  colgroup_file_del             lng colgroup_id; lng file_nr
//   38  cat_colgroup_new              lng cg_id; lng store_id; lng parent_id; int type;
//                                     int ncols; bytes(8 * ncols) col_ids
//   3, 6, 9, 10, 11, 12 and everything above 38 are invalid.
//
// A transaction is tr_new(trid) ... tr_end(same trid). Records between a tr_end and the next
// tr_new are legal and belong to the next list.
#ifndef J480_TOOLS_WAL_CONVERTER_BC20_LOGGER_H
#define J480_TOOLS_WAL_CONVERTER_BC20_LOGGER_H

#include <cstdint>

struct MemContext;
struct stream;

// Record tags of the 2.0 log.
enum bc20_tag : uint32_t {
  bc20_tr_new = 0,
  bc20_tr_end = 1,
  bc20_cs_new_defaultfile = 2,
  bc20_col_new = 4,
  bc20_col_del = 5,
  bc20_blk_new_defaultfile = 7,
  bc20_blk_del_defaultfile = 8,
  bc20_cat_table_new = 13,
  bc20_cat_table_del = 14,
  bc20_cat_column_new = 15,
  bc20_cat_column_del = 16,
  bc20_cat_colgroup_new_defaultfile = 17,
  bc20_cat_colgroup_del = 18,
  bc20_cat_index_new = 19,
  bc20_cat_index_del = 20,
  bc20_minmax_size = 21,
  bc20_minmax_data = 22,
  bc20_minmax_vardata = 23,
  bc20_jis_size = 24,
  bc20_jis_data = 25,
  bc20_pdt_new = 26,
  bc20_pdt_new_64 = 27,
  bc20_cat_location_new = 28,
  bc20_cat_location_del = 29,
  bc20_cat_location_update = 30,
  bc20_blk_new = 31,
  bc20_blk_del = 32,
  bc20_file_new = 33,
  bc20_file_del = 34,
  bc20_cs_new = 35,
  bc20_colgroup_file_new = 36,
  bc20_colgroup_file_del = 37,
  bc20_cat_colgroup_new = 38,
};
constexpr uint32_t BC20_MAX_TAG = 38;

// Version word: the magic in the high 40 bits, the format version in the low 24.
constexpr int64_t BC20_VERSION_MASK = 0xFFFFFF;
constexpr int64_t BC20_LOG_MAGIC = 0x435257414C000000LL;
constexpr int64_t BC20_LOG_VERSION_20 = BC20_LOG_MAGIC | 0;
// Strings are read through a buffer of this size: at most 511 bytes of text.
constexpr int32_t BC20_STRING_BUFSIZE = 512;

// Field records, one per record layout; the union members below are named after the tags.
struct bc20_tr_fields { int64_t trid; };
struct bc20_cs_fields { int32_t id; int32_t blksz; };
struct bc20_col_fields { int32_t colid; int32_t type; };
struct bc20_blk_fields {
  int32_t colid;
  int64_t file_nr;
  int64_t block_nr;
  int32_t bytes_used;  // blk_new only
  int32_t num_tuples;  // blk_new only
};
struct bc20_cat_table_new_fields { int64_t table_id; char* name; int64_t colgroup_id; };
struct bc20_cat_column_new_fields {
  int64_t colid;
  char* adt;
  int32_t ctype;
  char* ltype;
  int32_t digits;
  int32_t scale;
  char* compression;
  char* col_name;
  uint32_t flags;
};
struct bc20_cat_colgroup_new_fields {
  int64_t cg_id;
  int64_t store_id;
  int64_t parent_id;
  int32_t type;
  int32_t ncols;
  int64_t* col_ids;  // ncols raw items in the file's byte order; null for 0
};
struct bc20_cat_index_new_fields {
  int64_t index_id;
  char* index_name;
  int32_t type;
  int64_t table_id;
  int64_t colgroup_id;
  int64_t scolgroup_id;
  int64_t key_id;
};
struct bc20_minmax_size_fields { int64_t index_id, maxgroups, numtuples, groupsize; };
struct bc20_minmax_data_fields {
  int64_t index_id;
  int32_t column_nr;
  int64_t datasize;
  void* data;  // datasize bytes; null for 0
  int32_t overflow;
  int64_t overflow_datasize;
  void* overflow_data;  // 2 * overflow_datasize (minmax_data) or overflow_datasize bytes
};
struct bc20_jis_size_fields { int64_t index_id, maxgroups, numgroups, groupsize; };
struct bc20_jis_data_fields {
  int64_t index_id;
  int32_t jis_column;
  int64_t numgroups;
  void* groups;  // 8 * numgroups raw bytes; null for 0
};
struct bc20_pdt_new_64_fields { int64_t object_id; void* data; int64_t size; };
struct bc20_cat_location_new_fields {
  int64_t location_id;
  char* name;
  int32_t usage;
  char* path;  // not in the file: null here, filled from the location map
};
struct bc20_cat_location_update_fields { int64_t location_id; int32_t usage; };
struct bc20_file_new_fields { int64_t file_nr; int64_t location_id; char* filename; };
struct bc20_colgroup_file_fields { int64_t colgroup_id; int64_t file_nr; };
struct bc20_table_id_fields { int64_t table_id; };
struct bc20_column_id_fields { int64_t column_id; };
struct bc20_colgroup_id_fields { int64_t colgroup_id; };
struct bc20_index_id_fields { int64_t index_id; };
struct bc20_location_id_fields { int64_t location_id; };
struct bc20_file_nr_fields { int64_t file_nr; };

// One action of the 2.0 log. `type` is the tag (after the reader's conversions: never
// blk_new_defaultfile, blk_del_defaultfile or pdt_new); read the union member of that name.
struct bc20_action {
  uint32_t type;
  union {
    bc20_tr_fields tr_new;
    bc20_tr_fields tr_end;
    bc20_cs_fields cs_new;              // also cs_new_defaultfile
    bc20_cs_fields cs_new_defaultfile;
    bc20_col_fields col_new;
    bc20_col_fields col_del;
    bc20_blk_fields blk_new;
    bc20_blk_fields blk_del;
    bc20_cat_table_new_fields cat_table_new;
    bc20_table_id_fields cat_table_del;
    bc20_cat_column_new_fields cat_column_new;
    bc20_column_id_fields cat_column_del;
    bc20_cat_colgroup_new_fields cat_colgroup_new;  // also cat_colgroup_new_defaultfile
    bc20_cat_colgroup_new_fields cat_colgroup_new_defaultfile;
    bc20_colgroup_id_fields cat_colgroup_del;
    bc20_cat_index_new_fields cat_index_new;
    bc20_index_id_fields cat_index_del;
    bc20_minmax_size_fields minmax_size;
    bc20_minmax_data_fields minmax_data;  // also minmax_vardata
    bc20_minmax_data_fields minmax_vardata;
    bc20_jis_size_fields jis_size;
    bc20_jis_data_fields jis_data;
    bc20_pdt_new_64_fields pdt_new_64;
    bc20_cat_location_new_fields cat_location_new;
    bc20_location_id_fields cat_location_del;
    bc20_cat_location_update_fields cat_location_update;
    bc20_file_new_fields file_new;
    bc20_file_nr_fields file_del;
    bc20_colgroup_file_fields colgroup_file_new;
    bc20_colgroup_file_fields colgroup_file_del;
  };
  bc20_action* next;
};

// Reads one transaction from `s`, which stands at a record boundary, into `mem`.
//   0: the stream ended at a record boundary outside a transaction; `*actions` holds what
//      stood after the last tr_end (or null), which the caller drops.
//   1 with a list in `*actions`: one whole transaction, from its tr_new up to its tr_end.
//   1 with null in `*actions`: the reading failed; the message is logged (facility LOGGER).
int bc20_logger_read_transaction(MemContext* mem, stream* s, bc20_action** actions);

// Reads the version word that follows the mark; -1 where the file holds none.
int64_t bc20_logger_read_version(stream* s);
// The version test of a 2.0 log: 0 where `word` may be read as 2.0 (the 2.0 word, or any
// negative word), otherwise logs "Incompatible database version detected, database already
// converted." at ERROR and gives -1.
int bc20_logger_version_test(int64_t word);

#endif  // J480_TOOLS_WAL_CONVERTER_BC20_LOGGER_H
