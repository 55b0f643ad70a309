// test_support: helpers shared by every test suite.
//
// A temporary directory per test, whole-file read and write, a runner that executes a built
// binary with a clean environment and returns its standard output, standard error and exit
// value, and a logger in a known state with its console output captured. The fault switch of the
// system-call seam is in utils/posix.h (px_fault_arm).
#ifndef J480_TESTS_SUPPORT_TEST_SUPPORT_H
#define J480_TESTS_SUPPORT_TEST_SUPPORT_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace j480test {

// A fresh directory under $TMPDIR (or /tmp), removed with its content on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  // path() + "/" + name
  std::string file(const std::string& name) const;

 private:
  std::string path_;
};

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& bytes);
bool exists(const std::string& path);
void make_dirs(const std::string& path);

// A literal text as a death-test pattern: every regular-expression metacharacter escaped.
std::string Esc(const std::string& text);

// Lines of a text, without their line feeds; a last line without a line feed counts too.
std::vector<std::string> split_lines(const std::string& text);

struct RunResult {
  std::string out;  // standard output
  std::string err;  // standard error (the log, by default)
  int status;       // exit value as the shell sees it (255 for -1); 128+n for signal n
};

// Runs `binary` with `args` (argv[0] is `binary` unless `argv0` is given) in `cwd` (or the
// current directory), with an environment of PATH plus `env` only. Standard input is empty.
RunResult run_binary(const std::string& binary, const std::vector<std::string>& args,
                     const std::map<std::string, std::string>& env = {},
                     const std::string& cwd = "", const std::string* argv0 = nullptr);

// Sets an environment variable for the life of the object, and restores it after.
class ScopedEnv {
 public:
  ScopedEnv(const std::string& name, const char* value);
  ~ScopedEnv();
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  std::string name_;
  bool had_;
  std::string old_;
};

// What `f` writes to standard error (or standard output) while it runs.
std::string err_of(const std::function<void()>& f);
std::string out_of(const std::function<void()>& f);

// The logger in a known state for the life of the object: CVLOG as given (unset for null), no
// configuration file or directory, an empty per-user directory; restarted on entry and on exit.
class LogCapture {
 public:
  explicit LogCapture(const char* cvlog = nullptr);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  // Restarts the logger with CVLOG set to `cvlog` (unset for null).
  void use(const char* cvlog);
  const TempDir& home() const { return home_; }

 private:
  TempDir home_;
  ScopedEnv cvlog_{"CVLOG", nullptr};
  ScopedEnv file_{"CVLOG_CONFIGFILE", nullptr};
  ScopedEnv dir_{"CVLOG_DIRECTORY", nullptr};
  ScopedEnv profile_{"USERPROFILE", home_.path().c_str()};
};

}  // namespace j480test

#endif  // J480_TESTS_SUPPORT_TEST_SUPPORT_H
