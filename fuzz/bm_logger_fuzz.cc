// Fuzz target: a whole 2.5 log (mark, version word, records) through the record reader and the
// XML dump.
//
// The reader is called transaction by transaction for as long as it returns non-zero, as the
// dump drives it, so a damaged stretch is read past as well. Every list it returns is checked
// against the reader's contract and every byte an action claims is touched. A group file record
// with group 0 or a negative file ends the process by design ("paxgroup_id && file_nr >= 0"):
// that assertion is accepted and the input rejected; any other failed assertion is a crash.
#include <cstdint>
#include <cstring>

#include "bm/logger.h"
#include "fuzz_support.h"
#include "kernel/ptype.h"
#include "utils/mem.h"
#include "utils/stream.h"

namespace {

using j480fuzz::touch;

const char* const kDesignAssertions[] = {"paxgroup_id && file_nr >= 0"};

// Names of every limited kind are shorter than the read buffer.
const char* name_of(const bm_logger_action* a) {
  switch (a->type) {
    case BM_CAT_TABLE_NEW: return a->cat_table_new.name;
    case BM_CAT_COLUMN_NEW: return a->cat_column_new.name;
    case BM_CAT_INDEX_NEW: return a->cat_index_new.name;
    case BM_FILE_NEW: return a->file_new.filename;
    case BM_CAT_LOCATION_NEW: return a->cat_location_new.name;
    case BM_CAT_KEY_NEW: return a->cat_key_new.name;
    default: return "";
  }
}

void check_action(const bm_logger_action* a) {
  FUZZ_CHECK(a->type >= 0 && a->type <= BM_LOGGER_MAX_TAG);
  FUZZ_CHECK(name_of(a) != nullptr && strlen(name_of(a)) < BM_LOGGER_NAME_BUFSIZE);
  switch (a->type) {
    case BM_CAT_LOCATION_NEW:
      FUZZ_CHECK(a->cat_location_new.path == nullptr);
      break;
    case BM_MINMAX_DATA:
    case BM_MINMAX_VARDATA: {
      const bm_minmax_data_fields& f = a->minmax_data;
      touch(f.data, f.datasize);
      FUZZ_CHECK(f.overflow_datasize >= 0 && f.overflow_datasize <= INT64_MAX / 2);
      touch(f.overflow_data, (a->type == BM_MINMAX_DATA ? 2 : 1) * f.overflow_datasize);
      break;
    }
    case BM_JIS_DATA:
      FUZZ_CHECK(a->jis_data.numgroups >= 0 && a->jis_data.numgroups <= INT64_MAX / 8);
      touch(a->jis_data.data, 8 * a->jis_data.numgroups);
      break;
    case BM_PDT_NEW:
      touch(a->pdt_new.data, a->pdt_new.size);
      break;
    case BM_CAT_KEY_NEW:
      FUZZ_CHECK(a->cat_key_new.ncols >= 0 && a->cat_key_new.ncols <= INT64_MAX / 8);
      touch(a->cat_key_new.col_ids, 8 * a->cat_key_new.ncols);
      break;
    case BM_PAXGROUP_NEW: {
      const bm_paxgroup_new_fields& f = a->paxgroup_new;
      FUZZ_CHECK(f.ncols >= 0 && f.file_nr == 0 && f.cols != nullptr);
      for (int64_t i = 0; i < f.ncols; i++) {
        FUZZ_CHECK(ptype_by_id(f.cols->adt_id[i]) != nullptr);
        const char* compression = f.cols->compression[i];
        touch(compression, static_cast<int64_t>(strlen(compression)) + 1);
        touch(&f.cols->nullability[i], sizeof f.cols->nullability[i]);
        touch(&f.cols->implementation[i], sizeof f.cols->implementation[i]);
      }
      break;
    }
    case BM_PAXGROUP_FILE_NEW:
    case BM_PAXGROUP_FILE_DEL:
      FUZZ_CHECK(a->id != 0 && a->paxgroup_file_new.file_nr >= 0);
      break;
    default:
      break;
  }
}

// A transaction (rc 1 with a list) runs from its one tr_new to its tr_end, the last action, with
// the same trid; what a read returns with rc 0 holds neither.
void check_list(int rc, const bm_logger_action_list* list) {
  if (list == nullptr) return;
  FUZZ_CHECK(list->head != nullptr && list->head->prev == nullptr && list->tail->next == nullptr);
  int tr_new = 0, tr_end = 0;
  int64_t trid = 0;
  for (const bm_logger_action* a = list->head; a != nullptr; a = a->next) {
    FUZZ_CHECK(a->next != nullptr ? a->next->prev == a : a == list->tail);
    check_action(a);
    if (a->type == BM_TR_NEW) trid = a->id, tr_new++;
    if (a->type == BM_TR_END) FUZZ_CHECK(++tr_end == 1 && tr_new == 1 && a->id == trid);
  }
  FUZZ_CHECK(rc == 1 ? tr_new == 1 && tr_end == 1 && list->tail->type == BM_TR_END
                     : tr_new == 0 && tr_end == 0);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  j480fuzz::quiet_logger();
  j480fuzz::accept_assertions(kDesignAssertions);
  ptype_register_all();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  return j480fuzz::fuzz_log<bm_logger_action_list>(
      data, size, [](stream* s) { bm_logger_read_version(s); }, bm_logger_read_transaction,
      check_list, [](stream* s) { FUZZ_CHECK(bm_logger_print(s, 0) == 0); });
}
