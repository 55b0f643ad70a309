// The logger: line decoration per sink, the configuration language and its sources, multi-piece
// lines and the assertion path.
#include "utils/cvlog.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <regex>
#include <string>
#include <tuple>
#include <vector>

#include "support/test_support.h"
#include "utils/version.h"

namespace {

using j480test::err_of, j480test::out_of, j480test::read_file, j480test::write_file;

class CvLog : public testing::Test {
 protected:
  void use(const char* config) { log_.use(config); }
  static int level_of(const char* module) { return cv_log_find_facility(module)->level; }
  // What the logger reads as its configuration, after a restart.
  static std::string config_text() {
    cv_log_reset_for_tests();
    char* text = logger_get_config();
    std::string copy = text;
    free(text);
    return copy;
  }

  j480test::LogCapture log_;
};

// ---- Decoration of a line ----

// Per configuration, what lines reach standard error and standard output: levels, level names,
// colours on the sinks that have the flag, a message cleaned into one line, or emptied when it
// doesn't fit, and a line built in pieces.
TEST_F(CvLog, LinesAreDecoratedPerSinkCleanedIntoOneLineAndBuiltInPieces) {
  static const std::string fits(CV_LOG_BUFFER_SIZE - 1, 'x'), too_long(CV_LOG_BUFFER_SIZE, 'x');
  auto every_level = [] {
    for (int level = CV_LOG_ERROR; level <= CV_LOG_TRACE; level++) CV_LOG("M", level, "l%d", level);
  };
  const struct {
    const char* config;  // nullptr: the defaults
    std::function<void()> lines;
    std::string err, out;
  } cases[] = {
      {nullptr,
       [] {
         CV_INFO("WAL_CONVERTER", "J480 WAL 2.0 converter version %d", 7);
         CV_ERROR("CBM", "broken");
         CV_WARN("CBM", "odd");
         CV_DEBUG("CBM", "hidden");
         CV_INFO(nullptr, "no facility");
       },
       "#WAL_CONVERTER:J480 WAL 2.0 converter version 7\nERROR:CBM:broken\n# WARN:CBM:odd\n"
       "#no facility\n",
       ""},
      {"default=stdout,CBM=red:stdout:stderr,PDT=brightblue:stdout",
       [] {
         CV_ERROR(nullptr, "e");
         CV_WARN(nullptr, "w");
         CV_INFO(nullptr, "i");
         CV_INFO("CBM", "c");
         CV_DEBUG("PDT", "p");
       },
       "#CBM:c\n",
       "\x1b[1;31mERROR:e\x1b[m\n#\x1b[1;33m WARN:w\x1b[m\n#i\x1b[m\n#CBM:\x1b[0;31mc\x1b[m\n"},
      {"default=trace,stderr=showlevel", every_level,
       "ERROR:M:l0\n WARN:M:l1\n INFO:M:l2\nDEBUG:M:l3\nTRACE:M:l4\n", ""},
      {"default=trace,stderr=flush", every_level, "ERROR:M:l0\n WARN:M:l1\nM:l2\nM:l3\nM:l4\n", ""},
      {nullptr, [] { CV_INFO("A", "one\ntwo\r\nthree\n"); }, "#A:one two  three\n", ""},
      {nullptr, [] { CV_INFO("A", "a\n\nb"); }, "#A:a  b\n", ""},
      {nullptr, [] { CV_INFO("A", "%s", ""); }, "#A:", ""},
      {"default=stdout", [] { CV_INFO("A", "%s", ""); }, "", "#A:\x1b[m"},
      {nullptr, [] { CV_ERROR("A", "%s", fits.c_str()); }, "ERROR:A:" + fits + "\n", ""},
      {nullptr, [] { CV_ERROR("A", "%s", too_long.c_str()); }, "ERROR:A:", ""},
      {"CBM=debug",
       [] {  // a line in pieces, and the level filter
         EXPECT_TRUE(cv_log_enabled("CBM", CV_LOG_DEBUG));
         EXPECT_FALSE(cv_log_enabled("CBM", CV_LOG_TRACE));
         EXPECT_FALSE(cv_log_enabled("PDT", CV_LOG_DEBUG));
         cv_log_line rec;
         cv_log_begin(__FILE__, __LINE__, &rec, "CBM", CV_LOG_DEBUG);
         cv_log_append(&rec, "a=%d", 1);
         cv_log_append(&rec, ", b=%s\n", "two");
         cv_log_end(&rec);
         EXPECT_EQ(rec.buffer, nullptr);
         cv_log_begin(__FILE__, __LINE__, &rec, "PDT", CV_LOG_DEBUG);
         EXPECT_EQ(rec.buffer, nullptr);
         cv_log_append(&rec, "dropped");
         cv_log_end(&rec);
       },
       "#CBM:a=1, b=two\n", ""},
  };
  for (const auto& c : cases) {
    use(c.config);
    std::string out;
    EXPECT_EQ(err_of([&] { out = out_of(c.lines); }), c.err) << (c.config ? c.config : "defaults");
    EXPECT_EQ(out, c.out) << (c.config ? c.config : "defaults");
  }
}

TEST_F(CvLog, PrefixPiecesComeInTheirOrder) {
  use("stderr=comment:timesec:pid:tid:txid:showlevel:fileline:color,CBM=green");
  uint64_t tid = cv_log_current_thread_id();
  cv_log_thread_create(tid);
  cv_log_thread_set_txid(tid, 42);
  int line = 0;
  std::string err = err_of([&] {
    CV_INFO("CBM", "text");
    line = __LINE__ - 1;
  });
  std::smatch m;
  ASSERT_TRUE(std::regex_match(err, m, std::regex("#[0-9]{10}\\.[0-9]{3}:(.*)\n")));
  char pid[16];
  snprintf(pid, sizeof pid, "PID%6d:", static_cast<int>(getpid()));
  EXPECT_EQ(m[1].str(), std::string(pid) + "TID " + std::to_string(tid) + ":TXID 42: INFO:CBM:" +
                            __FILE__ + ":" + std::to_string(line) + ":\x1b[0;32mtext\x1b[m");
}

// ---- Configuration ----

TEST_F(CvLog, ConfigurationSourcesInTheirOrder) {
  j480test::TempDir dir;
  write_file(dir.file("cf"), "default=debug\n");
  write_file(dir.file("cvlog.conf"), "default=trace\n");
  write_file(log_.home().file(".cvlog"), "default=warn\n");
  write_file(dir.file("empty"), "");

  EXPECT_EQ(level_of(nullptr), CV_LOG_WARN);  // USERPROFILE/.cvlog
  {
    j480test::ScopedEnv no_profile("USERPROFILE", nullptr);
    j480test::ScopedEnv home("HOME", dir.path().c_str());
    write_file(dir.file(".cvlog"), "default=error\n");
    cv_log_reset_for_tests();
    EXPECT_EQ(level_of(nullptr), CV_LOG_ERROR);  // HOME in place of USERPROFILE
  }
  // The directory wins over the profile; a file that doesn't open, or is empty, doesn't count.
  const std::pair<const char*, std::string> steps[] = {
      {"CVLOG_DIRECTORY", dir.path()}, {"CVLOG_CONFIGFILE", dir.file("missing")},
      {"CVLOG_CONFIGFILE", dir.file("empty")}};
  for (const auto& [name, value] : steps) {
    setenv(name, value.c_str(), 1);
    cv_log_reset_for_tests();
    EXPECT_EQ(level_of(nullptr), CV_LOG_TRACE) << name << "=" << value;
  }
  setenv("CVLOG_CONFIGFILE", dir.file("cf").c_str(), 1);
  EXPECT_EQ(config_text(), "default=debug\n");
  EXPECT_EQ(level_of(nullptr), CV_LOG_DEBUG);
  // A file is read as text: only a carriage return before a line feed goes.
  write_file(dir.file("cf"), "\r\rdefault=error\r\n#a\rb\r\r\n\r");
  EXPECT_EQ(config_text(), "\r\rdefault=error\n#a\rb\r\n\r");
  use("");  // an empty CVLOG is still used: defaults, no file looked for
  EXPECT_EQ(level_of(nullptr), CV_LOG_INFO);
  EXPECT_EQ(config_text(), "");
}

TEST_F(CvLog, ParseErrorReportsItsLineAndKeepsWhatWasParsed) {
  // The text, the line of the error, and CBM's level afterwards: items before the error stay.
  const std::tuple<const char*, int, int> cases[] = {
      {"CBM=debug\nstdout=bogus", 2, 3}, {"CBM=debug,PDT", 2, 3},      {"=debug", 1, 2},
      {"CBM=debug:nocolor", 1, 2},       {"\n\n# c\nCBM=debug x", 4, 3},
      {"CBM=debug\nfilename", 2, 3},     {"CBM=debug\nstdout=pid:", 2, 3},
      {"CBM=debug\nfacility", 2, 3},     {"CBM=debug:", 1, 2},        {"CBM debug", 1, 2},
  };
  for (const auto& [config, line, cbm_level] : cases) {
    use(config);
    EXPECT_EQ(out_of([] { cv_log_facility_count(); }),
              "error parsing configuration logger at line " + std::to_string(line) + "\n")
        << config;
    EXPECT_EQ(level_of("CBM"), cbm_level) << config;
  }
  std::string config;  // the 128th facility is a parse error
  for (int i = 0; i < 128; i++) config += "F" + std::to_string(i) + "=debug\n";
  use(config.c_str());
  EXPECT_EQ(out_of([] { cv_log_facility_count(); }),
            "error parsing configuration logger at line 128\n");
  EXPECT_EQ(cv_log_facility_count(), CV_LOG_MAX_FACILITIES);
  EXPECT_EQ(level_of("F126"), CV_LOG_DEBUG);
  EXPECT_EQ(level_of("F127"), CV_LOG_INFO);
  use("stdout=pid:bogus");
  out_of([] { cv_log_facility_count(); });
  EXPECT_EQ(cv_log_sink_at(CV_SINK_INDEX_STDOUT)->pid, 1);  // applied up to the bad word
  EXPECT_EQ(cv_log_sink_at(CV_SINK_INDEX_STDOUT)->color, 0);
}

TEST_F(CvLog, FileSinkAppendsToItsFileInTheLogDirectoryOrTheWorkingDirectory) {
  j480test::TempDir dir;
  setenv("CVLOG_DIRECTORY", dir.path().c_str(), 1);
  write_file(dir.file("corvane.log"), "old\n");  // the file sink appends, with its own flags
  use("CBM=file");
  EXPECT_EQ(std::string(cv_log_file_name()), dir.file("corvane.log"));
  EXPECT_EQ(err_of([] { CV_INFO("CBM", "here"); }), "");
  cv_log_reset_for_tests();  // closes the file
  char pid[16];
  snprintf(pid, sizeof pid, "PID%6d:", static_cast<int>(getpid()));
  const std::string shape = "old\n[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2} " +
                            std::string(pid) + " INFO:CBM:here\n";
  EXPECT_TRUE(std::regex_match(read_file(dir.file("corvane.log")), std::regex(shape)))
      << read_file(dir.file("corvane.log"));

  j480test::TempDir other;  // an absolute name stays; words, comments and separators around it
  use(("  # a comment line\n\tMEM = debug , CBM=trace # trailing\nfilename=\"" +
       other.file("a b#c,d.log") + "\"\n").c_str());
  EXPECT_EQ(level_of("MEM"), CV_LOG_DEBUG);
  EXPECT_EQ(level_of("CBM"), CV_LOG_TRACE);
  EXPECT_EQ(std::string(cv_log_file_name()), other.file("a b#c,d.log"));
  EXPECT_NE(cv_log_sink_at(CV_SINK_INDEX_FILE)->stream, nullptr);  // opened, though unused
  use("filename=rel.log");
  EXPECT_EQ(std::string(cv_log_file_name()), dir.file("rel.log"));
  unsetenv("CVLOG_DIRECTORY");
  use("CBM=stdout");
  EXPECT_EQ(cv_log_file_name(), nullptr);
  EXPECT_EQ(cv_log_sink_at(CV_SINK_INDEX_FILE)->stream, nullptr);

  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  j480test::TempDir work;
  ASSERT_EQ(chdir(work.path().c_str()), 0);
  use("default=file:stderr");
  EXPECT_STREQ(cv_log_file_name(), "corvane.log");
  err_of([] { CV_INFO(nullptr, "both"); });
  cv_log_reset_for_tests();
  EXPECT_TRUE(j480test::exists(work.file("corvane.log")));
  ASSERT_EQ(chdir(cwd), 0);
}

// ---- Assertions ----

using CvLogDeathTest = CvLog;

TEST_F(CvLogDeathTest, AssertionsLogTheExpressionAndTheVersionAndReachTheLogFile) {
  j480test::TempDir dir;
  use(("MEMCONTEXT=file:stderr\nstderr=fileline\nfilename=" + dir.file("a.log")).c_str());
  const std::string at = "ERROR:MEMCONTEXT:[^\n]*cvlog_test\\.cc:[0-9]+:";
  volatile int size = 7;
  EXPECT_DEATH(J480_ASSERT("MEMCONTEXT", size == 2),
               at + "assertion \"size == 2\" failed\n" + at + "J480 Server version ");
  EXPECT_DEATH(J480_ASSERT_MSG("MEMCONTEXT", size < 4, "size %d too big\n", size),
               at + "ASSERTION FAILED\n" + at + "CODE: size < 4\n" + at + "MESG: size 7 too big\n" +
                   at + "J480 Server version ");
  std::string log = read_file(dir.file("a.log"));
  EXPECT_NE(log.find("ERROR:MEMCONTEXT:MESG: size 7 too big\n"), std::string::npos) << log;
  EXPECT_NE(log.find(std::string("ERROR:MEMCONTEXT:J480 Server version ") + version_str()),
            std::string::npos);
}

}  // namespace
