// bc20_value_space: the write-PDTs of the old log: the legacy form of a table's updates, read
// back into a value space and replayed into the table's write-PDT in the legacy catalog.
//
// Owns nothing past a call: the value space it reads lives in the caller's context, the rebuilt
// tree in the catalog's `write_pdts`. It never writes the legacy form; the conversion writes the
// tree in today's form (updates/pdt.h).
//
// Payload of a pdt_new_64 record, all integers little-endian:
//
//   | Offset        | Size           | Field                                               |
//   |---------------|----------------|-----------------------------------------------------|
//   | 0             | 4              | fan_out, u32                                        |
//   | 4             | 4              | num_nodes, u32: a size hint for the rebuilt tree    |
//   | 8             | 8              | vs_size, s64: bytes of the legacy value space       |
//   | 16            | 8              | n_entries, s64                                      |
//   | 24            | vs_size        | legacy value space, below                           |
//   | 24 + vs_size  | 12 * n_entries | entries: def (8 bytes, as in the tree), offset (4)  |
//
// The payload is exactly 24 + vs_size + 12 * n_entries bytes. Legacy value space, with ncols =
// the table's columns + its incoming join index slots (one slng increment column each):
//
//   | Offset              | Size      | Content                                             |
//   |---------------------|-----------|-----------------------------------------------------|
//   | 0                   | 4         | u32 n_inserts, one count for every column           |
//   | 4                   | 4 * ncols | u32 n_modifies[c] for every column                  |
//   | 4 + 4 * ncols       | F         | fixed area, column after column                     |
//   | 4 + 4 * ncols + F   | V         | variable area                                       |
//
// Fixed area per column: a fixed type has n_inserts raw elements then n_modifies[c]; a
// variable-size type has as many u32 lengths. F = sum over c of (n_inserts + n_modifies[c]) *
// (width, or 4). Variable area: the value bytes of all columns in order, inserts before
// modifies, each string with its terminating zero, which its length counts. The counts, not
// vs_size, place the parts; bytes behind them are ignored.
#ifndef J480_TOOLS_WAL_CONVERTER_BC20_VALUE_SPACE_H
#define J480_TOOLS_WAL_CONVERTER_BC20_VALUE_SPACE_H

#include <cstdint>

struct MemContext;
struct ptype;
struct value_space;

constexpr int64_t BC20_PDT_HEADER_SIZE = 24;

// Reads the legacy form of `size` bytes into a new value space in `mem` with the table's columns
// and one increment column per join index slot. Null, with nothing allocated, when the counts
// claim more than `size` holds or a variable-size value is not a zero-terminated string of its
// length.
value_space* bc20_value_space_deserialize(MemContext* mem, const ptype* const* coltypes,
                                          uint32_t n_table_cols, const uint32_t* key_cols,
                                          uint32_t n_key_cols, const int64_t* joinindex_IDs,
                                          uint32_t n_joinindex, const char* bytes, int64_t size);

// Rebuilds the payload of a pdt_new_64 record into the write-PDT of the table `object_id`,
// stacked on the one that stands: 0, or -1 with the failure logged. A payload that no tree can be
// built from is refused with "corrupt PDT data detected" and changes nothing.
int bc20_rebuild_pdt(int64_t object_id, const void* payload, int64_t payload_size);

#endif  // J480_TOOLS_WAL_CONVERTER_BC20_VALUE_SPACE_H
