// ptype: the table of physical types.
#include "kernel/ptype.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "utils/str_funcs.h"

namespace {

ptype table[PTYPE_MAX];
int32_t count = 0;

template <typename T>
int compare_num(const void* a, const void* b) {
  T x, y;
  memcpy(&x, a, sizeof x);
  memcpy(&y, b, sizeof y);
  return (x > y) - (x < y);
}

template <typename T>
int64_t size_fixed(const void*) {
  return sizeof(T);
}

template <typename T>
int format_int(char* buffer, size_t size, const void* value) {
  T x;
  memcpy(&x, value, sizeof x);
  if constexpr (static_cast<T>(-1) < 0)
    return str_printf(buffer, size, "%lld", static_cast<long long>(x));
  else
    return str_printf(buffer, size, "%llu", static_cast<unsigned long long>(x));
}

int format_s128(char* buffer, size_t size, const void* value) {
  __int128 x;
  memcpy(&x, value, sizeof x);
  char digits[48];
  int n = 0;
  bool negative = x < 0;
  unsigned __int128 u = negative ? -static_cast<unsigned __int128>(x) : static_cast<unsigned __int128>(x);
  do {
    digits[n++] = static_cast<char>('0' + static_cast<int>(u % 10));
    u /= 10;
  } while (u != 0);
  char text[48];
  int len = 0;
  if (negative) text[len++] = '-';
  while (n > 0) text[len++] = digits[--n];
  text[len] = '\0';
  return str_printf(buffer, size, "%s", text);
}

int compare_s128(const void* a, const void* b) { return compare_num<__int128>(a, b); }

int format_ptr(char* buffer, size_t size, const void* value) {
  void* p;
  memcpy(&p, value, sizeof p);
  return str_printf(buffer, size, "%p", p);
}

int format_flt(char* buffer, size_t size, const void* value) {
  float x;
  memcpy(&x, value, sizeof x);
  return str_printf(buffer, size, "%.9g", static_cast<double>(x));
}

int format_dbl(char* buffer, size_t size, const void* value) {
  double x;
  memcpy(&x, value, sizeof x);
  return str_printf(buffer, size, "%.17g", x);
}

// A `str` value is the address of a zero-terminated string.
const char* str_of(const void* value) {
  const char* s;
  memcpy(&s, value, sizeof s);
  return s;
}
int format_str(char* buffer, size_t size, const void* value) {
  return str_printf(buffer, size, "%s", str_of(value));
}
int compare_str(const void* a, const void* b) {
  int c = strcmp(str_of(a), str_of(b));
  return (c > 0) - (c < 0);
}
int64_t size_str(const void* value) { return static_cast<int64_t>(strlen(str_of(value))) + 1; }

void add(const char* name, int32_t size_class, int32_t is_signed, int32_t fixed,
         int32_t default_column_type, const char* min_text, const char* max_text, double min_value,
         double max_value, ptype_ops ops) {
  ptype& t = table[count];
  memset(&t, 0, sizeof t);
  str_printf(t.name, sizeof t.name, "%s", name);
  t.id = count;
  t.size_class = size_class;
  t.is_signed = is_signed;
  t.fixed = fixed;
  t.default_column_type = default_column_type;
  t.min_text = min_text;
  t.max_text = max_text;
  t.min_value = min_value;
  t.max_value = max_value;
  t.ops = ops;
  count++;
}

template <typename T>
constexpr ptype_ops int_ops() {
  return {format_int<T>, compare_num<T>, size_fixed<T>};
}

}  // namespace

void ptype_register_all() {
  if (count != 0) return;
  add("schr", 2, 1, 1, 0, "-128", "127", -128.0, 127.0, int_ops<int8_t>());
  add("uchr", 2, 0, 1, 0, "0", "255", 0.0, 255.0, int_ops<uint8_t>());
  add("ssht", 3, 1, 1, 0, "-32768", "32767", -32768.0, 32767.0, int_ops<int16_t>());
  add("usht", 3, 0, 1, 0, "0", "65535", 0.0, 65535.0, int_ops<uint16_t>());
  add("sint", 4, 1, 1, 0, "-2147483648", "2147483647", -2147483648.0, 2147483647.0,
      int_ops<int32_t>());
  add("uint", 4, 0, 1, 0, "0", "4294967295", 0.0, 4294967295.0, int_ops<uint32_t>());
  add("slng", 5, 1, 1, 0, "-9223372036854775808", "9223372036854775807", -9223372036854775808.0,
      9223372036854775807.0, int_ops<int64_t>());
  add("ulng", 5, 0, 1, 0, "0", "18446744073709551615", 0.0, 18446744073709551615.0,
      int_ops<uint64_t>());
  add("s128", 6, 1, 1, 0, "-170141183460469231731687303715884105728",
      "170141183460469231731687303715884105727", -1.7014118346046923e38, 1.7014118346046923e38,
      {format_s128, compare_s128, size_fixed<__int128>});
  // uidx is slng under another name.
  add("uidx", 5, 1, 1, 0, "-9223372036854775808", "9223372036854775807", -9223372036854775808.0,
      9223372036854775807.0, int_ops<int64_t>());
  add("ptr", 5, 0, 1, 0, "0", "18446744073709551615", 0.0, 18446744073709551615.0,
      {format_ptr, compare_num<uintptr_t>, size_fixed<void*>});
  add("flt", 4, 1, 1, 0, "-3.40282347e+38", "3.40282347e+38", -3.40282347e+38, 3.40282347e+38,
      {format_flt, compare_num<float>, size_fixed<float>});
  add("dbl", 5, 1, 1, 0, "-1.7976931348623157e+308", "1.7976931348623157e+308",
      -1.7976931348623157e+308, 1.7976931348623157e+308,
      {format_dbl, compare_num<double>, size_fixed<double>});
  add("str", 5, 0, 0, 1, "", "", 0.0, 0.0, {format_str, compare_str, size_str});
}

int32_t ptype_count() { return count; }

const ptype* ptype_by_id(int32_t id) { return id >= 0 && id < count ? &table[id] : nullptr; }

const ptype* ptype_by_name(const char* name) {
  if (name == nullptr) return nullptr;
  for (int32_t i = 0; i < count; i++)
    if (strcmp(table[i].name, name) == 0) return &table[i];
  return nullptr;
}

int32_t ptype_width(const ptype* t) {
  switch (t->size_class) {
    case 1: case 2: return 1;
    case 3: return 2;
    case 4: return 4;
    case 5: return 8;
    case 6: return 16;
    default: return 0;
  }
}
