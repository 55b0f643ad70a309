// The generator: its histories dumped as XML by the real reader against a text built here from
// the records as they were written (the element formats are spelled out again below, so that the
// dump and this test can't share a mistake), its summary, and its command line. That the records
// carry what the generator's model says is the whole-tool tests' part.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "support/test_support.h"
#include "tools/wal20_gen/bc20_gen.h"
#include "tools/wal_converter/bc20_iobm.h"
#include "tools/wal_converter/bc20_logger_print.h"
#include "utils/cvconfig.h"
#include "utils/stream.h"

namespace {

using j480test::TempDir;

// Expected text of one record: the fields the reader keeps, in file order.
std::string element(const bc20_log_record& r) {
  std::vector<std::string> v;  // kept numbers
  for (int i = 0; i < r.n_nums; i++)
    if (!(r.skipped & (1u << i))) v.push_back(std::to_string(r.nums[i]));
  std::vector<std::string> s;  // kept strings
  for (int i = 0; i < r.n_strs; i++)
    if (!(r.str_skipped & (1u << i))) s.emplace_back(r.strs[i]);
  auto q = [](const std::string& x) { return "\"" + x + "\""; };
  switch (r.tag) {
    case 0: return "<tr trid=" + q(v[0]) + ">\n";
    case 1: return "</tr trid=" + q(v[0]) + ">\n";
    case 2:
    case 35:
      return std::string("<cs_new") + (r.tag == 2 ? "_defaultfile" : "") + " id=" + q(v[0]) +
             " blksz=" + q(v[1]) + "/>\n";
    case 4:
    case 5:
      return std::string(r.tag == 4 ? "<col_new" : "<col_del") + " colid=" + q(v[0]) +
             " type=" + q(v[1]) + "/>\n";
    case 7:  // no columnspace before the replay: the default file shows as -1
      return "<blk_new colid=" + q(v[0]) + " file_nr=\"-1\" block_nr=" + q(v[1]) +
             " bytes_used=" + q(v[2]) + " num_tuples=" + q(v[3]) + "/>\n";
    case 8: return "<blk_del colid=" + q(v[0]) + " file_nr=\"-1\" block_nr=" + q(v[1]) + "/>\n";
    case 13:
      return "<cat_table_new table_id=" + q(v[0]) + " name=" + q(s[0]) +
             " colgroup_id=" + q(v[1]) + "/>\n";
    case 14: return "<cat_table_del table_id=" + q(v[0]) + "/>\n";
    case 15:
      return "<cat_column_new colid=" + q(v[0]) + " adt=" + q(s[0]) + " ctype=" + q(v[1]) +
             " ltype=" + q(s[1]) + " digits=" + q(v[2]) + " scale=" + q(v[3]) +
             " compression=" + q(s[2]) + " col_name=" + q(s[3]) + " flags=" + q(v[4]) + "/>\n";
    case 16: return "<cat_column_del column_id=" + q(v[0]) + "/>\n";
    case 17:
    case 38: {
      std::string ids;
      const int64_t* col_ids = static_cast<const int64_t*>(r.bulk[0]);
      for (int64_t i = 0; i < r.bulk_size[0] / 8; i++)
        ids += (i ? ":" : "") + std::to_string(col_ids[i]);
      return std::string("<cat_colgroup_new") + (r.tag == 17 ? "_defaultfile" : "") +
             " cg_id=" + q(v[0]) + " store_id=" + q(v[1]) + " parent_id=" + q(v[2]) +
             " type=" + q(v[3]) + " ncols=" + q(v[4]) + " col_ids=" + q(ids) + "/>\n";
    }
    case 18: return "<cat_colgroup_del colgroup_id=" + q(v[0]) + "/>\n";
    case 19:
      return "<cat_index_new index_id=" + q(v[0]) + " index_name=" + q(s[0]) +
             " type=" + q(v[1]) + " table_id=" + q(v[2]) + " colgroup_id=" + q(v[3]) +
             " scolgroup_id=" + q(v[4]) + " key_id=" + q(v[5]) + "/>\n";
    case 20: return "<cat_index_del index_id=" + q(v[0]) + "/>\n";
    case 21:
    case 24:
      return std::string(r.tag == 21 ? "<minmax_size" : "<jis_size") + " index_id=" + q(v[0]) +
             " maxgroups=" + q(v[1]) + (r.tag == 21 ? " numtuples=" : " numgroups=") + q(v[2]) +
             " groupsize=" + q(v[3]) + "/>\n";
    case 22:
    case 23:
      return std::string(r.tag == 22 ? "<minmax_data" : "<minmax_vardata") +
             " index_id=" + q(v[0]) + " column_nr=" + q(v[1]) + " datasize=" + q(v[2]) +
             " overflow=" + q(v[3]) + " overflow_datasize=" + q(v[4]) + "/>\n";
    case 25:
      return "<jis_data index_id=" + q(v[0]) + " jis_column=" + q(v[1]) +
             " numgroups=" + q(v[2]) + "/>\n";
    case 26:
    case 27: return "<pdt_new_64 object_id=" + q(v[0]) + " size=" + q(v[1]) + "/>\n";
    case 28:
      return "<cat_location_new location_id=" + q(v[0]) + " name=" + q(s[0]) +
             " usage=" + q(v[1]) + " path=\"(null)\"/>\n";
    case 29: return "<cat_location_del location_id=" + q(v[0]) + "/>\n";
    case 31:
      return "<blk_new colid=" + q(v[0]) + " file_nr=" + q(v[1]) + " block_nr=" + q(v[2]) +
             " bytes_used=" + q(v[3]) + " num_tuples=" + q(v[4]) + "/>\n";
    case 32:
      return "<blk_del colid=" + q(v[0]) + " file_nr=" + q(v[1]) + " block_nr=" + q(v[2]) +
             "/>\n";
    case 33:
      return "<file_new file_nr=" + q(v[0]) + " location_id=" + q(v[1]) +
             " filename=" + q(s[0]) + "/>\n";
    case 34: return "<file_del file_nr=" + q(v[0]) + "/>\n";
    case 36:
    case 37:
      return std::string(r.tag == 36 ? "<colgroup_file_new" : "<colgroup_file_del") +
             " colgroup_id=" + q(v[0]) + " file_nr=" + q(v[1]) + "/>\n";
    default: return "";  // cat_location_update shows nothing
  }
}

void collect(void* ctx, const bc20_log_record* r) {
  static_cast<std::vector<std::string>*>(ctx)->push_back(element(*r));
}

struct generated {
  bc20_gen_summary sum{};
  std::vector<std::string> elements;  // one per record written, empty for those not shown
  int rc = -1;
};

generated generate(const std::string& dir, bc20_gen_options o) {
  generated g;
  o.out_dir = dir.c_str();
  o.hook = collect;
  o.hook_ctx = &g.elements;
  g.rc = bc20_gen_run(&o, &g.sum);
  return g;
}

// The dump of the database `db` in `farm`, line by line, and what it logged.
std::vector<std::string> dump(const std::string& farm, std::string* log) {
  cvconfig* config = cvconfig_create();
  cvconfig_layer* cmdline = cvconfig_layer_create(nullptr, "cmdline", cvconfig_defaults(config));
  cvconfig_set_str(cmdline, CVGROUP_SERVER, CVPROP_DBFARM_PATH, farm.c_str());
  cvconfig_set_str(cmdline, CVGROUP_SERVER, CVPROP_DBNAME, "db");
  bc20_set_config(cmdline);
  stream* s = open_binary_read_stream((farm + "/db/CBM/LOG").c_str());
  *log = j480test::err_of([&] { EXPECT_EQ(bc20_bm_logger_print(s, 1), 0); });
  stream_close_destroy(s);
  bc20_set_config(nullptr);
  cvconfig_destroy(config);
  return j480test::split_lines(j480test::read_file(farm + "/db/CBM/_LOG_XML_20"));
}

struct shape {
  const char* label;
  uint64_t seed;
  int32_t tables, columns, blocks, transactions, locations;
  int big_endian, pdts;
};

const shape kShapes[] = {
    {"single-le", 1, 4, 6, 8, 60, 0, 0, 0},   {"single-be", 2, 5, 4, 4, 80, 0, 1, 1},
    {"multi-le", 3, 6, 5, 6, 120, 3, 0, 1},   {"multi-be", 4, 3, 8, 16, 60, 1, 1, 0},
    {"tiny", 5, 1, 1, 1, 3, 0, 0, 0},         {"many-tables", 6, 20, 3, 2, 200, 2, 0, 0},
    {"long-history", 7, 6, 4, 12, 1500, 0, 0, 1},
};

bc20_gen_options options_of(const shape& s, uint64_t extra_seed = 0) {
  bc20_gen_options o;
  std::tie(o.seed, o.tables, o.columns, o.blocks, o.transactions, o.locations, o.big_endian,
           o.pdts) = std::tuple(s.seed + extra_seed, s.tables, s.columns, s.blocks,
                                s.transactions, s.locations, s.big_endian, s.pdts);
  return o;
}

}  // namespace

// Every shape over several seeds: every record dumps as written, and
// together the shapes write every record kind in its form for one and for several locations.
TEST(GenDump, HistoriesDumpAsWrittenInEveryShape) {
  std::map<uint32_t, int64_t> kinds[2];  // per form: single location, several
  std::set<int64_t> index_types;
  int64_t null_groups = 0;
  for (const shape& s : kShapes) {
    for (uint64_t extra = 0; extra < 6; extra++) {
      SCOPED_TRACE(std::string(s.label) + " seed+" + std::to_string(extra));
      TempDir farm;
      const std::string db = farm.file("db");
      generated g = generate(db, options_of(s, 1000 * extra));
      ASSERT_EQ(g.rc, 0);
      EXPECT_EQ(g.sum.tables_created, s.tables);
      EXPECT_GE(g.sum.tables_live, 1);
      std::string log;
      std::vector<std::string> got = dump(farm.path(), &log);
      std::vector<std::string> want = {
          "<wal base_version=\"4851035686591004672\" cur_version=\"0\">"};
      int64_t transactions = 0;
      for (const std::string& e : g.elements) {
        if (!e.empty()) want.push_back(e.substr(0, e.size() - 1));
        transactions += e.rfind("</tr ", 0) == 0;
      }
      want.push_back("</wal>");
      EXPECT_EQ(transactions, g.sum.transactions);
      ASSERT_EQ(got.size(), want.size());
      for (size_t i = 0; i < got.size(); i++) ASSERT_EQ(got[i], want[i]) << "line " << i + 1;
      EXPECT_EQ(log.find("ERROR"), std::string::npos) << log.substr(0, 2000);
      int64_t total = 0;  // the summary counts what was written
      for (uint32_t tag = 0; tag <= BC20_MAX_TAG; tag++) {
        total += g.sum.records[tag];
        kinds[s.locations > 0][tag] += g.sum.records[tag];
      }
      EXPECT_EQ(total, static_cast<int64_t>(g.elements.size()));
      EXPECT_EQ(static_cast<int64_t>(j480test::read_file(db + "/CBM/LOG").size()), g.sum.log_bytes);
      // The location map has one line per live location.
      EXPECT_EQ(static_cast<int64_t>(
                    j480test::split_lines(j480test::read_file(db + "/CBM/location_map")).size()),
                g.sum.locations_created - g.sum.locations_dropped);
      null_groups += g.sum.null_groups;
      for (const std::string& e : g.elements)
        if (e.rfind("<cat_index_new ", 0) == 0)
          index_types.insert(atoi(e.c_str() + e.find(" type=\"") + 7));
    }
  }
  for (uint32_t tag : {bc20_cs_new_defaultfile, bc20_blk_new_defaultfile, bc20_blk_del_defaultfile,
                       bc20_cat_colgroup_new_defaultfile})
    EXPECT_GT(kinds[0][tag], 0) << tag;
  for (uint32_t tag : {bc20_cs_new, bc20_cat_location_new, bc20_cat_location_del,
                       bc20_cat_location_update, bc20_file_new, bc20_file_del, bc20_blk_new,
                       bc20_blk_del, bc20_colgroup_file_new, bc20_colgroup_file_del})
    EXPECT_GT(kinds[1][tag], 0) << tag;
  for (const auto& form : kinds)
    for (uint32_t tag :
         {bc20_col_new, bc20_col_del, bc20_cat_table_new, bc20_cat_table_del, bc20_cat_column_new,
          bc20_cat_column_del, bc20_cat_colgroup_new, bc20_cat_colgroup_del, bc20_cat_index_new,
          bc20_cat_index_del, bc20_minmax_size, bc20_minmax_data, bc20_minmax_vardata,
          bc20_jis_size, bc20_jis_data, bc20_pdt_new, bc20_pdt_new_64})
      EXPECT_GT(form.at(tag), 0) << tag;
  EXPECT_GT(null_groups, 0);
  EXPECT_EQ(index_types, (std::set<int64_t>{0, 1, 2, 3, 4, 5, 6}));
}

TEST(GenRun, TargetSizeIsReachedWithinOneTransactionAndBadOptionsAreRefused) {
  for (int32_t locations : {0, 2}) {
    TempDir dir;
    bc20_gen_options o;
    o.seed = 9;
    o.tables = 2;
    o.transactions = 10;
    o.locations = locations;
    o.target_size = 400 * 1024;
    generated g = generate(dir.path(), o);
    ASSERT_EQ(g.rc, 0);
    EXPECT_GE(g.sum.log_bytes, o.target_size);
    EXPECT_LT(g.sum.log_bytes - g.sum.last_transaction_bytes, o.target_size);
  }
  bc20_gen_summary sum;
  bc20_gen_options o;
  EXPECT_EQ(bc20_gen_run(&o, &sum), -1);  // no directory
  TempDir dir;
  o.out_dir = dir.path().c_str();
  o.tables = 0;
  EXPECT_EQ(bc20_gen_run(&o, &sum), -1);
  o.tables = 1;
  std::string blocked = dir.file("file");
  j480test::write_file(blocked, "x");
  o.out_dir = blocked.c_str();
  EXPECT_EQ(bc20_gen_run(&o, &sum), -1);
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
  ASSERT_EQ(r2.status, 0);
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
