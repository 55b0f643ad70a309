// prim_gen: fill and condense primitives.
#include "kernel/prim_gen.h"

#include <cstring>

#include "kernel/vheap.h"

namespace {

// A 16-byte value copied as two words: the buffers give no 16-byte alignment.
struct w16 {
  uint64_t lo, hi;
};

template <typename T>
int64_t condense_col(int64_t n, void* dst_, const void* src_, const int64_t* sel) {
  T* dst = static_cast<T*>(dst_);
  const T* src = static_cast<const T*>(src_);
  if (sel == nullptr) {
    // The straight copy of n elements; memcpy is that loop at its fastest.
    if (n > 0) memcpy(dst, src, static_cast<size_t>(n) * sizeof(T));
    return n;
  }
  int64_t i = 0;
  for (; i + 8 <= n; i += 8) {
    dst[i] = src[sel[i]];
    dst[i + 1] = src[sel[i + 1]];
    dst[i + 2] = src[sel[i + 2]];
    dst[i + 3] = src[sel[i + 3]];
    dst[i + 4] = src[sel[i + 4]];
    dst[i + 5] = src[sel[i + 5]];
    dst[i + 6] = src[sel[i + 6]];
    dst[i + 7] = src[sel[i + 7]];
  }
  for (; i < n; i++) dst[i] = src[sel[i]];
  return n;
}

template <typename T>
int64_t condense_val(int64_t n, void* dst_, const void* value, const int64_t*) {
  T* dst = static_cast<T*>(dst_);
  T v;
  memcpy(&v, value, sizeof v);
  int64_t i = 0;
  for (; i + 8 <= n; i += 8) {
    dst[i] = v;
    dst[i + 1] = v;
    dst[i + 2] = v;
    dst[i + 3] = v;
    dst[i + 4] = v;
    dst[i + 5] = v;
    dst[i + 6] = v;
    dst[i + 7] = v;
  }
  for (; i < n; i++) dst[i] = v;
  return n;
}

template <typename T>
int64_t fill_val(int64_t n, void* dst_, const void* value, const int64_t* sel) {
  if (sel == nullptr) return condense_val<T>(n, dst_, value, nullptr);
  T* dst = static_cast<T*>(dst_);
  T v;
  memcpy(&v, value, sizeof v);
  int64_t i = 0;
  for (; i + 8 <= n; i += 8) {
    dst[sel[i]] = v;
    dst[sel[i + 1]] = v;
    dst[sel[i + 2]] = v;
    dst[sel[i + 3]] = v;
    dst[sel[i + 4]] = v;
    dst[sel[i + 5]] = v;
    dst[sel[i + 6]] = v;
    dst[sel[i + 7]] = v;
  }
  for (; i < n; i++) dst[sel[i]] = v;
  return n;
}

template <typename T>
int64_t fill_col(int64_t n, void* dst_, const void* src_, const int64_t* sel) {
  if (sel == nullptr) return condense_col<T>(n, dst_, src_, nullptr);
  T* dst = static_cast<T*>(dst_);
  const T* src = static_cast<const T*>(src_);
  int64_t i = 0;
  for (; i + 8 <= n; i += 8) {
    dst[sel[i]] = src[i];
    dst[sel[i + 1]] = src[i + 1];
    dst[sel[i + 2]] = src[i + 2];
    dst[sel[i + 3]] = src[i + 3];
    dst[sel[i + 4]] = src[i + 4];
    dst[sel[i + 5]] = src[i + 5];
    dst[sel[i + 6]] = src[i + 6];
    dst[sel[i + 7]] = src[i + 7];
  }
  for (; i < n; i++) dst[sel[i]] = src[i];
  return n;
}

template <typename T>
int64_t nsm2dsm(int64_t n, void* dst_, const void* src_, const int64_t* stride_, const int64_t* sel) {
  T* dst = static_cast<T*>(dst_);
  const char* src = static_cast<const char*>(src_);
  int64_t stride = *stride_;
  for (int64_t i = 0; i < n; i++) {
    int64_t k = sel ? sel[i] : i;
    memcpy(&dst[i], src + k * stride, sizeof(T));
  }
  return n;
}

// Copies the strings chosen by `pick` into the vheap's current buffer, moving to a new buffer
// when one does not fit (strictly: a string as long as the room left goes to the next buffer).
template <typename Pick, typename Place>
int64_t copy_strings(int64_t n, vheap* heap, Pick pick, Place place) {
  int64_t cur = heap->current;
  char* base = heap->buffers[cur];
  int64_t used = heap->used[cur];
  int64_t size = heap->buffers_sizes[cur];
  for (int64_t i = 0; i < n; i++) {
    const char* s = pick(i);
    int64_t len = static_cast<int64_t>(strlen(s)) + 1;
    if (!(used + len < size)) {
      heap->used[cur] = used;
      if (vheap_buffer_alloc(heap, len) < 0) return -1;
      cur = heap->current;
      base = heap->buffers[cur];
      used = heap->used[cur];
      size = heap->buffers_sizes[cur];
    }
    memcpy(base + used, s, static_cast<size_t>(len));
    place(i, base + used);
    used += len;
  }
  heap->used[cur] = used;
  return n;
}

bool pinned(const prim_expr* expr) { return expr != nullptr && expr->strings_pinned; }

const char* str_at(const void* src, int64_t k) { return static_cast<const char* const*>(src)[k]; }
const char* str_value(const void* value) { return *static_cast<const char* const*>(value); }

int64_t condense_str_col_vheap(int64_t n, const char** dst, const void* src, vheap* heap,
                               const int64_t* sel, const prim_expr* expr) {
  if (pinned(expr)) return condense_col<uint64_t>(n, dst, src, sel);
  return copy_strings(
      n, heap, [&](int64_t i) { return str_at(src, sel ? sel[i] : i); },
      [&](int64_t i, const char* copy) { dst[i] = copy; });
}

int64_t condense_str_val_vheap(int64_t n, const char** dst, const void* value, vheap* heap,
                               const int64_t* sel, const prim_expr* expr) {
  if (pinned(expr)) return condense_val<uint64_t>(n, dst, value, sel);
  return copy_strings(
      n, heap, [&](int64_t) { return str_value(value); },
      [&](int64_t i, const char* copy) { dst[i] = copy; });
}

int64_t fill_str_col_vheap(int64_t n, const char** dst, const void* src, vheap* heap,
                           const int64_t* sel, const prim_expr* expr) {
  if (pinned(expr)) return fill_col<uint64_t>(n, dst, src, sel);
  return copy_strings(
      n, heap, [&](int64_t i) { return str_at(src, i); },
      [&](int64_t i, const char* copy) { dst[sel ? sel[i] : i] = copy; });
}

int64_t fill_str_val_vheap(int64_t n, const char** dst, const void* value, vheap* heap,
                           const int64_t* sel, const prim_expr* expr) {
  if (pinned(expr)) return fill_val<uint64_t>(n, dst, value, sel);
  return copy_strings(
      n, heap, [&](int64_t) { return str_value(value); },
      [&](int64_t i, const char* copy) { dst[sel ? sel[i] : i] = copy; });
}

}  // namespace

// Five rows per type, one function per width (str rows without vheap_val copy addresses).
#define GEN_ROWS(t, T)                                                           \
  {#t, "gen_fill_" #t "_val", prim_fn(&fill_val<T>)},                            \
      {#t, "gen_fill_" #t "_col", prim_fn(&fill_col<T>)},                        \
      {#t, "gen_condenseNSM2DSM_" #t "_col_slng_val", prim_fn(&nsm2dsm<T>)},     \
      {#t, "gen_condense_" #t "_col", prim_fn(&condense_col<T>)},                \
      {#t, "gen_condense_" #t "_val", prim_fn(&condense_val<T>)}

const prim_desc* prim_gen_table() {
  static const prim_desc rows[] = {
    GEN_ROWS(uchr, uint8_t),
    GEN_ROWS(usht, uint16_t),
    GEN_ROWS(uint, uint32_t),
    GEN_ROWS(ulng, uint64_t),
    GEN_ROWS(uidx, uint64_t),
    GEN_ROWS(schr, uint8_t),
    GEN_ROWS(ssht, uint16_t),
    GEN_ROWS(sint, uint32_t),
    GEN_ROWS(slng, uint64_t),
    GEN_ROWS(s128, w16),
    GEN_ROWS(flt, float),
    GEN_ROWS(dbl, double),
    GEN_ROWS(str, uint64_t),
    {"str", "gen_fill_str_val_vheap_val", prim_fn(&fill_str_val_vheap)},
    {"str", "gen_fill_str_col_vheap_val", prim_fn(&fill_str_col_vheap)},
    {"str", "gen_condense_str_val_vheap_val", prim_fn(&condense_str_val_vheap)},
    {"str", "gen_condense_str_col_vheap_val", prim_fn(&condense_str_col_vheap)},
    {nullptr, nullptr, nullptr},
  };
  return rows;
}
