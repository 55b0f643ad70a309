// file: file system operations, locks and key files.
#include "utils/file.h"

#include <cstring>

#include "utils/posix.h"

bool j480_path_absolute(const char* path) {
  const char* sep = strchr(path, J480_PATH_SEP);
  if (sep == nullptr) return false;
  if (sep == path) return true;
  const char* colon = strchr(path, ':');
  return colon != nullptr && colon + 1 == sep;
}
