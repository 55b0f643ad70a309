// charmap: case mapping tables.
#include "kernel/charmap.h"

uint16_t charmap_to_upper[65536];
uint16_t charmap_to_lower[65536];

namespace {
struct case_pair {
  uint16_t upper, lower;
};
}  // namespace

void charmap_init() {
  for (uint32_t c = 0; c < 65536; c++) {
    charmap_to_upper[c] = static_cast<uint16_t>(c);
    charmap_to_lower[c] = static_cast<uint16_t>(c);
  }
  case_pair pairs[26 + 30];
  int n = 0;
  for (uint16_t c = 'A'; c <= 'Z'; c++) pairs[n++] = {c, static_cast<uint16_t>(c + 32)};
  // Latin-1 letters: U+00C0..U+00DE and U+00E0..U+00FE, but for the multiplication and
  // division signs.
  for (uint16_t c = 0xC0; c <= 0xDE; c++)
    if (c != 0xD7) pairs[n++] = {c, static_cast<uint16_t>(c + 32)};
  for (int i = 0; i < n; i++) {
    charmap_to_upper[pairs[i].lower] = pairs[i].upper;
    charmap_to_lower[pairs[i].upper] = pairs[i].lower;
  }
}
