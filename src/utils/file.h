// file: file system operations of the storage and log code, with their retries and the lock
// discipline, and the key files of storage locations.
//
// Every system call goes through the seam of utils/posix.h. Paths use J480_PATH_SEP. Results are
// reported by value; messages carry no facility name.
#ifndef J480_UTILS_FILE_H
#define J480_UTILS_FILE_H

#include <sys/stat.h>

#include <cstdint>

// True when `path` holds a separator and its first separator is the first character or stands
// right behind the first colon.
bool j480_path_absolute(const char* path);

#endif  // J480_UTILS_FILE_H
