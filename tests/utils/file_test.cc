// File utilities: the absolute-path rule, directories, moves with their retries, umask and key
// files. Byte streams: the mark rules of the openers, typed integers, sticky errors and I/O
// faults; typed reads of a log in the other byte order, and the append and update openers that
// write the new log, are the whole-tool tests' part.
#include "utils/file.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>

#include "support/test_support.h"
#include "utils/posix.h"
#include "utils/str_funcs.h"
#include "utils/stream.h"

namespace {

using j480test::err_of, j480test::Esc, j480test::exists, j480test::read_file, j480test::TempDir,
    j480test::write_file, testing::IsSubstring;

class FileTest : public testing::Test {
 protected:
  void TearDown() override { px_fault_disarm(); }
  TempDir dir_;
};
using StreamTest = FileTest;

std::string Native(const void* p, size_t n) { return std::string(static_cast<const char*>(p), n); }

const int16_t kMark = STREAM_BYTEORDER;
const std::string kMarkBytes = Native(&kMark, 2);

std::string ErrorText(stream* s) {
  char* t = stream_error_text(s);
  std::string out = t;
  free(t);
  return out;
}

}  // namespace

TEST_F(FileTest, CreateDirMakesNestedDirectoriesAndRefusesRelativePaths) {
  for (const char* p : {"/db", "C:/db"}) EXPECT_TRUE(j480_path_absolute(p)) << p;
  for (const char* p : {"db/x", "C:db", "a:b/c", "db"}) EXPECT_FALSE(j480_path_absolute(p)) << p;
  std::string nested = dir_.path() + "/a/b/c/";
  EXPECT_EQ(create_dir(nested.c_str()), 0);
  struct stat st;
  ASSERT_EQ(file_stat(nested.c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_EQ(create_dir(nested.c_str()), 0);  // exists
  EXPECT_EQ(create_dir((dir_.path() + "/x/y").c_str()), 0);  // the last name without a separator
  EXPECT_EQ(file_stat((dir_.path() + "/x/y").c_str(), &st), 0);

  std::string err = err_of([] { EXPECT_EQ(create_dir("rel_dir_x/y"), -1); });
  EXPECT_PRED_FORMAT2(
      IsSubstring, "create_dir: could not create path 'rel_dir_x/y' - path in not absolute", err);
  EXPECT_FALSE(exists("rel_dir_x"));

  // A prefix that is a file can't become a directory.
  write_file(dir_.file("plain"), "x");
  std::string blocked = dir_.path() + "/plain/sub";
  err = err_of([&] { EXPECT_EQ(create_dir(blocked.c_str()), -1); });
  const std::string said = "create_dir: could not create path '" + dir_.path() + "/plain'";
  EXPECT_PRED_FORMAT2(IsSubstring, said + ", error code 17", err);

  // file_mkdir drops trailing separators but keeps a lone one.
  std::string trailing = dir_.path() + "/t///";
  EXPECT_EQ(file_mkdir(trailing.c_str()), 0);
  EXPECT_EQ(file_stat("/", &st), 0);
  EXPECT_EQ(file_size(dir_.file("plain").c_str()), 1);
  EXPECT_EQ(file_size(dir_.file("none").c_str()), -ENOENT);
}

TEST_F(FileTest, MoveReplacesTargetKeepsItWhenSourceIsMissingAndSurvivesFailures) {
  std::string from = dir_.file("from"), to = dir_.file("to");
  write_file(to, "old");
  file_move(dir_.file("missing").c_str(), to.c_str());
  EXPECT_EQ(read_file(to), "old");

  write_file(from, "new");
  file_move(from.c_str(), to.c_str());
  EXPECT_FALSE(exists(from));
  EXPECT_EQ(read_file(to), "new");

  EXPECT_EQ(file_remove(dir_.file("missing").c_str()), -1);
  EXPECT_EQ(file_remove(to.c_str()), 0);
  EXPECT_FALSE(exists(to));

  // With failing link or unlink, content never ends up without a name.
  write_file(from, "data");
  // access(from), access(to) (absent), then link fails: the source stays, no target appears.
  px_fault_arm(3, EIO);
  file_move(from.c_str(), to.c_str());
  px_fault_disarm();
  EXPECT_EQ(read_file(from), "data");
  EXPECT_FALSE(exists(to));

  // Every unlink of the source fails, through both retries: both names keep the content.
  px_fault_arm(4, EACCES, PX_FAULT_FAIL, true);
  file_move(from.c_str(), to.c_str());
  px_fault_disarm();
  EXPECT_EQ(read_file(from), "data");
  EXPECT_EQ(read_file(to), "data");

  // The first unlink fails and the retry after the permission fix succeeds.
  px_fault_arm(2, EACCES);
  EXPECT_EQ(file_remove(from.c_str()), 0);
  EXPECT_FALSE(exists(from));
}

TEST_F(FileTest, DeltreeRemovesATreeButNotWhatSymlinksPointToAndLogsEveryFailedCall) {
  std::string root = dir_.path() + "/tree";
  std::string outside = dir_.path() + "/outside";
  j480test::make_dirs(root + "/a/b/c");
  j480test::make_dirs(outside);
  write_file(outside + "/keep", "k");
  write_file(root + "/f1", "1");
  write_file(root + "/a/f2", "2");
  write_file(root + "/a/b/c/f3", "3");
  ASSERT_EQ(symlink(outside.c_str(), (root + "/a/link").c_str()), 0);
  EXPECT_EQ(deltree(root.c_str()), 0);
  EXPECT_FALSE(exists(root));
  EXPECT_EQ(read_file(outside + "/keep"), "k");

  // The length bound is 257 characters: one more is refused before any scan.
  auto of_length = [&](size_t n) { return root + "/" + std::string(n - root.size() - 1, 'x'); };
  const std::tuple<std::string, int, std::string> cases[] = {
      {root, -ENOENT, "deltree: error initializing scanning for '" + root + "/*': 2"},
      {of_length(257), -ENOENT, "deltree: error initializing scanning for '" + of_length(257)},
      {of_length(258), -1, "deltree: path '" + of_length(258) + "' too long."},
  };
  for (const auto& [path, result, message] : cases) {
    int r = 0;
    const char* name = path.c_str();  // a lambda can't capture a binding
    std::string err = err_of([&] { r = deltree(name); });
    EXPECT_EQ(r, result) << path.size();
    EXPECT_PRED_FORMAT2(IsSubstring, message, err) << path.size();
  }

  // Every failed call is logged and keeps the directory.
  j480test::make_dirs(root);
  write_file(root + "/f", "1");
  px_fault_count();
  EXPECT_EQ(deltree(root.c_str()), 0);
  int64_t calls = g_px_faults.calls;  // opendir, 4 readdir, unlink, rmdir
  px_fault_disarm();
  ASSERT_EQ(calls, 7);
  for (int64_t k = 1; k <= calls; k++) {
    j480test::make_dirs(root);
    write_file(root + "/f", "1");
    px_fault_arm(k, EPERM);
    int r = 0;
    std::string err = err_of([&] { r = deltree(root.c_str()); });
    px_fault_disarm();
    // After a complete scan a directory that won't go is logged, and the result stays 0.
    EXPECT_EQ(r, k == calls ? 0 : -EPERM) << k;
    EXPECT_TRUE(exists(root)) << k;
    EXPECT_PRED_FORMAT2(IsSubstring, "ERROR:deltree: error", err) << k;
  }
  EXPECT_EQ(deltree(root.c_str()), 0);
}

TEST(FileUmask, OnlyOctalUpTo777IsApplied) {
  mode_t saved = umask(022);
  std::string err = err_of([] {
    set_umask("1000");
    EXPECT_EQ(umask(022), 022);
    set_umask("abc");
    EXPECT_EQ(umask(022), 022);
  });
  EXPECT_EQ(err, "# WARN:set_umask: ignoring invalid umask '1000' in configuration.\n"
                 "# WARN:set_umask: ignoring invalid umask 'abc' in configuration.\n");
  set_umask("777");
  EXPECT_EQ(umask(022), 0777);
  set_umask("077");
  EXPECT_EQ(umask(saved), 077);
}

TEST_F(FileTest, KeyFilesGenerateReadVerifyAndRefuseShortFiles) {
  std::string path = dir_.file("db_key");
  char key[kAuthPassLen] = {};
  ASSERT_EQ(create_auth_file(path.c_str(), key, 0), key);
  ASSERT_EQ(strlen(key), 64u);
  for (char c : std::string(key)) EXPECT_TRUE(isdigit(c) || (c >= 'A' && c <= 'F')) << c;
  EXPECT_EQ(read_file(path), std::string(key));
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);

  char back[kAuthPassLen] = {};
  EXPECT_EQ(read_auth_file(path.c_str(), back), back);
  EXPECT_STREQ(back, key);
  EXPECT_TRUE(verify_auth_file(path.c_str(), key));

  char other[kAuthPassLen] = {};
  std::string wrong(64, 'A');
  std::string err = err_of([&] {
    EXPECT_EQ(create_auth_file(path.c_str(), other, 0), nullptr);
    EXPECT_FALSE(verify_auth_file(path.c_str(), wrong.c_str()));
  });
  EXPECT_EQ(err, "ERROR:create_auth_file: file '" + path + "' already exists.\n" +
                     "# WARN:verify_auth_file: '" + wrong + "' does not match '" + key + "' in '" +
                     path + "'\n");

  EXPECT_EQ(create_auth_file(path.c_str(), wrong.data(), 1), wrong.data());
  EXPECT_EQ(read_file(path), wrong);

  write_file(path, std::string(63, 'B'));
  err = err_of([&] {
    EXPECT_EQ(read_auth_file(path.c_str(), back), nullptr);
    EXPECT_EQ(read_auth_file(dir_.file("absent").c_str(), back), nullptr);
  });
  EXPECT_EQ(err, "ERROR:read_auth_file: file '" + path + "' only contains 63 bytes instead of 64\n"
                 "ERROR:read_auth_file: error 2 opening file '" + dir_.file("absent") + "'\n");

  EXPECT_EQ(err_of([&] {
              EXPECT_EQ(read_auth_file("", back), nullptr);
              EXPECT_EQ(read_auth_file(nullptr, back), nullptr);
            }),
            "");
  EXPECT_EQ(back[0], '\0');
}

// ---- Byte streams ----

TEST_F(StreamTest, RoundTripThenEndOfFileIsStickyAndItemCountsWhoseByteSizeWrapsAreErrors) {
  const size_t wraps = SIZE_MAX / 8 + 2;  // 8 * wraps is 8 modulo 2^64
  const int32_t i = -5;
  const int64_t l = 0x0102030405060708LL;
  std::string path = dir_.file("b");
  stream* w = open_binary_write_stream(path.c_str(), "wb");
  ASSERT_NE(w, nullptr);
  ASSERT_EQ(stream_error(w), 0);
  EXPECT_EQ(w->type, 1);
  EXPECT_TRUE(stream_write_int(w, i));
  EXPECT_TRUE(stream_write_lng(w, l));
  EXPECT_EQ(stream_write(w, "xyz", 1, 3), 3);
  EXPECT_EQ(stream_write(w, "0123456789abcdef", 8, wraps), 0);
  EXPECT_EQ(stream_error(w), 3);
  stream_close_destroy(w);
  EXPECT_EQ(read_file(path), kMarkBytes + Native(&i, 4) + Native(&l, 8) + "xyz");

  stream* r = open_binary_read_stream(path.c_str());
  ASSERT_EQ(stream_error(r), 0);
  EXPECT_EQ(r->byteorder, 1234);
  int32_t iv = 0;
  int64_t lv = 0;
  char buf[8] = {};
  EXPECT_EQ(stream_read_int(r, &iv), 1);
  EXPECT_EQ(iv, -5);
  EXPECT_EQ(stream_read(r, buf, 8, wraps), 0);
  EXPECT_EQ(stream_error(r), 2);
  stream_clear_error(r);
  EXPECT_EQ(stream_read_lng(r, &lv), 1);
  EXPECT_EQ(lv, l);
  EXPECT_EQ(stream_read(r, buf, 1, 8), 3);  // short at the end: not an error
  EXPECT_EQ(stream_error(r), 0);
  EXPECT_EQ(stream_read(r, buf, 1, 1), 0);
  EXPECT_EQ(stream_error(r), 0);

  iv = 42;
  EXPECT_EQ(stream_read_int(r, &iv), 0);
  EXPECT_EQ(iv, 42);
  EXPECT_EQ(stream_error(r), 2);
  EXPECT_EQ(stream_read(r, buf, 1, 1), 2);  // sticky: no read
  int64_t pos = 77;
  EXPECT_EQ(stream_getpos(r, &pos), 2);
  EXPECT_EQ(pos, 77);
  EXPECT_EQ(stream_setpos(r, 2), 2);
  EXPECT_EQ(ErrorText(r), "Error reading file " + path + "\n");

  stream_clear_error(r);
  EXPECT_EQ(stream_setpos(r, 2), 0);
  EXPECT_EQ(stream_read_int(r, &iv), 1);
  EXPECT_EQ(iv, -5);
  stream_close(r);
  stream_close(r);  // a closed stream closes again as a no-op
  stream_destroy(r);
}

TEST_F(StreamTest, FailedCloseIsAWriteErrorOnlyForWriteStreams) {
  std::string path = dir_.file("c");
  for (bool write : {true, false}) {
    stream* s = write ? open_binary_write_stream(path.c_str(), "wb")
                      : open_binary_read_stream(path.c_str());
    ASSERT_NE(s, nullptr);
    px_fault_arm(1, EIO);  // the fclose
    stream_close(s);
    px_fault_disarm();
    EXPECT_EQ(stream_error(s), write ? 3 : 0) << write;
    stream_destroy(s);
  }
}

// Files that can't be read as marked binary files, and failed calls of the openers: an open error
// with its text, no handle for reading, and a file with content left as it was.
TEST_F(StreamTest, OpenFailuresAreOpenErrors) {
  const std::string marked = kMarkBytes + "data";
  auto open_wb = [](const char* n) { return open_binary_write_stream(n, "wb"); };
  const struct {
    const char* content;  // nullptr: no file
    int64_t fault;        // the failing call, 0 for none
    int err;
    stream* (*open)(const char*);
  } cases[] = {
      {nullptr, 0, 0, open_binary_read_stream},
      {"", 0, 0, open_binary_read_stream},
      {"x", 0, 0, open_binary_read_stream},
      {nullptr, 0, 0, open_text_read_stream},
      {nullptr, 1, EACCES, open_wb},  // fopen
      {nullptr, 2, ENOSPC, open_wb},  // the mark's fwrite
      {marked.c_str(), 2, EIO, open_binary_append_stream},  // the size that decides on a mark
      {marked.c_str(), 2, EIO, open_binary_read_stream},    // the mark's fread
  };
  for (const auto& c : cases) {
    const std::string path = dir_.file("f" + std::to_string(&c - cases));
    if (c.content) write_file(path, c.content);
    if (c.fault) px_fault_arm(c.fault, c.err);
    stream* s = c.open(path.c_str());
    px_fault_disarm();
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(stream_error(s), 1) << path;
    if (s->access == ST_READ) {
      EXPECT_EQ(s->handle, nullptr) << path;
    }
    EXPECT_STREQ(stream_name(s), path.c_str());
    EXPECT_EQ(ErrorText(s), "Error could not open file " + path + "\n");
    stream_close_destroy(s);
    if (c.content) {
      EXPECT_EQ(read_file(path), c.content) << path;
    }
  }
}

TEST_F(StreamTest, WriteFlushAndFsyncFaultsAreWriteErrors) {
  std::string path = dir_.file("w");
  stream* s = open_binary_write_stream(path.c_str(), "wb");
  EXPECT_EQ(ErrorText(s), "Unknown error\n");
  EXPECT_EQ(ErrorText(nullptr), "Unknown error\n");
  px_fault_arm(1, ENOSPC);  // fwrite
  EXPECT_FALSE(stream_write_lng(s, 7));
  EXPECT_EQ(stream_error(s), 3);
  EXPECT_EQ(ErrorText(s), "Error writing file " + path + "\n");
  EXPECT_EQ(stream_write(s, "x", 1, 1), 3);  // sticky: nothing more is written
  EXPECT_FALSE(stream_write_int(s, 1));
  EXPECT_EQ(stream_flush(s), 3);
  EXPECT_EQ(stream_fsync(s), 3);
  stream_clear_error(s);

  EXPECT_TRUE(stream_write_int(s, 1));
  px_fault_arm(1, EIO);  // fflush
  EXPECT_EQ(stream_flush(s), 1);
  EXPECT_EQ(stream_error(s), 3);
  stream_clear_error(s);

  px_fault_arm(2, EIO);  // fsync after its fflush
  EXPECT_EQ(stream_fsync(s), 1);
  EXPECT_EQ(stream_error(s), 3);
  stream_clear_error(s);

  px_fault_arm(1, EIO);  // ftello
  int64_t pos = 9;
  EXPECT_EQ(stream_getpos(s, &pos), -1);
  EXPECT_EQ(pos, 9);
  px_fault_disarm();
  stream_close_destroy(s);
  int32_t one = 1;
  EXPECT_EQ(read_file(path), kMarkBytes + Native(&one, 4));
}

TEST(FileDeathTest, KeyFileAndStreamMisuseAssert) {
  char shortkey[kAuthPassLen] = "ABC";
  TempDir dir;
  std::string path = dir.file("k");
  EXPECT_DEATH(read_auth_file(path.c_str(), nullptr), Esc("assertion \"empty_key\" failed"));
  EXPECT_DEATH(create_auth_file(path.c_str(), shortkey, 1),
               Esc("assertion \"kAuthPassLen - 1 == (int)str_len(key)\" failed"));
  EXPECT_DEATH(create_auth_file("", shortkey, 1),
               Esc("assertion \"filename && *filename\" failed"));
  EXPECT_DEATH(verify_auth_file(path.c_str(), ""), Esc("assertion \"key && key[0]\" failed"));
  EXPECT_DEATH(verify_auth_file(nullptr, shortkey), Esc("assertion \"filename\" failed"));
#ifndef J480_SANITIZE  // the sanitizer's allocator refuses the size itself
  EXPECT_DEATH(sb_create(INT64_MAX), Esc("assertion \"sb->data\" failed"));
#endif
  write_file(path, kMarkBytes);
  stream* r = open_binary_read_stream(path.c_str());
  EXPECT_DEATH(stream_write(r, "x", 1, 1), Esc("assertion \"s->access == ST_WRITE\" failed"));
  EXPECT_DEATH(stream_flush(r), Esc("assertion \"s->access == ST_WRITE\" failed"));
  stream* w = open_text_append_stream(path.c_str());
  char c;
  EXPECT_DEATH(stream_read(w, &c, 1, 1), Esc("assertion \"s->access == ST_READ\" failed"));
  EXPECT_DEATH(stream_close_destroy(nullptr), Esc("assertion \"s\" failed"));
  stream_close_destroy(w);
  stream_close_destroy(r);
}
