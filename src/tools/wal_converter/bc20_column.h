// bc20_column: one column of the 2.0 catalog, and the table of column implementations.
//
// A column is a counted reference on the process heap with no name of its own: each group that
// holds it gives it a name (bc20_colgroup). It owns its implementation state and its copies of
// the SQL type and compression texts; the last unref releases them. It also keeps, for the
// catalog's lookups, the live columns by id and, per column, the groups that hold it. It stores
// no values.
#ifndef J480_TOOLS_WAL_CONVERTER_BC20_COLUMN_H
#define J480_TOOLS_WAL_CONVERTER_BC20_COLUMN_H

#include <cstdint>

struct ptype;
struct bc20_column;
struct bc20_colgroup;
struct bc20_column_holders;

typedef void* (*bc20_column_create_fn)(bc20_column* c, const ptype* type);
typedef void (*bc20_column_free_fn)(void* state);

// An entry of the column implementation table; a column copies the entry of its kind.
struct bc20_column_impl {
  char name[32];
  int32_t type_id;  // position in the table
  bc20_column_create_fn create;
  bc20_column_free_fn free;
};

struct bc20_column {
  int32_t ctype;      // type_id of the implementation
  uint32_t flags;     // bit 0 from bit 0 of the logged flags
  const ptype* type;  // storage type, never null
  int32_t refcnt;     // holders; 0 after creation
  int64_t id;         // catalog id; set with bc20_column_set_id
  char name[32];      // copy of the implementation entry
  int32_t type_id;
  bc20_column_create_fn create;
  bc20_column_free_fn free;
  void* impl;                   // state from create
  bc20_colgroup* lcolgroup;     // logical group that took it last (not counted)
  bc20_colgroup* scolgroup;     // storage group that took it last (not counted)
  bc20_colgroup* nullcolgroup;  // null group that took it last (not counted)
  char* sqltype;                // own copy or null
  int32_t digits;
  int32_t scale;
  char* compression;             // own copy or null
  bc20_column_holders* holders;  // groups holding it, with multiplicity (bookkeeping only)
  int64_t listed_at;             // place in the list of live columns with its id; -1: none
};

// State of fcolumn and ccolumn.
struct bc20_fcolumn_state {
  bc20_column* column;
  const ptype* type;
  int32_t width;
};
// State of vcolumn_8 and vcolumn_16.
struct bc20_vcolumn_state {
  bc20_column* column;
  const ptype* type;
};

// Registered numbers of the four implementations; -1 before bc20_column_register_types.
extern int32_t bc20_column_fcolumn;
extern int32_t bc20_column_vcolumn_8;
extern int32_t bc20_column_vcolumn_16;
extern int32_t bc20_column_ccolumn;

constexpr int32_t BC20_MAX_COLUMN_TYPES = 16;

// Appends an entry (its type_id is set to its position) and returns its number.
int32_t bc20_column_register(const bc20_column_impl* entry);
// Fills the table with fcolumn, vcolumn_8, vcolumn_16, ccolumn in that order; a second call
// does nothing.
void bc20_column_register_types();
int32_t bc20_column_type_count();
// The entry with number `column_type`; asserts it is registered.
const bc20_column_impl* bc20_column_impl_by_id(int32_t column_type);
// The entry of the column's ctype.
const bc20_column_impl* bc20_column_type(const bc20_column* c);

// A new column of implementation `ctype` (0: the storage type's default) and storage type
// number `adt_id`, refcnt 0. Asserts "c->type" for an unknown type.
bc20_column* bc20_column_create(int32_t ctype, int32_t adt_id);
bc20_column* bc20_column_ref(bc20_column* c);
// Drops a reference; the last one releases the column.
void bc20_column_unref(bc20_column* c);
void bc20_column_set_flag(bc20_column* c, int on);
// Once only: asserts "c->sqltype == NULL".
void bc20_column_set_sqltype(bc20_column* c, const char* sqltype, int32_t digits, int32_t scale);
void bc20_column_set_compression(bc20_column* c, const char* name);
// Sets the catalog id and lists the column under it among the live columns. Set ids only
// through here: the catalog finds columns by the ids listed.
void bc20_column_set_id(bc20_column* c, int64_t id);

// Whether `c` is a live column listed under `id`. `c` is compared, never read: a pointer kept
// across a release (the replay's list of new objects) can be tested before it is used.
bool bc20_column_is_live(int64_t id, const bc20_column* c);

// Bookkeeping kept by the groups: `g` takes or gives up one hold of `c`.
void bc20_column_hold(bc20_column* c, bc20_colgroup* g);
void bc20_column_release_hold(bc20_column* c, bc20_colgroup* g);
// Calls `fn` for every live column listed under `id`, and for each group holding it.
void bc20_column_for_each_holder(int64_t id,
                                 void (*fn)(void* arg, bc20_column* c, bc20_colgroup* g),
                                 void* arg);

#endif  // J480_TOOLS_WAL_CONVERTER_BC20_COLUMN_H
