// File utilities: the absolute-path rule, directories, moves with their retries, umask and key
// files.
#include "utils/file.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <cstring>
#include <string>

#include "support/test_support.h"
#include "utils/posix.h"
#include "utils/str_funcs.h"

namespace {

using j480test::exists;
using j480test::read_file;
using j480test::TempDir;
using j480test::write_file;
using j480test::err_of;

using j480test::Esc;

bool Contains(const std::string& haystack, const std::string& needle) {
  return haystack.find(needle) != std::string::npos;
}

class FileTest : public testing::Test {
 protected:
  void TearDown() override { px_fault_disarm(); }
  TempDir dir_;
};

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
  EXPECT_TRUE(
      Contains(err, "create_dir: could not create path 'rel_dir_x/y' - path in not absolute"))
      << err;
  EXPECT_FALSE(exists("rel_dir_x"));

  // A prefix that is a file can't become a directory.
  write_file(dir_.file("plain"), "x");
  std::string blocked = dir_.path() + "/plain/sub";
  err = err_of([&] { EXPECT_EQ(create_dir(blocked.c_str()), -1); });
  EXPECT_TRUE(Contains(err, "create_dir: could not create path '" + dir_.path() +
                                "/plain', error code 17"))
      << err;

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

TEST_F(FileTest, DeltreeRemovesNestedTreeButNotWhatSymlinksPointTo) {
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
  struct {
    std::string path;
    int result;
    std::string message;
  } cases[] = {
      {root, -ENOENT, "deltree: error initializing scanning for '" + root + "/*': 2"},
      {of_length(257), -ENOENT, "deltree: error initializing scanning for '" + of_length(257)},
      {of_length(258), -1, "deltree: path '" + of_length(258) + "' too long."},
  };
  for (const auto& c : cases) {
    int r = 0;
    std::string err = err_of([&] { r = deltree(c.path.c_str()); });
    EXPECT_EQ(r, c.result) << c.path.size();
    EXPECT_TRUE(Contains(err, c.message)) << c.path.size() << err;
  }
}

TEST_F(FileTest, DeltreeLogsEveryFailedCallAndKeepsTheDirectory) {
  std::string root = dir_.path() + "/tree";
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
    EXPECT_TRUE(Contains(err, "ERROR:deltree: error")) << k << err;
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
  EXPECT_TRUE(Contains(err, "set_umask: ignoring invalid umask '1000' in configuration.")) << err;
  EXPECT_TRUE(Contains(err, "set_umask: ignoring invalid umask 'abc' in configuration."));
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
  EXPECT_TRUE(Contains(err, "create_auth_file: file '" + path + "' already exists.")) << err;
  EXPECT_TRUE(Contains(err, "verify_auth_file: '" + wrong + "' does not match '" + key +
                                "' in '" + path + "'"))
      << err;

  EXPECT_EQ(create_auth_file(path.c_str(), wrong.data(), 1), wrong.data());
  EXPECT_EQ(read_file(path), wrong);

  write_file(path, std::string(63, 'B'));
  err = err_of([&] {
    EXPECT_EQ(read_auth_file(path.c_str(), back), nullptr);
    EXPECT_EQ(read_auth_file(dir_.file("absent").c_str(), back), nullptr);
  });
  EXPECT_TRUE(Contains(err, "read_auth_file: file '" + path +
                                "' only contains 63 bytes instead of 64"))
      << err;
  EXPECT_TRUE(Contains(err, "read_auth_file: error 2 opening file '" + dir_.file("absent") + "'"));

  EXPECT_EQ(err_of([&] {
              EXPECT_EQ(read_auth_file("", back), nullptr);
              EXPECT_EQ(read_auth_file(nullptr, back), nullptr);
            }),
            "");
  EXPECT_EQ(back[0], '\0');
}

TEST(FileDeathTest, KeyFileAssertions) {
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
}
