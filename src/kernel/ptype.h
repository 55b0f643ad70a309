// ptype: the process-wide table of physical types, how a value is stored.
//
// Filled once at kernel start in a fixed order; a type's number is its position. Looked up by
// name (the `adt` of the logs and of primitive signatures) or by number. Records are static and
// never freed.
#ifndef J480_KERNEL_PTYPE_H
#define J480_KERNEL_PTYPE_H

#include <cstddef>
#include <cstdint>

constexpr int32_t PTYPE_MAX = 64;

struct ptype_ops {
  // Formats the value at `value` into `buffer`: its length, or a negative result.
  int (*format)(char* buffer, size_t size, const void* value);
  // Negative, 0 or positive.
  int (*compare)(const void* a, const void* b);
  // Bytes of the value at `value` (for `str`, the string's length plus one).
  int64_t (*value_size)(const void* value);
};

struct ptype {
  char name[64];
  int32_t id;
  int32_t size_class;  // 1, 2: one byte; 3: two; 4: four; 5: eight; 6: sixteen
  int32_t is_signed;
  int32_t fixed;
  int32_t default_column_type;
  const char* min_text;
  const char* max_text;
  double min_value;
  double max_value;
  ptype_ops ops;
};

enum ptype_number : int32_t {
  PTYPE_SCHR = 0,
  PTYPE_UCHR = 1,
  PTYPE_SSHT = 2,
  PTYPE_USHT = 3,
  PTYPE_SINT = 4,
  PTYPE_UINT = 5,
  PTYPE_SLNG = 6,
  PTYPE_ULNG = 7,
  PTYPE_S128 = 8,
  PTYPE_UIDX = 9,
  PTYPE_PTR = 10,
  PTYPE_FLT = 11,
  PTYPE_DBL = 12,
  PTYPE_STR = 13,
};

// Registers the kernel's fourteen types; a second call does nothing.
void ptype_register_all();
int32_t ptype_count();
const ptype* ptype_by_id(int32_t id);
const ptype* ptype_by_name(const char* name);
// Width in bytes by size class; 0 for an unknown class.
int32_t ptype_width(const ptype* t);

#endif  // J480_KERNEL_PTYPE_H
