// The XML dump of a 2.0 log: where the text goes and damaged transactions. The version refusal
// is the driver's (cli_test.cc).
// Every element's format is checked against generated logs (tests/tools/wal20_gen).
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

}  // namespace
