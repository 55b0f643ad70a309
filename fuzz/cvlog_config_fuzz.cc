// Fuzz target: the logger's configuration language, then messages at every level through the
// configuration it produced.
//
// The first byte picks the source of the text: even, the CVLOG variable (the text up to its first
// zero byte); odd, the file cvlog.conf in CVLOG_DIRECTORY (every byte). CVLOG_DIRECTORY is a
// private directory of this process, and every '/' of the text becomes '_', so that whatever
// file name the text gives resolves inside that directory; the log file is removed after each
// input. Run the engine with -close_fd_mask=3: the text may route lines to the consoles.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include "fuzz_support.h"
#include "utils/cvlog.h"

namespace {

char g_dir[] = "/tmp/j480_cvlog_fuzz.XXXXXX";
std::string g_conf;  // <dir>/cvlog.conf

void empty_dir() {
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(g_dir, ec))
    std::filesystem::remove(e.path(), ec);
}

void remove_dir() {
  cv_log_reset_for_tests();
  std::error_code ec;
  std::filesystem::remove_all(g_dir, ec);
}

// The tables the parse left must be well formed whatever the text was.
void check_tables() {
  int32_t count = cv_log_facility_count();
  FUZZ_CHECK(count >= 0 && count <= CV_LOG_MAX_FACILITIES);
  for (int32_t i = 0; i <= count; i++) {
    const cv_log_facility* f = cv_log_facility_at(i);
    FUZZ_CHECK(f != nullptr);
    FUZZ_CHECK(memchr(f->name, '\0', sizeof f->name) != nullptr);
    FUZZ_CHECK(f->level >= CV_LOG_ERROR && f->level <= CV_LOG_TRACE);
    FUZZ_CHECK(f->color >= 0 && f->color <= 16);
    FUZZ_CHECK((f->sinks & ~(CV_SINK_STDOUT | CV_SINK_STDERR | CV_SINK_FILE)) == 0);
    // Every entry finds itself, or an earlier entry of the same name.
    if (i > 0 && f->name[0] != '\0') {
      const cv_log_facility* found = cv_log_find_facility(f->name);
      FUZZ_CHECK(found != nullptr && strncmp(found->name, f->name, sizeof f->name) == 0);
    }
  }
  FUZZ_CHECK(cv_log_find_facility(nullptr) == cv_log_facility_at(0));
  for (int32_t i = CV_SINK_INDEX_STDOUT; i <= CV_SINK_INDEX_FILE; i++) {
    const cv_log_sink* s = cv_log_sink_at(i);
    FUZZ_CHECK(s != nullptr);
    FUZZ_CHECK(s->timestamp >= 0 && s->timestamp <= 2);
  }
  const char* name = cv_log_file_name();
  if (name != nullptr) FUZZ_CHECK(strncmp(name, g_dir, strlen(g_dir)) == 0);
}

void log_everything(const std::string& text) {
  // A facility name from the text itself, so that configured entries are hit.
  std::string own = text.substr(0, text.find_first_of("#:=,\n\t \"")).substr(0, 20);
  const char* modules[] = {nullptr, "LOGGER", "CBM", "UPDATE_PROPAGATION", own.c_str()};
  cv_log_thread_create(cv_log_current_thread_id());
  cv_log_thread_set_txid(cv_log_current_thread_id(), 42);
  for (const char* m : modules) {
    for (int level = CV_LOG_ERROR; level <= CV_LOG_TRACE + 1; level++) {
      __cv_log(__FILE__, __LINE__, m, level, "level %d of %s", level, m ? m : "(default)");
      __cv_log(__FILE__, __LINE__, m, level, "%s", "two\nline\rfeeds\n");
      __cv_log(__FILE__, __LINE__, m, level, "%s", "");
      cv_log_line line;
      cv_log_begin(__FILE__, __LINE__, &line, m, level);
      FUZZ_CHECK((line.buffer != nullptr) == cv_log_enabled(m, level));
      cv_log_append(&line, "piece %d", 1);
      cv_log_append(&line, " and %s", "two");
      cv_log_end(&line);
    }
  }
  cv_log_thread_destroy(cv_log_current_thread_id());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  if (mkdtemp(g_dir) == nullptr) {
    perror("mkdtemp");
    abort();
  }
  g_conf = std::string(g_dir) + "/cvlog.conf";
  setenv("CVLOG_DIRECTORY", g_dir, 1);
  setenv("USERPROFILE", g_dir, 1);
  unsetenv("CVLOG_CONFIGFILE");
  atexit(remove_dir);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  bool from_file = (data[0] & 1) != 0;
  std::string text(reinterpret_cast<const char*>(data + 1), size - 1);
  for (char& c : text) {
    if (c == '/') c = '_';
  }
  if (from_file) {
    FILE* f = fopen(g_conf.c_str(), "wb");
    if (f == nullptr) abort();
    fwrite(text.data(), 1, text.size(), f);
    fclose(f);
    unsetenv("CVLOG");
  } else {
    text.resize(strlen(text.c_str()));
    setenv("CVLOG", text.c_str(), 1);
  }
  cv_log_reset_for_tests();

  char* config = logger_get_config();
  FUZZ_CHECK(config != nullptr);
  if (!from_file) FUZZ_CHECK(text == config);
  free(config);

  log_everything(text);
  check_tables();

  cv_log_reset_for_tests();  // closes the log file
  empty_dir();
  return 0;
}
