// property: a small singly linked list of typed, multi-valued named properties.
//
// Nodes and value arrays are allocated from the caller's memory context and live as long as it;
// names are not copied, so a name must outlive its list. Lookups compare the first two
// characters, then the pointer, then the whole string. No locking, no logging but assertions.
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

// The node named `name` in `list`, or null.
property* property_find(property* list, const char* name);
// A new node at the head of `*list` with `cnt` zeroed values, allocated in `mem`.
property* property_add(MemContext* mem, property** list, const char* name, int32_t tpe,
                       int32_t cnt);
// Stores `value` at `pos`; a position outside the node's values is an assertion failure.
void property_set(property* p, int32_t pos, prop_value value);
prop_value property_get(const property* p, int32_t pos);

#endif  // J480_UTILS_PROPERTY_H
