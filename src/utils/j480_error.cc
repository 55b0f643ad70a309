// j480_error: error records and the table of messages.
#include "utils/j480_error.h"

#include <cstring>

#include "utils/cvlog.h"
#include "utils/mem.h"

#define ERROR_MODULE "ERROR"

namespace {
const char* const error_messages[J480_NUM_ERRORS] = {
#include "utils/j480_error_table.inc"
};
}  // namespace

const char* error_template(int32_t code) {
  return code >= 0 && code < J480_NUM_ERRORS ? error_messages[code] : nullptr;
}

j480_error* error_create(MemContext* mem, int32_t code, int32_t num_params) {
  J480_ASSERT(ERROR_MODULE, mem);
  j480_error* error =
      static_cast<j480_error*>(mem_callocex(mem, sizeof(j480_error), J480_MEM_ALLOWFAILURE));
  if (error == nullptr) return nullptr;
  if (num_params > 0) {
    error->err_params = static_cast<char**>(mem_callocex(
        mem, sizeof(char*) * static_cast<uint64_t>(num_params), J480_MEM_ALLOWFAILURE));
    if (error->err_params == nullptr) {
      mem_free(mem, error);
      return nullptr;
    }
  }
  error->code = code;
  error->num_err_params = num_params > 0 ? num_params : 0;
  return error;
}

void error_set_param(j480_error* error, MemContext* mem, int32_t num, const char* value) {
  J480_ASSERT(ERROR_MODULE, error);
  J480_ASSERT(ERROR_MODULE, mem);
  J480_ASSERT(ERROR_MODULE, num < error->num_err_params);
  J480_ASSERT(ERROR_MODULE, num >= 0);  // no slot before the first
  error->err_params[num] = value ? mem_strdup_flags(mem, value, J480_MEM_ALLOWFAILURE) : nullptr;
}

int64_t error_message_size(const j480_error* err) {
  J480_ASSERT(ERROR_MODULE, err);
  const char* templ = error_template(err->code);
  int64_t size = static_cast<int64_t>(templ ? strlen(templ) : 0) + 1;
  for (int32_t i = 0; i < err->num_err_params; i++)
    if (err->err_params[i]) size += static_cast<int64_t>(strlen(err->err_params[i]));
  return size;
}

int error_format(const j480_error* err, char* out) {
  J480_ASSERT(ERROR_MODULE, err);
  const char* p = error_template(err->code);
  if (p == nullptr) p = "";
  while (*p) {
    if (p[0] == '%' && p[1] == '%') {
      *out++ = '%';
      p += 2;
    } else if (p[0] == '%' && p[1] >= '0' && p[1] <= '9') {
      int num = p[1] - '0';
      if (num < err->num_err_params && err->err_params[num]) {
        size_t n = strlen(err->err_params[num]);
        memcpy(out, err->err_params[num], n);
        out += n;
      }
      p += 2;
    } else {
      *out++ = *p++;
    }
  }
  *out = '\0';
  return 1;
}

const char* error_to_string(MemContext* mem, const j480_error* error) {
  char* out = static_cast<char*>(
      mem_mallocex(mem, static_cast<uint64_t>(error_message_size(error)), J480_MEM_ALLOWFAILURE));
  if (out == nullptr) return "Memory allocation for logging failed while trying to report an error";
  error_format(error, out);
  return out;
}
