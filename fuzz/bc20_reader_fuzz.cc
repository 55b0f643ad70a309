// Fuzz target: a whole 2.0 log (mark, version word, records) through the record reader and the
// XML dump.
//
// The reader is called transaction by transaction for as long as it returns non-zero, which is
// how the dump drives it, so a damaged stretch is read past as well. Every list it returns is
// checked against the reader's contract, and every payload byte it claims is touched. The reader
// ends the process by design on the records the format forbids (the assertions listed below):
// those throw here instead, and the input is rejected from the corpus. Any other failed assertion
// is a crash. The dump runs only on inputs that passed the reader.
#include <cstdint>
#include <cstring>

#include "fuzz_support.h"
#include "tools/wal_converter/bc20_logger.h"
#include "tools/wal_converter/bc20_logger_print.h"
#include "utils/mem.h"
#include "utils/stream.h"

namespace {

using j480fuzz::touch;

// The reader's content assertions: a column group 0, a group file of group 0 or of file < 0.
const char* const kDesignAssertions[] = {"type == bc20_cs_new || type == bc20_cs_new_defaultfile",
                                         "colgroup_id", "colgroup_id && file_nr >= 0"};

void touch_string(const char* text) {
  FUZZ_CHECK(text != nullptr);
  FUZZ_CHECK(strlen(text) < static_cast<size_t>(BC20_STRING_BUFSIZE));
}

void check_action(const bc20_action* a) {
  switch (a->type) {
    case bc20_blk_new_defaultfile:
    case bc20_blk_del_defaultfile:
    case bc20_pdt_new:
      FUZZ_CHECK(!"the reader hands out converted tags only");
      break;
    case bc20_cat_table_new: touch_string(a->cat_table_new.name); break;
    case bc20_cat_column_new: {
      const bc20_cat_column_new_fields& f = a->cat_column_new;
      touch_string(f.adt);
      touch_string(f.ltype);
      touch_string(f.compression);
      touch_string(f.col_name);
      break;
    }
    case bc20_cat_colgroup_new:
    case bc20_cat_colgroup_new_defaultfile:
      FUZZ_CHECK(a->cat_colgroup_new.cg_id != 0);
      touch(a->cat_colgroup_new.col_ids, int64_t{8} * a->cat_colgroup_new.ncols);
      break;
    case bc20_cat_index_new: touch_string(a->cat_index_new.index_name); break;
    case bc20_minmax_data:
    case bc20_minmax_vardata: {
      const bc20_minmax_data_fields& f = a->minmax_data;
      touch(f.data, f.datasize);
      FUZZ_CHECK(f.overflow_datasize >= 0 && f.overflow_datasize <= INT64_MAX / 2);
      touch(f.overflow_data, (a->type == bc20_minmax_data ? 2 : 1) * f.overflow_datasize);
      break;
    }
    case bc20_jis_data:
      FUZZ_CHECK(a->jis_data.numgroups >= 0 && a->jis_data.numgroups <= INT64_MAX / 8);
      touch(a->jis_data.groups, 8 * a->jis_data.numgroups);
      break;
    case bc20_pdt_new_64: touch(a->pdt_new_64.data, a->pdt_new_64.size); break;
    case bc20_cat_location_new:
      touch_string(a->cat_location_new.name);
      FUZZ_CHECK(a->cat_location_new.path == nullptr);
      break;
    case bc20_file_new: touch_string(a->file_new.filename); break;
    case bc20_colgroup_file_new:
    case bc20_colgroup_file_del:
      FUZZ_CHECK(a->colgroup_file_new.colgroup_id != 0 && a->colgroup_file_new.file_nr >= 0);
      break;
    default:
      FUZZ_CHECK(a->type <= BC20_MAX_TAG);
      break;
  }
}

// A transaction (rc 1 with a list; none is a failed read) runs from its one tr_new to its tr_end,
// the last action, with the same trid; only records outside any transaction may stand before the
// tr_new. What stands after the last tr_end (rc 0) holds neither.
void check_list(int rc, const bc20_action* list) {
  int tr_new = 0, tr_end = 0;
  int64_t trid = 0;
  const bc20_action* last = nullptr;
  for (const bc20_action* a = list; a != nullptr; last = a, a = a->next) {
    check_action(a);
    if (a->type == bc20_tr_new) trid = a->tr_new.trid, tr_new++;
    if (a->type == bc20_tr_end) FUZZ_CHECK(++tr_end == 1 && tr_new == 1 && a->tr_end.trid == trid);
  }
  FUZZ_CHECK(rc == 1 && list != nullptr ? tr_new == 1 && tr_end == 1 && last->type == bc20_tr_end
                                        : tr_new == 0 && tr_end == 0);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  j480fuzz::quiet_logger();
  j480fuzz::accept_assertions(kDesignAssertions);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The version word is read and tested, but the records are read whatever it says.
  return j480fuzz::fuzz_log<bc20_action>(
      data, size, [](stream* s) { bc20_logger_version_test(bc20_logger_read_version(s)); },
      bc20_logger_read_transaction, check_list, [](stream* s) {
        const int rc = bc20_bm_logger_print(s, 0);
        FUZZ_CHECK(rc == 0 || rc == -1);
      });
}
