// value_space: the column-wise store of the values that a positional delta tree refers to.
//
// Owns, in its own context "value_space", one array per column and kind (inserts, modifies, and
// deletes of the unique-key columns), plus the increment columns that follow the table's columns.
// Values are only appended: a replaced value stays until the space goes, so whole arrays can be
// copied or appended with a base. The vheap of variable-size values belongs to the context given
// at creation. Writes the serial form below; the legacy form and all reading live elsewhere.
//
// Serial form, all integers little-endian, offsets from the start of the form:
//
//   | Offset          | Size        | Content                                        |
//   |-----------------|-------------|------------------------------------------------|
//   | 0               | 4 * ncols   | u32 n_inserts[c] for every column              |
//   | 4 * ncols       | 4 * ncols   | u32 n_modifies[c] for every column             |
//   | 8 * ncols       | F           | fixed area, column after column                |
//   | 8 * ncols + F   | V           | variable area, column after column             |
//
// Fixed area per column: a fixed-type column has n_inserts[c] raw elements of colsizes[c] bytes,
// then n_modifies[c] raw elements; a variable-size column has n_inserts[c] u32 lengths, then
// n_modifies[c] u32 lengths. Variable area: the bytes of each variable-size column's insert
// values, then its modify values, unpadded (a string keeps its terminating zero). Neither the
// deletes nor the dead flags nor the types are written; dead tuples are written like others.
#ifndef J480_UPDATES_VALUE_SPACE_H
#define J480_UPDATES_VALUE_SPACE_H

#include <cstdint>

struct MemContext;
struct ptype;
struct prim_desc;
struct vheap;
struct cvconfig_layer;

struct value_space {
  MemContext* mem;
  const ptype** coltypes;
  uint32_t* colsizes;
  uint32_t ncols;
  uint32_t n_table_cols;
  int64_t* joinindex_IDs;  // -1 once dropped
  uint32_t n_joinindex;
  uint32_t* key_cols;
  uint32_t n_key_cols;
  uint32_t* uk_cols;
  uint32_t n_uk_cols;
  const prim_desc** putters;        // gen_condense family, made on first use
  const prim_desc** const_putters;  // gen_fill family, made on first use
  ::vheap* vheap;                   // null unless a column is of variable size
  char** inserts;
  uint8_t* insert_dead;
  char** deletes;
  char** modifies;
  uint32_t inserts_capacity;
  uint32_t* n_inserts;
  uint32_t deletes_capacity;
  uint32_t* n_deletes;
  uint32_t* n_modifies;
  uint32_t* modifies_capacity;
};

// Reads `vectorsize` (group system), the floor of every growth; 1024 until called.
void value_space_set_default_config(cvconfig_layer* config);
int64_t value_space_vectorsize();
// The capacity rule: room for `n_add` more behind `n_old` held elements.
uint64_t value_space_new_capacity(uint64_t n_old, uint64_t n_add);

value_space* value_space_create(MemContext* mem, const ptype* const* coltypes,
                                uint32_t n_table_cols, const uint32_t* key_cols,
                                uint32_t n_key_cols, const uint32_t* uk_cols, uint32_t n_uk_cols,
                                const int64_t* joinindex_IDs, uint32_t n_joinindex);
value_space* value_space_create_sized(MemContext* mem, const ptype* const* coltypes,
                                      uint32_t n_table_cols, const uint32_t* key_cols,
                                      uint32_t n_key_cols, const uint32_t* uk_cols,
                                      uint32_t n_uk_cols, const int64_t* joinindex_IDs,
                                      uint32_t n_joinindex, uint32_t inserts_capacity,
                                      uint32_t deletes_capacity,
                                      const uint32_t* modifies_capacities);
// Releases the space's context; null is accepted.
void value_space_free(value_space* vs);

// Appends n elements (a column, or with is_const one value n times; sel picks from a column).
// For a variable-size column src holds addresses of the values. The position of the first
// element added, the present count for n = 0, or -1 when a u32 position would overflow.
int64_t value_space_append_inserts(value_space* vs, uint32_t colno, const void* src, int is_const,
                                   const int64_t* sel, uint32_t n);
int64_t value_space_append_deletes(value_space* vs, uint32_t colno, const void* src, int is_const,
                                   const int64_t* sel, uint32_t n);
int64_t value_space_append_modifies(value_space* vs, uint32_t colno, const void* src,
                                    int is_const, const int64_t* sel, uint32_t n);

// Increment columns hold signed 64-bit differences; table columns are refused.
uint32_t value_space_increment_count(value_space* vs, uint32_t colno, uint32_t pos, int64_t value);
uint32_t value_space_increment_modify(value_space* vs, uint32_t colno, int64_t value);
uint32_t value_space_increment_modify_inplace(value_space* vs, uint32_t colno, uint32_t pos,
                                              int64_t value);
int64_t value_space_get_increment(const value_space* vs, uint32_t colno, uint32_t pos);

// Appends all of src to dst: the position in dst of the first element appended.
int64_t value_space_merge_inserts(value_space* dst, const value_space* src);
int64_t value_space_merge_deletes(value_space* dst, const value_space* src);
int64_t value_space_merge_modifies(value_space* dst, const value_space* src);
// A copy of the per-column modify counts, in mem: the bases for value_space_merge_modifies.
uint32_t* value_space_modifies_snapshot(MemContext* mem, const value_space* vs);
// A whole copy, in mem if given, else in src's own context.
value_space* value_space_copy(MemContext* mem, const value_space* src);

// Copies a modified value over the column of an inserted tuple.
void value_space_modify_insert(value_space* vs, uint32_t colno, uint32_t modify_pos,
                               uint32_t insert_pos);
void value_space_mark_insert_dead(value_space* vs, uint32_t pos);
const uint32_t* value_space_get_key_cols(const value_space* vs, uint32_t* count);
// Sort key values against an inserted tuple: the first non-zero comparison, or 0.
int value_space_compare_keys(const value_space* vs, const void* const* key_vals,
                             const uint32_t* key_cols, uint32_t n_key_cols, uint32_t insert_pos);
// Text of an inserted tuple (columns comma-separated) or of one modify: its length.
int value_space_format_insert(const value_space* vs, char* buffer, int64_t size, uint32_t pos);
int value_space_format_modify(const value_space* vs, char* buffer, int64_t size, uint32_t pos,
                              uint32_t colno);

int64_t value_space_serialized_size(const value_space* vs);
// Bytes written, or 0 (with a message) when the buffer is too small.
int64_t value_space_serialize(const value_space* vs, char* buffer, int64_t bufsize);

// Empties the increment column of a join index and forgets the id: the column, or -1.
int64_t value_space_drop_increment_column(value_space* vs, int64_t joinindex_id);

#endif  // J480_UPDATES_VALUE_SPACE_H
