// str_funcs: the small text helpers every module uses, and the growing string buffer `sb`.
//
// str_dup and the sb_* buffer allocate from the process heap; the caller owns what they return
// (free() for str_dup, sb_destroy for a buffer). No function here logs.
#ifndef J480_UTILS_STR_FUNCS_H
#define J480_UTILS_STR_FUNCS_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>

// 1 for null or empty, otherwise 0.
int str_empty(const char* text);
size_t str_len(const char* text);
// Heap copy, or null for a null text or a failed allocation.
char* str_dup(const char* text);
// Formats into `size` bytes: the number of characters, or -1 where they don't fit. The buffer is
// terminated in every case (for a size above 0).
int str_printf(char* buffer, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
int str_vprintf(char* buffer, size_t size, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));

// Growing text buffer; `data` is always terminated.
struct sb {
  char* data;
  int64_t length;
  int64_t capacity;
};

sb* sb_create(int64_t capacity);
void sb_reset(sb* b);
void sb_append(sb* b, const char* format, ...) __attribute__((format(printf, 2, 3)));
void sb_destroy(sb* b);

#endif  // J480_UTILS_STR_FUNCS_H
