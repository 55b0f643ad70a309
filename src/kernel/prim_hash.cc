// prim_hash: floating-point hash and check primitives.
#include "kernel/prim_hash.h"

#include <cstring>

namespace {

// Bits of a value; with SignFree, -0.0 is taken as 0.0.
template <typename T, bool SignFree>
inline uint64_t key_bits(T v) {
  if constexpr (SignFree) {
    if (v == static_cast<T>(0)) v = static_cast<T>(0);
  }
  if constexpr (sizeof(T) == 4) {
    uint32_t b;
    memcpy(&b, &v, 4);
    return b;
  } else {
    uint64_t b;
    memcpy(&b, &v, 8);
    return b;
  }
}

// Three independent mixers for the three hash kinds.
template <int Kind>
inline uint64_t mix(uint64_t x) {
  constexpr uint64_t m[3] = {0x9E3779B97F4A7C15ULL, 0xC2B2AE3D27D4EB4FULL, 0x165667B19E3779F9ULL};
  x ^= x >> 33;
  x *= m[Kind];
  x ^= x >> 29;
  return x;
}

inline uint64_t combine(uint64_t a, uint64_t b) { return (a * 0x100000001B3ULL) ^ b; }

template <typename T, bool SF, int K>
int64_t hash(int64_t n, uint64_t* res, const void* col_, const int64_t* sel) {
  const T* col = static_cast<const T*>(col_);
  for (int64_t i = 0; i < n; i++) {
    int64_t k = sel ? sel[i] : i;
    res[k] = mix<K>(key_bits<T, SF>(col[k]));
  }
  return n;
}

template <typename T, bool SF, int K>
int64_t hash_seed(int64_t n, uint64_t* res, const void* col_, const uint64_t* seed,
                  const int64_t* sel) {
  const T* col = static_cast<const T*>(col_);
  for (int64_t i = 0; i < n; i++) {
    int64_t k = sel ? sel[i] : i;
    res[k] = mix<K>(key_bits<T, SF>(col[k]) ^ seed[k]);
  }
  return n;
}

template <typename T, bool SF, int K>
int64_t rehash(int64_t n, uint64_t* res, const uint64_t* in, const void* col_, const int64_t* sel) {
  const T* col = static_cast<const T*>(col_);
  for (int64_t i = 0; i < n; i++) {
    int64_t k = sel ? sel[i] : i;
    res[k] = combine(in[k], mix<K>(key_bits<T, SF>(col[k])));
  }
  return n;
}

template <typename T, bool SF, int K>
int64_t rehash_seed(int64_t n, uint64_t* res, const uint64_t* in, const void* col_,
                    const uint64_t* seed, const int64_t* sel) {
  const T* col = static_cast<const T*>(col_);
  for (int64_t i = 0; i < n; i++) {
    int64_t k = sel ? sel[i] : i;
    res[k] = combine(in[k], mix<K>(key_bits<T, SF>(col[k]) ^ seed[k]));
  }
  return n;
}

template <typename T, bool SF>
int64_t check(int64_t n, uint8_t* res, const void* keys_, const uint64_t* pos, const void* table_,
              const int64_t* sel) {
  const T* keys = static_cast<const T*>(keys_);
  const T* table = static_cast<const T*>(table_);
  for (int64_t i = 0; i < n; i++) {
    int64_t k = sel ? sel[i] : i;
    res[k] = key_bits<T, SF>(keys[k]) == key_bits<T, SF>(table[pos[k]]);
  }
  return n;
}

template <typename T, bool SF>
int64_t recheck(int64_t n, uint8_t* res, const uint8_t* prev, const void* keys_,
                const uint64_t* pos, const void* table_, const int64_t* sel) {
  const T* keys = static_cast<const T*>(keys_);
  const T* table = static_cast<const T*>(table_);
  for (int64_t i = 0; i < n; i++) {
    int64_t k = sel ? sel[i] : i;
    res[k] = prev[k] && key_bits<T, SF>(keys[k]) == key_bits<T, SF>(table[pos[k]]);
  }
  return n;
}

template <typename T>
inline T row_value(const void* table, uint64_t row, int64_t stride) {
  T v;
  memcpy(&v, static_cast<const char*>(table) + static_cast<int64_t>(row) * stride, sizeof v);
  return v;
}

template <typename T, bool SF>
int64_t check_nsm(int64_t n, uint8_t* res, const void* keys_, const uint64_t* pos,
                  const void* table, const int64_t* stride, const int64_t* sel) {
  const T* keys = static_cast<const T*>(keys_);
  for (int64_t i = 0; i < n; i++) {
    int64_t k = sel ? sel[i] : i;
    res[k] = key_bits<T, SF>(keys[k]) == key_bits<T, SF>(row_value<T>(table, pos[k], *stride));
  }
  return n;
}

template <typename T, bool SF>
int64_t recheck_nsm(int64_t n, uint8_t* res, const uint8_t* prev, const void* keys_,
                    const uint64_t* pos, const void* table, const int64_t* stride,
                    const int64_t* sel) {
  const T* keys = static_cast<const T*>(keys_);
  for (int64_t i = 0; i < n; i++) {
    int64_t k = sel ? sel[i] : i;
    res[k] = prev[k] &&
             key_bits<T, SF>(keys[k]) == key_bits<T, SF>(row_value<T>(table, pos[k], *stride));
  }
  return n;
}

// The sixteen rows of one type: (signature, function) in the bitwise or the sign-free version.
#define HASH_ROWS(t, T, SF)                                                                       \
  {"uidx", "map_hash_" #t "_col", prim_fn(&hash<T, SF, 0>)},                                          \
      {"uidx", "map_hash_" #t "_col_ulng_col", prim_fn(&hash_seed<T, SF, 0>)},                        \
      {"uidx", "map_rehash_uidx_col_" #t "_col", prim_fn(&rehash<T, SF, 0>)},                         \
      {"uidx", "map_rehash_uidx_col_" #t "_col_ulng_col", prim_fn(&rehash_seed<T, SF, 0>)},           \
      {"uidx", "map_hash2_" #t "_col", prim_fn(&hash<T, SF, 1>)},                                     \
      {"uidx", "map_hash2_" #t "_col_ulng_col", prim_fn(&hash_seed<T, SF, 1>)},                       \
      {"uidx", "map_rehash2_uidx_col_" #t "_col", prim_fn(&rehash<T, SF, 1>)},                        \
      {"uidx", "map_rehash2_uidx_col_" #t "_col_ulng_col", prim_fn(&rehash_seed<T, SF, 1>)},          \
      {"uidx", "map_hash3_" #t "_col", prim_fn(&hash<T, SF, 2>)},                                     \
      {"uidx", "map_hash3_" #t "_col_ulng_col", prim_fn(&hash_seed<T, SF, 2>)},                       \
      {"uidx", "map_rehash3_uidx_col_" #t "_col", prim_fn(&rehash<T, SF, 2>)},                        \
      {"uidx", "map_rehash3_uidx_col_" #t "_col_ulng_col", prim_fn(&rehash_seed<T, SF, 2>)},          \
      {"uchr", "map_check_" #t "_col_uidx_col_" #t "_col", prim_fn(&check<T, SF>)},               \
      {"uchr", "map_recheck_uchr_col_" #t "_col_uidx_col_" #t "_col", prim_fn(&recheck<T, SF>)},  \
      {"uchr", "map_checkDSMNSM_" #t "_col_uidx_col_" #t "_col_slng_val",                         \
       prim_fn(&check_nsm<T, SF>)},                                                               \
      {"uchr", "map_recheckDSMNSM_uchr_col_" #t "_col_uidx_col_" #t "_col_slng_val",              \
       prim_fn(&recheck_nsm<T, SF>)}

const prim_desc* sign_free_rows() {
  static const prim_desc rows[] = {
      HASH_ROWS(flt, float, true),
      HASH_ROWS(dbl, double, true),
      {nullptr, nullptr, nullptr},
  };
  return rows;
}

}  // namespace

const prim_desc* prim_hash_table() {
  static const prim_desc rows[] = {
      HASH_ROWS(flt, float, false),
      HASH_ROWS(dbl, double, false),
      {nullptr, nullptr, nullptr},
  };
  return rows;
}

void prim_hash_set_float_functions() {
  for (const prim_desc* row = sign_free_rows(); row->name != nullptr; row++)
    prim_set_function(row->name, row->ptr);
}
