// bc20_index: the indexes of the 2.0 catalog (keys, minmax, join index) and their type table.
//
// Keys only name columns through their group; a minmax index keeps per group of tuples and
// column the smallest and largest value, a join index three arrays of words, both filled from
// their log records by the two action handlers here and written back as 2.5 actions by the
// type's `generate`. An index lives on the process heap and owns its state, its two groups and
// its name copies. Buffers grow only as far as the records that fill them justify.
//
// Payloads of the index records (framing and fields: bc20_logger.h; bytes never swapped):
//   minmax_data     data: numgroups minima of the column's width, then numgroups maxima
//                   (2 * numgroups * width bytes); overflow: one minimum, one maximum, each
//                   overflow_datasize bytes.
//   minmax_vardata  data: numgroups pairs of 64-bit lengths (min, max), then the bytes of each
//                   group's minimum and maximum, no terminators; overflow: one pair of lengths
//                   and their bytes.
//   jis_data        numgroups 64-bit words for one of the three arrays (0, 1, 2); a valid record
//                   carries the index's numgroups + 1 words.
#ifndef J480_TOOLS_WAL_CONVERTER_BC20_INDEX_H
#define J480_TOOLS_WAL_CONVERTER_BC20_INDEX_H

#include <cstdint>

struct MemContext;
struct bc20_action;
struct bc20_colgroup;
struct bc20_index;
struct bc20_table;
struct bm_logger_action_list;
struct vheap;

typedef void* (*bc20_index_create_fn)(bc20_index* index);
typedef void (*bc20_index_free_fn)(void* state);
typedef int64_t (*bc20_index_set_id_fn)(void* state, int64_t id);
typedef bm_logger_action_list* (*bc20_index_generate_fn)(void* state, int64_t index_id,
                                                         MemContext* mem);

struct bc20_index_impl {
  char name[32];
  int32_t type_id;
  bc20_index_create_fn create;
  bc20_index_free_fn free;
  bc20_index_set_id_fn set_id;      // null in every entry
  bc20_index_generate_fn generate;  // minmax and join only
};

struct bc20_index {
  int32_t itype;
  int64_t id;
  char name[32];  // copy of the type entry
  int32_t type_id;
  bc20_index_create_fn create;
  bc20_index_free_fn free;
  bc20_index_set_id_fn set_id;
  bc20_index_generate_fn generate;
  void* impl;
  bc20_colgroup* colgroup;   // the indexed columns; owned
  bc20_colgroup* scolgroup;  // own storage group or null; owned
  char* table_name;          // own copy, set by bc20_table_add_index
  char* key_name;            // own copy: the key this index refers to
  bc20_table* table;         // the table holding it, set by bc20_table_add_index
  int64_t listed_by_id;      // places in the table module's lists of held indexes
  int64_t listed_by_name;
};

// Minmax state. mins[c] and maxs[c] hold `cap[c]` values of the column's width (a str value is
// a pointer into `heap`); groups in use: numgroups = (numtuples + groupsize - 1) / groupsize.
struct bc20_minmax {
  bc20_index* index;
  void** mins;
  void** maxs;
  int64_t groupsize;
  int64_t numtuples;
  int64_t maxgroups;
  vheap* heap;  // made with the first string value
  int32_t overflow;
  void** overflow_mins;  // one value per column
  void** overflow_maxs;
  int64_t* cap;  // groups allocated per column
  int32_t ncols;
};

// Join index state: three arrays of `maxgroups` + 1 words.
struct bc20_jis {
  bc20_index* index;
  int64_t groupsize;
  int64_t numgroups;
  int64_t maxgroups;
  int64_t* columns[3];
  int64_t cap;  // words allocated per array
};

extern int32_t bc20_idx_minmax;
extern int32_t bc20_idx_uniquekey;
extern int32_t bc20_idx_primarykey;
extern int32_t bc20_idx_foreignkey;
extern int32_t bc20_idx_sortkey;
extern int32_t bc20_idx_join;

constexpr int32_t BC20_MAX_INDEX_TYPES = 16;

// Appends `entry` (or, for an entry already in the table, the same entry again, whose type_id
// becomes the new position): its position.
int32_t bc20_index_register(bc20_index_impl* entry);
// The seven codes: sortkey, minmax, uniquekey, primarykey, foreignkey, sortkey, join. A second
// call does nothing. The action handlers are registered by the replay, not here.
void bc20_index_register_types();
int32_t bc20_index_type_count();
const bc20_index_impl* bc20_index_type(int32_t idx_type);

bc20_index* bc20_index_create(int32_t type, bc20_colgroup* colgroup, bc20_colgroup* scolgroup);
int64_t bc20_index_set_id(bc20_index* i, int64_t id);
void bc20_index_free(bc20_index* i);

// Replay handlers (null state: the index is found in the process-wide catalog by id).
int bc20_minmax_action_handler(void* state, bc20_action* action);
int jis_action_handler(void* state, bc20_action* action);
// Frees the three arrays and allocates them zeroed for `maxgroups` groups: 1, or 0 on failure.
int jis_resize(bc20_jis* jis, int64_t maxgroups);

#endif  // J480_TOOLS_WAL_CONVERTER_BC20_INDEX_H
