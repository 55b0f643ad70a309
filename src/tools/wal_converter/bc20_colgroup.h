// bc20_colgroup: the column group trees of the 2.0 catalog, and the table of group types.
//
// Roots list a table's columns by name; storage groups below them bind a scolumn of bc20_iobm
// and a file; null groups pair a value with its NULL indicator. A group (process heap) owns its
// children, name copies and a reference per column; a storage group owns its scolumn and a file
// reference. No recursion on deep trees; every broken reference is an assertion.
#ifndef J480_TOOLS_WAL_CONVERTER_BC20_COLGROUP_H
#define J480_TOOLS_WAL_CONVERTER_BC20_COLGROUP_H

#include <cstdint>

struct MemContext;
struct bc20_column;
struct bc20_colgroup;
struct scolumn;
struct cs_file;
struct bc20_colgroup_positions;

typedef void* (*bc20_colgroup_create_fn)(bc20_colgroup* cg);
typedef void (*bc20_colgroup_free_fn)(void* state);
typedef int64_t (*bc20_colgroup_set_store_fn)(void* state, int64_t store_id);
typedef void (*bc20_colgroup_add_column_fn)(void* state, bc20_column* c);
typedef void* (*bc20_colgroup_add_file_fn)(void* state, int64_t file_nr);

// An entry of the group type table; a group copies the entry of its type.
struct bc20_colgroup_impl {
  char name[32];
  int32_t type_id;
  bc20_colgroup_create_fn create;          // required
  bc20_colgroup_free_fn free;              // optional
  bc20_colgroup_set_store_fn set_store;    // optional
  bc20_colgroup_add_column_fn add_column;  // required
  bc20_colgroup_add_file_fn add_file;      // optional
};

// Who owns a group besides a parent: set by bc20_table_create and bc20_index_create.
enum bc20_colgroup_owner : int32_t {
  BC20_CG_FREE = 0,
  BC20_CG_TABLE_ROOT = 1,
  BC20_CG_INDEX_COLGROUP = 2,
  BC20_CG_INDEX_SCOLGROUP = 3,
};

struct bc20_colgroup {
  int32_t type;
  int32_t logical;   // 1 in a logical group
  int64_t id;        // catalog id; set with bc20_colgroup_set_id
  int64_t store_id;  // what set_store returned; 0 until then
  char name[32];     // copy of the type entry
  int32_t type_id;
  bc20_colgroup_create_fn create;
  bc20_colgroup_free_fn free;
  bc20_colgroup_set_store_fn set_store;
  bc20_colgroup_add_column_fn add_column;
  bc20_colgroup_add_file_fn add_file;
  void* impl;
  bc20_colgroup* parent;  // null for a root; not a reference
  int32_t columns_size;
  int32_t n_columns;
  bc20_column** columns;      // counted references
  char** column_names;        // own copies (null where the name was null)
  int32_t* parent_positions;  // position of each column in parent's columns, -1 for none
  int32_t children_size;
  int32_t n_children;
  bc20_colgroup** children;            // owned
  int32_t owner_kind;                  // bc20_colgroup_owner
  void* owner;                         // the bc20_table or bc20_index named by owner_kind
  bc20_colgroup_positions* positions;  // lookup of columns by pointer and id, built on demand
  int64_t listed_at;                   // place in the list of live groups with its id; -1: none
};

// State of a storage group: the bridge to the block manager.
struct bc20_scg {
  bc20_colgroup* cg;
  scolumn* scol;    // null until bound
  int64_t file_nr;  // -1 until bound
  cs_file* file;    // the referenced file, null until bound
};

extern int32_t bc20_colgroup_logical;
extern int32_t bc20_colgroup_storage;
extern int32_t bc20_colgroup_null;

constexpr int32_t BC20_MAX_COLGROUP_TYPES = 16;

int32_t bc20_colgroup_register(const bc20_colgroup_impl* entry);
// lcolgroup, scolgroup, nullcolgroup in that order; a second call does nothing.
void bc20_colgroup_register_types();
int32_t bc20_colgroup_type_count();
const bc20_colgroup_impl* bc20_colgroup_type(int32_t colgroup_type);

// A group of `type` with room for `ncols` columns, appended to `parent`'s children.
bc20_colgroup* bc20_colgroup_create(int32_t type, int32_t ncols, bc20_colgroup* parent);
// Detaches the group from its parent (which stays consistent), then releases it and its whole
// subtree, each group once. Null is accepted.
void bc20_colgroup_free(bc20_colgroup* cg);
// Sets the catalog id and lists the group under it among the live groups. Set ids only
// through here: the catalog finds groups by the ids listed.
void bc20_colgroup_set_id(bc20_colgroup* cg, int64_t id);
int64_t bc20_colgroup_set_store(bc20_colgroup* cg, int64_t store_id);
// Adds a reference of `c` under a copy of `name`, and to every ancestor that lacks it.
void bc20_colgroup_add_column(bc20_colgroup* cg, bc20_column* c, const char* name);
// The type's result (a storage group gives its cs_file), null where the type has none.
void* bc20_colgroup_add_file(bc20_colgroup* cg, int64_t file_nr);
// First column held with `column_id`, its name in *name_out; null (and null name) for none.
bc20_column* bc20_colgroup_column_by_id(bc20_colgroup* cg, int64_t column_id,
                                        const char** name_out);
// First position of `c` by pointer identity, or -1.
int32_t bc20_colgroup_column_position(bc20_colgroup* cg, const bc20_column* c);
// Removes the child with `child_id` and its column names from the logical group `cg`, names
// copied into `mem`: 0. A missing child fails the assertion of bc20_colgroup_del_columns.
int bc20_colgroup_drop_child(MemContext* mem, bc20_colgroup* cg, int64_t child_id);
// Removes the columns named in `colnames` from the logical group `cg` and recomputes the
// positions of its children and grandchildren: 0.
int bc20_colgroup_del_columns(bc20_colgroup* cg, char** colnames, int32_t n, int resolve_null);

// Whether `cg` is a live group listed under `id`; `cg` is compared, never read.
bool bc20_colgroup_is_live(int64_t id, const bc20_colgroup* cg);
// Calls `fn` for every live group listed under `id`.
void bc20_colgroup_for_each_with_id(int64_t id, void (*fn)(void* arg, bc20_colgroup* cg),
                                    void* arg);
// The root of `cg` if it lies at depth 1 to 3 of its tree (the group itself, its parent or its
// grandparent has no parent), else null.
bc20_colgroup* bc20_colgroup_root_within3(bc20_colgroup* cg);
// Forgets the group's column lookup (a held column changed its id).
void bc20_colgroup_invalidate_positions(bc20_colgroup* cg);

#endif  // J480_TOOLS_WAL_CONVERTER_BC20_COLGROUP_H
