// context: the part of an execution context that error reporting needs.
//
// An execution context carries a memory context for its errors, a lock, a flag to ignore errors
// and the list of errors reported so far. add_error appends a record built from the table of
// messages; the records live in the context's memory.
#ifndef J480_UTILS_CONTEXT_H
#define J480_UTILS_CONTEXT_H

#include <cstdint>
#include <mutex>

#include "utils/j480_error.h"

struct MemContext;

struct exec_context {
  MemContext* mem;
  std::mutex lock;
  int32_t ignore_errors;
  j480_error* errors;  // oldest first
};

void add_error(exec_context* context, const char* module, int32_t code, int32_t num_params,
               const char* const* params);

#endif  // J480_UTILS_CONTEXT_H
