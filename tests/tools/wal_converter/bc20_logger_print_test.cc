// The XML dump of a 2.0 log: the text of a hand-built log line by line, in the log and in
// `_LOG_XML_20`; what is not shown; damaged transactions; the version refusal.
#include "tools/wal_converter/bc20_logger_print.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "log_bytes.h"
#include "support/test_support.h"
#include "tools/wal_converter/bc20_iobm.h"
#include "utils/cvconfig.h"
#include "utils/cvlog.h"
#include "utils/stream.h"

namespace {

using j480test::LogBytes;
using j480test::split_lines;

const char kHead20[] = "<wal base_version=\"4851035686591004672\" cur_version=\"0\">";

class Bc20Print : public testing::Test {
 protected:
  void SetUp() override {
    config_ = cvconfig_create();
    layer_ = cvconfig_layer_create(config_->mem, "cmdline", cvconfig_defaults(config_));
    farm_ = tmp_.path();
    cvconfig_set_str(layer_, CVGROUP_SERVER, CVPROP_DBFARM_PATH, farm_.c_str());
    cvconfig_set_str(layer_, CVGROUP_SERVER, CVPROP_DBNAME, "db");
    bc20_set_config(layer_);
    cbm_ = farm_ + "/db/CBM";
    j480test::make_dirs(cbm_);
  }
  void TearDown() override {
    bc20_set_config(nullptr);
    cvconfig_destroy(config_);
  }

  // Dumps `bytes` as LOG; the result, with the log text in `err`.
  int dump(const std::string& bytes, int to_file = 1) {
    j480test::write_file(cbm_ + "/LOG", bytes);
    stream* s = open_binary_read_stream((cbm_ + "/LOG").c_str());
    int rc = 0;
    err_ = j480test::err_of([&] { rc = bc20_bm_logger_print(s, to_file); });
    stream_close_destroy(s);
    return rc;
  }
  std::string xml() const { return j480test::read_file(cbm_ + "/_LOG_XML_20"); }
  bool xml_exists() const { return j480test::exists(cbm_ + "/_LOG_XML_20"); }

  // The log lines a dump of `elements` writes, in order.
  static std::vector<std::string> log_lines(const std::vector<std::string>& elements) {
    std::vector<std::string> lines = {"#LOGGER:bc20_bm_logger_print start"};
    for (const std::string& e : elements) lines.push_back("#LOGGER:" + e);
    lines.push_back("#LOGGER:bm_logger_print end");
    return lines;
  }
  static std::string file_text(const std::vector<std::string>& elements) {
    std::string text;
    for (const std::string& e : elements) text += e + "\n";
    return text;
  }

  j480test::LogCapture log_;
  j480test::TempDir tmp_;
  cvconfig* config_ = nullptr;
  cvconfig_layer* layer_ = nullptr;
  std::string farm_, cbm_, err_;
};

// Every record kind; raw 8-byte items stay in the machine's order in either file.
std::string every_record_log(bool big_endian) {
  LogBytes b(big_endian);
  b.head();
  b.i32(0).lng(3);
  b.i32(2).i32(1).str("default").i32(524288).i32(0).i32(0).lng(0);
  b.i32(35).i32(2).str("cs").i32(4096).i32(0).i32(0).lng(0);
  b.i32(4).i32(11).i32(0).i32(3);
  b.i32(5).i32(12).i32(0).i32(4);
  b.i32(7).i32(13).lng(100).i32(0).i32(2000).i32(50);
  b.i32(8).i32(14).lng(101).i32(0);
  b.i32(31).i32(15).lng(3).lng(102).i32(1000).i32(60);
  b.i32(32).i32(16).lng(4).lng(103);
  b.i32(33).lng(5).lng(45).str("f5.dat");
  b.i32(34).lng(6);
  b.i32(15).lng(23).str("sint").i32(5).str("int").i32(10).i32(2).str("lz").str("o_id").i32(-2);
  b.i32(38).lng(25).lng(26).lng(27).i32(1).i32(3).raw_lng(23).raw_lng(-5).raw_lng(1LL << 40);
  b.i32(17).lng(28).lng(29).lng(30).i32(2).lng(0).i32(0);
  b.i32(36).lng(25).lng(5);
  b.i32(13).lng(20).str("orders").lng(21);
  b.i32(19).lng(29).str("pk").i32(2).lng(20).lng(21).lng(25).lng(30);
  b.i32(16).lng(24);
  b.i32(18).lng(28);
  b.i32(37).lng(25).lng(6);
  b.i32(14).lng(22);
  b.i32(20).lng(31);
  b.i32(26).lng(43).i32(2).raw("PD");
  b.i32(27).lng(44).lng(3).raw("XYZ");
  b.i32(21).lng(32).lng(33).lng(34).lng(35);
  b.i32(22).lng(36).i32(1).lng(3).raw("abc").i32(1).lng(2).raw("wxyz");
  b.i32(23).lng(37).i32(2).lng(0).i32(0).lng(3).raw("pqr");
  b.i32(24).lng(38).lng(39).lng(40).lng(41);
  b.i32(25).lng(42).i32(3).lng(1).raw_lng(77);
  b.i32(28).lng(45).str("loc1").i32(6);
  b.i32(30).lng(47).i32(8);  // not shown
  b.i32(29).lng(46);
  b.i32(1).lng(3);
  b.i32(34).lng(7).i32(29).lng(8);  // behind the last tr_end: not shown
  return b.bytes();
}

TEST_F(Bc20Print, EveryShownRecordHasItsElementInLogAndFile) {
  const std::vector<std::string> elements = {
      kHead20,
      "<tr trid=\"3\">",
      "<cs_new_defaultfile id=\"1\" blksz=\"524288\"/>",
      "<cs_new id=\"2\" blksz=\"4096\"/>",
      "<col_new colid=\"11\" type=\"3\"/>",
      "<col_del colid=\"12\" type=\"4\"/>",
      "<blk_new colid=\"13\" file_nr=\"-1\" block_nr=\"100\" bytes_used=\"2000\" num_tuples=\"50\"/>",
      "<blk_del colid=\"14\" file_nr=\"-1\" block_nr=\"101\"/>",
      "<blk_new colid=\"15\" file_nr=\"3\" block_nr=\"102\" bytes_used=\"1000\" num_tuples=\"60\"/>",
      "<blk_del colid=\"16\" file_nr=\"4\" block_nr=\"103\"/>",
      "<file_new file_nr=\"5\" location_id=\"45\" filename=\"f5.dat\"/>",
      "<file_del file_nr=\"6\"/>",
      "<cat_column_new colid=\"23\" adt=\"sint\" ctype=\"5\" ltype=\"int\" digits=\"10\" scale=\"2\" "
      "compression=\"lz\" col_name=\"o_id\" flags=\"4294967294\"/>",
      "<cat_colgroup_new cg_id=\"25\" store_id=\"26\" parent_id=\"27\" type=\"1\" ncols=\"3\" "
      "col_ids=\"23:-5:1099511627776\"/>",
      "<cat_colgroup_new_defaultfile cg_id=\"28\" store_id=\"29\" parent_id=\"30\" type=\"2\" "
      "ncols=\"0\" col_ids=\"\"/>",
      "<colgroup_file_new colgroup_id=\"25\" file_nr=\"5\"/>",
      "<cat_table_new table_id=\"20\" name=\"orders\" colgroup_id=\"21\"/>",
      "<cat_index_new index_id=\"29\" index_name=\"pk\" type=\"2\" table_id=\"20\" colgroup_id=\"21\" "
      "scolgroup_id=\"25\" key_id=\"30\"/>",
      "<cat_column_del column_id=\"24\"/>",
      "<cat_colgroup_del colgroup_id=\"28\"/>",
      "<colgroup_file_del colgroup_id=\"25\" file_nr=\"6\"/>",
      "<cat_table_del table_id=\"22\"/>",
      "<cat_index_del index_id=\"31\"/>",
      "<pdt_new_64 object_id=\"43\" size=\"2\"/>",
      "<pdt_new_64 object_id=\"44\" size=\"3\"/>",
      "<minmax_size index_id=\"32\" maxgroups=\"33\" numtuples=\"34\" groupsize=\"35\"/>",
      "<minmax_data index_id=\"36\" column_nr=\"1\" datasize=\"3\" overflow=\"1\" overflow_datasize=\"2\"/>",
      "<minmax_vardata index_id=\"37\" column_nr=\"2\" datasize=\"0\" overflow=\"0\" "
      "overflow_datasize=\"3\"/>",
      "<jis_size index_id=\"38\" maxgroups=\"39\" numgroups=\"40\" groupsize=\"41\"/>",
      "<jis_data index_id=\"42\" jis_column=\"3\" numgroups=\"1\"/>",
      "<cat_location_new location_id=\"45\" name=\"loc1\" usage=\"6\" path=\"(null)\"/>",
      "<cat_location_del location_id=\"46\"/>",
      "</tr trid=\"3\">",
      "</wal>",
  };
  EXPECT_EQ(dump(every_record_log(false)), 0);
  EXPECT_EQ(split_lines(err_), log_lines(elements));
  EXPECT_EQ(xml(), file_text(elements));
  // The same records written big-endian read and print the same.
  EXPECT_EQ(dump(every_record_log(true)), 0);
  EXPECT_EQ(xml(), file_text(elements));
}

TEST_F(Bc20Print, WithoutToFileOnlyTheLogHasTheTextAndAnOldFileIsRemoved) {
  j480test::write_file(cbm_ + "/_LOG_XML_20", "old text that must go\n");
  EXPECT_EQ(dump(LogBytes().head().i32(0).lng(1).i32(1).lng(1).bytes(), 0), 0);
  EXPECT_EQ(split_lines(err_), log_lines({kHead20, "<tr trid=\"1\">", "</tr trid=\"1\">", "</wal>"}));
  EXPECT_EQ(xml(), "old text that must go\n");  // not touched without to_file
  EXPECT_EQ(dump(LogBytes().head().bytes(), 1), 0);  // an empty log: head and end only
  EXPECT_EQ(xml(), file_text({kHead20, "</wal>"}));
  EXPECT_EQ(split_lines(err_), log_lines({kHead20, "</wal>"}));
}

TEST_F(Bc20Print, DamagedTransactionsAreSkippedAndTheDumpGoesOn) {
  LogBytes b;
  b.head();
  b.i32(0).lng(1).i32(34).lng(1).i32(1).lng(1);  // good
  b.i32(0).lng(2).i32(3);                        // tag 3 fails the transaction
  b.i32(1).lng(2);                               // a lone tr_end fails the next call
  b.i32(0).lng(0).i32(0).lng(0);                 // its trid read as tag 2 and a cs_new
  b.i32(0).lng(5).i32(34).lng(5).i32(1).lng(5);  // good again
  b.i32(0).lng(6).i32(31).i32(1);                // cut inside a blk_new
  EXPECT_EQ(dump(b.bytes()), 0);
  std::vector<std::string> want = {
      "#LOGGER:bc20_bm_logger_print start",
      std::string("#LOGGER:") + kHead20,
      "#LOGGER:<tr trid=\"1\">",
      "#LOGGER:<file_del file_nr=\"1\"/>",
      "#LOGGER:</tr trid=\"1\">",
      "ERROR:LOGGER:Unhandled log value 3",
      "ERROR:LOGGER:tr_end called while not in transaction",
      "#LOGGER:<cs_new_defaultfile id=\"0\" blksz=\"0\"/>",
      "#LOGGER:<tr trid=\"5\">",
      "#LOGGER:<file_del file_nr=\"5\"/>",
      "#LOGGER:</tr trid=\"5\">",
      "ERROR:LOGGER:incorrect blk_new",
      "#LOGGER:</wal>",
      "#LOGGER:bm_logger_print end",
  };
  EXPECT_EQ(split_lines(err_), want);
  EXPECT_EQ(xml(), file_text({kHead20, "<tr trid=\"1\">", "<file_del file_nr=\"1\"/>",
                              "</tr trid=\"1\">", "<cs_new_defaultfile id=\"0\" blksz=\"0\"/>",
                              "<tr trid=\"5\">", "<file_del file_nr=\"5\"/>",
                              "</tr trid=\"5\">", "</wal>"}));
}

TEST_F(Bc20Print, VersionTestRefusesConvertedLogsAndPassesNegativeWords) {
  const std::string refusal =
      "ERROR:LOGGER:Incompatible database version detected, database already converted.\n";
  for (int64_t word : {0x435257414C000001LL, 0LL, 0x435257414D000000LL}) {
    EXPECT_EQ(dump(LogBytes().head(word).i32(0).lng(1).i32(1).lng(1).bytes()), -1);
    EXPECT_EQ(err_, refusal);
    EXPECT_FALSE(xml_exists());
  }
  // A file of the mark alone has no word: -1 passes, and shows as such.
  EXPECT_EQ(dump(LogBytes().i16(1234).bytes()), 0);
  EXPECT_EQ(xml(), file_text({"<wal base_version=\"-16777216\" cur_version=\"16777215\">", "</wal>"}));
  EXPECT_EQ(bc20_bm_logger_print(nullptr, 1), -1);
}

}  // namespace
