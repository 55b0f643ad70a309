// systables: the registry of system tables, in-memory tables the kernel makes from its own state.
//
// At most 128 descriptions, registered at kernel start: sys_tables, sys_table_columns,
// primitives and profile_io. Descriptions are static; produced contents live in the context
// given to the produce function.
#ifndef J480_KERNEL_SYSTABLES_H
#define J480_KERNEL_SYSTABLES_H

#include <cstdint>

#include "kernel/ltype.h"

struct MemContext;
struct ptype;

constexpr int32_t SYSTABLE_MAX = 128;

struct systable_column {
  const char* name;
  const ptype* type;
  ltype logical;  // 0 where the column has no logical type of its own
};

struct systable_result {
  int64_t rows;
  void** columns;  // one array per column, `rows` elements of the column type's width
};

struct systable_desc;
typedef systable_result* (*systable_produce_fn)(MemContext* mem, const systable_desc* desc);

struct systable_desc {
  const char* name;
  int64_t column_count;
  systable_produce_fn produce;
  systable_column* columns;
};

// 0, or -1 with a message when the registry is full.
int systable_register(systable_desc* desc);
const systable_desc* systable_find(const char* name);
const systable_column* systable_find_column(const char* table, const char* column);
systable_result* systable_result_create(MemContext* mem, const systable_desc* desc, int64_t rows);
int32_t systable_count();
const systable_desc* systable_at(int32_t i);

// Registers the four system tables of the kernel (after the physical types).
void systables_register_kernel();
// Empties the registry.
void systables_clear();

#endif  // J480_KERNEL_SYSTABLES_H
