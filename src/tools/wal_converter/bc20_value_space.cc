#include "tools/wal_converter/bc20_value_space.h"

#include "utils/cvlog.h"

int bc20_rebuild_pdt(int64_t object_id, const void* /*payload*/, int64_t /*payload_size*/) {
  CV_ERROR("CBM", "failed to rebuild PDT for object %lld: write-PDTs are not converted in this build",
           static_cast<long long>(object_id));
  return -1;
}
