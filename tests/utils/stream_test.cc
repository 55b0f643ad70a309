// Byte streams: the mark rules of the openers, typed integers, sticky errors and I/O faults.
// Typed reads of a log in the other byte order, and the append and update openers that write
// the new log, are the whole-tool tests' part.
#include "utils/stream.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "support/test_support.h"
#include "utils/posix.h"

namespace {

using j480test::read_file;
using j480test::TempDir;
using j480test::write_file;

using j480test::Esc;

std::string Native(const void* p, size_t n) { return std::string(static_cast<const char*>(p), n); }

const int16_t kMark = STREAM_BYTEORDER;
const std::string kMarkBytes = Native(&kMark, 2);

std::string ErrorText(stream* s) {
  char* t = stream_error_text(s);
  std::string out = t;
  free(t);
  return out;
}

class StreamFaultTest : public testing::Test {
 protected:
  void TearDown() override { px_fault_disarm(); }
  TempDir dir_;
};

}  // namespace

TEST(Stream, BinaryRoundTripThenEndOfFileIsSticky) {
  TempDir dir;
  std::string path = dir.file("b");
  stream* w = open_binary_write_stream(path.c_str(), "wb");
  ASSERT_NE(w, nullptr);
  ASSERT_EQ(stream_error(w), 0);
  EXPECT_EQ(w->type, 1);
  EXPECT_TRUE(stream_write_int(w, -5));
  EXPECT_TRUE(stream_write_lng(w, 0x0102030405060708LL));
  EXPECT_EQ(stream_write(w, "xyz", 1, 3), 3);
  stream_close_destroy(w);
  std::string bytes = read_file(path);
  int32_t i = -5;
  int64_t l = 0x0102030405060708LL;
  EXPECT_EQ(bytes, kMarkBytes + Native(&i, 4) + Native(&l, 8) + "xyz");

  stream* r = open_binary_read_stream(path.c_str());
  ASSERT_EQ(stream_error(r), 0);
  EXPECT_EQ(r->byteorder, 1234);
  int32_t iv = 0;
  int64_t lv = 0;
  char buf[8] = {};
  EXPECT_EQ(stream_read_int(r, &iv), 1);
  EXPECT_EQ(iv, -5);
  EXPECT_EQ(stream_read_lng(r, &lv), 1);
  EXPECT_EQ(lv, 0x0102030405060708LL);
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

TEST(Stream, FailedCloseIsAWriteErrorOnlyForWriteStreams) {
  TempDir dir;
  std::string path = dir.file("c");
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

TEST(Stream, ItemCountsWhoseByteSizeWrapsAreErrorsNotFullCounts) {
  TempDir dir;
  std::string path = dir.file("o");
  const size_t wraps = SIZE_MAX / 8 + 2;  // 8 * wraps is 8 modulo 2^64
  char buf[16] = "0123456789abcde";
  stream* w = open_binary_write_stream(path.c_str(), "wb");
  EXPECT_EQ(stream_write(w, buf, 8, wraps), 0);
  EXPECT_EQ(stream_error(w), 3);
  stream_close_destroy(w);
  EXPECT_EQ(read_file(path), kMarkBytes);
  write_file(path, kMarkBytes + "0123456789abcdef");
  stream* r = open_binary_read_stream(path.c_str());
  EXPECT_EQ(stream_read(r, buf, 8, wraps), 0);
  EXPECT_EQ(stream_error(r), 2);
  stream_close_destroy(r);
}

// Files that can't be read as marked binary files, and failed calls of the openers: an open error
// with its text, no handle for reading, and a file with content left as it was.
TEST_F(StreamFaultTest, OpenFailuresAreOpenErrors) {
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

TEST_F(StreamFaultTest, WriteFlushAndFsyncFaultsAreWriteErrors) {
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

TEST(StreamDeathTest, AccessModeAndNullStreamAssertions) {
  TempDir dir;
  std::string path = dir.file("d");
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
