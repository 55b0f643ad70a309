// cvlog: TEMPORARY stand-in (plain lines to stderr) until the real logger lands.
#include "utils/cvlog.h"

#include <cstdio>
#include <cstdlib>

#include "utils/version.h"

void cv_vlog(const char*, int, const char* module, int level, const char* format, va_list args) {
  if (level > CV_LOG_INFO) return;
  fprintf(stderr, "%s:%s:", level == 0 ? "ERROR" : "#", module ? module : "");
  vfprintf(stderr, format, args);
  fputc('\n', stderr);
}
void __cv_log(const char* file, int line, const char* module, int level, const char* format, ...) {
  va_list a;
  va_start(a, format);
  cv_vlog(file, line, module, level, format, a);
  va_end(a);
}
bool cv_log_enabled(const char*, int level) { return level <= CV_LOG_INFO; }
void _cv_backtrace(const char*, int, const char*) {}
void cv_assert_fail(const char* file, int line, const char* module, const char* expr) {
  __cv_log(file, line, module, CV_LOG_ERROR, "assertion \"%s\" failed", expr);
  __cv_log(file, line, module, CV_LOG_ERROR, "J480 Server version %s", version_str());
  abort();
}
void cv_assert_fail_msg(const char* file, int line, const char* module, const char* expr,
                        const char*, ...) {
  cv_assert_fail(file, line, module, expr);
}
