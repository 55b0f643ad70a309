// file: file system operations, locks and key files.
#include "utils/file.h"

#include <sys/time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "utils/cvlog.h"
#include "utils/posix.h"
#include "utils/str_funcs.h"

namespace {

constexpr int kKeyLen = kAuthPassLen - 1;
constexpr size_t kLocalPath = 128;
constexpr size_t kMaxDeltreePath = 257;

// A private, writable copy of a path: a local buffer for up to 127 characters, else the heap.
class PathCopy {
 public:
  explicit PathCopy(const char* path) {
    size_t n = strlen(path);
    data_ = n < kLocalPath ? local_ : static_cast<char*>(malloc(n + 1));
    if (data_ != nullptr) memcpy(data_, path, n + 1);
    len_ = n;
  }
  ~PathCopy() {
    if (data_ != local_) free(data_);
  }
  PathCopy(const PathCopy&) = delete;
  PathCopy& operator=(const PathCopy&) = delete;
  char* get() { return data_; }
  // Drops trailing separators, keeping a lone one and one right behind a colon.
  void drop_trailing_separators() {
    while (len_ > 1 && data_[len_ - 1] == J480_PATH_SEP && data_[len_ - 2] != ':') {
      data_[--len_] = '\0';
    }
  }

 private:
  char local_[kLocalPath];
  char* data_;
  size_t len_;
};

void sleep_ms(long ms) {
  struct timespec ts = {ms / 1000, (ms % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
  }
}

// unlink; then again after adding owner write permission; then once more after 100 ms.
int unlink_with_retry(const char* path) {
  if (px_unlink(path) == 0) return 0;
  struct stat st;
  if (px_stat(path, &st) == 0) px_chmod(path, st.st_mode | S_IWUSR);
  if (px_unlink(path) == 0) return 0;
  sleep_ms(100);
  return px_unlink(path);
}

int negative_errno() { return errno > 0 ? -errno : -1; }

}  // namespace

bool j480_path_absolute(const char* path) {
  const char* sep = strchr(path, J480_PATH_SEP);
  if (sep == nullptr) return false;
  if (sep == path) return true;
  const char* colon = strchr(path, ':');
  return colon != nullptr && colon + 1 == sep;
}

bool file_exists(const char* path) { return px_access(path, F_OK) == 0; }

int file_stat(const char* path, struct stat* buffer) {
  PathCopy copy(path);
  if (copy.get() == nullptr) return -1;
  copy.drop_trailing_separators();
  return px_stat(copy.get(), buffer);
}

int file_mkdir(const char* path) {
  PathCopy copy(path);
  if (copy.get() == nullptr) return -1;
  copy.drop_trailing_separators();
  return px_mkdir(copy.get(), 0777);
}

int64_t file_size(const char* path) {
  struct stat st;
  if (px_stat(path, &st) != 0) return -static_cast<int64_t>(*file_errno());
  return static_cast<int64_t>(st.st_size);
}

int file_remove(const char* path) {
  if (!file_exists(path)) return -1;
  return unlink_with_retry(path);
}

void file_move(const char* from, const char* to) {
  if (!file_exists(from)) return;
  file_remove(to);
  if (px_link(from, to) != 0) return;  // `from` keeps the content
  unlink_with_retry(from);
}

int create_dir(const char* path) {
  if (!j480_path_absolute(path)) {
    CV_ERROR(nullptr, "create_dir: could not create path '%s' - path in not absolute", path);
    return -1;
  }
  if (file_exists(path)) return 0;
  PathCopy copy(path);
  char* p = copy.get();
  if (p == nullptr) return -1;
  size_t n = strlen(p);
  // Each prefix that ends at a separator (not the leading one), then the whole path.
  for (size_t i = 1; i <= n; i++) {
    if (i < n && p[i] != J480_PATH_SEP) continue;
    char saved = p[i];
    p[i] = '\0';
    struct stat st;
    if (px_stat(p, &st) != 0 || !S_ISDIR(st.st_mode)) {
      if (file_mkdir(p) != 0) {
        CV_ERROR(nullptr, "create_dir: could not create path '%s', error code %d", p, errno);
        return -1;
      }
    }
    p[i] = saved;
  }
  return 0;
}

int deltree(const char* path) {
  if (strlen(path) > kMaxDeltreePath) {
    CV_ERROR(nullptr, "deltree: path '%s' too long.", path);
    return -1;
  }
  DIR* dir = px_opendir(path);
  if (dir == nullptr) {
    int err = errno;
    char pattern[kMaxDeltreePath + 3];
    str_printf(pattern, sizeof pattern, "%s%c*", path, J480_PATH_SEP);
    CV_ERROR(nullptr, "deltree: error initializing scanning for '%s': %d", pattern, err);
    return err > 0 ? -err : -1;
  }
  int result = 0;
  for (;;) {
    errno = 0;
    struct dirent* e = px_readdir(dir);
    if (e == nullptr) {
      if (errno != 0) {
        result = negative_errno();
        CV_ERROR(nullptr, "deltree: error scanning directory '%s': %d", path, errno);
      }
      break;
    }
    if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
    char* entry = nullptr;
    size_t len = strlen(path) + strlen(e->d_name) + 2;
    entry = static_cast<char*>(malloc(len));
    if (entry == nullptr) {
      result = -ENOMEM;
      break;
    }
    str_printf(entry, len, "%s%c%s", path, J480_PATH_SEP, e->d_name);
    bool is_dir = e->d_type == DT_DIR;
    if (e->d_type == DT_UNKNOWN) {
      struct stat st;
      is_dir = px_lstat(entry, &st) == 0 && S_ISDIR(st.st_mode);
    }
    int r = is_dir ? deltree(entry) : (px_unlink(entry) == 0 ? 0 : negative_errno());
    if (r != 0) {
      CV_ERROR(nullptr, "deltree: error deleting '%s': %d.", entry, -r);
      result = r;
    }
    free(entry);
    if (result != 0) break;
  }
  px_closedir(dir);
  if (result != 0) return result;
  // The scan was complete: a directory that won't go is logged, and the result stays 0.
  if (px_rmdir(path) != 0) CV_ERROR(nullptr, "deltree: error deleting '%s': %d.", path, errno);
  return 0;
}

void set_umask(const char* text) {
  unsigned int mask = 0;
  if (text != nullptr && sscanf(text, "%o", &mask) == 1 && mask < 0x200) {
    CV_DEBUG(nullptr, "set_umask: setting umask to '%o'.", mask);
    px_umask(static_cast<mode_t>(mask));
    return;
  }
  CV_WARN(nullptr, "set_umask: ignoring invalid umask '%s' in configuration.",
          text ? text : "(null)");
}

int* file_errno() { return &errno; }

int64_t file_lock(const char* path, int mode) {
  int fd = px_open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) return -2;
  struct flock fl;
  memset(&fl, 0, sizeof fl);
  fl.l_type = F_WRLCK;
  fl.l_whence = SEEK_SET;
  fl.l_start = FILE_LOCK_OFFSET;
  fl.l_len = 1;
  if (px_fcntl_lock(fd, mode == 1 ? F_OFD_SETLKW : F_OFD_SETLK, &fl) != 0) {
    px_close(fd);
    return -1;
  }
  return fd;
}

void file_unlock(int64_t handle) {
  if (handle == -1 || handle == -2) return;
  int fd = static_cast<int>(handle);
  struct flock fl;
  memset(&fl, 0, sizeof fl);
  fl.l_type = F_UNLCK;
  fl.l_whence = SEEK_SET;
  fl.l_start = FILE_LOCK_OFFSET;
  fl.l_len = 1;
  px_fcntl_lock(fd, F_OFD_SETLK, &fl);
  px_close(fd);
}

int64_t write_lockfile(int64_t handle, const void* buffer, int64_t length) {
  if (handle < 0 || length < 0) return -1;
  ssize_t n = px_pwrite(static_cast<int>(handle), buffer, static_cast<size_t>(length), 0);
  if (n < 0 || n != length) return -1;
  return n;
}

char* create_auth_file(const char* filename, char* key, int overwrite) {
  J480_ASSERT(nullptr, key);
  J480_ASSERT(nullptr, filename && *filename);
  if (!overwrite && file_exists(filename)) {
    CV_ERROR(nullptr, "create_auth_file: file '%s' already exists.", filename);
    return nullptr;
  }
  int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (overwrite ? O_TRUNC : O_EXCL);
  int fd = px_open(filename, flags, S_IRUSR | S_IWUSR);
  if (fd < 0) {
    CV_ERROR(nullptr, "create_auth_file: error %d creating file '%s'", errno, filename);
    return nullptr;
  }
  if (key[0] == '\0') {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    srand(static_cast<unsigned>(tv.tv_sec * 1000000 + tv.tv_usec));
    for (int len = 0; len < kKeyLen; len += 8) {
      str_printf(key + len, kAuthPassLen - len, "%08X", static_cast<unsigned>(rand()));
    }
  }
  J480_ASSERT(nullptr, kAuthPassLen - 1 == (int)str_len(key));
  ssize_t n = px_write(fd, key, kKeyLen);
  if (n != kKeyLen) {
    CV_ERROR(nullptr, "create_auth_file: error %d writing to file '%s'", errno, filename);
    px_close(fd);
    return nullptr;
  }
  px_close(fd);
  return key;
}

char* read_auth_file(const char* filename, char* key) {
  const bool empty_key = key != nullptr;
  J480_ASSERT(nullptr, empty_key);
  key[0] = '\0';
  if (str_empty(filename)) return nullptr;
  int fd = px_open(filename, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    CV_ERROR(nullptr, "read_auth_file: error %d opening file '%s'", errno, filename);
    return nullptr;
  }
  int got = 0;
  while (got < kKeyLen) {
    ssize_t n = px_read(fd, key + got, static_cast<size_t>(kKeyLen - got));
    if (n < 0) {
      if (errno == EINTR) continue;
      CV_ERROR(nullptr, "read_auth_file: error %d reading from file '%s'", errno, filename);
      px_close(fd);
      return nullptr;
    }
    if (n == 0) break;
    got += static_cast<int>(n);
  }
  px_close(fd);
  if (got < kKeyLen) {
    CV_ERROR(nullptr, "read_auth_file: file '%s' only contains %d bytes instead of %d", filename,
             got, kKeyLen);
    return nullptr;
  }
  return key;
}

bool verify_auth_file(const char* filename, const char* key) {
  J480_ASSERT(nullptr, filename);
  J480_ASSERT(nullptr, key && key[0]);
  char* buffer = static_cast<char*>(calloc(1, kAuthPassLen));
  if (buffer == nullptr) {
    CV_ERROR(nullptr, "verify_auth_file: error allocating memory");
    return false;
  }
  bool equal = read_auth_file(filename, buffer) != nullptr && strcmp(buffer, key) == 0;
  if (!equal) {
    CV_WARN(nullptr, "verify_auth_file: '%s' does not match '%s' in '%s'", key, buffer, filename);
  }
  free(buffer);
  return equal;
}
