// str_funcs: text helpers and the string buffer.
#include "utils/str_funcs.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "utils/cvlog.h"

int str_empty(const char* text) { return text == nullptr || text[0] == '\0' ? 1 : 0; }

size_t str_len(const char* text) { return strlen(text); }

char* str_dup(const char* text) {
  if (text == nullptr) return nullptr;
  size_t n = strlen(text) + 1;
  char* copy = static_cast<char*>(malloc(n));
  if (copy != nullptr) memcpy(copy, text, n);
  return copy;
}

int str_vprintf(char* buffer, size_t size, const char* format, va_list args) {
  if (size == 0) return -1;
  int n = vsnprintf(buffer, size, format, args);
  buffer[size - 1] = '\0';
  if (n < 0 || static_cast<size_t>(n) >= size) return -1;
  return n;
}

int str_printf(char* buffer, size_t size, const char* format, ...) {
  va_list args;
  va_start(args, format);
  int n = str_vprintf(buffer, size, format, args);
  va_end(args);
  return n;
}

sb* sb_create(int64_t capacity) {
  if (capacity <= 0) capacity = 64;
  // The variable carries the type's name: the assertion texts are "sb" and "sb->data".
  struct sb* sb = static_cast<struct sb*>(malloc(sizeof(struct sb)));
  J480_ASSERT(nullptr, sb);
  sb->data = static_cast<char*>(malloc(static_cast<size_t>(capacity)));
  J480_ASSERT(nullptr, sb->data);
  sb->data[0] = '\0';
  sb->length = 0;
  sb->capacity = capacity;
  return sb;
}

void sb_reset(sb* b) {
  b->length = 0;
  b->data[0] = '\0';
}

void sb_append(sb* b, const char* format, ...) {
  for (;;) {
    int64_t room = b->capacity - b->length;
    va_list args;
    va_start(args, format);
    int n = vsnprintf(b->data + b->length, static_cast<size_t>(room), format, args);
    va_end(args);
    if (n >= 0 && n < room) {
      b->length += n;
      return;
    }
    // A failed format (n < 0) still grows, by doubling, and tries again.
    int64_t want = b->length + (n < 0 ? 0 : n) + 1;
    int64_t capacity = want > 2 * b->capacity ? want : 2 * b->capacity;
    char* new_data = static_cast<char*>(malloc(static_cast<size_t>(capacity)));
    J480_ASSERT(nullptr, new_data);
    memcpy(new_data, b->data, static_cast<size_t>(b->length));
    new_data[b->length] = '\0';
    free(b->data);
    b->data = new_data;
    b->capacity = capacity;
  }
}

void sb_destroy(sb* b) {
  if (b == nullptr) return;
  free(b->data);
  free(b);
}
