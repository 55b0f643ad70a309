// ltype: logical types, the SQL view of a column, packed into one 32-bit code.
//
// The low byte of a code is the type number; digits, scale, lengths and fractional digits sit in
// the higher bits by type. Texts returned by ltype_to_string live in the caller's context or are
// constants. Messages go to LTYPE.
#ifndef J480_KERNEL_LTYPE_H
#define J480_KERNEL_LTYPE_H

#include <cstdint>

struct MemContext;

enum ltype_number : int32_t {
  LTYPE_NONE = 0,
  LTYPE_BOOL = 1,
  LTYPE_SCHR = 2,
  LTYPE_UCHR = 3,
  LTYPE_SSHT = 4,
  LTYPE_USHT = 5,
  LTYPE_SINT = 6,
  LTYPE_UINT = 7,
  LTYPE_SLNG = 8,
  LTYPE_ULNG = 9,
  LTYPE_S128 = 10,
  LTYPE_UIDX = 11,
  LTYPE_DECIMAL = 12,
  LTYPE_FLT = 13,
  LTYPE_DBL = 14,
  LTYPE_MONEY = 15,
  LTYPE_CHAR = 16,
  LTYPE_VCHAR = 17,
  LTYPE_DATE = 18,
  LTYPE_TIME = 19,
  LTYPE_TIMESTAMP = 20,
  LTYPE_INTERVALDS = 21,
  LTYPE_INTERVALYM = 22,
};

typedef uint32_t ltype;

inline int32_t ltype_number_of(ltype code) { return static_cast<int32_t>(code & 0xFF); }

// Code of a type name with the digits and scale of its column, or 0 (with a warning).
ltype ltype_from_name(const char* name, int32_t digits, int32_t scale);
// Code of a text that carries its own numbers, as "decimal(12,3)" or "varchar(30)".
ltype ltype_from_string(const char* text);
void ltype_digits_scale(ltype code, int32_t* digits_out, int32_t* scale_out);
// The bare name; "UNKNOWNTYPE" for a number outside the table.
const char* ltype_name(ltype code);
// The text with its numbers, formatted in `mem`, or a constant.
const char* ltype_to_string(MemContext* mem, ltype code);
int32_t ltype_display_digits(ltype code);

#endif  // J480_KERNEL_LTYPE_H
