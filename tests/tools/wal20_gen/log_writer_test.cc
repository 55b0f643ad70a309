// The 2.0 log writer: a buffer that turns over, failed writes, and the location map. Records of
// every kind in both byte orders are read by the whole-tool tests.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "support/test_support.h"
#include "tools/wal20_gen/bc20_log_writer.h"
#include "utils/posix.h"

using j480test::TempDir;

// A buffer that turns over many times writes each byte once (a head of 10 bytes, 12 a record);
// a failed write is reported at close.
TEST(LogWriter, ASmallBufferWritesEveryByteOnceAndFailedWritesAreReportedAtClose) {
  TempDir dir;
  bc20_log_writer_options o;
  o.buffer_size = 64;
  for (bool fail : {false, true}) {
    bc20_log_writer* w = bc20_log_writer_open(dir.file("LOG").c_str(), &o);
    if (fail) px_fault_arm(1, ENOSPC);
    for (int i = 0; i < 20; i++) bc20_log_cat_table_del(w, i);
    px_fault_disarm();
    EXPECT_EQ(bc20_log_writer_failed(w), fail);
    EXPECT_EQ(bc20_log_writer_close(w), fail ? -1 : 0);
    EXPECT_EQ(j480test::read_file(dir.file("LOG")).size(), fail ? 0u : 10u + 20 * 12);
  }
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
