// pdt: the positional delta tree, the in-memory updates of one table over its stable rows.
//
// A B+-tree of fixed-size nodes addressed by 32-bit index: internal nodes hold separators in SID
// space and the delta sums of their children, leaves hold 12-byte entries (a `def` word of SID,
// type and hdr, and an `offset` into the tree's value space) chained both ways. RID = SID + the
// sum of the effects of the entries ahead. The tree owns its private context, which also holds
// the record and the value space; pdt_unref releases it. Values are appended by the caller; the
// tree stores positions only. Merging and copying of whole trees is not part of this module.
//
// Serial form (pdt_serialize), all integers little-endian:
//
//   | Offset        | Size           | Field                                               |
//   |---------------|----------------|-----------------------------------------------------|
//   | 0             | 4              | fan_out, u32                                        |
//   | 4             | 4              | num_nodes, u32: node indexes handed out, dead ones  |
//   |               |                | included                                            |
//   | 8             | 8              | vs_size, s64: bytes of the value space form         |
//   | 16            | 8              | n_entries, s64                                      |
//   | 24            | vs_size        | the value space form (updates/value_space.h)        |
//   | 24 + vs_size  | 12 * n_entries | entries: def (8 bytes, as in the tree), offset (4)  |
//
// Entries follow the leaf chain from the first leaf, in position order, with the tree's own
// SIDs; a reader recovers each entry's delta as a running sum of effects. Size: 24 + vs_size +
// 12 * n_entries.
#ifndef J480_UPDATES_PDT_H
#define J480_UPDATES_PDT_H

#include <cstdint>
#include <string>

struct MemContext;
struct ptype;
struct value_space;
struct pdt;
struct pdt_merge_state;  // the scan cursor of the merge operations

constexpr uint32_t LEAF_COUNT_BASE = 0x80000000u;
constexpr uint32_t LLIST_END = 0xFFFFFFFFu;
constexpr uint32_t PDT_BLOCK_DELETE_MAX = 16384;
constexpr uint32_t PDT_MAX_DATA_BLOCKS = 64;
constexpr uint32_t PDT_DEFAULT_FAN_OUT = 64;  // 1280-byte nodes, 105 entries a leaf
constexpr uint32_t PDT_DEFAULT_MAX_NODES = 1024;

// Words of every node, and the chain words of a leaf.
enum pdt_node_word : uint32_t { COUNT = 0, PARENT = 1, NEXT = 2, PREV = 3 };
enum pdt_entry_type : uint32_t { PDT_DELETE = 0, PDT_MODIFY = 1, PDT_INSERT = 2 };

constexpr uint64_t PDT_SID_MASK = 0xFFFFFFFFFFFFull;
// The SID field, as a signed number so that RID arithmetic stays signed.
inline int64_t USID(uint64_t def) { return static_cast<int64_t>(def & PDT_SID_MASK); }
inline uint32_t PDT_TYPE(uint64_t def) { return static_cast<uint32_t>(def >> 48) & 3; }
inline uint32_t PDT_HDR(uint64_t def) { return static_cast<uint32_t>(def >> 50); }
inline uint64_t PDT_DEF(uint64_t sid, uint32_t type, uint32_t hdr) {
  return (sid & PDT_SID_MASK) | (uint64_t(type) << 48) | (uint64_t(hdr) << 50);
}
// The change an entry makes to the RIDs behind it: +1, 0 or -(hdr + 1).
inline int64_t PDT_EFFECT(uint64_t def) {
  return (int64_t(PDT_TYPE(def)) - 1) * (int64_t(PDT_HDR(def)) + 1);
}

// The thirteen operations of a tree, in slot order.
struct pdt_ops {
  int (*add_insert)(pdt* t, int64_t rid, uint32_t offset);
  int (*add_modify)(pdt* t, int64_t rid, uint32_t offset, uint16_t colno);
  int (*add_delete)(pdt* t, int64_t rid, int64_t ntuples, int64_t offset);
  int (*add_delete_by_sid)(pdt* t, int64_t sid, int64_t ntuples, int64_t offset);
  int (*find_key_rid_range)(pdt* t, int64_t sid, const void* const* key_vals, int64_t* rid_lo,
                            int64_t* rid_hi);
  int (*rid_to_sid_range)(pdt* t, int64_t rid, int64_t* sid_lo, int64_t* sid_hi);
  int (*merge_advance)(pdt* t, pdt_merge_state* state, int64_t* produce, int64_t* consume,
                       int64_t consume_max);
  int (*apply_other_pdt)(pdt* dst, pdt* src, int with_delete_values);
  int64_t (*rid_range_delta)(pdt* t, int64_t rid_lo, int64_t rid_hi, int64_t* sid_lo,
                             int64_t* sid_hi);
  int (*init_merge_state)(pdt* t, pdt_merge_state* state, int64_t rid_lo, int64_t rid_hi);
  void (*dump)(pdt* t, int with_values);
  pdt* (*copy)(MemContext* mem, int is_global, pdt* src);
  int64_t (*unref)(pdt* t);
};

struct pdt {
  pdt_ops ops;
  MemContext* mem;
  ::value_space* value_space;
  uint32_t** nodes;  // the only place that holds node addresses
  void* data_block[PDT_MAX_DATA_BLOCKS];
  char* data_block_ptr[PDT_MAX_DATA_BLOCKS];  // rounded up to 64 bytes
  uint32_t n_data_blocks;
  int64_t data_block_size[PDT_MAX_DATA_BLOCKS];
  uint32_t num_nodes;  // never goes down: unlinked nodes stay unused
  uint32_t max_nodes;
  uint32_t node_size;
  uint32_t root_idx;
  uint32_t fan_out;
  uint32_t node_min_children;
  uint32_t leaf_max_entries;
  uint32_t leaf_min_entries;
  int64_t n_entries;
  int64_t n_updates;
  int64_t n_inserts;
  int64_t n_deletes;  // tuples, not entries
  int64_t n_modifies;
  int64_t delta;
  const uint32_t* key_cols;  // the caller's array
  uint32_t n_key_cols;
  uint32_t n_table_cols;
  int64_t refcnt;
};

// Short-lived views of one node: the index and the addresses of its fields.
struct pdt_leaf {
  uint32_t idx;
  uint32_t* parent;
  uint32_t* count;  // the raw word, LEAF_COUNT_BASE included
  uint32_t* next;
  uint32_t* prev;
  uint64_t* def;
  uint32_t* offset;
};
struct pdt_node {
  uint32_t idx;
  uint32_t* parent;
  uint32_t* count;  // separators; children = count + 1
  int64_t* sep_sids;
  int64_t* deltas;
  uint32_t* child_ptrs;
};

#define IS_LEAF(pdt, idx) (((pdt)->nodes[(idx)][COUNT] & LEAF_COUNT_BASE) != 0)
#define NODE_COUNT(pdt, idx) ((pdt)->nodes[(idx)][COUNT] & ~LEAF_COUNT_BASE)

// Structure (pdt.cc).
pdt* pdt_create(MemContext* mem, int is_global, uint32_t fan_out, uint32_t max_nodes,
                const ptype* const* coltypes, uint32_t ncols, const uint32_t* key_cols,
                uint32_t n_key_cols, const uint32_t* uk_cols, uint32_t n_uk_cols,
                const int64_t* joinindex_IDs, uint32_t n_joinindex);
int64_t pdt_unref(pdt* t);
uint32_t pdt_alloc_node(pdt* t);
int pdt_grow(pdt* t);
int pdt_get_leaf(const pdt* t, uint32_t leaf_idx, pdt_leaf* leaf);
int pdt_get_node(const pdt* t, uint32_t node_idx, pdt_node* node);
uint32_t pdt_find_last_leaf_by_rid(const pdt* t, const int64_t* rid, int64_t* delta);
uint32_t pdt_find_first_leaf_by_rid(const pdt* t, const int64_t* rid, int64_t* delta);
uint32_t pdt_find_first_leaf_by_sid(const pdt* t, const int64_t* sid, int64_t* delta);
uint32_t pdt_find_last_leaf_by_sid(const pdt* t, const int64_t* sid, int64_t* delta);
uint32_t pdt_leaf_find_pos_by_rid(const uint64_t* def, uint32_t count, const int64_t* rid,
                                  int64_t* delta);
int64_t pdt_leaf_delta(const pdt* t, uint32_t leaf_idx);
uint32_t pdt_next_sibling(const pdt* t, uint32_t node_idx);
uint32_t pdt_prev_sibling(const pdt* t, uint32_t node_idx);
void pdt_get_siblings(const pdt* t, uint32_t node_idx, uint32_t* prev_node, uint32_t* next_node);
void pdt_update_separator(pdt* t, uint32_t node_idx, int64_t new_sid);
void pdt_propagate_delta(pdt* t, uint32_t node_idx, int64_t change);
int64_t pdt_find_separator_sid(const pdt* t, uint32_t target_idx);
int64_t pdt_subtree_first_sid(const pdt* t, uint32_t node_idx);

// Updates (pdt_update.cc): 0, or -1 after a message.
int pdt_add_insert(pdt* t, int64_t rid, uint32_t offset, uint32_t* hint_leaf,
                   int64_t* hint_delta, int use_hint);
int pdt_add_modify(pdt* t, int64_t rid, uint32_t offset, uint16_t colno);
int pdt_add_delete(pdt* t, int64_t rid, int64_t ntuples, int64_t offset);
int pdt_add_delete_by_sid(pdt* t, int64_t sid, int64_t ntuples, int64_t offset);
int pdt_add_increment(pdt* t, int64_t rid, uint16_t colno, int64_t increment);

// Maintenance (pdt_maint.cc).
int pdt_split_leaf(pdt* t, pdt_leaf* leaf, int64_t* left_delta, uint32_t* right_idx,
                   uint64_t* right_start_def);
int pdt_insert_in_parent(pdt* t, uint32_t node_idx, uint32_t l_idx, int64_t l_delta,
                         uint32_t r_idx, int64_t r_delta, int64_t sep_sid);
int pdt_add_deletes_split(pdt* t, pdt_leaf* leaf, uint32_t pos, int64_t sid, int64_t ntuples,
                          int64_t offset);
int64_t pdt_remove_range(pdt* t, pdt_leaf* leaf, uint32_t pos, int64_t delta, int64_t last_rid,
                         int64_t* n_ins, int64_t* n_mods, int64_t* n_dels);
int pdt_drop_leaf(pdt* t, uint32_t leaf_idx);
void pdt_remove_from_parent(pdt* t, uint32_t target_idx);
void pdt_rebalance_leaf(pdt* t, uint32_t leaf_idx);
void pdt_leaf_pull_from_right(pdt* t, uint32_t dst_idx, uint32_t src_idx);
void pdt_leaf_pull_from_left(pdt* t, uint32_t dst_idx, uint32_t src_idx);
void pdt_leaf_merge(pdt* t, uint32_t left_idx, uint32_t right_idx);
void pdt_node_pull_from_right(pdt* t, uint32_t dst_idx, uint32_t src_idx);
void pdt_node_pull_from_left(pdt* t, uint32_t dst_idx, uint32_t src_idx);
void pdt_node_merge(pdt* t, uint32_t dst_idx, uint32_t src_idx);
int64_t pdt_remove_column_modifies(pdt* t, uint32_t colno);
int64_t pdt_drop_increment_column(pdt* t, int64_t joinindex_id);

// The scan cursor over a tree and the stable rows, owned by the caller.
struct pdt_merge_state {
  pdt_leaf leaf;
  int32_t done;  // the cursor ran off the end of the chain
  int32_t within_leaf_pos;
  int64_t sid_lo;  // rid_lo - delta
  int64_t rid_lo;
  int64_t rid_hi;
  int64_t delta;       // at the cursor
  int64_t delete_pos;  // tuples into the block delete at the cursor
  uint64_t scan_words[3];
};

// Whole trees (pdt_merge.cc).
// A private copy in a new context under `mem`: all nodes in one data block, a copy of the value
// space. Null when memory runs out.
pdt* pdt_copy(MemContext* mem, int is_global, pdt* src);
// Replays the entries of src on dst with their values: 0, or -1 after "pdt_apply_other_pdt: out
// of memory", when dst may be half updated.
int pdt_apply_other_pdt(pdt* dst, pdt* src, int with_delete_values);
// True when `n` serial entries (12 bytes each, in RID order) with the values of `src` can be
// replayed on `dst`: same columns, offsets within src, RIDs within the tree's range, counts that
// fit. Nothing else checks them.
bool pdt_serialized_entries_fit(const pdt* dst, const char* entries, int64_t n,
                                const value_space* src);
// Replays serial entries with the values of `src` on t, moving their offsets by the bases of the
// merged values: 0. With src the tree's own space (values read straight into an empty tree) the
// offsets stand as they are.
int pdt_apply_serialized(pdt* t, const char* entries, int64_t n, const value_space* src);
// The cursor at rid_lo, behind the deletes there: 0, or -1 after a message.
int pdt_init_merge_state(pdt* t, pdt_merge_state* state, int64_t rid_lo, int64_t rid_hi);
// For *produce tuples of output, the stable tuples to read (*consume, at most consume_max); may
// lower *produce. The state is not moved.
int merge_advance(pdt* t, pdt_merge_state* state, int64_t* produce, int64_t* consume,
                  int64_t consume_max);
int rid_to_sid_range(pdt* t, int64_t rid, int64_t* sid_lo, int64_t* sid_hi);
// The change of delta from rid_lo to rid_hi, with the SIDs of both ends.
int64_t rid_range_delta(pdt* t, int64_t rid_lo, int64_t rid_hi, int64_t* sid_lo, int64_t* sid_hi);
int find_key_rid_range(pdt* t, int64_t sid, const void* const* key_vals, int64_t* rid_lo,
                       int64_t* rid_hi);
// Prints every leaf to standard output.
void pdt_dump(pdt* t, int with_values);

// Serial form (pdt.cc).
int64_t pdt_serialized_size(const pdt* t);
int pdt_serialize(const pdt* t, char* buffer, int64_t bufsize);

// The invariant checker: fill of leaves and nodes, parent links, the leaf chain both ways, every
// delta sum against its subtree, entry order, the counters against the leaves, and with
// PDT_CHECK_SEPARATORS each separator against the first SID of the subtree to its right. False
// with the first fault in `why`. PDT_CHECK_LAST_LEAF_LOW accepts a last leaf under the minimum,
// which the removal of a column's modifies may leave.
enum pdt_check_flags : int { PDT_CHECK_SEPARATORS = 1, PDT_CHECK_LAST_LEAF_LOW = 2 };
bool pdt_check(const pdt* t, int flags, std::string* why);
// Debug builds run the checker at the end of every update and assert on a fault; tests that
// check on their own switch this off for speed.
extern int pdt_debug_checks;

#endif  // J480_UPDATES_PDT_H
