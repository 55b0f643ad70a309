// stream: byte streams over a runtime file handle, with a sticky error number, a byte-order
// mark at the head of binary files and typed integer reads and writes.
//
// A stream is a record with a table of operations; the openers here fill it with the file
// implementation. The caller owns the stream and releases it with stream_close and
// stream_destroy (stream_close_destroy does both). No buffering beyond that of the handle:
// binary streams give their handle a 1 MiB buffer. One thread at a time per stream.
//
// Binary file layout:
//   offset 0, 2 bytes: the mark, the 16-bit value 1234 in the writer's byte order
//   offset 2 ...     : the user's bytes; integers in the writer's order, swapped on typed reads
#ifndef J480_UTILS_STREAM_H
#define J480_UTILS_STREAM_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "utils/cvlog.h"
#include "utils/posix.h"

enum : int16_t {
  ST_READ = 0,
  ST_WRITE = 1,
};

// The mark: 1234 as the writer's machine reads it.
constexpr int16_t STREAM_BYTEORDER = 1234;

// errnr values.
enum : int32_t {
  STREAM_NOERR = 0,
  STREAM_OPEN_ERROR = 1,
  STREAM_READ_ERROR = 2,
  STREAM_WRITE_ERROR = 3,
};

struct stream {
  int16_t byteorder;  // STREAM_BYTEORDER, or the mark found by a binary read stream
  int16_t access;     // ST_READ or ST_WRITE
  int16_t type;       // 1 binary (with a mark), 0 text
  char* name;         // heap copy, owned
  FILE* handle;       // null once closed or when the open failed
  int32_t errnr;      // sticky: 0 none, 1 open, 2 read, 3 write

  // Operations. An empty flush, fsync, getpos or setpos counts as success.
  int64_t (*read)(stream* s, void* buffer, size_t item_size, size_t count);
  void* unused;
  int64_t (*write)(stream* s, const void* buffer, size_t item_size, size_t count);
  void (*close)(stream* s);
  char* (*error)(stream* s);  // heap text, free() by the caller
  void (*destroy)(stream* s);
  int (*flush)(stream* s);
  int (*fsync)(stream* s);
  int (*getpos)(stream* s, int64_t* position);
  int (*setpos)(stream* s, int64_t position);

  char* iobuf;  // the handle's buffer for binary streams, owned
};

// The file implementation of `read` and `write`, exposed so that the typed calls can take them
// without an indirect call.
int64_t stream_file_read(stream* s, void* buffer, size_t item_size, size_t count);
int64_t stream_file_write(stream* s, const void* buffer, size_t item_size, size_t count);

// Openers: a stream object, or null when the object can't be allocated. A file that can't be
// opened gives an object with errnr 1.
stream* open_binary_read_stream(const char* name);
stream* open_binary_write_stream(const char* name, const char* mode);
stream* open_binary_update_stream(const char* name);
stream* open_binary_append_stream(const char* name);
stream* open_text_read_stream(const char* name);
stream* open_text_write_stream(const char* name);
stream* open_text_append_stream(const char* name);

void stream_close(stream* s);
void stream_destroy(stream* s);
void stream_close_destroy(stream* s);
int stream_flush(stream* s);
int stream_fsync(stream* s);
int stream_getpos(stream* s, int64_t* position);
int stream_setpos(stream* s, int64_t position);
const char* stream_name(const stream* s);
int32_t stream_error(const stream* s);
void stream_clear_error(stream* s);
// The text for the stream's errnr: a heap copy owned by the caller (free()).
char* stream_error_text(stream* s);

// ---- inline paths: the record readers call these per field ----

namespace stream_detail {
// The file read: 0 at end of file without touching errnr; a short read that isn't the end of
// the file is a read error.
inline int64_t file_read(stream* s, void* buffer, size_t item_size, size_t count) {
  if (item_size == 0 || count == 0) return static_cast<int64_t>(count);
  FILE* f = s->handle;
  size_t bytes;
  // A byte count that wraps would make the runtime read a few bytes and report every item read.
  if (__builtin_expect(f == nullptr || __builtin_mul_overflow(item_size, count, &bytes) ||
                           bytes > static_cast<size_t>(INT64_MAX), 0)) {
    s->errnr = STREAM_READ_ERROR;
    return 0;
  }
  if (feof_unlocked(f)) return 0;
  size_t n = px_fread(buffer, item_size, count, f);
  if (__builtin_expect(n < count, 0) && (ferror_unlocked(f) || !feof_unlocked(f))) {
    s->errnr = STREAM_READ_ERROR;
  }
  return static_cast<int64_t>(n);
}
inline int64_t file_write(stream* s, const void* buffer, size_t item_size, size_t count) {
  if (item_size == 0 || count == 0) return static_cast<int64_t>(count);
  FILE* f = s->handle;
  size_t bytes;
  bool fits = !__builtin_mul_overflow(item_size, count, &bytes) &&
              bytes <= static_cast<size_t>(INT64_MAX);
  size_t n = f && fits ? px_fwrite(buffer, item_size, count, f) : 0;
  if (__builtin_expect(n < count, 0)) s->errnr = STREAM_WRITE_ERROR;
  return static_cast<int64_t>(n);
}
inline int64_t do_read(stream* s, void* buffer, size_t item_size, size_t count) {
  if (__builtin_expect(s->read == stream_file_read, 1)) {
    return file_read(s, buffer, item_size, count);
  }
  return s->read(s, buffer, item_size, count);
}
inline int64_t do_write(stream* s, const void* buffer, size_t item_size, size_t count) {
  if (__builtin_expect(s->write == stream_file_write, 1)) {
    return file_write(s, buffer, item_size, count);
  }
  return s->write(s, buffer, item_size, count);
}
}  // namespace stream_detail

// Reads `count` items: the number read, or errnr at once where it is set. Never swaps.
inline int64_t stream_read(stream* s, void* buffer, size_t item_size, size_t count) {
  J480_ASSERT("STREAM", s);
  J480_ASSERT("STREAM", s->access == ST_READ);
  if (s->errnr != STREAM_NOERR) return s->errnr;
  return stream_detail::do_read(s, buffer, item_size, count);
}

inline int64_t stream_write(stream* s, const void* buffer, size_t item_size, size_t count) {
  J480_ASSERT("STREAM", s);
  J480_ASSERT("STREAM", s->access == ST_WRITE);
  if (s->errnr != STREAM_NOERR) return s->errnr;
  return stream_detail::do_write(s, buffer, item_size, count);
}

// A reader's bound on lengths read from a file: the bytes left behind the position of a read
// stream on a regular file, INT64_MAX for any other stream. `size` caches the file's size between
// calls; start it at STREAM_SIZE_UNASKED.
constexpr int64_t STREAM_SIZE_UNASKED = -2;
int64_t stream_remaining(stream* s, int64_t* size);

// True where a read stream's file has ended without a read error: a failed read there is the end
// of the data, anywhere else it is an error. Streams without a file handle never end this way.
inline bool stream_at_end(const stream* s) {
  return s != nullptr && s->handle != nullptr && feof_unlocked(s->handle) &&
         !ferror_unlocked(s->handle);
}

// Typed reads go to the read operation even with errnr set; nothing read sets errnr to 2.
// A null stream reads nothing.
inline int stream_read_int(stream* s, int32_t* value) {
  int32_t v;
  if (__builtin_expect(s == nullptr, 0)) return 0;
  if (stream_detail::do_read(s, &v, sizeof v, 1) != 1) {
    s->errnr = STREAM_READ_ERROR;
    return 0;
  }
  if (s->byteorder != STREAM_BYTEORDER) v = static_cast<int32_t>(__builtin_bswap32(v));
  *value = v;
  return 1;
}

inline int stream_read_lng(stream* s, int64_t* value) {
  int64_t v;
  if (__builtin_expect(s == nullptr, 0)) return 0;
  if (stream_detail::do_read(s, &v, sizeof v, 1) != 1) {
    s->errnr = STREAM_READ_ERROR;
    return 0;
  }
  if (s->byteorder != STREAM_BYTEORDER) v = static_cast<int64_t>(__builtin_bswap64(v));
  *value = v;
  return 1;
}

namespace stream_detail {
// A typed write straight into the handle's buffer where it has room, as the C library's own
// putc_unlocked does (glibc's buffer pointers); otherwise, and while the seam is armed so that
// faults still see every write, the runtime's write. A write error surfaces at the flush.
template <typename T>
inline int put(stream* s, T value) {
  FILE* f = s->handle;
  if (__builtin_expect(s->write == stream_file_write && f != nullptr && g_px_faults.armed == 0 &&
                           f->_IO_write_ptr != nullptr &&
                           f->_IO_write_end - f->_IO_write_ptr >= static_cast<ptrdiff_t>(sizeof value),
                       1)) {
    __builtin_memcpy(f->_IO_write_ptr, &value, sizeof value);
    f->_IO_write_ptr += sizeof value;
    return 1;
  }
  return do_write(s, &value, sizeof value, 1) == 1;
}
}  // namespace stream_detail

// Integers are written in the machine's order; false for a null stream or with errnr set.
inline int stream_write_int(stream* s, int32_t value) {
  if (s == nullptr || s->errnr != STREAM_NOERR) return 0;
  return stream_detail::put(s, value);
}

inline int stream_write_lng(stream* s, int64_t value) {
  if (s == nullptr || s->errnr != STREAM_NOERR) return 0;
  return stream_detail::put(s, value);
}

#endif  // J480_UTILS_STREAM_H
