// prim_hash: hashing and key checking of floating-point columns, the 32 rows that kernel start
// sets right so that the sign of a zero does not count (0.0 and -0.0 hash and compare alike).
//
// The rows are registered with plain bitwise versions; prim_hash_set_float_functions replaces
// them through prim_set_function. Every primitive writes its result at position k, where k is
// sel[i] with a selection vector and i without.
#ifndef J480_KERNEL_PRIM_HASH_H
#define J480_KERNEL_PRIM_HASH_H

#include <cstdint>

#include "kernel/primitive.h"

// map_hash{,2,3}_t_col: res[k] = hash(col[k]).
typedef int64_t prim_hash_fn(int64_t n, uint64_t* res, const void* col, const int64_t* sel);
// map_hash{,2,3}_t_col_ulng_col: res[k] = hash(col[k]) mixed with seed[k].
typedef int64_t prim_hash_seed_fn(int64_t n, uint64_t* res, const void* col, const uint64_t* seed,
                                  const int64_t* sel);
// map_rehash{,2,3}_uidx_col_t_col: res[k] = combine(in[k], hash(col[k])).
typedef int64_t prim_rehash_fn(int64_t n, uint64_t* res, const uint64_t* in, const void* col,
                               const int64_t* sel);
// map_rehash{,2,3}_uidx_col_t_col_ulng_col: as rehash, with seed[k] mixed in.
typedef int64_t prim_rehash_seed_fn(int64_t n, uint64_t* res, const uint64_t* in, const void* col,
                                    const uint64_t* seed, const int64_t* sel);
// map_check_t_col_uidx_col_t_col: res[k] = keys[k] equals table[pos[k]].
typedef int64_t prim_check_fn(int64_t n, uint8_t* res, const void* keys, const uint64_t* pos,
                              const void* table, const int64_t* sel);
// map_recheck_uchr_col_t_col_uidx_col_t_col: res[k] = prev[k] && keys[k] equals table[pos[k]].
typedef int64_t prim_recheck_fn(int64_t n, uint8_t* res, const uint8_t* prev, const void* keys,
                                const uint64_t* pos, const void* table, const int64_t* sel);
// map_checkDSMNSM_t_col_uidx_col_t_col_slng_val: the table holds rows `*stride` bytes apart.
typedef int64_t prim_check_nsm_fn(int64_t n, uint8_t* res, const void* keys, const uint64_t* pos,
                                  const void* table, const int64_t* stride, const int64_t* sel);
// map_recheckDSMNSM_uchr_col_t_col_uidx_col_t_col_slng_val: as checkDSMNSM, and-ed with prev[k].
typedef int64_t prim_recheck_nsm_fn(int64_t n, uint8_t* res, const uint8_t* prev, const void* keys,
                                    const uint64_t* pos, const void* table, const int64_t* stride,
                                    const int64_t* sel);

// The 32 rows, ending with a null row.
const prim_desc* prim_hash_table();

// Replaces the functions of the 32 rows by versions for which the sign of a zero does not count.
void prim_hash_set_float_functions();

#endif  // J480_KERNEL_PRIM_HASH_H
