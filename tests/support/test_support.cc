// test_support: helpers shared by every test suite.
#include "support/test_support.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "utils/cvlog.h"

namespace j480test {

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string templ = std::string(base && *base ? base : "/tmp") + "/j480test.XXXXXX";
  std::vector<char> buf(templ.begin(), templ.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = buf.data();
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::string TempDir::file(const std::string& name) const { return path_ + "/" + name; }

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void write_file(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) throw std::runtime_error("cannot write " + path);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

bool exists(const std::string& path) {
  std::error_code ec;
  return std::filesystem::exists(path, ec);
}

void make_dirs(const std::string& path) { std::filesystem::create_directories(path); }

std::string Esc(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (strchr("\\^$.|?*+()[]{}", c) != nullptr) out += '\\';
    out += c;
  }
  return out;
}

std::vector<std::string> split_lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

RunResult run_binary(const std::string& binary, const std::vector<std::string>& args,
                     const std::map<std::string, std::string>& env, const std::string& cwd,
                     const std::string* argv0) {
  std::vector<std::string> envs;
  const char* path = getenv("PATH");
  envs.push_back(std::string("PATH=") + (path ? path : "/usr/bin:/bin"));
  for (const auto& [k, v] : env) envs.push_back(k + "=" + v);
  std::vector<char*> argv;
  std::string name = argv0 ? *argv0 : binary;
  argv.push_back(const_cast<char*>(name.c_str()));
  for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (auto& e : envs) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);
  // Standard output and error go to files of their own, read once the child is gone.
  TempDir outputs;
  const std::string out = outputs.file("out"), err = outputs.file("err");
  pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    const int in = open("/dev/null", O_RDONLY);
    const int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (in < 0 || o < 0 || e < 0 || dup2(in, 0) < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0) _exit(125);
    if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
    execve(binary.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  RunResult r{read_file(out), read_file(err), -1};
  if (WIFEXITED(status)) r.status = WEXITSTATUS(status);
  else if (WIFSIGNALED(status)) r.status = 128 + WTERMSIG(status);
  return r;
}

ScopedEnv::ScopedEnv(const std::string& name, const char* value) : name_(name) {
  const char* old = getenv(name.c_str());
  had_ = old != nullptr;
  if (had_) old_ = old;
  if (value) setenv(name.c_str(), value, 1);
  else unsetenv(name.c_str());
}

ScopedEnv::~ScopedEnv() {
  if (had_) setenv(name_.c_str(), old_.c_str(), 1);
  else unsetenv(name_.c_str());
}

std::string err_of(const std::function<void()>& f) {
  testing::internal::CaptureStderr();
  f();
  return testing::internal::GetCapturedStderr();
}

std::string out_of(const std::function<void()>& f) {
  testing::internal::CaptureStdout();
  f();
  return testing::internal::GetCapturedStdout();
}

LogCapture::LogCapture(const char* cvlog) { use(cvlog); }
LogCapture::~LogCapture() { cv_log_reset_for_tests(); }

void LogCapture::use(const char* cvlog) {
  if (cvlog != nullptr) setenv("CVLOG", cvlog, 1);
  else unsetenv("CVLOG");
  cv_log_reset_for_tests();
}

}  // namespace j480test
