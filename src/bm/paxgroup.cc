#include "bm/paxgroup.h"

#include <strings.h>

#include "kernel/ptype.h"
#include "utils/cvlog.h"

#define CBM "CBM"

int pax_column_descr_init(pax_column_descr* descr, const ptype* type, int64_t width,
                          int32_t nullability, const char* compression) {
  descr->type = type;
  descr->width = width;
  descr->nullability = nullability;
  descr->compression = compression;
  int32_t implementation;
  if (compression != nullptr && compression[0] != '\0' && type->id != PTYPE_S128 &&
      strcasecmp(compression, "NONE") != 0) {
    implementation = 0;
  } else if (type->fixed) {
    implementation = 1;
  } else if (width == 0) {
    implementation = 3;
  } else if (width < 256) {
    implementation = 2;
  } else if (width >= 65536) {
    CV_ERROR(CBM, "variable data types with length > 65536 not supported");
    implementation = 4;
  } else {
    implementation = 3;
  }
  descr->implementation = implementation;
  if (implementation == 4) {
    CV_ERROR(CBM, "failed to determine column implementation");
    return -1;
  }
  return 0;
}
