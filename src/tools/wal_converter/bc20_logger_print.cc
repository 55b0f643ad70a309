#include "tools/wal_converter/bc20_logger_print.h"

#include <cstring>

#include "tools/wal_converter/bc20_iobm.h"
#include "tools/wal_converter/bc20_logger.h"
#include "utils/cvlog.h"
#include "utils/file.h"
#include "utils/mem.h"
#include "utils/posix.h"
#include "utils/str_funcs.h"
#include "utils/stream.h"

namespace {

constexpr char LOGGER[] = "LOGGER";
constexpr char kXmlName[] = "_LOG_XML_20";
constexpr int kFlags = J480_MEM_ALLOWFAILURE;

using ll = long long;

// One text of the dump: a log line at INFO and, with a file, the same bytes in one write.
void emit(stream* out, const char* text) {
  if (text == nullptr) return;
  CV_INFO(LOGGER, "%s", text);
  if (out != nullptr) stream_write(out, text, 1, strlen(text));
}

// The col_ids of a column group, "%lld" joined by ":".
const char* join_col_ids(sb* b, const bc20_cat_colgroup_new_fields* f) {
  sb_reset(b);
  for (int32_t i = 0; i < f->ncols; i++)
    sb_append(b, i == 0 ? "%lld" : ":%lld", static_cast<ll>(f->col_ids[i]));
  return b->data;
}

// The element of one action, formatted in `mem`; null for the types the dump doesn't show
// (cat_location_update and any other type without a format here).
char* format_action(MemContext* mem, sb* b, const bc20_action* a) {
  switch (a->type) {
    case bc20_tr_new:
      return mem_printf(mem, kFlags, "<tr trid=\"%lld\">\n", static_cast<ll>(a->tr_new.trid));
    case bc20_tr_end:
      return mem_printf(mem, kFlags, "</tr trid=\"%lld\">\n", static_cast<ll>(a->tr_end.trid));
    case bc20_cs_new:
    case bc20_cs_new_defaultfile:
      return mem_printf(mem, kFlags, "<cs_new%s id=\"%d\" blksz=\"%d\"/>\n",
                        a->type == bc20_cs_new_defaultfile ? "_defaultfile" : "", a->cs_new.id,
                        a->cs_new.blksz);
    case bc20_col_new:
      return mem_printf(mem, kFlags, "<col_new colid=\"%d\" type=\"%d\"/>\n", a->col_new.colid,
                        a->col_new.type);
    case bc20_col_del:
      return mem_printf(mem, kFlags, "<col_del colid=\"%d\" type=\"%d\"/>\n", a->col_del.colid,
                        a->col_del.type);
    case bc20_blk_new:
      return mem_printf(mem, kFlags,
                        "<blk_new colid=\"%d\" file_nr=\"%lld\" block_nr=\"%lld\" "
                        "bytes_used=\"%d\" num_tuples=\"%d\"/>\n",
                        a->blk_new.colid, static_cast<ll>(a->blk_new.file_nr),
                        static_cast<ll>(a->blk_new.block_nr), a->blk_new.bytes_used,
                        a->blk_new.num_tuples);
    case bc20_blk_del:
      return mem_printf(mem, kFlags, "<blk_del colid=\"%d\" file_nr=\"%lld\" block_nr=\"%lld\"/>\n",
                        a->blk_del.colid, static_cast<ll>(a->blk_del.file_nr),
                        static_cast<ll>(a->blk_del.block_nr));
    case bc20_file_new:
      return mem_printf(mem, kFlags,
                        "<file_new file_nr=\"%lld\" location_id=\"%lld\" filename=\"%s\"/>\n",
                        static_cast<ll>(a->file_new.file_nr),
                        static_cast<ll>(a->file_new.location_id), a->file_new.filename);
    case bc20_file_del:
      return mem_printf(mem, kFlags, "<file_del file_nr=\"%lld\"/>\n",
                        static_cast<ll>(a->file_del.file_nr));
    case bc20_cat_column_new: {
      const bc20_cat_column_new_fields* f = &a->cat_column_new;
      return mem_printf(mem, kFlags,
                        "<cat_column_new colid=\"%lld\" adt=\"%s\" ctype=\"%d\" ltype=\"%s\" "
                        "digits=\"%d\" scale=\"%d\" compression=\"%s\" col_name=\"%s\" "
                        "flags=\"%u\"/>\n",
                        static_cast<ll>(f->colid), f->adt, f->ctype, f->ltype, f->digits,
                        f->scale, f->compression, f->col_name, f->flags);
    }
    case bc20_cat_colgroup_new:
    case bc20_cat_colgroup_new_defaultfile: {
      const bc20_cat_colgroup_new_fields* f = &a->cat_colgroup_new;
      return mem_printf(mem, kFlags,
                        "<cat_colgroup_new%s cg_id=\"%lld\" store_id=\"%lld\" parent_id=\"%lld\" "
                        "type=\"%d\" ncols=\"%d\" col_ids=\"%s\"/>\n",
                        a->type == bc20_cat_colgroup_new_defaultfile ? "_defaultfile" : "",
                        static_cast<ll>(f->cg_id), static_cast<ll>(f->store_id),
                        static_cast<ll>(f->parent_id), f->type, f->ncols, join_col_ids(b, f));
    }
    case bc20_colgroup_file_new:
      return mem_printf(mem, kFlags, "<colgroup_file_new colgroup_id=\"%lld\" file_nr=\"%lld\"/>\n",
                        static_cast<ll>(a->colgroup_file_new.colgroup_id),
                        static_cast<ll>(a->colgroup_file_new.file_nr));
    case bc20_cat_table_new:
      return mem_printf(mem, kFlags,
                        "<cat_table_new table_id=\"%lld\" name=\"%s\" colgroup_id=\"%lld\"/>\n",
                        static_cast<ll>(a->cat_table_new.table_id), a->cat_table_new.name,
                        static_cast<ll>(a->cat_table_new.colgroup_id));
    case bc20_cat_index_new: {
      const bc20_cat_index_new_fields* f = &a->cat_index_new;
      return mem_printf(mem, kFlags,
                        "<cat_index_new index_id=\"%lld\" index_name=\"%s\" type=\"%d\" "
                        "table_id=\"%lld\" colgroup_id=\"%lld\" scolgroup_id=\"%lld\" "
                        "key_id=\"%lld\"/>\n",
                        static_cast<ll>(f->index_id), f->index_name, f->type,
                        static_cast<ll>(f->table_id), static_cast<ll>(f->colgroup_id),
                        static_cast<ll>(f->scolgroup_id), static_cast<ll>(f->key_id));
    }
    case bc20_cat_column_del:
      return mem_printf(mem, kFlags, "<cat_column_del column_id=\"%lld\"/>\n",
                        static_cast<ll>(a->cat_column_del.column_id));
    case bc20_cat_colgroup_del:
      return mem_printf(mem, kFlags, "<cat_colgroup_del colgroup_id=\"%lld\"/>\n",
                        static_cast<ll>(a->cat_colgroup_del.colgroup_id));
    case bc20_colgroup_file_del:
      return mem_printf(mem, kFlags, "<colgroup_file_del colgroup_id=\"%lld\" file_nr=\"%lld\"/>\n",
                        static_cast<ll>(a->colgroup_file_del.colgroup_id),
                        static_cast<ll>(a->colgroup_file_del.file_nr));
    case bc20_cat_table_del:
      return mem_printf(mem, kFlags, "<cat_table_del table_id=\"%lld\"/>\n",
                        static_cast<ll>(a->cat_table_del.table_id));
    case bc20_cat_index_del:
      return mem_printf(mem, kFlags, "<cat_index_del index_id=\"%lld\"/>\n",
                        static_cast<ll>(a->cat_index_del.index_id));
    case bc20_pdt_new_64:
      return mem_printf(mem, kFlags, "<pdt_new_64 object_id=\"%lld\" size=\"%lld\"/>\n",
                        static_cast<ll>(a->pdt_new_64.object_id),
                        static_cast<ll>(a->pdt_new_64.size));
    case bc20_minmax_size: {
      const bc20_minmax_size_fields* f = &a->minmax_size;
      return mem_printf(mem, kFlags,
                        "<minmax_size index_id=\"%lld\" maxgroups=\"%lld\" numtuples=\"%lld\" "
                        "groupsize=\"%lld\"/>\n",
                        static_cast<ll>(f->index_id), static_cast<ll>(f->maxgroups),
                        static_cast<ll>(f->numtuples), static_cast<ll>(f->groupsize));
    }
    case bc20_minmax_data: {
      const bc20_minmax_data_fields* f = &a->minmax_data;
      return mem_printf(mem, kFlags,
                        "<minmax_data index_id=\"%lld\" column_nr=\"%d\" datasize=\"%lld\" "
                        "overflow=\"%d\" overflow_datasize=\"%lld\"/>\n",
                        static_cast<ll>(f->index_id), f->column_nr, static_cast<ll>(f->datasize),
                        f->overflow, static_cast<ll>(f->overflow_datasize));
    }
    case bc20_minmax_vardata: {
      const bc20_minmax_data_fields* f = &a->minmax_vardata;
      return mem_printf(mem, kFlags,
                        "<minmax_vardata index_id=\"%lld\" column_nr=\"%d\" datasize=\"%lld\" "
                        "overflow=\"%d\" overflow_datasize=\"%lld\"/>\n",
                        static_cast<ll>(f->index_id), f->column_nr, static_cast<ll>(f->datasize),
                        f->overflow, static_cast<ll>(f->overflow_datasize));
    }
    case bc20_jis_size: {
      const bc20_jis_size_fields* f = &a->jis_size;
      return mem_printf(mem, kFlags,
                        "<jis_size index_id=\"%lld\" maxgroups=\"%lld\" numgroups=\"%lld\" "
                        "groupsize=\"%lld\"/>\n",
                        static_cast<ll>(f->index_id), static_cast<ll>(f->maxgroups),
                        static_cast<ll>(f->numgroups), static_cast<ll>(f->groupsize));
    }
    case bc20_jis_data:
      return mem_printf(mem, kFlags,
                        "<jis_data index_id=\"%lld\" jis_column=\"%d\" numgroups=\"%lld\"/>\n",
                        static_cast<ll>(a->jis_data.index_id), a->jis_data.jis_column,
                        static_cast<ll>(a->jis_data.numgroups));
    case bc20_cat_location_new: {
      // The record carries no path; the formatter's text for a null string stands in for it.
      const bc20_cat_location_new_fields* f = &a->cat_location_new;
      return mem_printf(mem, kFlags,
                        "<cat_location_new location_id=\"%lld\" name=\"%s\" usage=\"%d\" "
                        "path=\"%s\"/>\n",
                        static_cast<ll>(f->location_id), f->name, f->usage,
                        f->path != nullptr ? f->path : "(null)");
    }
    case bc20_cat_location_del:
      return mem_printf(mem, kFlags, "<cat_location_del location_id=\"%lld\"/>\n",
                        static_cast<ll>(a->cat_location_del.location_id));
    default:
      return nullptr;
  }
}

}  // namespace

int bc20_bm_logger_print(stream* s, int to_file) {
  if (s == nullptr) return -1;
  MemContext* mem = mem_context_create(nullptr, "logger_print");
  int64_t word = bc20_logger_read_version(s);
  if (bc20_logger_version_test(word) < 0) {
    mem_context_remove(mem);
    return -1;
  }

  stream* out = nullptr;
  if (to_file) {
    const char* cbm = bc20_iobm_cbm_path();
    char path[4096];
    if (cbm != nullptr &&
        str_printf(path, sizeof path, "%s%c%s", cbm, J480_PATH_SEP, kXmlName) >= 0) {
      file_remove(path);
      out = open_text_write_stream(path);
    }
  }

  CV_INFO(LOGGER, "bc20_bm_logger_print start");
  emit(out, mem_printf(mem, kFlags, "<wal base_version=\"%lld\" cur_version=\"%lld\">\n",
                       static_cast<ll>(word & ~BC20_VERSION_MASK),
                       static_cast<ll>(word & BC20_VERSION_MASK)));

  // Each transaction is read into a child context that goes once it is printed, so the dump
  // of a long log needs the memory of its largest transaction only.
  sb* col_ids = sb_create(256);
  for (;;) {
    MemContext* tc = mem_context_create(mem, "logger_print_tc");
    bc20_action* actions = nullptr;
    int more = bc20_logger_read_transaction(tc, s, &actions);
    if (more) {
      for (const bc20_action* a = actions; a != nullptr; a = a->next)
        emit(out, format_action(tc, col_ids, a));
    }
    mem_context_remove(tc);
    // A damaged transaction is skipped; a file that can't be read any further ends the dump.
    if (!more || (actions == nullptr && stream_error(s) != STREAM_NOERR && !stream_at_end(s)))
      break;
  }
  sb_destroy(col_ids);

  emit(out, mem_printf(mem, kFlags, "</wal>\n"));
  CV_INFO(LOGGER, "bm_logger_print end\n");
  if (out != nullptr) stream_close_destroy(out);
  mem_context_remove(mem);
  return 0;
}
