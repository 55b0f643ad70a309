// cvlog: the system's one way of reporting, and its assertion path.
//
// Every message goes through __cv_log with its source file, line, facility and level. Started at
// the first call from CVLOG, CVLOG_CONFIGFILE, CVLOG_DIRECTORY or USERPROFILE (HOME), the logger
// owns its facility table, its three sinks (stdout, stderr, file) and the log file, never closed.
// Logging never fails its caller; the assertion functions log their lines and abort.
#ifndef J480_UTILS_CVLOG_H
#define J480_UTILS_CVLOG_H

#include <cstdarg>
#include <cstdint>
#include <cstdio>

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

// The tables the configuration fills, fixed after start-up. Read-only views for tests.
struct cv_log_facility {
  char name[16];   // zero-filled, at most 15 characters; empty for the default entry
  int32_t level;   // messages with a level above it are dropped
  int32_t color;   // colour number 0..16, 16 writes nothing
  int32_t sinks;   // CV_SINK_* bits
};
constexpr int32_t CV_LOG_MAX_FACILITIES = 127;  // named entries after the default one

// Sink indexes, in the order lines go out.
enum : int32_t { CV_SINK_INDEX_STDOUT = 0, CV_SINK_INDEX_STDERR = 1, CV_SINK_INDEX_FILE = 2 };
struct cv_log_sink {
  FILE* stream;       // null for a file sink with no file
  int32_t timestamp;  // 0 none, 1 seconds since the epoch, 2 local calendar time
  int32_t color;
  int32_t fileline;
  int32_t showlevel;
  int32_t comment;
  int32_t pid;
  int32_t tid;
  int32_t txid;
  int32_t flush;
  int32_t usec;
};

// The printed name of a level (5 characters), or null outside ERROR..TRACE.
const char* cv_log_level_name(int level);
// The entry that serves `module` (entry 0 for null or an unknown name). Starts the logger.
const cv_log_facility* cv_log_find_facility(const char* module);
// Named entries in configuration order; index 0 is the default entry, 1..count the named ones.
int32_t cv_log_facility_count();
const cv_log_facility* cv_log_facility_at(int32_t index);
const cv_log_sink* cv_log_sink_at(int32_t index);
// The log file's name after the configuration rules, or null when there is none.
const char* cv_log_file_name();

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
