// posix: the fault switch of the system-call seam.
#include "utils/posix.h"

#include <csignal>
#include <cstdlib>
#include <cstring>

px_faults g_px_faults = {};

void px_fault_arm(int64_t k, int32_t err, px_fault_action action, bool sticky) {
  g_px_faults.action = action;
  g_px_faults.err = err;
  g_px_faults.sticky = sticky ? 1 : 0;
  g_px_faults.countdown = k;
  g_px_faults.calls = 0;
  g_px_faults.armed = 1;
}

void px_fault_count() { px_fault_arm(INT64_MAX, 0, PX_FAULT_FAIL, false); }

void px_fault_disarm() { g_px_faults.armed = 0; }

bool px_fault_hit_slow() {
  g_px_faults.calls++;
  if (g_px_faults.countdown <= 0) {
    if (!g_px_faults.sticky) return false;
  } else if (--g_px_faults.countdown > 0) {
    return false;
  }
  if (g_px_faults.action == PX_FAULT_KILL) {
    // As abrupt as a power cut for this process: no atexit handlers, no stdio flush.
    raise(SIGKILL);
    _exit(137);
  }
  errno = g_px_faults.err;
  return true;
}

void px_fault_arm_from_env() {
#ifndef J480_FAULT_INJECTION
  // A shipped build reads no fault switch from its environment.
  return;
#else
  const char* setting = getenv("J480_FAULT_AT");
  if (setting == nullptr || *setting == '\0') return;
  char* end = nullptr;
  long long k = strtoll(setting, &end, 10);
  if (end == setting || k < 0) return;
  if (k == 0) {
    px_fault_count();
    return;
  }
  int32_t err = EIO;
  px_fault_action action = PX_FAULT_FAIL;
  bool sticky = false;
  while (*end == ':') {
    const char* word = end + 1;
    if (strncmp(word, "kill", 4) == 0) {
      action = PX_FAULT_KILL;
      end = const_cast<char*>(word + 4);
    } else if (strncmp(word, "sticky", 6) == 0) {
      sticky = true;
      end = const_cast<char*>(word + 6);
    } else {
      long e = strtol(word, &end, 10);
      if (end == word) break;
      err = static_cast<int32_t>(e);
    }
  }
  px_fault_arm(k, err, action, sticky);
#endif
}
