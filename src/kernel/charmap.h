// charmap: the kernel's two 16-bit character mapping tables, to upper and to lower case.
//
// Each has 65,536 entries, filled with the identity and then from a table of letter pairs
// (ASCII and Latin-1). Static storage; filled once at kernel start.
#ifndef J480_KERNEL_CHARMAP_H
#define J480_KERNEL_CHARMAP_H

#include <cstdint>

extern uint16_t charmap_to_upper[65536];
extern uint16_t charmap_to_lower[65536];

void charmap_init();

#endif  // J480_KERNEL_CHARMAP_H
