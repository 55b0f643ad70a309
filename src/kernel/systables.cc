// systables: system table registry and the kernel's four tables.
#include "kernel/systables.h"

#include <cstring>

#include "kernel/primitive.h"
#include "kernel/ptype.h"
#include "utils/cvlog.h"
#include "utils/mem.h"

#define SYSTABLES_MODULE "SYSTABLES"

namespace {

systable_desc* registry[SYSTABLE_MAX];
int32_t registered = 0;

template <typename T>
T* column(systable_result* r, int i) {
  return static_cast<T*>(r->columns[i]);
}

systable_result* produce_tables(MemContext* mem, const systable_desc* desc) {
  systable_result* r = systable_result_create(mem, desc, registered);
  for (int32_t i = 0; i < registered; i++) {
    column<const char*>(r, 0)[i] = registry[i]->name;
    column<int32_t>(r, 1)[i] = static_cast<int32_t>(registry[i]->column_count);
  }
  return r;
}

systable_result* produce_table_columns(MemContext* mem, const systable_desc* desc) {
  int64_t rows = 0;
  for (int32_t i = 0; i < registered; i++) rows += registry[i]->column_count;
  systable_result* r = systable_result_create(mem, desc, rows);
  int64_t row = 0;
  for (int32_t i = 0; i < registered; i++) {
    for (int64_t c = 0; c < registry[i]->column_count; c++, row++) {
      column<const char*>(r, 0)[row] = registry[i]->name;
      column<const char*>(r, 1)[row] = registry[i]->columns[c].name;
      column<const char*>(r, 2)[row] = registry[i]->columns[c].type->name;
    }
  }
  return r;
}

systable_result* produce_primitives(MemContext* mem, const systable_desc* desc) {
  int64_t rows = prim_count();
  systable_result* r = systable_result_create(mem, desc, rows);
  for (int64_t i = 0; i < rows; i++) {
    const prim_desc* p = prim_row(i);
    column<const char*>(r, 0)[i] = p->name;
    column<const char*>(r, 1)[i] = p->return_type;
    column<void*>(r, 2)[i] = p->ptr;
  }
  return r;
}

// The kernel keeps no I/O profile in this tool: the table is empty.
systable_result* produce_profile_io(MemContext* mem, const systable_desc* desc) {
  return systable_result_create(mem, desc, 0);
}

systable_column tables_columns[2];
systable_column table_columns_columns[3];
systable_column primitives_columns[3];
systable_column profile_io_columns[5];

systable_desc tables_desc = {"sys_tables", 2, produce_tables, tables_columns};
systable_desc table_columns_desc = {"sys_table_columns", 3, produce_table_columns,
                                    table_columns_columns};
systable_desc primitives_desc = {"primitives", 3, produce_primitives, primitives_columns};
systable_desc profile_io_desc = {"profile_io", 5, produce_profile_io, profile_io_columns};

}  // namespace

int systable_register(systable_desc* desc) {
  if (registered == SYSTABLE_MAX) {
    CV_WARN(SYSTABLES_MODULE, "maximum number of system tables (= %d) reached, ignoring '%s'",
            SYSTABLE_MAX, desc->name);
    return -1;
  }
  registry[registered++] = desc;
  return 0;
}

const systable_desc* systable_find(const char* name) {
  for (int32_t i = 0; i < registered; i++)
    if (strcmp(registry[i]->name, name) == 0) return registry[i];
  return nullptr;
}

const systable_column* systable_find_column(const char* table, const char* column_name) {
  const systable_desc* d = systable_find(table);
  if (d == nullptr) return nullptr;
  for (int64_t c = 0; c < d->column_count; c++)
    if (strcmp(d->columns[c].name, column_name) == 0) return &d->columns[c];
  return nullptr;
}

systable_result* systable_result_create(MemContext* mem, const systable_desc* desc, int64_t rows) {
  systable_result* r = static_cast<systable_result*>(mem_callocex(mem, sizeof(systable_result), 0));
  r->rows = rows;
  r->columns = static_cast<void**>(
      mem_callocex(mem, sizeof(void*) * static_cast<uint64_t>(desc->column_count), 0));
  for (int64_t c = 0; c < desc->column_count; c++) {
    uint64_t width = static_cast<uint64_t>(ptype_width(desc->columns[c].type));
    r->columns[c] = mem_callocex(mem, width * static_cast<uint64_t>(rows > 0 ? rows : 1), 0);
  }
  return r;
}

int32_t systable_count() { return registered; }

const systable_desc* systable_at(int32_t i) {
  return i >= 0 && i < registered ? registry[i] : nullptr;
}

void systables_register_kernel() {
  const ptype* str = ptype_by_id(PTYPE_STR);
  const ptype* sint = ptype_by_id(PTYPE_SINT);
  const ptype* slng = ptype_by_id(PTYPE_SLNG);
  const ptype* ptr = ptype_by_id(PTYPE_PTR);
  J480_ASSERT(SYSTABLES_MODULE, str && sint && slng && ptr);
  tables_columns[0] = {"table_name", str, 0};
  tables_columns[1] = {"column_count", sint, 0};
  table_columns_columns[0] = {"table_name", str, 0};
  table_columns_columns[1] = {"column_name", str, 0};
  table_columns_columns[2] = {"column_type", str, 0};
  primitives_columns[0] = {"name", str, ltype_from_string("varchar(128)")};
  primitives_columns[1] = {"return_type", str, 0};
  primitives_columns[2] = {"ptr", ptr, 0};
  profile_io_columns[0] = {"ident", str, 0};
  profile_io_columns[1] = {"async_fetch", slng, 0};
  profile_io_columns[2] = {"async_miss", slng, 0};
  profile_io_columns[3] = {"sync_fetch", slng, 0};
  profile_io_columns[4] = {"sync_miss", slng, 0};
  systable_register(&tables_desc);
  systable_register(&table_columns_desc);
  systable_register(&primitives_desc);
  systable_register(&profile_io_desc);
}

void systables_clear() { registered = 0; }
