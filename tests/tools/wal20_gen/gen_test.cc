// The generator: its histories read back record by record with the real reader, and its
// command line.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "support/test_support.h"
#include "tools/wal20_gen/bc20_gen.h"
#include "tools/wal_converter/bc20_logger.h"
#include "utils/mem.h"
#include "utils/stream.h"

namespace {

using j480test::TempDir;

// A record reduced to what a reader keeps: numbers, strings and bulk bytes in file order.
struct flat {
  uint32_t type = 0;
  std::vector<int64_t> nums;
  std::vector<std::string> strs;
  std::vector<std::string> bulks;
  bool operator==(const flat&) const = default;
};

std::ostream& operator<<(std::ostream& os, const flat& f) {
  os << "tag " << f.type << " nums";
  for (int64_t n : f.nums) os << ' ' << n;
  for (const std::string& s : f.strs) os << " '" << s << "'";
  for (const std::string& b : f.bulks) os << " [" << b.size() << " bytes]";
  return os;
}

void capture(void* ctx, const bc20_log_record* r) {
  flat f;
  f.type = r->tag;
  for (int i = 0; i < r->n_nums; i++)
    if (!(r->skipped & (1u << i))) f.nums.push_back(r->nums[i]);
  for (int i = 0; i < r->n_strs; i++)
    if (!(r->str_skipped & (1u << i))) f.strs.emplace_back(r->strs[i]);
  for (int i = 0; i < r->n_bulk; i++)
    f.bulks.emplace_back(static_cast<const char*>(r->bulk[i]),
                         static_cast<size_t>(r->bulk_size[i]));
  static_cast<std::vector<flat>*>(ctx)->push_back(std::move(f));
}

// What the reader makes of a written record: the default-file block records name file -1 (no
// block manager in a test), pdt_new arrives as pdt_new_64.
flat as_read(flat f) {
  if (f.type == bc20_blk_new_defaultfile || f.type == bc20_blk_del_defaultfile) {
    f.type = f.type == bc20_blk_new_defaultfile ? bc20_blk_new : bc20_blk_del;
    f.nums.insert(f.nums.begin() + 1, -1);
  }
  if (f.type == bc20_pdt_new) f.type = bc20_pdt_new_64;
  return f;
}

std::string bytes(const void* p, int64_t n) {
  return n == 0 ? std::string() : std::string(static_cast<const char*>(p), static_cast<size_t>(n));
}

// The reader's action as a flat record, fields in file order.
flat of_action(const bc20_action* a) {
  flat f;
  f.type = a->type;
  auto& n = f.nums;
  switch (a->type) {
    case bc20_tr_new: case bc20_tr_end: n = {a->tr_new.trid}; break;
    case bc20_cs_new: case bc20_cs_new_defaultfile: n = {a->cs_new.id, a->cs_new.blksz}; break;
    case bc20_col_new: case bc20_col_del: n = {a->col_new.colid, a->col_new.type}; break;
    case bc20_blk_new: {
      const auto& b = a->blk_new;
      n = {b.colid, b.file_nr, b.block_nr, b.bytes_used, b.num_tuples};
      break;
    }
    case bc20_blk_del: n = {a->blk_del.colid, a->blk_del.file_nr, a->blk_del.block_nr}; break;
    case bc20_cat_table_new:
      n = {a->cat_table_new.table_id, a->cat_table_new.colgroup_id};
      f.strs = {a->cat_table_new.name};
      break;
    case bc20_cat_table_del: case bc20_cat_column_del: case bc20_cat_colgroup_del:
    case bc20_cat_index_del: case bc20_cat_location_del:
    case bc20_file_del: n = {a->cat_table_del.table_id}; break;
    case bc20_cat_column_new: {
      const auto& c = a->cat_column_new;
      n = {c.colid, c.ctype, c.digits, c.scale, static_cast<int64_t>(c.flags)};
      f.strs = {c.adt, c.ltype, c.compression, c.col_name};
      break;
    }
    case bc20_cat_colgroup_new: case bc20_cat_colgroup_new_defaultfile: {
      const auto& g = a->cat_colgroup_new;
      n = {g.cg_id, g.store_id, g.parent_id, g.type, g.ncols};
      f.bulks = {bytes(g.col_ids, 8 * int64_t{g.ncols})};
      break;
    }
    case bc20_cat_index_new: {
      const auto& i = a->cat_index_new;
      n = {i.index_id, i.type, i.table_id, i.colgroup_id, i.scolgroup_id, i.key_id};
      f.strs = {i.index_name};
      break;
    }
    case bc20_minmax_size: case bc20_jis_size: {
      const auto& s = a->minmax_size;
      n = {s.index_id, s.maxgroups, s.numtuples, s.groupsize};
      break;
    }
    case bc20_minmax_data: case bc20_minmax_vardata: {
      const auto& d = a->minmax_data;
      n = {d.index_id, d.column_nr, d.datasize, d.overflow, d.overflow_datasize};
      int64_t over = a->type == bc20_minmax_data ? 2 * d.overflow_datasize : d.overflow_datasize;
      f.bulks = {bytes(d.data, d.datasize), bytes(d.overflow_data, over)};
      break;
    }
    case bc20_jis_data:
      n = {a->jis_data.index_id, a->jis_data.jis_column, a->jis_data.numgroups};
      f.bulks = {bytes(a->jis_data.groups, 8 * a->jis_data.numgroups)};
      break;
    case bc20_pdt_new_64:
      n = {a->pdt_new_64.object_id, a->pdt_new_64.size};
      f.bulks = {bytes(a->pdt_new_64.data, a->pdt_new_64.size)};
      break;
    case bc20_cat_location_new:
      n = {a->cat_location_new.location_id, a->cat_location_new.usage};
      f.strs = {a->cat_location_new.name};
      break;
    case bc20_cat_location_update:
      n = {a->cat_location_update.location_id, a->cat_location_update.usage};
      break;
    case bc20_file_new:
      n = {a->file_new.file_nr, a->file_new.location_id};
      f.strs = {a->file_new.filename};
      break;
    case bc20_colgroup_file_new: case bc20_colgroup_file_del:
      n = {a->colgroup_file_new.colgroup_id, a->colgroup_file_new.file_nr};
      break;
    default: ADD_FAILURE() << "unexpected action " << a->type;
  }
  return f;
}

struct generated {
  bc20_gen_summary sum{};
  std::vector<flat> written;
  int rc = -1;
};

generated generate(const std::string& dir, bc20_gen_options o) {
  generated g;
  o.out_dir = dir.c_str();
  o.hook = capture;
  o.hook_ctx = &g.written;
  g.rc = bc20_gen_run(&o, &g.sum);
  return g;
}

// Reads the whole log, transaction by transaction, into flat records.
std::vector<flat> read_back(const std::string& path, int64_t* transactions) {
  std::vector<flat> out;
  *transactions = 0;
  stream* s = open_binary_read_stream(path.c_str());
  EXPECT_EQ(stream_error(s), STREAM_NOERR);
  EXPECT_EQ(bc20_logger_read_version(s), BC20_LOG_VERSION_20);
  for (;;) {
    MemContext* mem = mem_context_create(nullptr, "logger_replay_tc");
    bc20_action* list = nullptr;
    int rc = bc20_logger_read_transaction(mem, s, &list);
    EXPECT_FALSE(rc == 1 && list == nullptr) << "read failure after " << out.size();
    if (rc == 1 && list != nullptr) {
      ++*transactions;
      for (bc20_action* a = list; a != nullptr; a = a->next) out.push_back(of_action(a));
    } else {
      EXPECT_EQ(list, nullptr) << "records behind the last transaction";
    }
    mem_context_remove(mem);
    if (rc == 0 || list == nullptr) break;
  }
  stream_close_destroy(s);
  return out;
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

// Every shape over several seeds: every record reads back equal, and
// together the shapes write every record kind in its form for one and for several locations.
TEST(GenRoundTrip, HistoriesReadBackEqualInEveryShape) {
  std::map<uint32_t, int64_t> kinds[2];  // per form: single location, several
  std::set<int64_t> index_types;
  int64_t null_groups = 0;
  for (const shape& s : kShapes) {
    for (uint64_t extra = 0; extra < 6; extra++) {
      SCOPED_TRACE(std::string(s.label) + " seed+" + std::to_string(extra));
      TempDir dir;
      generated g = generate(dir.path(), options_of(s, 1000 * extra));
      ASSERT_EQ(g.rc, 0);
      EXPECT_EQ(g.sum.tables_created, s.tables);
      EXPECT_GE(g.sum.tables_live, 1);
      int64_t transactions = 0;
      std::vector<flat> back = read_back(dir.file("CBM/LOG"), &transactions);
      EXPECT_EQ(transactions, g.sum.transactions);
      ASSERT_EQ(back.size(), g.written.size());
      for (size_t i = 0; i < back.size(); i++)
        ASSERT_EQ(back[i], as_read(g.written[i])) << "record " << i;
      int64_t total = 0;  // the summary counts what was written
      for (uint32_t tag = 0; tag <= BC20_MAX_TAG; tag++) {
        total += g.sum.records[tag];
        kinds[s.locations > 0][tag] += g.sum.records[tag];
      }
      EXPECT_EQ(total, static_cast<int64_t>(g.written.size()));
      EXPECT_EQ(static_cast<int64_t>(j480test::read_file(dir.file("CBM/LOG")).size()),
                g.sum.log_bytes);
      // The location map has one line per live location.
      EXPECT_EQ(static_cast<int64_t>(
                    j480test::split_lines(j480test::read_file(dir.file("CBM/location_map"))).size()),
                g.sum.locations_created - g.sum.locations_dropped);
      null_groups += g.sum.null_groups;
      for (const flat& f : g.written)
        if (f.type == bc20_cat_index_new) index_types.insert(f.nums[1]);
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
  EXPECT_EQ(log.substr(0, 2), "\x04\xD2");
  EXPECT_EQ(log, j480test::read_file(dir.file("b/CBM/LOG")));
  std::vector<std::string> map =
      j480test::split_lines(j480test::read_file(dir.file("a/CBM/location_map")));
  ASSERT_GE(map.size(), 2u);
  EXPECT_EQ(map[0], "loc1," + dir.file("a") + "/locations/loc1");
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
