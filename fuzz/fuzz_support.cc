#include "fuzz_support.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "utils/cvlog.h"

namespace j480fuzz {

const char* write_input(const void* data, size_t size) {
  static const int fd = memfd_create("j480_fuzz_input", MFD_CLOEXEC);
  static char path[64];
  if (fd < 0 || ftruncate(fd, 0) != 0) abort();
  snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
  for (size_t done = 0; done < size;) {
    ssize_t n = pwrite(fd, static_cast<const char*>(data) + done, size - done, off_t(done));
    if (n <= 0) abort();
    done += static_cast<size_t>(n);
  }
  return path;
}

void quiet_logger() {
  // `file` alone as the default's sink; the file sink without its time stamp, which costs a
  // calendar conversion per line and shows nothing here. The memory contexts' trace lines would
  // only slow every input down.
  // J480_FUZZ_VERBOSE set: the same lines on standard error, to read what an input does.
  const char* text = getenv("J480_FUZZ_VERBOSE") != nullptr
                         ? "default=trace:stderr\nMEMCONTEXT=info:stderr\n"
                         : "default=trace:file\nMEMCONTEXT=info:file\n"
                           "file=showlevel:pid:fileline\nfilename=/dev/null\n";
  setenv("CVLOG", text, 1);
  unsetenv("CVLOG_CONFIGFILE");
  unsetenv("CVLOG_DIRECTORY");
  cv_log_reset_for_tests();
}

namespace {
const char* const* g_accepted = nullptr;
int g_accepted_count = 0;
}  // namespace

void accept_assertions(const char* const* exprs, int count) {
  g_accepted = exprs;
  g_accepted_count = count;
}

}  // namespace j480fuzz

// The fuzz executables are linked with --wrap for the system's assertion function (its mangled
// name), so that every call of it from the libraries lands here first.
extern "C" [[noreturn]] void __real__Z14cv_assert_failPKciS0_S0_(const char* file, int line,
                                                                  const char* module,
                                                                  const char* expr);

extern "C" [[noreturn]] void __wrap__Z14cv_assert_failPKciS0_S0_(const char* file, int line,
                                                                  const char* module,
                                                                  const char* expr) {
  for (int i = 0; i < j480fuzz::g_accepted_count; i++) {
    if (expr != nullptr && strcmp(expr, j480fuzz::g_accepted[i]) == 0) {
      throw j480fuzz::AcceptedAssertion{j480fuzz::g_accepted[i]};
    }
  }
  __real__Z14cv_assert_failPKciS0_S0_(file, line, module, expr);
}
