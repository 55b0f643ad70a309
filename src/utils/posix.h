// posix: the one seam through which the system touches files and the process.
//
// Every call into the operating system for files, directories, locks, memory maps and the
// process id goes through a px_* wrapper here. Each wrapper is inline: its common path is one
// well-predicted test of `g_px_faults.armed` and then the direct call. Tests arm the switch to
// fail the k-th call with an errno of their choice, or to end the process there, and count the
// calls a run makes. Nothing here allocates or logs.
#ifndef J480_UTILS_POSIX_H
#define J480_UTILS_POSIX_H

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

// The path separator of every path the system builds.
#define J480_PATH_SEP '/'

// What an armed seam does when its countdown reaches zero.
enum px_fault_action : int32_t {
  PX_FAULT_FAIL = 0,  // the call fails with `err` in errno
  PX_FAULT_KILL = 1,  // the process ends at once, as if killed, before the call runs
};

struct px_faults {
  int32_t armed;      // non-zero: count calls and check the countdown
  int32_t action;     // px_fault_action
  int32_t err;        // errno for PX_FAULT_FAIL
  int32_t sticky;     // non-zero: every call after the k-th fails too
  int64_t countdown;  // calls left before the fault; the fault hits when it reaches 0
  int64_t calls;      // calls seen while armed
};

extern px_faults g_px_faults;

// Arms the seam: the k-th call from now (k >= 1) fails with `err`, or ends the process.
void px_fault_arm(int64_t k, int32_t err, px_fault_action action = PX_FAULT_FAIL,
                  bool sticky = false);
// Counts calls without failing any.
void px_fault_count();
void px_fault_disarm();
// Slow path of the check; true when this call must fail (errno is then set).
bool px_fault_hit_slow();
// Arms the seam from J480_FAULT_AT=<k>[:<errno>|:kill][:sticky] in the environment, for
// fault-injection runs of the whole tool. Does nothing when the variable is unset.
void px_fault_arm_from_env();

inline bool px_fault_hit() {
  if (__builtin_expect(g_px_faults.armed == 0, 1)) return false;
  return px_fault_hit_slow();
}

// Files through the runtime's handles. Reads and writes use the unlocked forms: the tool has
// one thread per handle.
inline FILE* px_fopen(const char* path, const char* mode) {
  if (px_fault_hit()) return nullptr;
  return fopen(path, mode);
}
inline int px_fclose(FILE* f) {
  if (px_fault_hit()) {
    fclose(f);
    return EOF;
  }
  return fclose(f);
}
inline size_t px_fread(void* buf, size_t size, size_t n, FILE* f) {
  if (px_fault_hit()) return 0;
  return fread_unlocked(buf, size, n, f);
}
inline size_t px_fwrite(const void* buf, size_t size, size_t n, FILE* f) {
  if (px_fault_hit()) return 0;
  return fwrite_unlocked(buf, size, n, f);
}
inline int px_fflush(FILE* f) {
  if (px_fault_hit()) return EOF;
  return fflush_unlocked(f);
}
inline int px_fseeko(FILE* f, off_t off, int whence) {
  if (px_fault_hit()) return -1;
  return fseeko(f, off, whence);
}
inline off_t px_ftello(FILE* f) {
  if (px_fault_hit()) return -1;
  return ftello(f);
}
inline int px_setvbuf(FILE* f, char* buf, int mode, size_t size) {
  return setvbuf(f, buf, mode, size);
}
inline FILE* px_popen(const char* cmd, const char* mode) {
  if (px_fault_hit()) return nullptr;
  return popen(cmd, mode);
}
inline int px_pclose(FILE* f) { return pclose(f); }

// Descriptors.
inline int px_open(const char* path, int flags, mode_t mode = 0) {
  if (px_fault_hit()) return -1;
  return open(path, flags, mode);
}
inline int px_close(int fd) {
  if (px_fault_hit()) {
    close(fd);
    return -1;
  }
  return close(fd);
}
inline ssize_t px_read(int fd, void* buf, size_t n) {
  if (px_fault_hit()) return -1;
  return read(fd, buf, n);
}
inline ssize_t px_write(int fd, const void* buf, size_t n) {
  if (px_fault_hit()) return -1;
  return write(fd, buf, n);
}
inline ssize_t px_pwrite(int fd, const void* buf, size_t n, off_t off) {
  if (px_fault_hit()) return -1;
  return pwrite(fd, buf, n, off);
}
inline int px_fsync(int fd) {
  if (px_fault_hit()) return -1;
  return fsync(fd);
}
inline int px_fcntl_lock(int fd, int cmd, struct flock* fl) {
  if (px_fault_hit()) return -1;
  return fcntl(fd, cmd, fl);
}

// Names in the file system.
inline int px_link(const char* from, const char* to) {
  if (px_fault_hit()) return -1;
  return link(from, to);
}
inline int px_unlink(const char* path) {
  if (px_fault_hit()) return -1;
  return unlink(path);
}
inline int px_rename(const char* from, const char* to) {
  if (px_fault_hit()) return -1;
  return rename(from, to);
}
inline int px_mkdir(const char* path, mode_t mode) {
  if (px_fault_hit()) return -1;
  return mkdir(path, mode);
}
inline int px_rmdir(const char* path) {
  if (px_fault_hit()) return -1;
  return rmdir(path);
}
inline int px_chmod(const char* path, mode_t mode) {
  if (px_fault_hit()) return -1;
  return chmod(path, mode);
}
inline int px_stat(const char* path, struct stat* st) {
  if (px_fault_hit()) return -1;
  return stat(path, st);
}
inline int px_lstat(const char* path, struct stat* st) {
  if (px_fault_hit()) return -1;
  return lstat(path, st);
}
inline int px_fstat(int fd, struct stat* st) {
  if (px_fault_hit()) return -1;
  return fstat(fd, st);
}
inline int px_access(const char* path, int mode) {
  if (px_fault_hit()) return -1;
  return access(path, mode);
}
inline DIR* px_opendir(const char* path) {
  if (px_fault_hit()) return nullptr;
  return opendir(path);
}
inline struct dirent* px_readdir(DIR* d) {
  if (px_fault_hit()) return nullptr;
  return readdir(d);
}
inline int px_closedir(DIR* d) { return closedir(d); }
inline mode_t px_umask(mode_t mask) { return umask(mask); }

// The process.
inline pid_t px_getpid() { return getpid(); }

// Memory maps.
inline void* px_mmap(void* addr, size_t len, int prot, int flags, int fd, off_t off) {
  if (px_fault_hit()) return MAP_FAILED;
  return mmap(addr, len, prot, flags, fd, off);
}
inline void* px_mremap(void* old, size_t old_len, size_t new_len, int flags) {
  if (px_fault_hit()) return MAP_FAILED;
  return mremap(old, old_len, new_len, flags);
}
inline int px_munmap(void* addr, size_t len) { return munmap(addr, len); }

#endif  // J480_UTILS_POSIX_H
