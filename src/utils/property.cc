// property: the typed name list under the configuration.
#include "utils/property.h"

#include <cstring>

#include "utils/cvlog.h"
#include "utils/mem.h"

property* property_find(property* list, const char* name) {
  for (property* p = list; p != nullptr; p = p->next) {
    const char* n = p->name;
    // Two characters settle most misses; the pointer settles most hits.
    if (n[0] != name[0]) continue;
    if (n[0] != '\0' && n[1] != name[1]) continue;
    if (n == name || strcmp(n, name) == 0) return p;
  }
  return nullptr;
}

property* property_add(MemContext* mem, property** list, const char* name, int32_t tpe,
                       int32_t cnt) {
  J480_ASSERT("CVCONFIG", cnt >= 0);
  property* p = static_cast<property*>(mem_malloc(mem, sizeof(property)));
  p->name = name;
  p->tpe = tpe;
  p->cnt = cnt;
  p->value = nullptr;
  if (cnt > 0) {
    p->value = static_cast<prop_value*>(
        mem_calloc(mem, static_cast<uint64_t>(cnt) * sizeof(prop_value)));
  }
  p->next = *list;
  *list = p;
  return p;
}

void property_set(property* p, int32_t pos, prop_value value) {
  J480_ASSERT("CVCONFIG", pos >= 0);
  J480_ASSERT("CVCONFIG", pos < p->cnt);
  p->value[pos] = value;
}

prop_value property_get(const property* p, int32_t pos) {
  J480_ASSERT("CVCONFIG", pos >= 0);
  J480_ASSERT("CVCONFIG", pos < p->cnt);
  return p->value[pos];
}
