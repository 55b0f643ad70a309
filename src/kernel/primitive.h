// primitive: the registry of typed primitives, found at run time by their signature string.
//
// Static tables of rows (return type, signature, function) are registered once at kernel start
// and copied into one array with a 4096-head hash whose chains put the newest row first. The hash
// folds case and skips "_col"/"_val", so the vector and constant forms of a signature share a
// chain; an inexact lookup lets a "_val" row serve a "_col" request. The registry is read-only
// after start and freed by prim_registry_free. The rows the conversion runs are the fill and
// condense family (prim_gen) and the floating-point hash and check rows (prim_hash).
#ifndef J480_KERNEL_PRIMITIVE_H
#define J480_KERNEL_PRIMITIVE_H

#include <cstdint>

struct prim_desc {
  const char* return_type;
  const char* name;  // signature; a table ends at the first row with a null name
  void* ptr;
};
static_assert(sizeof(prim_desc) == 24, "a primitive row is 24 bytes");

constexpr int32_t PRIM_HASH_SIZE = 4096;

// Hash of the first `len` characters of a signature, in 0..4095.
int32_t prim_signature_hash(const char* name, int64_t len);

void prim_register_table(const prim_desc* rows);
const prim_desc* prim_lookup(const char* name, int exact_only, int with_variants);
const prim_desc* prim_lookup_any(const char* name, int with_variants);
// The next row after `row` in its chain with the base signature `name`, variants allowed.
const prim_desc* prim_next_variant(const prim_desc* row, const char* name);
// Exact lookup without variants; logs a miss unless the name starts with "select_".
const prim_desc* GetPrimDesc(const char* name);
// Replaces the function of every row with exactly this name; the number of rows changed.
int32_t prim_set_function(const char* name, void* function);
void prim_registry_free();
int64_t prim_count();
// Row `i` in registry order.
const prim_desc* prim_row(int64_t i);

// Function pointers are stored untyped in the rows.
template <typename F>
void* prim_fn(F* f) {
  return reinterpret_cast<void*>(f);
}
template <typename F>
F* prim_cast(const prim_desc* row) {
  return reinterpret_cast<F*>(row->ptr);
}

#endif  // J480_KERNEL_PRIMITIVE_H
