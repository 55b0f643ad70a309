// The generator: the target size, bad options, and its command line; the 2.0 log writer: a buffer
// that turns over, failed writes, and the location map. That the records carry what the
// generator's model says, that the shapes reach every record kind, and that records of every kind
// in both byte orders read back, is the whole-tool tests' part.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <tuple>
#include <vector>

#include "support/test_support.h"
#include "tools/wal20_gen/bc20_gen.h"
#include "tools/wal20_gen/bc20_log_writer.h"
#include "utils/posix.h"

using j480test::TempDir;

TEST(GenRun, TargetSizeIsReachedWithinOneTransactionAndBadOptionsAreRefused) {
  bc20_gen_summary sum;
  for (int32_t locations : {0, 2}) {
    TempDir dir;
    bc20_gen_options o;
    std::tie(o.out_dir, o.seed, o.tables, o.transactions, o.locations, o.target_size) =
        std::tuple(dir.path().c_str(), 9, 2, 10, locations, 400 * 1024);
    ASSERT_EQ(bc20_gen_run(&o, &sum), 0);
    EXPECT_GE(sum.log_bytes, o.target_size);
    EXPECT_LT(sum.log_bytes - sum.last_transaction_bytes, o.target_size);
  }
  // Refused: no directory, no tables, a directory where a file stands.
  TempDir dir;
  const std::string blocked = dir.file("file");
  j480test::write_file(blocked, "x");
  bc20_gen_options none, no_tables, in_file;
  std::tie(no_tables.out_dir, no_tables.tables, in_file.out_dir) =
      std::tuple(dir.path().c_str(), 0, blocked.c_str());
  for (const bc20_gen_options& o : {none, no_tables, in_file})
    EXPECT_EQ(bc20_gen_run(&o, &sum), -1);
}

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

#ifdef J480_GEN_BIN
TEST(GenCli, BadOptionsPrintUsageAndExitOne) {
  TempDir dir;
  const std::string d = dir.file("db");
  const std::vector<std::vector<std::string>> cases = {
      {}, {"--out"}, {"--bogus", "--out", d}, {"--out", d, "--tables", "0"},
      {"--out", d, "--tables", "x"}, {"--out", d, "--seed"}, {"--out", d, "--target-size", "12Q"},
      {"--out", d, "--locations", "0"}, {"--out", d, "--locations", "2", "--single-location"},
      {"--out", d, "--columns", "-3"},
  };
  for (const auto& args : cases) {
    j480test::RunResult r = j480test::run_binary(J480_GEN_BIN, args);
    EXPECT_EQ(r.status, 1) << ::testing::PrintToString(args);
    EXPECT_NE(r.err.find("Usage: "), std::string::npos);
    EXPECT_EQ(r.out, "");
  }
  EXPECT_FALSE(j480test::exists(d));
}

TEST(GenCli, WritesTheDatabaseTheSameSeedGivesTheSameBytesAndTargetSizeTakesASuffix) {
  TempDir dir;
  auto run = [&](const std::string& out, const std::string& seed) {
    return j480test::run_binary(
        J480_GEN_BIN, {"--out", dir.file(out), "--seed", seed, "--tables", "5", "--locations", "2",
                       "--transactions", "50", "--big-endian", "--pdts"});
  };
  j480test::RunResult r1 = run("a", "77"), r2 = run("b", "77");
  ASSERT_EQ(r1.status, 0) << r1.err;
  EXPECT_EQ(r1.out, r2.out);
  EXPECT_NE(r1.out.find("log_bytes "), std::string::npos);
  std::string log = j480test::read_file(dir.file("a/CBM/LOG"));
  EXPECT_EQ(log.substr(0, 2), "\x04\xD2") << "the big-endian mark";
  EXPECT_EQ(log, j480test::read_file(dir.file("b/CBM/LOG")));
  ASSERT_EQ(run("c", "78").status, 0);
  EXPECT_NE(log, j480test::read_file(dir.file("c/CBM/LOG")));

  j480test::RunResult r = j480test::run_binary(
      J480_GEN_BIN, {"--out", dir.file("d"), "--target-size", "300K", "--single-location"});
  ASSERT_EQ(r.status, 0) << r.err;
  size_t size = j480test::read_file(dir.file("d/CBM/LOG")).size();
  EXPECT_GE(size, 300u * 1024);
  EXPECT_LT(size, 300u * 1024 + 2048 * 28 + 64 * 20 + 64);  // one bulk transaction at most
}
#endif
