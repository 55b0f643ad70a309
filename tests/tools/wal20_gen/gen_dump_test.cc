// The XML dump of generated logs against a text built here from the records as they were
// written: the dump's formats are spelled out again below, from the element table, so that the
// dump and this test can't share a mistake.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/test_support.h"
#include "tools/wal20_gen/bc20_gen.h"
#include "tools/wal_converter/bc20_iobm.h"
#include "tools/wal_converter/bc20_logger_print.h"
#include "utils/cvconfig.h"
#include "utils/stream.h"

namespace {

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

void collect(void* ctx, const bc20_log_record* record) {
  static_cast<std::vector<std::string>*>(ctx)->push_back(element(*record));
}

}  // namespace

TEST(GeneratedLogDump, EveryElementMatchesTheRecordsAsWritten) {
  struct Shape {
    int locations, big_endian, pdts;
    uint64_t seed;
  };
  for (const Shape& shape : {Shape{0, 0, 1, 3}, Shape{3, 0, 0, 11}, Shape{2, 1, 1, 29}}) {
    SCOPED_TRACE(shape.seed);
    j480test::TempDir farm;
    std::vector<std::string> elements;
    bc20_gen_options opts;
    std::string out = farm.file("db");
    opts.out_dir = out.c_str();
    opts.seed = shape.seed;
    opts.tables = 6;
    opts.transactions = 60;
    opts.locations = shape.locations;
    opts.big_endian = shape.big_endian;
    opts.pdts = shape.pdts;
    opts.hook = collect;
    opts.hook_ctx = &elements;
    bc20_gen_summary summary;
    ASSERT_EQ(bc20_gen_run(&opts, &summary), 0);

    cvconfig* config = cvconfig_create();
    cvconfig_layer* cmdline =
        cvconfig_layer_create(nullptr, "cmdline", cvconfig_defaults(config));
    cvconfig_set_str(cmdline, CVGROUP_SERVER, CVPROP_DBFARM_PATH, farm.path().c_str());
    cvconfig_set_str(cmdline, CVGROUP_SERVER, CVPROP_DBNAME, "db");
    bc20_set_config(cmdline);
    stream* s = open_binary_read_stream((out + "/CBM/LOG").c_str());
    testing::internal::CaptureStderr();
    EXPECT_EQ(bc20_bm_logger_print(s, 1), 0);
    std::string log = testing::internal::GetCapturedStderr();
    stream_close_destroy(s);
    bc20_set_config(nullptr);
    cvconfig_destroy(config);

    std::vector<std::string> expected = {
        "<wal base_version=\"4851035686591004672\" cur_version=\"0\">"};
    for (const std::string& e : elements)
      if (!e.empty()) expected.push_back(e.substr(0, e.size() - 1));
    expected.push_back("</wal>");
    std::vector<std::string> got = j480test::split_lines(j480test::read_file(out + "/CBM/_LOG_XML_20"));
    ASSERT_EQ(got.size(), expected.size());
    EXPECT_GT(got.size(), 300u);
    for (size_t i = 0; i < got.size(); i++) ASSERT_EQ(got[i], expected[i]) << "line " << i + 1;
    EXPECT_EQ(log.find("ERROR"), std::string::npos) << log.substr(0, 2000);
  }
}
