// j480_error: error records, a code from the table of 184 messages with string parameters.
//
// Records and their parameter copies are allocated in the caller's memory context and die with
// it. error_to_string returns a message in that context, or a constant when memory is short.
#ifndef J480_UTILS_J480_ERROR_H
#define J480_UTILS_J480_ERROR_H

#include <cstdint>

struct MemContext;

#define J480_OK 0
#define J480_ERROR 1
#define J480_ERROR_OUT_OF_MEMORY 2
#define J480_NUM_ERRORS 184

struct j480_error {
  int32_t code;
  int32_t num_err_params;
  char** err_params;
  j480_error* next;
};

// The message template of a code, or null outside the table.
const char* error_template(int32_t code);

j480_error* error_create(MemContext* mem, int32_t code, int32_t num_params);
void error_set_param(j480_error* error, MemContext* mem, int32_t num, const char* value);
// Bytes the formatted message needs, terminator included (an upper bound).
int64_t error_message_size(const j480_error* err);
// Writes the message with its parameters into `out`, which holds error_message_size bytes.
int error_format(const j480_error* err, char* out);
const char* error_to_string(MemContext* mem, const j480_error* error);

#endif  // J480_UTILS_J480_ERROR_H
