// The 2.0 log writer: clean cuts read back by the real reader, failed writes, and the location
// map. Records of every kind in both byte orders are read by the whole-tool tests.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "support/test_support.h"
#include "tools/wal20_gen/bc20_log_writer.h"
#include "tools/wal_converter/bc20_logger.h"
#include "utils/mem.h"
#include "utils/posix.h"
#include "utils/stream.h"

namespace {

using j480test::TempDir;

// Reads every transaction of `path`: how many read, and whether a failure (1 with no list) was
// seen.
struct read_outcome {
  int transactions = 0;
  bool failed = false;
};

read_outcome read_log(const std::string& path) {
  read_outcome out;
  stream* s = open_binary_read_stream(path.c_str());
  EXPECT_EQ(stream_error(s), STREAM_NOERR);
  EXPECT_EQ(bc20_logger_read_version(s), BC20_LOG_VERSION_20);
  for (;;) {
    MemContext* mem = mem_context_create(nullptr, "logger_replay_tc");
    bc20_action* list = nullptr;
    int rc = bc20_logger_read_transaction(mem, s, &list);
    out.failed |= rc == 1 && list == nullptr;
    out.transactions += rc == 1 && list != nullptr;
    mem_context_remove(mem);
    if (rc == 0 || list == nullptr) break;
  }
  stream_close_destroy(s);
  return out;
}

// Writes a log with `body` between the head and the close.
void write_log(const std::string& path, const std::function<void(bc20_log_writer*)>& body,
               int big_endian = 0, int64_t cut_at = -1) {
  bc20_log_writer_options o;
  o.big_endian = big_endian;
  o.cut_at = cut_at;
  o.buffer_size = 64;  // small: the buffer turns over many times
  bc20_log_writer* w = bc20_log_writer_open(path.c_str(), &o);
  ASSERT_NE(w, nullptr);
  body(w);
  ASSERT_EQ(bc20_log_writer_close(w), 0);
}

}  // namespace

TEST(LogWriter, ACutBehindATransactionIsAShorterCleanLog) {
  TempDir dir;
  auto body = [](bc20_log_writer* w) {
    bc20_log_tr_new(w, 1);
    bc20_log_cat_table_del(w, 5);
    bc20_log_tr_end(w, 1);
    bc20_log_tr_new(w, 2);
    bc20_log_tr_end(w, 2);
  };
  const int64_t first_tr_end = 10 + 12 + 12 + 12;
  write_log(dir.file("two"), body);
  write_log(dir.file("cut"), body, 0, first_tr_end);
  EXPECT_EQ(j480test::read_file(dir.file("cut")),
            j480test::read_file(dir.file("two")).substr(0, first_tr_end));
  read_outcome r = read_log(dir.file("cut"));
  EXPECT_EQ(r.transactions, 1);
  EXPECT_FALSE(r.failed);
}

TEST(LogWriter, FailedWritesAreReportedAtClose) {
  TempDir dir;
  bc20_log_writer_options o;
  o.buffer_size = 64;
  bc20_log_writer* w = bc20_log_writer_open(dir.file("LOG").c_str(), &o);
  ASSERT_NE(w, nullptr);
  px_fault_arm(1, ENOSPC);
  for (int i = 0; i < 20; i++) bc20_log_cat_table_del(w, i);
  px_fault_disarm();
  EXPECT_TRUE(bc20_log_writer_failed(w));
  EXPECT_EQ(bc20_log_writer_close(w), -1);
  EXPECT_EQ(bc20_log_writer_open("/nonexistent-dir/LOG", nullptr), nullptr);
}

TEST(LocationMap, WritesNameCommaPathLinesAndRefusesWhatCantBeReadBack) {
  TempDir dir;
  const bc20_location_map_entry good[] = {{"loc1", "/data/one"}, {"l o c", "/a b/c"}};
  ASSERT_EQ(bc20_location_map_write(dir.file("map").c_str(), good, 2), 0);
  EXPECT_EQ(j480test::read_file(dir.file("map")), "loc1,/data/one\nl o c,/a b/c\n");
  ASSERT_EQ(bc20_location_map_write(dir.file("empty").c_str(), nullptr, 0), 0);
  EXPECT_EQ(j480test::read_file(dir.file("empty")), "");

  std::string long_path(1024, 'p');
  const bc20_location_map_entry bad[][1] = {
      {{"", "/x"}}, {{"n", ""}}, {{"a,b", "/x"}}, {{"n", "/x,y"}}, {{"n", "/x\ny"}},
      {{"n", long_path}}};
  for (const auto& entry : bad)
    EXPECT_EQ(bc20_location_map_write(dir.file("bad").c_str(), entry, 1), -1);
  const bc20_location_map_entry edge[] = {{"n", std::string_view(long_path).substr(1)}};
  EXPECT_EQ(bc20_location_map_write(dir.file("edge").c_str(), edge, 1), 0);
}
