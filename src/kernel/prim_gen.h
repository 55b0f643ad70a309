// prim_gen: the fill and condense family of primitives, which copy column values in bulk.
//
// 69 rows: for each of thirteen types five forms, plus four string forms that copy the bytes
// into a vheap. Types of one width share one function. Every loop runs straight, unrolled by
// eight, with no test per element. The value space finds them by signature (GetPrimDesc) and
// calls them through the typed pointers below.
#ifndef J480_KERNEL_PRIM_GEN_H
#define J480_KERNEL_PRIM_GEN_H

#include <cstdint>

#include "kernel/primitive.h"

struct vheap;

// The flags of an expression that a string primitive looks at; null means none set.
struct prim_expr {
  int32_t strings_pinned;  // store the addresses only; the strings outlive the result
};

// gen_condense_t_col: sel null copies n elements; else dst[i] = src[sel[i]]. Result n.
typedef int64_t prim_condense_col_fn(int64_t n, void* dst, const void* src, const int64_t* sel);
// gen_condense_t_val: dst[i] = *value for i below n. Result n.
typedef int64_t prim_condense_val_fn(int64_t n, void* dst, const void* value, const int64_t* sel);
// gen_fill_t_val: sel null sets dst[i] = *value for i below n; else dst[sel[i]] = *value.
typedef int64_t prim_fill_val_fn(int64_t n, void* dst, const void* value, const int64_t* sel);
// gen_fill_t_col: sel null copies n elements; else dst[sel[i]] = src[i]. Result n.
typedef int64_t prim_fill_col_fn(int64_t n, void* dst, const void* src, const int64_t* sel);
// gen_condenseNSM2DSM_t_col_slng_val: gathers one field of rows `*stride` bytes apart:
// dst[i] = *(t*)(src + k * stride), with k = sel ? sel[i] : i. Result n.
typedef int64_t prim_nsm2dsm_fn(int64_t n, void* dst, const void* src, const int64_t* stride,
                                const int64_t* sel);
// The vheap_val string forms: as their plain forms, with each string copied into the vheap and
// dst taking the copy's address. Result n, or -1 if the vheap can't grow.
typedef int64_t prim_str_vheap_fn(int64_t n, const char** dst, const void* src, vheap* heap,
                                  const int64_t* sel, const prim_expr* expr);

// The 69 rows, ending with a null row. (A function: the rows hold function addresses, which a
// static table can only take at run time.)
const prim_desc* prim_gen_table();

#endif  // J480_KERNEL_PRIM_GEN_H
