// logger: the format 2.5 metadata log: its actions and bytes, the writer and its commit, the
// reader, the XML dump, the location map writer and the key files of locations.
// Actions and lists live zeroed in the caller's memory context, with copies of their strings and
// arrays (pdt_new alone points at the caller's buffer); the reader allocates only from the context
// it is given. The logger (malloc'ed) owns its two streams, never an action. Nothing here replays
// a log into a model.
//
// File layout. Integers in the writer's byte order, told by the mark; no padding anywhere.
//
//   offset  size  content
//   0       2     byte-order mark: 1234 in the writer's order (written by the stream layer)
//   2       8     version word: "CRWAL" in the high 40 bits (first letter highest), version 1 in
//                 the low 24. Little-endian: 01 00 00 4C 41 57 52 43. Written into a new file only.
//   10      ...   records back to back: an i32 tag, then the tag's fields. No length, no checksum,
//                 no terminator: a reader must know every tag.
//
// Field encodings: i32, i64 signed, swapped on reading where the mark says so; str = i32 length
// + that many bytes, no terminator; bytes(n) = n raw bytes, never swapped. The i64 column id list
// of cat_key_new is written in one piece and swapped item by item on reading.
//
//   tag  action               fields, in file order
//   0    tr_new               i64 trid
//   1    tr_end               i64 trid
//   2    scol_new             i64 scolid; i32 type
//   3    scol_del             i64 scolid; i32 type
//   4    cat_table_new        i64 table_id; str name (<512 on reading); i32 is_auto_pax
//   5    cat_table_del        i64 table_id
//   6    cat_table_truncate   i64 table_id
//   7    cat_column_new       i64 column_id; str name (<512); i32 nullability; i32 adt_id;
//                             i32 ltype_code; i64 table_id
//   8    cat_column_del       i64 column_id
//   9    cat_index_new        i64 index_id; str name (<512); i32 type; i64 table_id;
//                             i64 ref_key_id
//   10   cat_index_del        i64 index_id
//   11   minmax_size          i64 index_id; i64 maxgroups; i64 numtuples; i64 groupsize
//   12   minmax_data          i64 index_id; i32 column_nr; i64 datasize; bytes(datasize)
//                             (all minima, then all maxima); i32 overflow;
//                             i64 overflow_datasize; bytes(2 * overflow_datasize) (min, max)
//   13   minmax_vardata       i64 index_id; i32 column_nr; i64 datasize; bytes(datasize);
//                             i32 overflow; i64 overflow_datasize; bytes(overflow_datasize)
//                             blob: ngroups pairs (i64 min length, i64 max length), then per
//                             group the minimum's bytes and the maximum's bytes; the overflow
//                             blob is one such pair and its bytes, or nothing for overflow 0
//   14   jis_size             i64 index_id; i64 maxgroups; i64 numgroups; i64 groupsize
//   15   jis_data             i64 index_id; i32 jis_column; i64 numgroups; bytes(8 * numgroups)
//   16   pdt_new              i64 object_id; i64 size; bytes(size)
//   17   cat_location_new     i64 location_id; str name (<512); i32 usage (the path goes to
//                             the location map only)
//   18   cat_location_del     i64 location_id
//   19   cat_location_update  i64 location_id; i32 usage
//   20   blk_new              i64 scolid; i64 file_nr; i64 block_nr; i64 bytes_used;
//                             i64 num_tuples
//   21   blk_del              i64 scolid; i64 file_nr; i64 block_nr
//   22   file_new             i64 file_nr; i64 location_id; str filename (<512)
//   23   file_del             i64 file_nr
//   24   cs_new               i32 id (written 0); i64 blksz; i64 reserved (written 0, ignored)
//   25   paxgroup_file_new    i64 paxgroup_id; i64 file_nr; i64 object_id
//   26   paxgroup_file_del    i64 paxgroup_id; i64 file_nr; i64 object_id
//   27   cat_key_new          i64 key_id; str name (<512); i32 type; i64 table_id;
//                             i64 ref_key_id (-1 but for foreign keys); i64 ncols;
//                             ncols x i64 column or join index id
//   28   cat_key_del          i64 key_id
//   29   storage_new          i64 storage_id; i64 object_id
//   30   storage_del          i64 storage_id
//   31   paxgroup_new         i64 paxgroup_id; i64 storage_id; i64 scol_id; i64 object_id;
//                             i64 ncols; ncols x i32 nullability; ncols x i32 adt_id;
//                             ncols x str compression ("" for none); ncols x i32 implementation
//   32   paxgroup_del         i64 paxgroup_id; i64 object_id
//
// A transaction is tr_new(trid) ... tr_end(same trid); actions outside a bracket are legal.
#ifndef J480_BM_LOGGER_H
#define J480_BM_LOGGER_H

#include <cstdint>

struct MemContext;
struct stream;
struct iobm;
struct pax_column_descr;

// Record tags.
enum bm_logger_tag : int32_t {
  BM_TR_NEW = 0,
  BM_TR_END = 1,
  BM_SCOL_NEW = 2,
  BM_SCOL_DEL = 3,
  BM_CAT_TABLE_NEW = 4,
  BM_CAT_TABLE_DEL = 5,
  BM_CAT_TABLE_TRUNCATE = 6,
  BM_CAT_COLUMN_NEW = 7,
  BM_CAT_COLUMN_DEL = 8,
  BM_CAT_INDEX_NEW = 9,
  BM_CAT_INDEX_DEL = 10,
  BM_MINMAX_SIZE = 11,
  BM_MINMAX_DATA = 12,
  BM_MINMAX_VARDATA = 13,
  BM_JIS_SIZE = 14,
  BM_JIS_DATA = 15,
  BM_PDT_NEW = 16,
  BM_CAT_LOCATION_NEW = 17,
  BM_CAT_LOCATION_DEL = 18,
  BM_CAT_LOCATION_UPDATE = 19,
  BM_BLK_NEW = 20,
  BM_BLK_DEL = 21,
  BM_FILE_NEW = 22,
  BM_FILE_DEL = 23,
  BM_CS_NEW = 24,
  BM_PAXGROUP_FILE_NEW = 25,
  BM_PAXGROUP_FILE_DEL = 26,
  BM_CAT_KEY_NEW = 27,
  BM_CAT_KEY_DEL = 28,
  BM_STORAGE_NEW = 29,
  BM_STORAGE_DEL = 30,
  BM_PAXGROUP_NEW = 31,
  BM_PAXGROUP_DEL = 32,
};
constexpr int32_t BM_LOGGER_MAX_TAG = 32;

// The version word of this format, and the split of a word read from a file.
constexpr int64_t BM_LOGGER_VERSION_MASK = 0xFFFFFF;
constexpr int64_t BM_LOGGER_MAGIC = 0x435257414C000000LL;
constexpr int64_t BM_LOGGER_VERSION_25 = BM_LOGGER_MAGIC | 1;
// Names of the limited kinds are written and read only below this length.
constexpr int32_t BM_LOGGER_NAME_BUFSIZE = 512;
// A location map line, line feed included, is shorter than this.
constexpr int32_t BM_LOGGER_MAP_LINE_BUFSIZE = 512;

// The process-wide version word: all ones until bm_logger_create sets it.
extern int64_t wal_version;

// Variant fields: everything of a record but its tag and first i64 (`id`), in wire order.
struct bm_scol_fields {
  int32_t type;
};  // scol_new, scol_del
struct bm_cat_table_new_fields {
  char* name;
  int32_t is_auto_pax;
};
struct bm_cat_column_new_fields {
  char* name;
  int32_t nullability;
  int32_t adt_id;
  int32_t ltype_code;
  int64_t table_id;
};
struct bm_cat_index_new_fields {
  char* name;
  int32_t type;
  int64_t table_id;
  int64_t ref_key_id;
};
struct bm_minmax_size_fields {
  int64_t maxgroups;
  int64_t numtuples;
  int64_t groupsize;
};
struct bm_jis_size_fields {
  int64_t maxgroups;
  int64_t numgroups;
  int64_t groupsize;
};
struct bm_minmax_data_fields {
  int32_t column_nr;
  int64_t datasize;
  void* data;  // datasize bytes; null for 0
  int32_t overflow;
  int64_t overflow_datasize;
  void* overflow_data;  // 2 * overflow_datasize (minmax_data) or overflow_datasize bytes
};
struct bm_jis_data_fields {
  int32_t jis_column;
  int64_t numgroups;
  int64_t* data;
};
struct bm_pdt_new_fields {
  int64_t size;
  void* data;
};  // data: the caller's, not copied
struct bm_cat_location_new_fields {
  char* name;
  int32_t usage;
  char* path;
};
struct bm_cat_location_del_fields {
  char* path;
};
struct bm_cat_location_update_fields {
  int32_t usage;
};
struct bm_blk_fields {
  int64_t file_nr;
  int64_t block_nr;
  int64_t bytes_used;
  int64_t num_tuples;
};
struct bm_file_new_fields {
  int64_t location_id;
  char* filename;
};
struct bm_cs_new_fields {
  int64_t blksz;
  int64_t reserved;
};
struct bm_paxgroup_file_fields {
  int64_t file_nr;
  int64_t object_id;
};
struct bm_cat_key_new_fields {
  char* name;
  int32_t type;
  int64_t table_id;
  int64_t ref_key_id;
  int64_t ncols;
  int64_t* col_ids;  // null for 0
};
struct bm_object_fields {
  int64_t object_id;
};  // storage_new, paxgroup_del
// The column arrays of a paxgroup, ncols entries each (null for 0), kept apart so that every
// action stays small: a commit walks millions of them.
struct bm_paxgroup_columns {
  int32_t* nullability;
  int32_t* adt_id;
  char** compression;  // "" for a column without compression
  int32_t* implementation;
};
struct bm_paxgroup_new_fields {
  int64_t storage_id;
  int64_t scol_id;
  int64_t object_id;
  int64_t ncols;
  int64_t file_nr;            // not on the wire: always 0, shown by the dump
  bm_paxgroup_columns* cols;  // never null
};

// One action of the log. `id` is the record's first i64 (trid, scolid, table_id, ..., for
// cs_new the i32 id widened). Read the union member named after the tag where it has one.
struct bm_logger_action {
  int32_t type;
  int64_t id;
  union {
    bm_scol_fields scol_new;
    bm_scol_fields scol_del;
    bm_cat_table_new_fields cat_table_new;
    bm_cat_column_new_fields cat_column_new;
    bm_cat_index_new_fields cat_index_new;
    bm_minmax_size_fields minmax_size;
    bm_minmax_data_fields minmax_data;
    bm_minmax_data_fields minmax_vardata;
    bm_jis_size_fields jis_size;
    bm_jis_data_fields jis_data;
    bm_pdt_new_fields pdt_new;
    bm_cat_location_new_fields cat_location_new;
    bm_cat_location_del_fields cat_location_del;
    bm_cat_location_update_fields cat_location_update;
    bm_blk_fields blk_new;
    bm_blk_fields blk_del;
    bm_file_new_fields file_new;
    bm_cs_new_fields cs_new;
    bm_paxgroup_file_fields paxgroup_file_new;
    bm_paxgroup_file_fields paxgroup_file_del;
    bm_cat_key_new_fields cat_key_new;
    bm_object_fields storage_new;
    bm_paxgroup_new_fields paxgroup_new;
    bm_object_fields paxgroup_del;
  };
  bm_logger_action* prev;
  bm_logger_action* next;
};

struct bm_logger_action_list {
  bm_logger_action* head;
  bm_logger_action* tail;
};

// The writing end of a log.
struct bm_logger {
  int32_t state;         // tag of the last action written; BM_TR_END when no transaction is open
  stream* log;           // binary, read and write
  stream* location_map;  // text, append; null until opened
};

// ---- actions: constructors take the fields in wire order; null on memory failure ----

bm_logger_action* bm_action_tr_new(MemContext* mem, int64_t trid);
bm_logger_action* bm_action_tr_end(MemContext* mem, int64_t trid);
bm_logger_action* bm_action_scol_new(MemContext* mem, int64_t scolid, int32_t type);
bm_logger_action* bm_action_scol_del(MemContext* mem, int64_t scolid, int32_t type);
bm_logger_action* bm_action_cat_table_new(MemContext* mem, int64_t table_id, const char* name,
                                          int32_t is_auto_pax);
bm_logger_action* bm_action_cat_table_del(MemContext* mem, int64_t table_id);
bm_logger_action* bm_action_cat_table_truncate(MemContext* mem, int64_t table_id);
bm_logger_action* bm_action_cat_column_new(MemContext* mem, int64_t column_id, const char* name,
                                           int32_t nullability, int32_t adt_id, int32_t ltype_code,
                                           int64_t table_id);
bm_logger_action* bm_action_cat_column_del(MemContext* mem, int64_t column_id);
bm_logger_action* bm_action_cat_index_new(MemContext* mem, int64_t index_id, const char* name,
                                          int32_t type, int64_t table_id, int64_t ref_key_id);
bm_logger_action* bm_action_cat_index_del(MemContext* mem, int64_t index_id);
bm_logger_action* bm_action_minmax_size(MemContext* mem, int64_t index_id, int64_t maxgroups,
                                        int64_t numtuples, int64_t groupsize);
// `size` bytes of minima and of maxima behind each other (datasize = 2 * size); the overflow
// area always has 2 * `width` bytes, zero where `overflow` is 0 or a bound is null.
bm_logger_action* bm_action_minmax_data(MemContext* mem, int64_t index_id, int32_t column_nr,
                                        int64_t size, const void* mins, const void* maxs,
                                        int32_t overflow, int64_t width, const void* overflow_min,
                                        const void* overflow_max);
// The blob of `ngroups` minimum and maximum strings (null counts as empty), and the overflow
// blob where `overflow` is non-zero.
bm_logger_action* bm_action_minmax_vardata(MemContext* mem, int64_t index_id, int32_t column_nr,
                                           int64_t ngroups, const char* const* mins,
                                           const char* const* maxs, int32_t overflow,
                                           const char* overflow_min, const char* overflow_max);
bm_logger_action* bm_action_jis_size(MemContext* mem, int64_t index_id, int64_t maxgroups,
                                     int64_t numgroups, int64_t groupsize);
bm_logger_action* bm_action_jis_data(MemContext* mem, int64_t index_id, int32_t jis_column,
                                     int64_t count, const int64_t* data);
// Keeps `data`, which must live as long as the action.
bm_logger_action* bm_action_pdt_new(MemContext* mem, int64_t object_id, void* data, int64_t size);
// `path` (null allowed) is not on the wire: the commit puts it into the location map.
bm_logger_action* bm_action_cat_location_new(MemContext* mem, int64_t location_id, const char* name,
                                             int32_t usage, const char* path);
bm_logger_action* bm_action_cat_location_del(MemContext* mem, int64_t location_id,
                                             const char* path);
bm_logger_action* bm_action_cat_location_update(MemContext* mem, int64_t location_id,
                                                int32_t usage);
bm_logger_action* bm_action_blk_new(MemContext* mem, int64_t scolid, int64_t file_nr,
                                    int64_t block_nr, int64_t bytes_used, int64_t num_tuples);
bm_logger_action* bm_action_blk_del(MemContext* mem, int64_t scolid, int64_t file_nr,
                                    int64_t block_nr);
bm_logger_action* bm_action_file_new(MemContext* mem, int64_t file_nr, int64_t location_id,
                                     const char* filename);
bm_logger_action* bm_action_file_del(MemContext* mem, int64_t file_nr);
// Asserts "type == cs_new".
bm_logger_action* bm_action_cs_new(MemContext* mem, int32_t id, int64_t blksz, int32_t type);
// Tags 25 and 26; asserts "paxgroup_id && file_nr >= 0".
bm_logger_action* bm_action_paxgroup_file(MemContext* mem, int32_t type, int64_t paxgroup_id,
                                          int64_t file_nr, int64_t object_id);
bm_logger_action* bm_action_cat_key_new(MemContext* mem, int64_t key_id, const char* name,
                                        int32_t type, int64_t table_id, int64_t ref_key_id,
                                        int64_t ncols, const int64_t* col_ids);
bm_logger_action* bm_action_cat_key_del(MemContext* mem, int64_t key_id);
bm_logger_action* bm_action_storage_new(MemContext* mem, int64_t storage_id, int64_t object_id);
bm_logger_action* bm_action_storage_del(MemContext* mem, int64_t storage_id);
// The four arrays from `ncols` descriptors: nullability, the type's id, the compression (copied;
// "" for null), the implementation.
bm_logger_action* bm_action_paxgroup_new(MemContext* mem, int64_t paxgroup_id, int64_t storage_id,
                                         int64_t scol_id, int64_t object_id, int64_t ncols,
                                         const pax_column_descr* descriptors);
bm_logger_action* bm_action_paxgroup_del(MemContext* mem, int64_t paxgroup_id, int64_t object_id);

// ---- lists ----

bm_logger_action_list* action_list_new(MemContext* mem);
// Links at the tail; asserts "list".
bm_logger_action_list* action_list_append(bm_logger_action_list* list, bm_logger_action* action);
// `b` behind `a` in constant time, `b` left empty: `a`; `b` where `a` is null or empty, `a`
// where `b` is.
bm_logger_action_list* action_list_join(bm_logger_action_list* a, bm_logger_action_list* b);
// Forgets the actions (they stay in their context); null accepted.
void action_list_clear(bm_logger_action_list* list);

// ---- the reader ----

// Reads one transaction from `s` (behind the version word, at a record boundary) into `mem`.
//   0: the log ended; `*list_out` holds actions read outside any bracket, or null.
//   1 with a list: one transaction from its tr_new to its tr_end.
//   1 with null: the reading failed, the message is logged (LOGGER); the stream stands where
//     the failure left it.
int bm_logger_read_transaction(MemContext* mem, stream* s, bm_logger_action_list** list_out);
// The version word behind the mark, or -1 where the file holds none.
int64_t bm_logger_read_version(stream* s);

// ---- the writer ----

// Opens or creates the log at `path`, positioned at its end; null with the message logged.
bm_logger* bm_logger_open(const char* path);
// Wraps an open binary write stream; writes the version word into a file holding only the mark.
bm_logger* bm_logger_create(stream* s);
// Opens the location map for appending: 1, or 0.
int bm_logger_open_location_map(bm_logger* l, const char* path);
// Writes `list` as transaction `transaction_id` (negative: no bracket) and makes the log and the
// location map durable: 1, or 0 with the log positioned back where the commit began (the bytes
// behind stay until overwritten) and no transaction open. Map lines already written stay.
int bm_logger_commit(bm_logger* l, const bm_logger_action_list* list, int64_t transaction_id);
// Closes and releases both streams and the logger; null accepted.
void bm_logger_close(bm_logger* l);

// One write function per tag: 1, or 0 at the first failure. Each checks and sets `state`.
int bm_logger_tr_new(bm_logger* l, int64_t trid);
int bm_logger_tr_end(bm_logger* l, int64_t trid);
int bm_logger_scol_new(bm_logger* l, const bm_logger_action* a);
int bm_logger_scol_del(bm_logger* l, const bm_logger_action* a);
int bm_logger_cat_table_new(bm_logger* l, const bm_logger_action* a);
int bm_logger_cat_table_del(bm_logger* l, const bm_logger_action* a);
int bm_logger_cat_table_truncate(bm_logger* l, const bm_logger_action* a);
int bm_logger_cat_column_new(bm_logger* l, const bm_logger_action* a);
int bm_logger_cat_column_del(bm_logger* l, const bm_logger_action* a);
int bm_logger_cat_index_new(bm_logger* l, const bm_logger_action* a);
int bm_logger_cat_index_del(bm_logger* l, const bm_logger_action* a);
int bm_logger_minmax_size(bm_logger* l, const bm_logger_action* a);
int bm_logger_minmax_data(bm_logger* l, const bm_logger_action* a);
int bm_logger_minmax_vardata(bm_logger* l, const bm_logger_action* a);
int bm_logger_jis_size(bm_logger* l, const bm_logger_action* a);
int bm_logger_jis_data(bm_logger* l, const bm_logger_action* a);
int bm_logger_pdt_new(bm_logger* l, const bm_logger_action* a);
int bm_logger_cat_location_new(bm_logger* l, const bm_logger_action* a);
int bm_logger_cat_location_del(bm_logger* l, const bm_logger_action* a);
int bm_logger_cat_location_update(bm_logger* l, const bm_logger_action* a);
int bm_logger_blk_new(bm_logger* l, const bm_logger_action* a);
int bm_logger_blk_del(bm_logger* l, const bm_logger_action* a);
int bm_logger_file_new(bm_logger* l, const bm_logger_action* a);
int bm_logger_file_del(bm_logger* l, const bm_logger_action* a);
int bm_logger_cs_new(bm_logger* l, const bm_logger_action* a);
int bm_logger_paxgroup_file_new(bm_logger* l, const bm_logger_action* a);
int bm_logger_paxgroup_file_del(bm_logger* l, const bm_logger_action* a);
int bm_logger_cat_key_new(bm_logger* l, const bm_logger_action* a);
int bm_logger_cat_key_del(bm_logger* l, const bm_logger_action* a);
int bm_logger_storage_new(bm_logger* l, const bm_logger_action* a);
int bm_logger_storage_del(bm_logger* l, const bm_logger_action* a);
int bm_logger_paxgroup_new(bm_logger* l, const bm_logger_action* a);
int bm_logger_paxgroup_del(bm_logger* l, const bm_logger_action* a);

// ---- the block manager the logger serves ----

// The block manager whose path the dump writes beside and whose db_key the key files hold. The
// driver sets it once the block manager exists; null (the default) means no path and no key.
void bm_logger_set_iobm(iobm* bm);
iobm* bm_logger_get_iobm();

// ---- location map and key files ----

// Appends "name,path\n" to the map and flushes it: 1, or 0 (logged, except for a missing map).
int bm_logger_write_location_map_entry(bm_logger* l, const char* name, const char* path);
// "<directory>/db_key", malloc'ed (the caller frees it); null with the message logged.
char* generate_db_key_file(const char* directory);
// Holds the block manager's key against `directory`: 1 with nothing done for an empty key,
// 1 for a key file created or verified, 0 otherwise.
int verify_or_create_db_key_in_path(const char* directory);
// The same with the key given.
int verify_or_create_db_key(const char* directory, const char* db_key);

// ---- the dump ----

// Prints the log behind the mark on `s` as XML lines into the log at INFO and, with `to_file`,
// into "<cbm path>/_LOG_XML": 0, or -1 for a null stream.
int bm_logger_print(stream* s, int to_file);
// bm_logger_print with the output file in `directory` (null: no file).
int bm_logger_print_in(stream* s, const char* directory);

#endif  // J480_BM_LOGGER_H
