// paxgroup: the column descriptors of a paxgroup while it is built.
//
// A paxgroup's descriptors are an array with one entry per column, in the group's column order,
// allocated by the caller (the generator puts them in its "write_log" context). The 2.5 log's
// paxgroup_new action copies what it needs out of them; nothing here owns memory.
#ifndef J480_BM_PAXGROUP_H
#define J480_BM_PAXGROUP_H

#include <cstdint>

struct ptype;

struct pax_column_descr {
  const ptype* type;        // the column's physical type
  int64_t width;            // maximal value width
  int32_t implementation;   // 0 compressed, 1 fixed, 2 var8, 3 var16, 4 none found
  int32_t nullability;
  const char* compression;  // the column's compression name, or null
};

// Stores the arguments and computes the implementation; -1 where none can be found.
int pax_column_descr_init(pax_column_descr* descr, const ptype* type, int64_t width,
                          int32_t nullability, const char* compression);

#endif  // J480_BM_PAXGROUP_H
