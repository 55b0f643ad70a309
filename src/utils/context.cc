// context: error reporting into an execution context.
#include "utils/context.h"

#include "utils/cvlog.h"
#include "utils/mem.h"

void add_error(exec_context* context, const char* module, int32_t code, int32_t num_params,
               const char* const* params) {
  if (context == nullptr || context->ignore_errors) return;
  std::lock_guard<std::mutex> guard(context->lock);

  // A leading J480_OK record is taken off, and reused if no new record can be made.
  j480_error* ok = nullptr;
  if (context->errors != nullptr && context->errors->code == J480_OK) {
    ok = context->errors;
    context->errors = ok->next;
    ok->next = nullptr;
  }
  j480_error* error = error_create(context->mem, code, num_params);
  if (error == nullptr) {
    CV_DEBUG("ERROR", "add_error: failed to allocate memory");
    if (ok == nullptr) return;
    CV_DEBUG("ERROR", "add_error: reusing existing J480_OK");
    ok->code = code;
    if (num_params > 0) CV_DEBUG("ERROR", "add_error: not adding parameters");
    ok->num_err_params = 0;
    error = ok;
  } else {
    for (int32_t i = 0; i < num_params; i++) error_set_param(error, context->mem, i, params[i]);
  }
  j480_error** tail = &context->errors;
  while (*tail != nullptr) tail = &(*tail)->next;
  *tail = error;
  if (cv_log_enabled(module, CV_LOG_DEBUG))
    CV_DEBUG(module, "%s", error_to_string(context->mem, error));
}
