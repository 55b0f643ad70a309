// cvlog: configuration language, facility and sink tables, line decoration and output.
#include "utils/cvlog.h"

#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "utils/file.h"
#include "utils/posix.h"
#include "utils/str_funcs.h"
#include "utils/version.h"

namespace {

constexpr int32_t kPrefixSize = 256;
constexpr int32_t kDefaultColor = 16;

const char* const kLevelNames[] = {"ERROR", " WARN", " INFO", "DEBUG", "TRACE"};
const char* const kLevelWords[] = {"error", "warn", "info", "debug", "trace"};
const int32_t kLevelColors[] = {9, 11, kDefaultColor, kDefaultColor, kDefaultColor};
const char* const kColorWords[] = {
    "black",     "red",         "green",  "brown",      "blue",          "magenta",
    "cyan",      "lightgray",   "gray",   "brightred",  "brightgreen",   "yellow",
    "brightblue", "brightmagenta", "brightcyan", "white", "defaultcolor"};
const char* const kSinkWords[] = {"stdout", "stderr", "file"};
constexpr int32_t kSinkCount = 3;

// Everything the configuration decides. Written only by start-up (and the test reset), read
// without a lock afterwards.
cv_log_facility g_facilities[CV_LOG_MAX_FACILITIES + 1];
int32_t g_facility_count;  // named entries
cv_log_sink g_sinks[kSinkCount];
std::string g_file_name;
FILE* g_file;

std::atomic<bool> g_started{false};
std::mutex g_start_lock;
std::mutex g_out_lock;
std::mutex g_tx_lock;
std::unordered_map<uint64_t, int64_t>* g_tx_table;

void set_defaults() {
  memset(g_facilities, 0, sizeof g_facilities);
  g_facilities[0].level = CV_LOG_INFO;
  g_facilities[0].color = kDefaultColor;
  g_facilities[0].sinks = CV_SINK_STDERR;
  g_facility_count = 0;
  memset(g_sinks, 0, sizeof g_sinks);
  g_sinks[CV_SINK_INDEX_STDOUT].color = 1;
  g_sinks[CV_SINK_INDEX_STDOUT].comment = 1;
  g_sinks[CV_SINK_INDEX_STDERR].comment = 1;
  g_sinks[CV_SINK_INDEX_FILE].timestamp = 2;
  g_sinks[CV_SINK_INDEX_FILE].showlevel = 1;
  g_sinks[CV_SINK_INDEX_FILE].pid = 1;
  g_file_name.clear();
}

int find_word(std::string_view word, const char* const* table, int n) {
  for (int i = 0; i < n; i++)
    if (word == table[i]) return i;
  return -1;
}

const cv_log_facility* lookup(const char* module) {
  if (module == nullptr) return &g_facilities[0];
  for (int32_t i = 1; i <= g_facility_count; i++)
    if (strncmp(g_facilities[i].name, module, sizeof g_facilities[i].name) == 0)
      return &g_facilities[i];
  return &g_facilities[0];
}

// ---- Configuration text ----

// The content of `path` where it opens, seeks, is not empty and reads without error; else null.
char* read_config_file(const char* path) {
  FILE* f = px_fopen(path, "r");
  if (f == nullptr) return nullptr;
  char* text = nullptr;
  off_t size = -1;
  if (px_fseeko(f, 0, SEEK_END) == 0) size = px_ftello(f);
  if (size > 0 && size < INT32_MAX && px_fseeko(f, 0, SEEK_SET) == 0) {
    text = static_cast<char*>(calloc(static_cast<size_t>(size) + 1, 1));
    if (text != nullptr) {
      size_t got = px_fread(text, 1, static_cast<size_t>(size), f);
      if (got != static_cast<size_t>(size) || ferror(f)) {
        free(text);
        text = nullptr;
      }
    }
  }
  px_fclose(f);
  if (text == nullptr) return nullptr;
  // A text-mode read: a carriage return before a line feed is not part of the text.
  char* out = text;
  for (const char* in = text; *in != '\0'; in++)
    if (!(in[0] == '\r' && in[1] == '\n')) *out++ = *in;
  *out = '\0';
  return text;
}

const char* env(const char* name) { return getenv(name); }

const char* user_profile() {
  const char* p = env("USERPROFILE");
  return p != nullptr ? p : env("HOME");
}

void write_line(const cv_log_facility* fac, const cv_log_line* rec);

// Logs with the tables as they stand, without starting the logger (start-up's own warning).
void log_unstarted(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
void log_unstarted(int level, const char* format, ...) {
  const cv_log_facility* fac = lookup(nullptr);
  if (level > fac->level) return;
  char* buffer = static_cast<char*>(malloc(CV_LOG_BUFFER_SIZE));
  if (buffer == nullptr) return;
  va_list args;
  va_start(args, format);
  int n = str_vprintf(buffer, CV_LOG_BUFFER_SIZE, format, args);
  va_end(args);
  if (n < 0) n = 0;
  buffer[n] = '\0';
  cv_log_line rec = {level, nullptr, __FILE__, __LINE__, buffer, n};
  write_line(fac, &rec);
  free(buffer);
}

char* get_config_text(bool starting) {
  const char* cvlog = env("CVLOG");
  const char* config_file = env("CVLOG_CONFIGFILE");
  const char* directory = env("CVLOG_DIRECTORY");
  const char* profile = user_profile();
  if (cvlog != nullptr) return str_dup(cvlog);
  if (config_file != nullptr) {
    char* text = read_config_file(config_file);
    if (text != nullptr) return text;
  }
  const char* base = directory != nullptr ? directory : profile;
  const char* name = directory != nullptr ? "cvlog.conf" : ".cvlog";
  if (base != nullptr) {
    int size = static_cast<int>(strlen(base) + strlen(name) + 2);
    char* path = static_cast<char*>(malloc(static_cast<size_t>(size)));
    if (path == nullptr) {
      if (starting)
        log_unstarted(CV_LOG_WARN,
                      "logger_get_config: unable to allocate %d bytes  for config filename.",
                      size);
      else
        CV_WARN(nullptr, "logger_get_config: unable to allocate %d bytes  for config filename.",
                size);
    } else {
      str_printf(path, static_cast<size_t>(size), "%s%c%s", base, J480_PATH_SEP, name);
      char* text = read_config_file(path);
      free(path);
      if (text != nullptr) return text;
    }
  }
  return str_dup("");
}

// ---- Configuration language ----

enum token_kind { TOK_WORD, TOK_EQUAL, TOK_COLON, TOK_COMMA, TOK_HASH, TOK_NEWLINE, TOK_END };

struct lexer {
  const char* p;
  std::string_view word;  // of the last TOK_WORD

  token_kind next() {
    while (*p == ' ' || *p == '\t') p++;
    switch (*p) {
      case '\0': return TOK_END;
      case '=': p++; return TOK_EQUAL;
      case ':': p++; return TOK_COLON;
      case ',': p++; return TOK_COMMA;
      case '#': p++; return TOK_HASH;
      case '\n': p++; return TOK_NEWLINE;
      case '"': {
        const char* start = ++p;
        while (*p != '\0' && *p != '"') p++;
        word = std::string_view(start, static_cast<size_t>(p - start));
        if (*p == '"') p++;
        return TOK_WORD;
      }
      default: {
        const char* start = p;
        while (*p != '\0' && strchr("#:=,\n\t ", *p) == nullptr) p++;
        word = std::string_view(start, static_cast<size_t>(p - start));
        return TOK_WORD;
      }
    }
  }
};

bool set_sink_flag(cv_log_sink* s, std::string_view w) {
  if (w == "color") s->color = 1;
  else if (w == "timestamp") s->timestamp = 2;
  else if (w == "timesec") s->timestamp = 1;
  else if (w == "showlevel") s->showlevel = 1;
  else if (w == "comment") s->comment = 1;
  else if (w == "fileline") s->fileline = 1;
  else if (w == "pid") s->pid = 1;
  else if (w == "tid") s->tid = 1;
  else if (w == "txid") s->txid = 1;
  else if (w == "flush") s->flush = 1;
  else if (w == "usec") s->usec = 1;
  else return false;
  return true;
}

// "=" and one or more flag words joined by ":"; the sink's flags are replaced as they come.
// Returns the token after the list, or -1 on an error.
int parse_sink_item(lexer* lx, cv_log_sink* s) {
  if (lx->next() != TOK_EQUAL) return -1;
  FILE* stream = s->stream;
  memset(s, 0, sizeof *s);
  s->stream = stream;
  for (;;) {
    if (lx->next() != TOK_WORD || !set_sink_flag(s, lx->word)) return -1;
    token_kind t = lx->next();
    if (t != TOK_COLON) return t;
  }
}

// "=" and one or more value words joined by ":"; fills `fac` where the words give a part and
// says which parts were given. Returns the token after the list, or -1 on an error.
int parse_facility_values(lexer* lx, cv_log_facility* fac, bool* has_level, bool* has_color,
                          bool* has_sinks) {
  if (lx->next() != TOK_EQUAL) return -1;
  for (;;) {
    if (lx->next() != TOK_WORD) return -1;
    int color = find_word(lx->word, kColorWords, 17);
    int level = find_word(lx->word, kLevelWords, 5);
    int sink = find_word(lx->word, kSinkWords, kSinkCount);
    if (color < 0 && level < 0 && sink < 0) return -1;
    if (color >= 0) fac->color = color, *has_color = true;
    if (level >= 0) fac->level = level, *has_level = true;
    if (sink >= 0) fac->sinks |= 1 << sink, *has_sinks = true;
    token_kind t = lx->next();
    if (t != TOK_COLON) return t;
  }
}

int parse_facility_item(lexer* lx, std::string_view name) {
  cv_log_facility fac;
  memset(&fac, 0, sizeof fac);
  bool is_default = name == "default";
  if (!is_default && g_facility_count >= CV_LOG_MAX_FACILITIES) return -1;
  bool has_level = false, has_color = false, has_sinks = false;
  int t = parse_facility_values(lx, &fac, &has_level, &has_color, &has_sinks);
  if (t < 0) return t;
  const cv_log_facility& base = g_facilities[0];
  if (!has_level) fac.level = is_default ? CV_LOG_INFO : base.level;
  if (!has_color) fac.color = is_default ? kDefaultColor : base.color;
  if (!has_sinks) fac.sinks = is_default ? CV_SINK_STDERR : base.sinks;
  if (is_default) {
    g_facilities[0] = fac;
  } else {
    memcpy(fac.name, name.data(), name.size() < 15 ? name.size() : 15);
    g_facilities[++g_facility_count] = fac;
  }
  return t;
}

// Parses `text` into the tables. Returns 0, or the line number where the parse stopped.
int parse_config(const char* text) {
  lexer lx{text, {}};
  int line = 1;
  token_kind t = lx.next();
  for (;;) {
    // Between items: empty lines, comments, the end.
    if (t == TOK_END) return 0;
    if (t == TOK_NEWLINE || t == TOK_COMMA) {
      line++;
      t = lx.next();
      continue;
    }
    if (t == TOK_HASH) {
      while (t != TOK_NEWLINE && t != TOK_END) t = lx.next();
      continue;
    }
    if (t != TOK_WORD) return line;
    std::string_view w = lx.word;
    int r;
    int sink = find_word(w, kSinkWords, kSinkCount);
    if (sink >= 0) {
      r = parse_sink_item(&lx, &g_sinks[sink]);
    } else if (w == "filename") {
      if (lx.next() != TOK_EQUAL || lx.next() != TOK_WORD) return line;
      g_file_name.assign(lx.word);
      r = lx.next();
    } else if (w == "facility") {
      if (lx.next() != TOK_WORD) return line;
      r = parse_facility_item(&lx, lx.word);
    } else {
      r = parse_facility_item(&lx, w);
    }
    if (r < 0) return line;
    t = static_cast<token_kind>(r);
    if (t != TOK_NEWLINE && t != TOK_COMMA && t != TOK_HASH && t != TOK_END) return line;
  }
}

// ---- Start-up ----

void start_locked() {
  set_defaults();
  g_sinks[CV_SINK_INDEX_STDOUT].stream = stdout;
  g_sinks[CV_SINK_INDEX_STDERR].stream = stderr;
  g_sinks[CV_SINK_INDEX_FILE].stream = nullptr;

  char* text = get_config_text(true);
  if (text != nullptr) {
    int line = parse_config(text);
    if (line != 0) fprintf(stdout, "error parsing configuration logger at line %d\n", line);
    free(text);
  }

  if (g_file_name.empty()) {
    for (int32_t i = 0; i <= g_facility_count; i++)
      if (g_facilities[i].sinks & CV_SINK_FILE) g_file_name = "corvane.log";
  }
  const char* directory = env("CVLOG_DIRECTORY");
  if (!g_file_name.empty() && directory != nullptr &&
      !j480_path_absolute(g_file_name.c_str())) {
    std::string path = directory;
    path += J480_PATH_SEP;
    path += g_file_name;
    g_file_name = path;
  }
  if (!g_file_name.empty()) {
    g_file = px_fopen(g_file_name.c_str(), "a");
    g_sinks[CV_SINK_INDEX_FILE].stream = g_file;
  }
  if (g_tx_table == nullptr) g_tx_table = new std::unordered_map<uint64_t, int64_t>(16);
}

void start_slow() {
  std::lock_guard<std::mutex> guard(g_start_lock);
  if (g_started.load(std::memory_order_relaxed)) return;
  start_locked();
  g_started.store(true, std::memory_order_release);
}

inline void ensure_started() {
  if (__builtin_expect(!g_started.load(std::memory_order_acquire), 0)) start_slow();
}

// ---- Output ----

int64_t get_txid_locked(uint64_t thread_id) {
  auto it = g_tx_table->find(thread_id);
  return it == g_tx_table->end() ? 0 : it->second;
}

// Appends one formatted piece while the prefix has room; a piece that doesn't fit is cut.
void prefix_add(char* prefix, int32_t* used, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void prefix_add(char* prefix, int32_t* used, const char* format, ...) {
  int32_t room = kPrefixSize - *used;
  if (room <= 1) return;
  va_list args;
  va_start(args, format);
  int n = vsnprintf(prefix + *used, static_cast<size_t>(room), format, args);
  va_end(args);
  if (n < 0) {
    prefix[*used] = '\0';
    return;
  }
  *used += n < room ? n : room - 1;
}

void add_color(char* prefix, int32_t* used, int32_t color) {
  if (color >= 0 && color < kDefaultColor)
    prefix_add(prefix, used, "\x1b[%d;3%dm", color / 8, color % 8);
}

void write_to_sink(const cv_log_sink* s, const cv_log_facility* fac, const cv_log_line* rec,
                   const char* message, bool newline) {
  char prefix[kPrefixSize];
  int32_t used = 0;
  prefix[0] = '\0';
  int level = rec->level;
  const char* level_name = cv_log_level_name(level);
  int32_t level_color = level_name != nullptr ? kLevelColors[level] : kDefaultColor;

  if (s->comment && level != CV_LOG_ERROR) prefix_add(prefix, &used, "#");
  if (s->color) add_color(prefix, &used, level_color);
  if (s->timestamp != 0) {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    if (s->timestamp == 1) {
      if (s->usec)
        prefix_add(prefix, &used, "%010u.%06ld:", static_cast<unsigned>(tv.tv_sec),
                   static_cast<long>(tv.tv_usec));
      else
        prefix_add(prefix, &used, "%010u.%03ld:", static_cast<unsigned>(tv.tv_sec),
                   static_cast<long>(tv.tv_usec / 1000));
    } else {
      struct tm tm;
      time_t secs = tv.tv_sec;
      localtime_r(&secs, &tm);
      if (s->usec)
        prefix_add(prefix, &used, "%04d-%02d-%02d %02d:%02d:%02d.%06lld ", tm.tm_year + 1900,
                   tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                   static_cast<long long>(tv.tv_usec));
      else
        prefix_add(prefix, &used, "%04d-%02d-%02d %02d:%02d:%02d ", tm.tm_year + 1900,
                   tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    }
  }
  if (s->pid) prefix_add(prefix, &used, "PID%6d:", static_cast<int>(px_getpid()));
  uint64_t tid = cv_log_current_thread_id();
  if (s->tid) prefix_add(prefix, &used, "TID %llu:", static_cast<unsigned long long>(tid));
  if (s->txid) {
    int64_t txid;
    {
      std::lock_guard<std::mutex> guard(g_tx_lock);
      txid = g_tx_table != nullptr ? get_txid_locked(tid) : 0;
    }
    if (txid != 0) prefix_add(prefix, &used, "TXID %lld:", static_cast<long long>(txid));
  }
  if (level_name != nullptr && (s->showlevel || level == CV_LOG_ERROR || level == CV_LOG_WARN))
    prefix_add(prefix, &used, "%s:", level_name);
  if (rec->module != nullptr) prefix_add(prefix, &used, "%s:", rec->module);
  if (s->fileline) prefix_add(prefix, &used, "%s:%d:", rec->file, rec->line);
  if (s->color) add_color(prefix, &used, fac->color);

  const char* reset = s->color ? "\x1b[m" : "";
  std::lock_guard<std::mutex> guard(g_out_lock);
  if (newline) fprintf(s->stream, "%s%s%s\n", prefix, message, reset);
  else fprintf(s->stream, "%s%s%s", prefix, message, reset);
  if (s->flush) fflush(s->stream);
}

// Cleans the message into one line and writes it to the facility's sinks.
void write_line(const cv_log_facility* fac, const cv_log_line* rec) {
  char* text = rec->buffer;
  int32_t length = rec->length;
  for (int32_t i = 0; i < length; i++)
    if ((text[i] == '\n' && i != length - 1) || text[i] == '\r') text[i] = ' ';
  bool newline = length > 0 && text[length - 1] != '\n';
  for (int32_t i = 0; i < kSinkCount; i++) {
    const cv_log_sink* s = &g_sinks[i];
    if ((fac->sinks & (1 << i)) == 0 || s->stream == nullptr) continue;
    write_to_sink(s, fac, rec, text, newline);
  }
}

// Formats at the end of the record's buffer; a piece that fails to format adds nothing.
void append_v(cv_log_line* rec, const char* format, va_list args) {
  int32_t room = CV_LOG_BUFFER_SIZE - rec->length;
  int n = room > 0 ? str_vprintf(rec->buffer + rec->length, static_cast<size_t>(room), format, args)
                   : -1;
  if (n > 0) rec->length += n;
  rec->buffer[rec->length] = '\0';
}

void flush_sinks() {
  std::lock_guard<std::mutex> guard(g_out_lock);
  for (int32_t i = 0; i < kSinkCount; i++)
    if (g_sinks[i].stream != nullptr) fflush(g_sinks[i].stream);
}

}  // namespace

// ---- Entries ----

void cv_vlog(const char* file, int line, const char* module, int level, const char* format,
             va_list args) {
  ensure_started();
  const cv_log_facility* fac = lookup(module);
  if (level > fac->level) return;
  cv_log_line rec = {level, module, file, line, nullptr, 0};
  rec.buffer = static_cast<char*>(malloc(CV_LOG_BUFFER_SIZE));
  if (rec.buffer == nullptr) return;
  rec.buffer[0] = '\0';
  append_v(&rec, format, args);
  write_line(fac, &rec);
  free(rec.buffer);
}

void __cv_log(const char* file, int line, const char* module, int level, const char* format, ...) {
  va_list args;
  va_start(args, format);
  cv_vlog(file, line, module, level, format, args);
  va_end(args);
}

void cv_log_begin(const char* file, int line, cv_log_line* rec, const char* module, int level) {
  ensure_started();
  rec->level = level;
  rec->module = module;
  rec->file = file;
  rec->line = line;
  rec->buffer = nullptr;
  rec->length = 0;
  if (level > lookup(module)->level) return;
  rec->buffer = static_cast<char*>(malloc(CV_LOG_BUFFER_SIZE));
  if (rec->buffer != nullptr) rec->buffer[0] = '\0';
}

void cv_log_append(cv_log_line* rec, const char* format, ...) {
  if (rec->buffer == nullptr) return;
  va_list args;
  va_start(args, format);
  append_v(rec, format, args);
  va_end(args);
}

void cv_log_end(cv_log_line* rec) {
  if (rec->buffer == nullptr) return;
  write_line(lookup(rec->module), rec);
  free(rec->buffer);
  rec->buffer = nullptr;
  rec->length = 0;
}

bool cv_log_enabled(const char* module, int level) {
  ensure_started();
  return level <= lookup(module)->level;
}

char* logger_get_config() {
  ensure_started();
  return get_config_text(false);
}

uint64_t cv_log_current_thread_id() { return static_cast<uint64_t>(gettid()); }

void cv_log_thread_create(uint64_t thread_id) {
  ensure_started();
  std::lock_guard<std::mutex> guard(g_tx_lock);
  int64_t txid = get_txid_locked(cv_log_current_thread_id());
  (*g_tx_table)[thread_id] = txid;
}

void cv_log_thread_destroy(uint64_t thread_id) {
  ensure_started();
  std::lock_guard<std::mutex> guard(g_tx_lock);
  g_tx_table->erase(thread_id);
}

void cv_log_thread_set_txid(uint64_t thread_id, int64_t txid) {
  ensure_started();
  std::lock_guard<std::mutex> guard(g_tx_lock);
  auto it = g_tx_table->find(thread_id);
  if (it != g_tx_table->end()) it->second = txid;
}

int64_t cv_log_thread_get_txid(uint64_t thread_id) {
  ensure_started();
  std::lock_guard<std::mutex> guard(g_tx_lock);
  return get_txid_locked(thread_id);
}

void _cv_backtrace(const char*, int, const char*) {}

void cv_assert_fail(const char* file, int line, const char* module, const char* expr) {
  __cv_log(file, line, module, CV_LOG_ERROR, "assertion \"%s\" failed", expr);
  __cv_log(file, line, module, CV_LOG_ERROR, "J480 Server version %s", version_str());
  _cv_backtrace(file, line, module);
  // abort() flushes no stream: push the lines out first so the log file keeps them.
  flush_sinks();
  abort();
}

void cv_assert_fail_msg(const char* file, int line, const char* module, const char* expr,
                        const char* format, ...) {
  __cv_log(file, line, module, CV_LOG_ERROR, "ASSERTION FAILED");
  __cv_log(file, line, module, CV_LOG_ERROR, "CODE: %s", expr);
  cv_log_line rec;
  cv_log_begin(file, line, &rec, module, CV_LOG_ERROR);
  cv_log_append(&rec, "MESG: ");
  if (rec.buffer != nullptr) {
    va_list args;
    va_start(args, format);
    append_v(&rec, format, args);
    va_end(args);
  }
  cv_log_end(&rec);
  __cv_log(file, line, module, CV_LOG_ERROR, "J480 Server version %s", version_str());
  _cv_backtrace(file, line, module);
  flush_sinks();
  abort();
}

// ---- Table views ----

const char* cv_log_level_name(int level) {
  return level >= CV_LOG_ERROR && level <= CV_LOG_TRACE ? kLevelNames[level] : nullptr;
}

const cv_log_facility* cv_log_find_facility(const char* module) {
  ensure_started();
  return lookup(module);
}

int32_t cv_log_facility_count() {
  ensure_started();
  return g_facility_count;
}

const cv_log_facility* cv_log_facility_at(int32_t index) {
  ensure_started();
  return index >= 0 && index <= g_facility_count ? &g_facilities[index] : nullptr;
}

const cv_log_sink* cv_log_sink_at(int32_t index) {
  ensure_started();
  return index >= 0 && index < kSinkCount ? &g_sinks[index] : nullptr;
}

const char* cv_log_file_name() {
  ensure_started();
  return g_file_name.empty() ? nullptr : g_file_name.c_str();
}

void cv_log_reset_for_tests() {
  std::lock_guard<std::mutex> guard(g_start_lock);
  if (!g_started.load(std::memory_order_relaxed)) return;
  {
    std::lock_guard<std::mutex> out(g_out_lock);
    if (g_file != nullptr) px_fclose(g_file);
    g_file = nullptr;
    fflush(stdout);
    fflush(stderr);
  }
  {
    std::lock_guard<std::mutex> tx(g_tx_lock);
    g_tx_table->clear();
  }
  set_defaults();
  g_sinks[CV_SINK_INDEX_FILE].stream = nullptr;
  g_started.store(false, std::memory_order_release);
}
