// value_space: column arrays of inserted, modified and deleted values, appended through the
// typed fill and condense primitives.
#include "updates/value_space.h"

#include <bit>
#include <cstring>

#include "kernel/prim_gen.h"
#include "kernel/primitive.h"
#include "kernel/ptype.h"
#include "kernel/vheap.h"
#include "utils/cvconfig.h"
#include "utils/cvlog.h"
#include "utils/longjmp_ctx.h"
#include "utils/mem.h"
#include "utils/str_funcs.h"

#define VS_MODULE "PDT"

static_assert(std::endian::native == std::endian::little,
              "the serial form is written in the machine's order, which must be little-endian");

namespace {

int64_t g_vectorsize = 1024;

// Leaves through the context's jump environment with code 2; without one the process ends.
[[noreturn]] void vs_out_of_memory(value_space* vs, const char* message) {
  CV_ERROR(VS_MODULE, "%s", message);
  mem_raise_out_of_memory(vs->mem);
  cv_assert_fail(__FILE__, __LINE__, VS_MODULE, "vs->mem->exception_env");
}

bool is_uk_col(const value_space* vs, uint32_t colno) {
  for (uint32_t i = 0; i < vs->n_uk_cols; i++)
    if (vs->uk_cols[i] == colno) return true;
  return false;
}

const prim_desc* value_space_get_putter(const ptype* type, int is_const) {
  char sig[128];
  const char* fmt = type->fixed ? (is_const ? "gen_fill_%s_val" : "gen_condense_%s_col")
                                : (is_const ? "gen_fill_%s_val_vheap_val"
                                            : "gen_condense_%s_col_vheap_val");
  str_printf(sig, sizeof sig, fmt, type->name);
  return GetPrimDesc(sig);
}

// Runs the column's putter into `dst`.
void put_values(value_space* vs, uint32_t colno, char* dst, const void* src, int is_const,
                const int64_t* sel, uint32_t n) {
  const prim_desc* putter;
  if (is_const) {
    if (vs->const_putters[colno] == nullptr)
      vs->const_putters[colno] = value_space_get_putter(vs->coltypes[colno], 1);
    J480_ASSERT(VS_MODULE, vs->const_putters[colno]);
    putter = vs->const_putters[colno];
    sel = nullptr;  // a constant fills the new elements in a row
  } else {
    if (vs->putters[colno] == nullptr)
      vs->putters[colno] = value_space_get_putter(vs->coltypes[colno], 0);
    J480_ASSERT(VS_MODULE, vs->putters[colno]);
    putter = vs->putters[colno];
  }
  if (vs->coltypes[colno]->fixed) {
    prim_cast<prim_condense_col_fn>(putter)(n, dst, src, sel);
  } else if (prim_cast<prim_str_vheap_fn>(putter)(n, reinterpret_cast<const char**>(dst), src,
                                                    vs->vheap, sel, nullptr) < 0) {
    vs_out_of_memory(vs, "value_space: variable heap out of memory");
  }
}

// Grows `*array` to `elems` elements of `width` bytes, keeping the content.
void grow_array(value_space* vs, char** array, uint64_t elems, uint32_t width, const char* msg) {
  void* p = mem_realloc(vs->mem, *array, elems * width, J480_MEM_ALLOWFAILURE);
  if (p == nullptr) vs_out_of_memory(vs, msg);
  *array = static_cast<char*>(p);
}

void grow_inserts(value_space* vs, uint64_t cap) {
  const char* msg = "value_space_append_inserts: out of memory";
  for (uint32_t c = 0; c < vs->ncols; c++) grow_array(vs, &vs->inserts[c], cap, vs->colsizes[c], msg);
  void* d = mem_reallocex(vs->mem, vs->insert_dead, cap, J480_MEM_ALLOWFAILURE);
  if (d == nullptr) vs_out_of_memory(vs, msg);
  vs->insert_dead = static_cast<uint8_t*>(d);
  vs->inserts_capacity = static_cast<uint32_t>(cap);
}

void grow_deletes(value_space* vs, uint64_t cap) {
  for (uint32_t i = 0; i < vs->n_uk_cols; i++) {
    uint32_t c = vs->uk_cols[i];
    grow_array(vs, &vs->deletes[c], cap, vs->colsizes[c],
               "value_space_append_deletes: out of memory");
  }
  vs->deletes_capacity = static_cast<uint32_t>(cap);
}

void grow_modifies(value_space* vs, uint32_t colno, uint64_t cap, const char* msg) {
  if (msg != nullptr) {
    grow_array(vs, &vs->modifies[colno], cap, vs->colsizes[colno], msg);
  } else {
    vs->modifies[colno] = static_cast<char*>(
        mem_realloc(vs->mem, vs->modifies[colno], cap * vs->colsizes[colno], 0));
  }
  vs->modifies_capacity[colno] = static_cast<uint32_t>(cap);
}

// The refusal shared by the increment operations: ~0 for a table column, ~1 for a column past
// the end, 0 for an increment column.
uint32_t check_increment_col(const value_space* vs, uint32_t colno, const char* name) {
  if (colno < vs->n_table_cols) {
    CV_ERROR(VS_MODULE, "%s: incrementing table column is not allowed", name);
    return ~0u;
  }
  if (colno >= vs->ncols) {
    CV_ERROR(VS_MODULE, "%s: illegal colno %u", name, colno);
    return ~1u;
  }
  return 0;
}

int64_t* inc_slot(char* array, uint32_t pos) { return reinterpret_cast<int64_t*>(array) + pos; }
// Increments add up in two's complement: a sum past the range wraps, as the counter does.
void add_increment(int64_t* slot, int64_t value) {
  *slot = static_cast<int64_t>(static_cast<uint64_t>(*slot) + static_cast<uint64_t>(value));
}

}  // namespace

void value_space_set_default_config(cvconfig_layer* config) {
  if (config != nullptr) g_vectorsize = cvconfig_get_lng(config, CVGROUP_SYSTEM, CVPROP_VECTORSIZE);
}

int64_t value_space_vectorsize() { return g_vectorsize; }

uint64_t value_space_new_capacity(uint64_t n_old, uint64_t n_add) {
  uint64_t n_new;
  if (n_old == 0) {
    n_new = n_add;
  } else {
    n_new = static_cast<uint64_t>(static_cast<double>(n_old) * 1.6);
    if (n_new < n_old + n_add) n_new = n_old + n_add;
  }
  if (n_new < static_cast<uint64_t>(g_vectorsize)) n_new = static_cast<uint64_t>(g_vectorsize);
  if (n_new > 0xFFFFFFFFull) {
    n_new = 0xFFFFFFFFull;
    uint64_t n_elem_old = n_old, n_elem_new = n_new;
    J480_ASSERT(VS_MODULE, n_elem_old <= n_elem_new);
  }
  return n_new;
}

value_space* value_space_create(MemContext* mem, const ptype* const* coltypes,
                                uint32_t n_table_cols, const uint32_t* key_cols,
                                uint32_t n_key_cols, const uint32_t* uk_cols, uint32_t n_uk_cols,
                                const int64_t* joinindex_IDs, uint32_t n_joinindex) {
  return value_space_create_sized(mem, coltypes, n_table_cols, key_cols, n_key_cols, uk_cols,
                                  n_uk_cols, joinindex_IDs, n_joinindex, 0, 0, nullptr);
}

value_space* value_space_create_sized(MemContext* mem, const ptype* const* coltypes,
                                      uint32_t n_table_cols, const uint32_t* key_cols,
                                      uint32_t n_key_cols, const uint32_t* uk_cols,
                                      uint32_t n_uk_cols, const int64_t* joinindex_IDs,
                                      uint32_t n_joinindex, uint32_t inserts_capacity,
                                      uint32_t deletes_capacity,
                                      const uint32_t* modifies_capacities) {
  J480_ASSERT(VS_MODULE, mem);
  MemContext* own = mem_context_create(mem, "value_space");
  auto* vs = static_cast<value_space*>(mem_calloc(own, sizeof(value_space)));
  vs->mem = own;
  const uint32_t ncols = n_table_cols + n_joinindex;
  vs->ncols = ncols;
  vs->n_table_cols = n_table_cols;
  vs->coltypes = static_cast<const ptype**>(mem_calloc(own, sizeof(ptype*) * (ncols + 1)));
  vs->colsizes = static_cast<uint32_t*>(mem_calloc(own, 4ull * (ncols + 1)));
  for (uint32_t c = 0; c < ncols; c++) {
    vs->coltypes[c] = c < n_table_cols ? coltypes[c] : ptype_by_id(PTYPE_SLNG);
    const ptype* t = vs->coltypes[c];
    vs->colsizes[c] = t->fixed ? static_cast<uint32_t>(ptype_width(t)) : 8;
    if (!t->fixed && vs->vheap == nullptr) vs->vheap = vheap_create_default(mem, "value_space");
  }
  vs->n_key_cols = n_key_cols;
  vs->key_cols = static_cast<uint32_t*>(mem_calloc(own, 4ull * (n_key_cols + 1)));
  if (n_key_cols) memcpy(vs->key_cols, key_cols, 4ull * n_key_cols);
  vs->n_uk_cols = n_uk_cols;
  vs->uk_cols = static_cast<uint32_t*>(mem_calloc(own, 4ull * (n_uk_cols + 1)));
  if (n_uk_cols) memcpy(vs->uk_cols, uk_cols, 4ull * n_uk_cols);

  const uint64_t slots = ncols + 1ull;
  vs->putters = static_cast<const prim_desc**>(mem_calloc(own, sizeof(void*) * slots));
  vs->const_putters = static_cast<const prim_desc**>(mem_calloc(own, sizeof(void*) * slots));
  vs->inserts = static_cast<char**>(mem_calloc(own, sizeof(void*) * slots));
  vs->deletes = static_cast<char**>(mem_calloc(own, sizeof(void*) * slots));
  vs->modifies = static_cast<char**>(mem_calloc(own, sizeof(void*) * slots));
  vs->n_joinindex = n_joinindex;
  vs->joinindex_IDs = static_cast<int64_t*>(mem_calloc(own, 8ull * (n_joinindex + 1)));
  if (n_joinindex) {
    J480_ASSERT(VS_MODULE, joinindex_IDs);
    memcpy(vs->joinindex_IDs, joinindex_IDs, 8ull * n_joinindex);
  }
  vs->n_inserts = static_cast<uint32_t*>(mem_calloc(own, 4 * slots));
  vs->n_deletes = static_cast<uint32_t*>(mem_calloc(own, 4 * slots));
  vs->n_modifies = static_cast<uint32_t*>(mem_calloc(own, 4 * slots));
  vs->modifies_capacity = static_cast<uint32_t*>(mem_calloc(own, 4 * slots));
  if (inserts_capacity) grow_inserts(vs, inserts_capacity);
  if (deletes_capacity && n_uk_cols) grow_deletes(vs, deletes_capacity);
  if (modifies_capacities) {
    for (uint32_t c = 0; c < ncols; c++) {
      if (modifies_capacities[c] == 0) continue;
      uint64_t sz = uint64_t(modifies_capacities[c]) * vs->colsizes[c];
      J480_ASSERT(VS_MODULE, sz);
      vs->modifies[c] = static_cast<char*>(mem_malloc(own, sz));
      vs->modifies_capacity[c] = modifies_capacities[c];
    }
  }
  return vs;
}

void value_space_free(value_space* vs) {
  if (vs != nullptr) mem_context_remove(vs->mem);
}

int64_t value_space_append_inserts(value_space* vs, uint32_t colno, const void* src, int is_const,
                                   const int64_t* sel, uint32_t n) {
  J480_ASSERT(VS_MODULE, colno < vs->ncols);
  const uint64_t p = vs->n_inserts[colno];
  if (n == 0) return static_cast<int64_t>(p);
  if (p + n > 0xFFFFFFFFull) return -1;
  if (vs->inserts_capacity - p < n) grow_inserts(vs, value_space_new_capacity(p, n));
  put_values(vs, colno, vs->inserts[colno] + p * vs->colsizes[colno], src, is_const, sel, n);
  vs->n_inserts[colno] += n;
  return static_cast<int64_t>(p);
}

int64_t value_space_append_deletes(value_space* vs, uint32_t colno, const void* src, int is_const,
                                   const int64_t* sel, uint32_t n) {
  J480_ASSERT(VS_MODULE, colno < vs->ncols);
  J480_ASSERT(VS_MODULE, is_uk_col(vs, colno));
  const uint64_t p = vs->n_deletes[colno];
  if (n == 0) return static_cast<int64_t>(p);
  if (p + n > 0xFFFFFFFFull) return -1;
  if (vs->deletes_capacity - p < n) grow_deletes(vs, value_space_new_capacity(p, n));
  put_values(vs, colno, vs->deletes[colno] + p * vs->colsizes[colno], src, is_const, sel, n);
  vs->n_deletes[colno] += n;
  return static_cast<int64_t>(p);
}

int64_t value_space_append_modifies(value_space* vs, uint32_t colno, const void* src,
                                    int is_const, const int64_t* sel, uint32_t n) {
  J480_ASSERT(VS_MODULE, colno < vs->ncols);
  const uint64_t p = vs->n_modifies[colno];
  if (n == 0) return static_cast<int64_t>(p);
  if (p + n > 0xFFFFFFFFull) return -1;
  if (vs->modifies_capacity[colno] - p < n)
    grow_modifies(vs, colno, value_space_new_capacity(p, n),
                  "value_space_append_modifies: out of memory");
  put_values(vs, colno, vs->modifies[colno] + p * vs->colsizes[colno], src, is_const, sel, n);
  vs->n_modifies[colno] += n;
  return static_cast<int64_t>(p);
}

uint32_t value_space_increment_count(value_space* vs, uint32_t colno, uint32_t pos, int64_t value) {
  if (uint32_t r = check_increment_col(vs, colno, "value_space_increment_count")) return r;
  J480_ASSERT(VS_MODULE, pos < vs->n_inserts[colno]);
  add_increment(inc_slot(vs->inserts[colno], pos), value);
  return 0;
}

uint32_t value_space_increment_modify(value_space* vs, uint32_t colno, int64_t value) {
  if (uint32_t r = check_increment_col(vs, colno, "value_space_increment_modify")) return r;
  const uint32_t p = vs->n_modifies[colno];
  if (vs->modifies_capacity[colno] == p) grow_modifies(vs, colno, value_space_new_capacity(p, 1), nullptr);
  *inc_slot(vs->modifies[colno], p) = value;
  vs->n_modifies[colno] = p + 1;
  return p;
}

uint32_t value_space_increment_modify_inplace(value_space* vs, uint32_t colno, uint32_t pos,
                                              int64_t value) {
  if (uint32_t r = check_increment_col(vs, colno, "value_space_increment_modify_inplace")) return r;
  J480_ASSERT(VS_MODULE, pos < vs->n_modifies[colno]);
  add_increment(inc_slot(vs->modifies[colno], pos), value);
  return 0;
}

int64_t value_space_get_increment(const value_space* vs, uint32_t colno, uint32_t pos) {
  if (colno < vs->n_table_cols) {
    CV_ERROR(VS_MODULE, "value_space_get_increment: not an increment column %u", colno);
    return -1;
  }
  if (colno >= vs->ncols) {
    CV_ERROR(VS_MODULE, "value_space_get_increment: illegal colno %u", colno);
    return -2;
  }
  J480_ASSERT(VS_MODULE, pos < vs->n_modifies[colno]);
  return *inc_slot(vs->modifies[colno], pos);
}

int64_t value_space_merge_inserts(value_space* dst, const value_space* src) {
  J480_ASSERT(VS_MODULE, src->ncols == dst->ncols && src != dst);
  if (src->n_inserts[0] == 0) return 0;
  int64_t pos = 0;
  for (uint32_t c = 0; c < src->ncols; c++)
    pos = value_space_append_inserts(dst, c, src->inserts[c], 0, nullptr, src->n_inserts[c]);
  // The flags go to the start of dst's array, as the operation has always done.
  memcpy(dst->insert_dead, src->insert_dead, src->n_inserts[0]);
  return pos;
}

int64_t value_space_merge_deletes(value_space* dst, const value_space* src) {
  J480_ASSERT(VS_MODULE, src->n_uk_cols == dst->n_uk_cols && src != dst);
  int64_t pos = 0;
  for (uint32_t i = 0; i < src->n_uk_cols; i++) {
    uint32_t c = src->uk_cols[i];
    J480_ASSERT(VS_MODULE, c == dst->uk_cols[i]);
    pos = value_space_append_deletes(dst, c, src->deletes[c], 0, nullptr, src->n_deletes[c]);
  }
  return pos;
}

int64_t value_space_merge_modifies(value_space* dst, const value_space* src) {
  J480_ASSERT(VS_MODULE, src != dst);
  int64_t pos = 0;
  for (uint32_t c = 0; c < src->ncols; c++) {
    if (src->n_modifies[c] == 0) continue;
    pos = value_space_append_modifies(dst, c, src->modifies[c], 0, nullptr, src->n_modifies[c]);
    if (pos < 0) break;
  }
  return pos;
}

uint32_t* value_space_modifies_snapshot(MemContext* mem, const value_space* vs) {
  auto* snap = static_cast<uint32_t*>(mem_malloc(mem, 4ull * (vs->ncols + 1)));
  memcpy(snap, vs->n_modifies, 4ull * vs->ncols);
  return snap;
}

value_space* value_space_copy(MemContext* mem, const value_space* src) {
  J480_ASSERT(VS_MODULE, src->mem);
  MemContext* target = mem ? mem : src->mem;
  value_space* vs = value_space_create_sized(
      target, src->coltypes, src->n_table_cols, src->key_cols, src->n_key_cols, src->uk_cols,
      src->n_uk_cols, src->joinindex_IDs, src->n_joinindex, src->inserts_capacity,
      src->deletes_capacity, src->modifies_capacity);
  value_space_merge_inserts(vs, src);
  value_space_merge_deletes(vs, src);
  value_space_merge_modifies(vs, src);
  return vs;
}

void value_space_modify_insert(value_space* vs, uint32_t colno, uint32_t modify_pos,
                               uint32_t insert_pos) {
  J480_ASSERT(VS_MODULE, colno < vs->ncols);
  J480_ASSERT(VS_MODULE, insert_pos < vs->n_inserts[colno]);
  J480_ASSERT(VS_MODULE, modify_pos < vs->n_modifies[colno]);
  const uint32_t w = vs->colsizes[colno];
  memcpy(vs->inserts[colno] + uint64_t(insert_pos) * w, vs->modifies[colno] + uint64_t(modify_pos) * w, w);
}

void value_space_mark_insert_dead(value_space* vs, uint32_t pos) {
  J480_ASSERT(VS_MODULE, pos < vs->inserts_capacity);
  vs->insert_dead[pos] = 1;
}

const uint32_t* value_space_get_key_cols(const value_space* vs, uint32_t* count) {
  *count = vs->n_key_cols;
  return vs->key_cols;
}

int value_space_compare_keys(const value_space* vs, const void* const* key_vals,
                             const uint32_t* key_cols, uint32_t n_key_cols, uint32_t insert_pos) {
  for (uint32_t i = 0; i < n_key_cols; i++) {
    const uint32_t c = key_cols[i];
    const void* elem = vs->inserts[c] + uint64_t(insert_pos) * vs->colsizes[c];
    int r = vs->coltypes[c]->ops.compare(key_vals[i], elem);
    if (r != 0) return r;
  }
  return 0;
}

int value_space_format_insert(const value_space* vs, char* buffer, int64_t size, uint32_t pos) {
  int64_t used = 0;
  if (size > 0) buffer[0] = '\0';
  for (uint32_t c = 0; c < vs->ncols && used + 1 < size; c++) {
    if (c > 0) used += str_printf(buffer + used, static_cast<size_t>(size - used), ",");
    if (used + 1 >= size) break;
    const void* elem = vs->inserts[c] + uint64_t(pos) * vs->colsizes[c];
    int r = vs->coltypes[c]->ops.format(buffer + used, static_cast<size_t>(size - used), elem);
    if (r > 0) used += r;
    if (used >= size) used = size - 1;
  }
  return static_cast<int>(used);
}

int value_space_format_modify(const value_space* vs, char* buffer, int64_t size, uint32_t pos,
                              uint32_t colno) {
  const void* elem = vs->modifies[colno] + uint64_t(pos) * vs->colsizes[colno];
  return vs->coltypes[colno]->ops.format(buffer, static_cast<size_t>(size), elem);
}

int64_t value_space_serialized_size(const value_space* vs) {
  int64_t size = 8ll * vs->ncols;
  for (uint32_t c = 0; c < vs->ncols; c++) {
    const int64_t n = int64_t(vs->n_inserts[c]) + vs->n_modifies[c];
    const ptype* t = vs->coltypes[c];
    if (t->fixed) {
      size += n * vs->colsizes[c];
      continue;
    }
    size += 4 * n;
    for (uint32_t i = 0; i < vs->n_inserts[c]; i++)
      size += t->ops.value_size(vs->inserts[c] + 8ull * i);
    for (uint32_t i = 0; i < vs->n_modifies[c]; i++)
      size += t->ops.value_size(vs->modifies[c] + 8ull * i);
  }
  return size;
}

int64_t value_space_serialize(const value_space* vs, char* buffer, int64_t bufsize) {
  const int64_t vs_size = value_space_serialized_size(vs);
  if (bufsize < vs_size) {
    CV_ERROR(VS_MODULE,
             "insufficient buffer space to serialize value space: bufsize %lld, vs_size %lld",
             static_cast<long long>(bufsize), static_cast<long long>(vs_size));
    return 0;
  }
  char* cur = buffer;
  memcpy(cur, vs->n_inserts, 4ull * vs->ncols);
  cur += 4ull * vs->ncols;
  memcpy(cur, vs->n_modifies, 4ull * vs->ncols);
  cur += 4ull * vs->ncols;
  for (uint32_t c = 0; c < vs->ncols; c++) {  // fixed area
    const ptype* t = vs->coltypes[c];
    if (t->fixed) {
      const uint64_t ni = uint64_t(vs->n_inserts[c]) * vs->colsizes[c];
      const uint64_t nm = uint64_t(vs->n_modifies[c]) * vs->colsizes[c];
      if (ni) memcpy(cur, vs->inserts[c], ni);
      cur += ni;
      if (nm) memcpy(cur, vs->modifies[c], nm);
      cur += nm;
      continue;
    }
    for (int kind = 0; kind < 2; kind++) {
      const char* arr = kind == 0 ? vs->inserts[c] : vs->modifies[c];
      const uint32_t n = kind == 0 ? vs->n_inserts[c] : vs->n_modifies[c];
      for (uint32_t i = 0; i < n; i++) {
        const uint32_t len = static_cast<uint32_t>(t->ops.value_size(arr + 8ull * i));
        memcpy(cur, &len, 4);
        cur += 4;
      }
    }
  }
  for (uint32_t c = 0; c < vs->ncols; c++) {  // variable area
    const ptype* t = vs->coltypes[c];
    if (t->fixed) continue;
    for (int kind = 0; kind < 2; kind++) {
      const char* arr = kind == 0 ? vs->inserts[c] : vs->modifies[c];
      const uint32_t n = kind == 0 ? vs->n_inserts[c] : vs->n_modifies[c];
      for (uint32_t i = 0; i < n; i++) {
        const void* elem = arr + 8ull * i;
        const int64_t len = t->ops.value_size(elem);
        const char* bytes;
        memcpy(&bytes, elem, sizeof bytes);
        memcpy(cur, bytes, static_cast<size_t>(len));
        cur += len;
      }
    }
  }
  return cur - buffer;
}

int64_t value_space_drop_increment_column(value_space* vs, int64_t joinindex_id) {
  for (uint32_t i = 0; i < vs->n_joinindex; i++) {
    if (vs->joinindex_IDs[i] != joinindex_id) continue;
    const uint32_t colno = vs->n_table_cols + i;
    vs->n_modifies[colno] = 0;
    if (vs->modifies[colno] != nullptr) {
      J480_ASSERT(VS_MODULE, vs->coltypes[colno]->fixed);
      mem_free(vs->mem, vs->modifies[colno]);
      vs->modifies[colno] = nullptr;
    }
    vs->modifies_capacity[colno] = 0;
    vs->joinindex_IDs[i] = -1;
    return colno;
  }
  return -1;
}
