// version: the tool's version text.
#include "utils/version.h"

#include <cstring>

#include "utils/str_funcs.h"

#ifndef J480_GIT_BRANCH
#define J480_GIT_BRANCH "unknown"
#endif
#ifndef J480_GIT_REVISION
#define J480_GIT_REVISION "unknown"
#endif

#if defined(__clang__)
#define J480_COMPILER_VERSION (__clang_major__ * 100 + __clang_minor__)
#elif defined(__GNUC__)
#define J480_COMPILER_VERSION (__GNUC__ * 100 + __GNUC_MINOR__)
#else
#define J480_COMPILER_VERSION 0
#endif

const char* version_str() {
  static char buffer[128];
  static bool built = false;
  if (built) return buffer;
  built = true;
  // The branch piece is written at the offset of the revision piece and so replaces it: the
  // returned text carries the branch, not the revision.
  int n = str_printf(buffer, sizeof buffer, "%s", "j480-vs9-OPTXPROF-64");
  if (n < 0) return buffer;
  int len = static_cast<int>(strlen(buffer));
  str_printf(buffer + len, sizeof buffer - len, "-r%s ", J480_GIT_REVISION);
  n = str_printf(buffer + len, sizeof buffer - len, "(%s) ", J480_GIT_BRANCH);
  if (n < 0) return buffer;
  len = static_cast<int>(strlen(buffer));
  str_printf(buffer + len, sizeof buffer - len, "built on %s %s with Microsoft Compiler version %d",
             __DATE__, __TIME__, J480_COMPILER_VERSION);
  return buffer;
}
