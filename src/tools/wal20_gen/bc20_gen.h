// bc20_gen: synthesizes whole, valid format 2.0 database directories from a seed and a shape.
//
// bc20_gen_run writes `<out_dir>/CBM/LOG` and `<out_dir>/CBM/location_map` through the log
// writer and fills a summary; the caller owns both. The history is deterministic for equal
// options. Memory follows the shape options, not the target size: bulk blocks are streamed, and
// per storage column only a bounded list of runs of live blocks is remembered.
//
// Invariants of every generated history:
//  1. Framing: the log is one set-up transaction, then whole transactions; trids are 1, 2, 3...;
//     no record stands outside a transaction.
//  2. The set-up transaction holds the one columnspace record (id 0, blksz 512 KiB):
//     cs_new_defaultfile for a single-location database, otherwise cs_new and one
//     cat_location_new per data location. No other cs_new follows.
//  3. Ids: tables, columns, column groups and indexes draw from one counter and are never reused;
//     storage column ids, file numbers, location ids and trids have counters of their own; block
//     numbers are unique per file over the whole history (never reused after a delete).
//  4. Announce before use, in one transaction: a table's root group precedes its cat_table_new;
//     a storage group follows its col_new (and, multi-location, its file_new) and is bound to its
//     file in the same transaction (colgroup_file_new, or the defaultfile form); a null group
//     stands in the transaction of its storage group; an index's column group (and storage group)
//     precede its cat_index_new in the same transaction. Columns are announced (cat_column_new)
//     in the transaction of the group that first holds them.
//  5. Groups: each table's root is a logical group (type 0) holding every column; every child of
//     a root is a storage group (type 1) with its own storage column and a file; null groups
//     (type 2) hold exactly a value column and its indicator, both in the same storage group;
//     each column is in exactly one storage group. Every colgroup id is non-zero; every file
//     number of a colgroup_file record is >= 0.
//  6. References valid at each point: blocks name a live storage column and its group's file;
//     deletes name live blocks; foreign keys name a live primary, unique or sort key of an older
//     table (so references form a directed acyclic graph); a join index names a live foreign key
//     of its own table; minmax and join index records follow their cat_index_new and fit its
//     sizes (numgroups <= maxgroups, minmax data sized by column width, jis data numgroups + 1
//     words); minmax_data for fixed columns, minmax_vardata for str columns.
//  7. Drops: an index is dropped only when no live index names it; a table only when no other
//     table refers to it, after its join indexes (all but one in item 9) and blocks have been
//     dropped, and never the last live table; a storage group only when its table keeps another
//     one and no live index uses its columns; a location only when no file lives in it. Nothing
//     dropped is named again, and cat_location_update only adds usage bits to a live location.
//  8. Names: table names, index names and location names are unique over the history and never
//     start with '_'; no file is named "0"; the location map holds one line per live location.
//  9. With pdts, write-PDT records follow the history (below); then up to two tables are dropped
//     together with a live join index, whose increment column the referenced table's write-PDT
//     loses (any other join index of such a table is dropped before it).
// 10. With target_size, block transactions (adds, and a few deletes of known blocks) follow the
//     history until the log reaches that size; the last one started below it. No drop follows.
// Write-PDT records: most live tables get one to three, in a random order, a few records to a
// transaction, pdt_new or pdt_new_64 at random. Each record is a tree of its own, made through
// the tree operations (updates/pdt.h) from random inserts, modifies, increments of the live join
// index slots and deletes (some past 16384 rows) over the image that the table's earlier records
// left, and written in the legacy form (tools/wal_converter/bc20_value_space.h). Its columns are
// the table's columns, then one slng increment column per incoming join index slot. A table with
// a ptr column gets no inserts and no modifies of it: the value space has no ptr primitives.
// Locations have no directories on disk and data files are never written: only metadata.
#ifndef J480_TOOLS_WAL20_GEN_BC20_GEN_H
#define J480_TOOLS_WAL20_GEN_BC20_GEN_H

#include <cstdint>

#include "tools/wal20_gen/bc20_log_writer.h"

struct bc20_gen_options {
  const char* out_dir = nullptr;  // the database directory; it and its CBM are created
  uint64_t seed = 1;
  int32_t tables = 4;         // tables created over the history (at least 1)
  int32_t columns = 6;        // average value columns per table (at least 1)
  int32_t blocks = 8;         // blocks per block transaction of the history
  int32_t transactions = 40;  // transactions after the set-up one (raised to fit the tables)
  int64_t target_size = 0;    // 0: none; else bulk block transactions until the log has it
  int32_t locations = 0;      // 0: single-location database; N: multi-location with N locations
  int big_endian = 0;
  int pdts = 0;                  // non-zero: write-PDT records after the history (below)
  bc20_log_hook hook = nullptr;  // sees every record written
  void* hook_ctx = nullptr;
  // Storage column ids of dropped storage groups are taken again by later ones (lowest first).
  int reuse_scols = 0;
  // Where set, the live model at the end of the history is written to this file (below).
  const char* model_path = nullptr;
  // Where set, what the write-PDT records give at the end is written to this file (below).
  const char* pdt_model_path = nullptr;
};

// The model file: what a replay of the log must hold at its end, one item per line, fields
// separated by one space, "~" for an empty or absent text, lists in the order the model keeps
// them (tables, indexes, locations and files by ascending id or number):
//   columnspace <block size> <storage column type>  (first line)
//   location <id|auto> <name> <usage> <path>         (auto: the default location)
//   file <nr|default> <location name> <file name>
//   table <id> <name> <root group id>
//   column <id> <name> <adt> <implementation> <ltype> <digits> <scale> <compression> <flag>
//   storage <group id> <scolumn id> <file nr|default> <column ids...>   (children of the root)
//   null <group id> <value column id> <indicator column id>             (of the storage above)
//   blocks <n> <block_nr>:<bytes_used>:<num_tuples>...                  (of the storage above)
//   index <id> <type> <name> <key name> <group id> <column ids...>
//   istorage ... / blocks ...                                           (an index's storage)
//   minmax <maxgroups> <numtuples> <groupsize> <overflow>
//   mmcol <column nr> <hex of the minima> <hex of the maxima>           (fixed-width columns)
//   mmvar <column nr> x<hex>,x<hex>... x<hex>,...  minima, then maxima (str columns; ~: none)
//   mmover <column nr> <hex of min and max>   (fixed)  | x<hex min> x<hex max>   (str)
//                                           the overflow bounds of the column's last record
//                                           that had overflow; no line while none had
//   jis <maxgroups> <numgroups> <groupsize>
//   jiscol <array> <words...>
//   incoming <slots> <name|~>...                                        (of the table above)
//
// The write-PDT model: per live table with write-PDT records, by ascending table id, the image
// that replaying all its records gives over its stable rows. Kept apart from the model above,
// which is what the catalog of a replay holds:
//   pdt <table id> <stable rows> <records> <resets> <kept> <adt of every column...>
//   keep <first sid> <end sid>      untouched stable rows [first, end)
//   stable <sid> <value|->...       a stable row with the columns its updates set (-: untouched)
//   insert <value>...               an inserted row
// Image lines follow in image order, only where <kept> is 1: <kept> 0 means the write-PDT went
// when a join index drop left it without updates. <resets> counts increment columns emptied by
// such drops. The columns are the table's, then one slng per incoming join index slot. A value
// is the hex of a fixed-size element's bytes as the value space holds it (an increment: the sum,
// as slng), or "s" and the hex of a string's bytes.

struct bc20_gen_summary {
  int64_t records[BC20_MAX_TAG + 1];  // records written, per tag
  int64_t transactions;
  int64_t tables_created;
  int64_t tables_dropped;
  int64_t tables_live;
  int64_t columns;
  int64_t storage_groups;
  int64_t null_groups;
  int64_t indexes_created;
  int64_t indexes_dropped;
  int64_t blocks_added;
  int64_t blocks_deleted;
  int64_t locations_created;
  int64_t locations_dropped;
  int64_t files;
  int64_t map_lines;
  int64_t log_bytes;
  int64_t last_transaction_bytes;
};

// Generates the database: 0, or -1 with the message logged (facility WAL20_GEN).
int bc20_gen_run(const bc20_gen_options* options, bc20_gen_summary* summary);

#endif  // J480_TOOLS_WAL20_GEN_BC20_GEN_H
