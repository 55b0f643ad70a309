// cvlog: the system's one way of reporting, and its assertion path.
//
// Every message goes through __cv_log with its source file, line, facility and level. The
// logger reads its configuration once, at the first call (CVLOG, CVLOG_CONFIGFILE,
// CVLOG_DIRECTORY, USERPROFILE or HOME), decides per facility what passes and to which of three
// sinks (stdout, stderr, file) it goes, and decorates each line per sink. Logging never fails its
// caller. The assertion functions log their lines and abort; they never return.
#ifndef J480_UTILS_CVLOG_H
#define J480_UTILS_CVLOG_H

#include <cstdarg>
#include <cstdint>

// Levels: lower is more severe.
enum cv_log_level : int32_t {
  CV_LOG_ERROR = 0,
  CV_LOG_WARN = 1,
  CV_LOG_INFO = 2,
  CV_LOG_DEBUG = 3,
  CV_LOG_TRACE = 4,
};

// Sink bits of a facility.
enum : int32_t {
  CV_SINK_STDOUT = 1,
  CV_SINK_STDERR = 2,
  CV_SINK_FILE = 4,
};

// Size of a message buffer: 65,536 bytes of text and a terminator.
constexpr int32_t CV_LOG_BUFFER_SIZE = 65537;

// One message built in several pieces (cv_log_begin, cv_log_append, cv_log_end).
struct cv_log_line {
  int32_t level;
  const char* module;  // facility name, may be null
  const char* file;
  int32_t line;
  char* buffer;  // null when the message is dropped by the level filter
  int32_t length;
};

void __cv_log(const char* file, int line, const char* module, int level, const char* format, ...)
    __attribute__((format(printf, 5, 6)));
void cv_vlog(const char* file, int line, const char* module, int level, const char* format,
             va_list args) __attribute__((format(printf, 5, 0)));

void cv_log_begin(const char* file, int line, cv_log_line* rec, const char* module, int level);
void cv_log_append(cv_log_line* rec, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
void cv_log_end(cv_log_line* rec);

// True where `level` passes the filter of the facility `module`.
bool cv_log_enabled(const char* module, int level);

// The configuration text the logger starts from; a heap copy owned by the caller (free()).
char* logger_get_config();

// Transaction ids per thread, for the txid decoration.
void cv_log_thread_create(uint64_t thread_id);
void cv_log_thread_destroy(uint64_t thread_id);
void cv_log_thread_set_txid(uint64_t thread_id, int64_t txid);
int64_t cv_log_thread_get_txid(uint64_t thread_id);

// The calling thread's id as the logger prints it.
uint64_t cv_log_current_thread_id();

// Called on the way to abort. Does nothing.
void _cv_backtrace(const char* file, int line, const char* module);

// Assertion failure: logs "assertion \"<expr>\" failed" and the version line, then aborts.
[[noreturn]] void cv_assert_fail(const char* file, int line, const char* module,
                                 const char* expr);
// Assertion failure with a message: "ASSERTION FAILED", "CODE: <expr>", "MESG: <message>",
// the version line, then abort.
[[noreturn]] void cv_assert_fail_msg(const char* file, int line, const char* module,
                                     const char* expr, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

// Test hook: forgets the started logger (closing its file) so that the next call starts it
// again from the environment. Not for use outside tests.
void cv_log_reset_for_tests();

#define CV_LOG(module, level, ...) __cv_log(__FILE__, __LINE__, (module), (level), __VA_ARGS__)
#define CV_ERROR(module, ...) CV_LOG(module, CV_LOG_ERROR, __VA_ARGS__)
#define CV_WARN(module, ...) CV_LOG(module, CV_LOG_WARN, __VA_ARGS__)
#define CV_INFO(module, ...) CV_LOG(module, CV_LOG_INFO, __VA_ARGS__)
#define CV_DEBUG(module, ...) CV_LOG(module, CV_LOG_DEBUG, __VA_ARGS__)
#define CV_TRACE(module, ...) CV_LOG(module, CV_LOG_TRACE, __VA_ARGS__)

// The system's assertions. Always compiled in: a failed one is a defined end of the process.
#define J480_ASSERT(module, expr)                                               \
  do {                                                                          \
    if (__builtin_expect(!(expr), 0)) cv_assert_fail(__FILE__, __LINE__, (module), #expr); \
  } while (0)
#define J480_ASSERT_MSG(module, expr, ...)                                              \
  do {                                                                                  \
    if (__builtin_expect(!(expr), 0))                                                   \
      cv_assert_fail_msg(__FILE__, __LINE__, (module), #expr, __VA_ARGS__);             \
  } while (0)
// The logical implication used by assertion texts: IMPLIES(a, b).
#define IMPLIES(a, b) (!(a) || (b))

#endif  // J480_UTILS_CVLOG_H
