// bc20_value_space: the write-PDTs of the old log: the legacy form of a table's updates, read
// back into a value space and replayed into the table's write-PDT in the legacy catalog.
#ifndef J480_TOOLS_WAL_CONVERTER_BC20_VALUE_SPACE_H
#define J480_TOOLS_WAL_CONVERTER_BC20_VALUE_SPACE_H

#include <cstdint>

// Rebuilds the payload of a pdt_new_64 record into the write-PDT of the table `object_id`,
// stacked on the one that stands: 0, or -1 with the failure logged.
int bc20_rebuild_pdt(int64_t object_id, const void* payload, int64_t payload_size);

#endif  // J480_TOOLS_WAL_CONVERTER_BC20_VALUE_SPACE_H
