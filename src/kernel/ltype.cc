// ltype: logical type codes, from and to their texts.
#include "kernel/ltype.h"

#include <cstdio>
#include <cstring>
#include <strings.h>

#include "utils/cvlog.h"
#include "utils/mem.h"

#define LTYPE_MODULE "LTYPE"

namespace {

const char* const ltype_names[] = {
    nullptr,  "bool",    "schr",     "uchr",       "ssht",       "usht",
    "sint",   "uint",    "slng",     "ulng",       "s128",       "uidx",
    "decimal", "flt",    "dbl",      "money",      "char",       "varchar",
    "date",   "time",    "timestamp", "intervalds", "intervalym",
};
constexpr int32_t kNumNames = sizeof(ltype_names) / sizeof(ltype_names[0]);

// True where `text` starts with `word` (any case) and the word ends the text or '(' follows.
bool matches(const char* text, const char* word) {
  size_t n = strlen(word);
  if (strncasecmp(text, word, n) != 0) return false;
  return text[n] == '\0' || text[n] == '(';
}

ltype by_size(int32_t bytes) {
  switch (bytes) {
    case 1: return LTYPE_SCHR;
    case 2: return LTYPE_SSHT;
    case 4: return LTYPE_SINT;
    case 8: return LTYPE_SLNG;
    case 16: return LTYPE_S128;
    default: return 0;
  }
}

}  // namespace

ltype ltype_from_name(const char* name, int32_t digits, int32_t scale) {
  ltype code = 0;
  if (name == nullptr) {
    name = "";
  } else if (matches(name, "integer") || matches(name, "int")) {
    code = by_size(digits == 0 ? 4 : digits);
  } else if (matches(name, "decimal")) {
    uint32_t d = static_cast<uint32_t>(digits == 0 ? 10 : digits);
    code = LTYPE_DECIMAL | ((d & 0xFF) << 8) | (static_cast<uint32_t>(scale) << 16);
  } else if (matches(name, "float")) {
    int32_t size = digits == 0 ? 8 : digits;
    code = size == 4 ? LTYPE_FLT : size == 8 ? LTYPE_DBL : 0;
  } else if (matches(name, "bool")) {
    code = LTYPE_BOOL;
  } else if (matches(name, "date")) {
    code = LTYPE_DATE;
  } else if (matches(name, "time")) {
    code = LTYPE_TIME | (static_cast<uint32_t>(digits) << 16);
  } else if (matches(name, "timestamp")) {
    code = LTYPE_TIMESTAMP | (static_cast<uint32_t>(digits > 6 ? 6 : digits) << 16);
  } else if (matches(name, "intervalds")) {
    code = LTYPE_INTERVALDS | (static_cast<uint32_t>(digits) << 16);
  } else if (matches(name, "intervalym")) {
    code = LTYPE_INTERVALYM;
  } else if (matches(name, "char")) {
    code = LTYPE_CHAR | (static_cast<uint32_t>(digits == 0 ? 1 : digits) << 8);
  } else if (matches(name, "varchar")) {
    code = LTYPE_VCHAR | (static_cast<uint32_t>(digits) << 8);
  } else if (matches(name, "money")) {
    code = 0x2000F;
  } else if (matches(name, "str")) {
    code = LTYPE_VCHAR;
  } else if (matches(name, "uidx")) {
    code = LTYPE_UIDX;
  } else {
    for (int32_t n = LTYPE_SCHR; n <= LTYPE_S128; n++)
      if (matches(name, ltype_names[n])) code = static_cast<ltype>(n);
    if (code == 0) {
      if (matches(name, "flt")) code = LTYPE_FLT;
      else if (matches(name, "dbl")) code = LTYPE_DBL;
    }
  }
  if (code == 0) CV_WARN(LTYPE_MODULE, "unknown type <%s(%d,%d)>", name, digits, scale);
  return code;
}

ltype ltype_from_string(const char* text) {
  int digits = 0, scale = 0;
  if (sscanf(text, "%*[a-z](%*d,%d", &scale) != 1) scale = 0;
  if (sscanf(text, "%*[a-z](%d", &digits) != 1) digits = 0;
  return ltype_from_name(text, digits, scale);
}

void ltype_digits_scale(ltype code, int32_t* digits_out, int32_t* scale_out) {
  int32_t digits = 0, scale = 0;
  switch (ltype_number_of(code)) {
    case LTYPE_DECIMAL:
      digits = static_cast<int32_t>((code >> 8) & 0xFF);
      scale = static_cast<int32_t>(code >> 16);
      break;
    case LTYPE_CHAR:
    case LTYPE_VCHAR:
      digits = static_cast<int32_t>(code >> 8);
      break;
    case LTYPE_TIME:
    case LTYPE_TIMESTAMP:
    case LTYPE_INTERVALDS:
      digits = static_cast<int32_t>(code >> 16);
      break;
    default:
      break;
  }
  *digits_out = digits;
  *scale_out = scale;
}

const char* ltype_name(ltype code) {
  int32_t n = ltype_number_of(code);
  return n > 0 && n < kNumNames ? ltype_names[n] : "UNKNOWNTYPE";
}

const char* ltype_to_string(MemContext* mem, ltype code) {
  int32_t digits, scale;
  ltype_digits_scale(code, &digits, &scale);
  switch (ltype_number_of(code)) {
    case LTYPE_DECIMAL: return mem_printf(mem, 0, "decimal(%d,%d)", digits, scale);
    case LTYPE_CHAR: return mem_printf(mem, 0, "char(%d)", digits);
    case LTYPE_VCHAR: return digits == 0 ? "str" : mem_printf(mem, 0, "varchar(%d)", digits);
    case LTYPE_TIME:
    case LTYPE_TIMESTAMP:
    case LTYPE_INTERVALDS:
      if (digits != 0) return mem_printf(mem, 0, "%s(%d)", ltype_name(code), digits);
      return ltype_name(code);
    default: return ltype_name(code);
  }
}

int32_t ltype_display_digits(ltype code) {
  switch (ltype_number_of(code)) {
    case 1: return 1;
    case 2: case 3: return 3;
    case 4: case 5: return 5;
    case 6: case 7: return 10;
    case 8: case 9: case 11: return 19;
    case 10: return 39;
    case 12: return static_cast<int32_t>((code >> 8) & 0xFF);
    case 13: return 7;
    case 14: case 15: return 16;
    default: return 0;
  }
}
