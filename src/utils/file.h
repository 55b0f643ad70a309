// file: file system operations of the storage and log code, with their retries and the lock
// discipline, and the key files of storage locations.
//
// Every system call goes through the seam of utils/posix.h. Paths use J480_PATH_SEP. Nothing here
// keeps state or allocates what it returns (key buffers are the caller's). Results are reported
// by value; messages carry no facility name. The text helpers live in utils/str_funcs.h.
//
// Key file `db_key`: exactly kAuthPassLen - 1 (64) upper-case hexadecimal bytes, no line feed.
// Lock file: one byte at offset 20 is locked, apart from the content at offset 0.
#ifndef J480_UTILS_FILE_H
#define J480_UTILS_FILE_H

#include <sys/stat.h>

#include <cstdint>

// Key text length with its terminator.
constexpr int kAuthPassLen = 65;
// The byte of a lock file that file_lock locks.
constexpr int64_t FILE_LOCK_OFFSET = 20;

// True when `path` holds a separator and its first separator is the first character or stands
// right behind the first colon.
bool j480_path_absolute(const char* path);

// The existence test of the whole system.
bool file_exists(const char* path);
// stat/mkdir after dropping trailing separators (not one right behind a colon, not a lone one).
int file_stat(const char* path, struct stat* buffer);
int file_mkdir(const char* path);
// Size in bytes, or the negative errno.
int64_t file_size(const char* path);
// Unlinks with a retry after making the file writable and another after 100 ms: 0, or -1 (also
// for a path that doesn't exist).
int file_remove(const char* path);
// Replaces `to` by `from` through a hard link and an unlink of `from`, so that the content always
// has a name. A missing `from` does nothing. Callers test the outcome by existence.
void file_move(const char* from, const char* to);
// Creates an absolute path with all its missing parents: 0 or -1.
int create_dir(const char* path);
// Removes a directory with all its content: 0 or a negative errno.
int deltree(const char* path);
// Applies an octal mask text of at most 0777; anything else is ignored with a warning.
void set_umask(const char* text);
// The calling thread's errno.
int* file_errno();

// Locks one byte of `path` (created if missing): mode 2 fails at once, mode 1 waits. The handle
// to hold, -1 when the lock is taken elsewhere or fails, -2 when the file can't be opened.
int64_t file_lock(const char* path, int mode);
// Unlocks and closes; -1 and -2 are skipped.
void file_unlock(int64_t handle);
// Writes `length` bytes at offset 0: the number written, or -1.
int64_t write_lockfile(int64_t handle, const void* buffer, int64_t length);

// Writes `key` (65-byte buffer; an empty one gets a fresh key) as the key file: `key` or null.
char* create_auth_file(const char* filename, char* key, int overwrite);
// Reads the 64 key bytes into `key` (zero-filled, 65 bytes; not terminated here): `key` or null.
char* read_auth_file(const char* filename, char* key);
// True where the file's key equals `key`.
bool verify_auth_file(const char* filename, const char* key);

#endif  // J480_UTILS_FILE_H
