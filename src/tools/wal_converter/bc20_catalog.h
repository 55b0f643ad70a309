// bc20_catalog: the in-memory root of the 2.0 metadata: tables, locations, write-PDT slots.
//
// Record and slot arrays live in the root context "cat_mem"; the catalog releases its tables
// and locations. Slots are never reused; every search answers as the in-order scan of the live
// slots would (first match wins), through hash lookups. Returned names belong to the catalog,
// arrays to the caller's `mem`. Nothing is written to disk. Write PDTs live in child contexts of
// "cat_mem" and go with it.
#ifndef J480_TOOLS_WAL_CONVERTER_BC20_CATALOG_H
#define J480_TOOLS_WAL_CONVERTER_BC20_CATALOG_H

#include <cstdint>

struct MemContext;
struct bc20_table;
struct bc20_column;
struct bc20_colgroup;
struct bc20_index;
struct pdt;
struct bc20_catalog_lookup;

// A storage location: its name, and its path once the location map gives one. Process heap,
// counted; at 0 the record and its strings go.
struct location {
  void* catalog;  // always null in this tool
  int64_t id;     // 0 until assigned
  char* name;     // own copy
  char* path;     // own copy or null
  int32_t usage;  // bit set
  int64_t refcnt;
};

location* location_create(const char* name, const char* path, int32_t usage, void* catalog);
void location_unref(location* loc);

struct bc20_catalog {
  MemContext* mem;      // "cat_mem"
  bc20_table** tables;  // a null slot is a deleted table
  char** table_names;   // parallel to tables; copies in mem
  uint32_t n_tables;    // slots used; never falls
  uint32_t tables_size;
  location** locations;  // a null slot is a deleted location
  int64_t n_locations;   // never falls
  int64_t locations_size;
  pdt** write_pdts;  // parallel to tables; null: no write PDT
  bc20_catalog_lookup* lookup;
};

// The catalog of the run, set by the driver.
extern struct bc20_catalog* bc20_catalog;

struct bc20_catalog* bc20_catalog_create();
void bc20_catalog_destroy(struct bc20_catalog* cat);

// Tables. A table's table_id and its indexes' ids are set before they are added.
int64_t bc20_catalog_add_table(struct bc20_catalog* cat, bc20_table* table, const char* name);
int64_t bc20_catalog_del_table(struct bc20_catalog* cat, int64_t table_id);
bc20_table* bc20_catalog_table_by_id(struct bc20_catalog* cat, int64_t table_id);
int64_t bc20_catalog_table_nr_by_id(struct bc20_catalog* cat, int64_t table_id);
const char* bc20_catalog_table_name_by_id(struct bc20_catalog* cat, int64_t table_id);
int64_t bc20_catalog_table_nr_by_name(struct bc20_catalog* cat, const char* name);
bc20_table* bc20_catalog_table_by_name(struct bc20_catalog* cat, const char* name);
int64_t* bc20_catalog_table_ids(struct bc20_catalog* cat, MemContext* mem, int64_t* n_out);
bc20_table* bc20_catalog_table_by_colgroup_id(struct bc20_catalog* cat, int64_t id);
bc20_colgroup* bc20_catalog_root_colgroup_by_id(struct bc20_catalog* cat, int64_t id);

// Objects across tables.
bc20_column* bc20_catalog_column_by_id(struct bc20_catalog* cat, int64_t column_id,
                                       const char** name_out);
bc20_index* bc20_catalog_index_by_id(struct bc20_catalog* cat, int64_t index_id);
const char* bc20_catalog_index_name_by_id(struct bc20_catalog* cat, int64_t index_id);
bc20_index* bc20_catalog_index_by_name(struct bc20_catalog* cat, const char* name);

// Keys and join indexes.
int64_t catalog_get_referenced_table_from_joinindex(struct bc20_catalog* cat, bc20_index* index);
int64_t bc20_catalog_referenced_table_nr_by_joinindex_name(struct bc20_catalog* cat,
                                                           const char* name);
int64_t catalog_get_referenced_table_from_foreignkey(struct bc20_catalog* cat, bc20_index* index);
int64_t* bc20_catalog_foreignkey_ids(struct bc20_catalog* cat, int64_t table_id, MemContext* mem,
                                     int64_t* n_out);
// Positions in the root group of the sort key's columns (0 where not found), n_out + 1 zeroed
// entries in `mem`; null with 0 for a table without a sort key.
int32_t* bc20_catalog_sortkey_columns(struct bc20_catalog* cat, MemContext* mem, int64_t table_nr,
                                      int64_t* n_out);
// Deletes `name` from the incoming join indexes of the table at `table_nr`: 0, or -1. With
// `update_pdt`, the join index's increment column of the table's write PDT is emptied, and a
// tree left with no update at all is released.
int bc20_catalog_del_incoming_joinindex(struct bc20_catalog* cat, int64_t table_nr,
                                        const char* name, int update_pdt);

// Locations.
int64_t bc20_catalog_add_location(struct bc20_catalog* cat, const char* name, const char* path,
                                  int32_t usage, int64_t location_id);
int64_t bc20_catalog_del_location(struct bc20_catalog* cat, int64_t location_id);
int64_t bc20_catalog_location_nr_by_id(struct bc20_catalog* cat, int64_t location_id);
int64_t bc20_catalog_location_nr_by_name(struct bc20_catalog* cat, const char* name);
int64_t bc20_catalog_location_id_by_name(struct bc20_catalog* cat, const char* name);
const char* bc20_catalog_location_name(struct bc20_catalog* cat, int64_t location_id);
const char* bc20_catalog_location_path(struct bc20_catalog* cat, int64_t location_id);
int64_t bc20_catalog_location_usage(struct bc20_catalog* cat, int64_t location_id);
void bc20_catalog_set_location_usage(struct bc20_catalog* cat, int64_t location_id, int32_t usage);
bool bc20_catalog_set_location_path(struct bc20_catalog* cat, int64_t location_id,
                                    const char* path);
int64_t* bc20_catalog_location_ids(struct bc20_catalog* cat, MemContext* mem, int64_t* n_out);

#endif  // J480_TOOLS_WAL_CONVERTER_BC20_CATALOG_H
