// write_log: the conversion proper. Orders the tables of the legacy catalog so that a referenced
// table stands before every table that references it, turns the catalog into one 2.5 action
// list, commits it to LOG.new and location_map.new, and exchanges those files with the old ones.
// Everything it builds lives in the "write_log" context for one call (the table order on the
// plain heap); the logger it opens belongs to the block manager. The legacy model is only read.
//
// Files of the CBM directory, and what stands after each step of the exchange:
//
//   step                      LOG       location_map  LOG.new  location_map.new  *.j480_20
//   before the commit ends    2.0       2.0           partial  partial           none
//   commit done               2.0       2.0           2.5      2.5               none
//   1 LOG -> LOG.j480_20      missing   2.0           2.5      2.5               LOG
//   2 location_map -> ...     missing   missing       2.5      2.5               both
//   3 LOG.new -> LOG          2.5       missing       none     2.5               both
//   4 location_map.new -> .   2.5       2.5           none     none              both
//
// A move links the target to the source's content and then unlinks the source, so between the
// two the content has both names. The exchange stops at the first move that fails; the directory
// is synced once all four stand. A missing source (no location_map) is no move at all.
#ifndef J480_TOOLS_WAL_CONVERTER_WRITE_LOG_H
#define J480_TOOLS_WAL_CONVERTER_WRITE_LOG_H

#include <cstdint>

struct MemContext;
struct bc20_catalog;
struct bc20_colgroup;
struct bc20_index;
struct bc20_table;
struct bm_logger_action_list;
struct columnspace;
struct pdt;

// ---- table order ----

struct ordered_table {
  int64_t id;      // table id
  int64_t refcnt;  // paths in the foreign-key graph that end in this table
  int64_t slot;    // the table's slot in the catalog
};

struct ordered_tables {
  ordered_table** tables;  // one per live table, in catalog slot order until sorted
  int64_t count;
};

// The live tables in slot order, counts 0; null with "init_ordered_tables: out of memory"
// logged. The result lives on the plain heap: release it with ordered_tables_free. Asserts "cat".
ordered_tables* init_ordered_tables(struct bc20_catalog* cat, MemContext* mem);
// Sets each refcnt to the sum, over the foreign keys that reference the table, of the
// referencing table's refcnt plus one (the number of foreign-key paths ending in it), in time
// linear in tables and keys: 0. A cycle of foreign keys logs an ERROR naming a table on it and
// gives -1, as do counts past 64 bits and a failed allocation. A foreign key whose key or key
// table can't be found fails the assertion "ref_table".
int count_table_references(struct bc20_catalog* cat, ordered_tables* ordered, MemContext* mem);
// The position of the table `table_id`, or -1.
int64_t ordered_table_position(const ordered_tables* ordered, int64_t table_id);
// Descending refcnt, equal counts in their present order: 0. Asserts "tables".
int sort_ordered_tables(ordered_tables* ordered);
// Null is accepted.
void ordered_tables_free(ordered_tables* ordered);

// ---- generation ----
// Each returns a new list in `mem` (possibly empty); null where said. The storage objects are
// found through bc20_iobm.

// One cat_location_new per live location, in slot order.
bm_logger_action_list* generate_locations(struct bc20_catalog* cat, MemContext* mem);
// cat_table_new, a cat_column_new per column of the root group, storage_new, the paxgroups.
bm_logger_action_list* generate_table(struct bc20_catalog* cat, MemContext* mem, int64_t table_id);
bm_logger_action_list* generate_paxgroups(bc20_colgroup* root_group, MemContext* mem,
                                          int64_t table_id);
// scol_new, paxgroup_new, file_new where the group's file isn't the default file, and
// paxgroup_file_new. Asserts a storage group bound to a storage column and a known "file".
bm_logger_action_list* generate_paxgroup(bc20_colgroup* group, int64_t storage_id, MemContext* mem,
                                         int64_t object_id);
// One blk_new per block of a storage group's column; empty for anything else.
bm_logger_action_list* generate_blocks(MemContext* mem, bc20_colgroup* group);
// One cat_key_new; null (with the ERROR logged) where the key must be left out.
bm_logger_action_list* generate_key(struct bc20_catalog* cat, bc20_index* index, bc20_table* table,
                                    MemContext* mem);
// cat_index_new and the index's own storage; null for a type that is no index.
bm_logger_action_list* generate_index(struct bc20_catalog* cat, bc20_index* index,
                                      bc20_table* table, MemContext* mem);
// One pdt_new with the serial form of `p`, empty for null; null when serializing fails.
bm_logger_action_list* generate_write_pdt(MemContext* mem, int64_t table_id, pdt* p);
// The whole list in its order: cs_new, locations, the default file, the tables in `order` with
// their blocks and indexes, then their write-PDTs; progress lines at INFO. Null with the
// failure logged ("Bad index type", a write-PDT, memory).
bm_logger_action_list* generate_catalog(struct bc20_catalog* cat, columnspace* cs,
                                        const ordered_tables* order, MemContext* mem);

// ---- finishing ----

// Removes leftovers of an earlier run, opens LOG.new as the block manager's logger and its
// location_map.new: non-zero, or 0 with nothing of the live database touched.
int create_new_log(MemContext* mem);
// Converts the catalog of bc20_catalog and bc20_iobm: 0, or -1 with the failure logged.
int write_new25_log();

#endif  // J480_TOOLS_WAL_CONVERTER_WRITE_LOG_H
