// property: a small singly linked list of typed, multi-valued named properties.
//
// Nodes and value arrays are allocated from the caller's memory context; names are not copied.
#ifndef J480_UTILS_PROPERTY_H
#define J480_UTILS_PROPERTY_H

#include <cstdint>

struct MemContext;

enum prop_tpe : int32_t {
  PROP_TPE_ANY = 0,
  PROP_TPE_BOOL = 1,
  PROP_TPE_LNG = 2,
  PROP_TPE_DBL = 3,
  PROP_TPE_STR = 4,
};

// One 64-bit value slot: a boolean, an integer, a double or a string pointer by type.
union prop_value {
  int64_t b;
  int64_t l;
  double d;
  const char* s;
};

struct property {
  property* next;
  const char* name;  // not owned
  int32_t tpe;
  int32_t cnt;
  prop_value* value;
};

#endif  // J480_UTILS_PROPERTY_H
