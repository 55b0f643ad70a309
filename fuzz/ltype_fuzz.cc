// Fuzz target: the logical type texts that column records of the 2.0 log carry.
//
// Input: 4 bytes of digits and 4 of scale (machine order), then the type text. The text goes
// through ltype_from_string and, with the two numbers, through ltype_from_name, as the replay of a
// column record does; each code is then taken apart and printed again.
#include <cstdint>
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "kernel/ltype.h"
#include "utils/mem.h"

namespace {

MemContext* g_mem = nullptr;

void take_apart(ltype code) {
  int32_t digits = -1, scale = -1;
  ltype_digits_scale(code, &digits, &scale);
  const char* name = ltype_name(code);
  FUZZ_CHECK(name != nullptr);
  const char* text = ltype_to_string(g_mem, code);
  FUZZ_CHECK(text != nullptr && strlen(text) < 64);
  ltype_display_digits(code);
  // A known code's text names its type again (the width of a char or decimal aside).
  if (code != 0 && ltype_number_of(code) != LTYPE_MONEY && strcmp(name, "UNKNOWNTYPE") != 0) {
    ltype again = ltype_from_string(text);
    FUZZ_CHECK(ltype_number_of(again) == ltype_number_of(code) || again == 0 ||
               ltype_number_of(code) == LTYPE_VCHAR || ltype_number_of(code) == LTYPE_CHAR);
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  j480fuzz::quiet_logger();
  g_mem = mem_context_create(nullptr, "ltype_fuzz");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  int32_t digits = 0, scale = 0;
  if (size >= 8) {
    memcpy(&digits, data, 4);
    memcpy(&scale, data + 4, 4);
    data += 8;
    size -= 8;
  }
  std::string text(reinterpret_cast<const char*>(data), size);
  text.resize(strlen(text.c_str()));
  MemContext* mem = mem_context_create(g_mem, "ltype_input");
  MemContext* outer = g_mem;
  g_mem = mem;
  take_apart(ltype_from_string(text.c_str()));
  take_apart(ltype_from_name(text.c_str(), digits, scale));
  g_mem = outer;
  mem_context_remove(mem);
  return 0;
}
