// stream: the generic operations and the file implementation.
#include "utils/stream.h"

#include <sys/stat.h>

#include <climits>
#include <cstdlib>
#include <cstring>

#include "utils/file.h"
#include "utils/str_funcs.h"

namespace {

constexpr size_t kBinaryBufferSize = 1 << 20;

void file_close(stream* s) {
  FILE* f = s->handle;
  if (f == nullptr) return;
  if (f == stdin || f == stdout || f == stderr) {
    if (s->access == ST_WRITE) px_fflush(f);
  } else if (s->name != nullptr && s->name[0] == '|') {
    px_pclose(f);
  } else if (px_fclose(f) != 0 && s->access == ST_WRITE) {
    // Whatever was still buffered is lost.
    s->errnr = STREAM_WRITE_ERROR;
  }
  s->handle = nullptr;
}

char* file_error(stream* s) {
  char buf[512];
  switch (s->errnr) {
    case STREAM_OPEN_ERROR:
      str_printf(buf, sizeof buf, "Error could not open file %s\n", s->name);
      break;
    case STREAM_READ_ERROR:
      str_printf(buf, sizeof buf, "Error reading file %s\n", s->name);
      break;
    case STREAM_WRITE_ERROR:
      str_printf(buf, sizeof buf, "Error writing file %s\n", s->name);
      break;
    default:
      str_printf(buf, sizeof buf, "Unknown error\n");
      break;
  }
  return str_dup(buf);
}

void file_destroy(stream* s) {
  free(s->name);
  // A handle still open keeps using its buffer; it stays with the handle.
  if (s->handle == nullptr) free(s->iobuf);
  free(s);
}

int file_flush(stream* s) {
  if (s->access != ST_WRITE || s->handle == nullptr) return 0;
  if (px_fflush(s->handle) != 0) {
    s->errnr = STREAM_WRITE_ERROR;
    return 1;
  }
  return 0;
}

int file_fsync(stream* s) {
  if (s->access != ST_WRITE || s->handle == nullptr) return 0;
  // The handle's buffer goes first, or the commit would miss it.
  if (px_fflush(s->handle) != 0 || px_fsync(fileno(s->handle)) != 0) {
    s->errnr = STREAM_WRITE_ERROR;
    return 1;
  }
  return 0;
}

int file_getpos(stream* s, int64_t* position) {
  if (s->handle == nullptr) return -1;
  off_t pos = px_ftello(s->handle);
  if (pos < 0) return -1;
  *position = static_cast<int64_t>(pos);
  return 0;
}

int file_setpos(stream* s, int64_t position) {
  if (s->handle == nullptr) return -1;
  return px_fseeko(s->handle, static_cast<off_t>(position), SEEK_SET) == 0 ? 0 : -1;
}

// A record with the file operations; the file is opened by the caller.
stream* new_file_stream(const char* name, int16_t access, int16_t type) {
  stream* s = static_cast<stream*>(calloc(1, sizeof(stream)));
  if (s == nullptr) return nullptr;
  s->name = str_dup(name ? name : "");
  if (s->name == nullptr) {
    free(s);
    return nullptr;
  }
  s->byteorder = STREAM_BYTEORDER;
  s->access = access;
  s->type = type;
  s->read = stream_file_read;
  s->write = stream_file_write;
  s->close = file_close;
  s->error = file_error;
  s->destroy = file_destroy;
  s->flush = file_flush;
  s->fsync = file_fsync;
  s->getpos = file_getpos;
  s->setpos = file_setpos;
  return s;
}

// Opens the handle; a failure leaves errnr 1. Binary handles get a large buffer.
bool open_handle(stream* s, const char* mode) {
  s->handle = s->name[0] != '\0' ? px_fopen(s->name, mode) : nullptr;
  if (s->handle == nullptr) {
    s->errnr = STREAM_OPEN_ERROR;
    return false;
  }
  if (s->type == 1) {
    s->iobuf = static_cast<char*>(malloc(kBinaryBufferSize));
    if (s->iobuf != nullptr) px_setvbuf(s->handle, s->iobuf, _IOFBF, kBinaryBufferSize);
  }
  return true;
}

stream* open_stream(const char* name, const char* mode, int16_t access, int16_t type) {
  stream* s = new_file_stream(name, access, type);
  if (s != nullptr) open_handle(s, mode);
  return s;
}

}  // namespace

int64_t stream_file_read(stream* s, void* buffer, size_t item_size, size_t count) {
  return stream_detail::file_read(s, buffer, item_size, count);
}

int64_t stream_file_write(stream* s, const void* buffer, size_t item_size, size_t count) {
  return stream_detail::file_write(s, buffer, item_size, count);
}

stream* open_binary_read_stream(const char* name) {
  stream* s = new_file_stream(name, ST_READ, 1);
  if (s == nullptr || !open_handle(s, "rb")) return s;
  if (stream_detail::file_read(s, &s->byteorder, sizeof s->byteorder, 1) != 1) {
    file_close(s);
    s->errnr = STREAM_OPEN_ERROR;
  }
  return s;
}

stream* open_binary_write_stream(const char* name, const char* mode) {
  stream* s = new_file_stream(name, ST_WRITE, 1);
  if (s == nullptr || !open_handle(s, mode)) return s;
  // Appending to a file with content keeps the mark already there. A size that can't be read
  // leaves that undecided: a mark behind content would corrupt the file, so the open fails.
  if (mode[0] == 'a') {
    int64_t size = file_size(s->name);
    if (size < 0) s->errnr = STREAM_OPEN_ERROR;
    if (size != 0) return s;
  }
  if (stream_detail::file_write(s, &s->byteorder, sizeof s->byteorder, 1) != 1) {
    s->errnr = STREAM_OPEN_ERROR;
  }
  return s;
}

stream* open_binary_update_stream(const char* name) {
  return open_binary_write_stream(name, "r+b");
}

stream* open_binary_append_stream(const char* name) { return open_binary_write_stream(name, "ab"); }

stream* open_text_read_stream(const char* name) { return open_stream(name, "r", ST_READ, 0); }

stream* open_text_write_stream(const char* name) { return open_stream(name, "w", ST_WRITE, 0); }

stream* open_text_append_stream(const char* name) { return open_stream(name, "a", ST_WRITE, 0); }

void stream_close(stream* s) {
  if (s != nullptr) s->close(s);
}

void stream_destroy(stream* s) {
  if (s != nullptr) s->destroy(s);
}

void stream_close_destroy(stream* s) {
  J480_ASSERT("STREAM", s);
  s->close(s);
  s->destroy(s);
}

int stream_flush(stream* s) {
  if (s == nullptr) return -1;
  J480_ASSERT("STREAM", s->access == ST_WRITE);
  if (s->errnr != STREAM_NOERR) return s->errnr;
  return s->flush ? s->flush(s) : 0;
}

int stream_fsync(stream* s) {
  if (s == nullptr) return -1;
  J480_ASSERT("STREAM", s->access == ST_WRITE);
  if (s->errnr != STREAM_NOERR) return s->errnr;
  return s->fsync ? s->fsync(s) : 0;
}

int stream_getpos(stream* s, int64_t* position) {
  if (s == nullptr) return -1;
  if (s->errnr != STREAM_NOERR) return s->errnr;
  return s->getpos ? s->getpos(s, position) : 0;
}

int stream_setpos(stream* s, int64_t position) {
  if (s == nullptr) return -1;
  if (s->errnr != STREAM_NOERR) return s->errnr;
  return s->setpos ? s->setpos(s, position) : 0;
}

const char* stream_name(const stream* s) { return s ? s->name : "connection terminated"; }

int32_t stream_error(const stream* s) { return s ? s->errnr : STREAM_READ_ERROR; }

void stream_clear_error(stream* s) {
  if (s != nullptr) s->errnr = STREAM_NOERR;
}

char* stream_error_text(stream* s) {
  if (s == nullptr || s->error == nullptr) return str_dup("Unknown error\n");
  return s->error(s);
}

int64_t stream_remaining(stream* s, int64_t* size) {
  if (*size == STREAM_SIZE_UNASKED) {
    *size = -1;
    struct stat st;
    if (s->read == stream_file_read && s->handle != nullptr &&
        px_fstat(fileno_unlocked(s->handle), &st) == 0 && S_ISREG(st.st_mode))
      *size = st.st_size;
  }
  if (*size < 0) return INT64_MAX;
  off_t pos = px_ftello(s->handle);
  if (pos < 0 || pos >= *size) return 0;
  return *size - pos;
}
