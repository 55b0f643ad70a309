// bc20_table: one table of the 2.0 catalog: its root column group, its indexes, and the names
// of the join indexes of other tables that point at it.
//
// A table lives on the process heap and owns its root group, its indexes and all its name
// copies. The index arrays are dense; the incoming names keep stable slots (a deleted one
// leaves a null slot), since a write PDT has one entry per slot. The live indexes of all tables
// are also listed by id and by name, for the catalog's lookups.
#ifndef J480_TOOLS_WAL_CONVERTER_BC20_TABLE_H
#define J480_TOOLS_WAL_CONVERTER_BC20_TABLE_H

#include <cstdint>

struct bc20_colgroup;
struct bc20_column;
struct bc20_index;
struct ptype;

struct bc20_table {
  int64_t table_id;
  bc20_colgroup* colgroup;  // root group, logical; owned
  int32_t indexes_size;
  int32_t n_indexes;
  bc20_index** indexes;         // owned, dense
  char** index_names;           // own copies, parallel to indexes
  char** incoming_joinindexes;  // null slot: deleted
  int32_t incoming_size;
  int32_t n_incoming_slots;  // never falls
  int32_t n_incoming;        // live names
};

// A table on `cg` (asserted; a group that no table or index owns and that has no parent).
bc20_table* bc20_table_create(bc20_colgroup* cg);
void bc20_table_destroy(bc20_table* table);
void bc20_table_add_index(bc20_table* table, const char* table_name, bc20_index* index,
                          const char* index_name);
void bc20_table_del_index(bc20_table* table, bc20_index* index);
bc20_index* bc20_table_index_by_name(bc20_table* table, const char* name);
bc20_index* bc20_table_index_by_id(bc20_table* table, int64_t index_id);
const char* bc20_table_index_name_by_id(bc20_table* table, int64_t index_id);
bc20_index* bc20_table_index_by_type_name(bc20_table* table, const char* type_name);
const char* bc20_table_joinindex_name(bc20_table* table);
bc20_column* bc20_table_column_by_id(bc20_table* table, int64_t column_id, const char** name_out);
bc20_colgroup* bc20_table_colgroup_by_id(bc20_table* table, int64_t id);
int bc20_table_add_incoming_joinindex(bc20_table* table, const char* name);
int bc20_table_del_incoming_joinindex(bc20_table* table, const char* name);
// Storage types of the root group's columns: of the first min(n, count) without positions, or
// of the columns at `positions` (a position past the last column gives -1). 0 for n < 1.
int32_t bc20_table_column_types(bc20_table* table, const ptype** out, const int32_t* positions,
                                int32_t n);

// Calls `fn` for every index that a table holds under `id` (or under `name`).
void bc20_table_for_each_index_with_id(int64_t id, void (*fn)(void* arg, bc20_index* i), void* arg);
void bc20_table_for_each_index_with_name(const char* name, void (*fn)(void* arg, bc20_index* i),
                                         void* arg);

#endif  // J480_TOOLS_WAL_CONVERTER_BC20_TABLE_H
