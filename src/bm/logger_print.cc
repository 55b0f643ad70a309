// The XML dump of a 2.5 log: one line per action, into the log at INFO and into _LOG_XML.
#include <cstring>

#include "bm/iobm.h"
#include "bm/logger.h"
#include "kernel/ptype.h"
#include "utils/cvlog.h"
#include "utils/file.h"
#include "utils/mem.h"
#include "utils/posix.h"
#include "utils/str_funcs.h"
#include "utils/stream.h"

namespace {

constexpr char LOGGER[] = "LOGGER";
constexpr char kXmlName[] = "_LOG_XML";

using ll = long long;

// What the platform's formatter prints for a null string.
const char* shown(const char* text) {
  return text != nullptr ? text : "(null)";
}

// One text of the dump: a log line at INFO and, with a file, the same bytes in one write.
void emit(stream* out, const sb* text) {
  CV_INFO(LOGGER, "%s", text->data);
  if (out != nullptr) stream_write(out, text->data, 1, static_cast<size_t>(text->length));
}

// "%lld" entries joined by ":".
void join_ids(sb* b, const bm_cat_key_new_fields& f) {
  sb_reset(b);
  for (int64_t i = 0; i < f.ncols; i++)
    sb_append(b, i == 0 ? "%lld" : ":%lld", static_cast<ll>(f.col_ids[i]));
}

// "(NULL|NOTNULL,<type name>,'<compression>',<implementation>)" entries joined by ":".
void join_descrs(sb* b, const bm_paxgroup_new_fields& f) {
  sb_reset(b);
  const bm_paxgroup_columns& c = *f.cols;
  for (int64_t i = 0; i < f.ncols; i++) {
    const ptype* t = ptype_by_id(c.adt_id[i]);
    sb_append(b, "%s(%s,%s,'%s',%d)", i == 0 ? "" : ":", c.nullability[i] ? "NULL" : "NOTNULL",
              shown(t != nullptr ? t->name : nullptr), shown(c.compression[i]),
              c.implementation[i]);
  }
}

// The element of one action into `line`; false for a kind the dump doesn't show.
bool format_action(sb* line, sb* list, const bm_logger_action* a) {
  const ll id = static_cast<ll>(a->id);
  sb_reset(line);
  switch (a->type) {
    case BM_CS_NEW:
      sb_append(line, "<cs_new id=\"%lld\" blksz=\"%lld\"/>\n", id,
                static_cast<ll>(a->cs_new.blksz));
      return true;
    case BM_SCOL_NEW:
      sb_append(line, "<scol_new scolid=\"%lld\" type=\"%d\"/>\n", id, a->scol_new.type);
      return true;
    case BM_SCOL_DEL:
      sb_append(line, "<scol_del scolid=\"%lld\" type=\"%d\"/>\n", id, a->scol_del.type);
      return true;
    case BM_BLK_NEW: {
      const bm_blk_fields& f = a->blk_new;
      sb_append(line,
                "<blk_new scolid=\"%lld\" file_nr=\"%lld\" block_nr=\"%lld\" bytes_used=\"%lld\" "
                "num_tuples=\"%lld\"/>\n",
                id, static_cast<ll>(f.file_nr), static_cast<ll>(f.block_nr),
                static_cast<ll>(f.bytes_used), static_cast<ll>(f.num_tuples));
      return true;
    }
    case BM_BLK_DEL:
      sb_append(line, "<blk_del scolid=\"%lld\" file_nr=\"%lld\" block_nr=\"%lld\"/>\n", id,
                static_cast<ll>(a->blk_del.file_nr), static_cast<ll>(a->blk_del.block_nr));
      return true;
    case BM_FILE_NEW:
      sb_append(line, "<file_new file_nr=\"%lld\" location_id=\"%lld\" filename=\"%s\"/>\n", id,
                static_cast<ll>(a->file_new.location_id), shown(a->file_new.filename));
      return true;
    case BM_FILE_DEL:
      sb_append(line, "<file_del file_nr=\"%lld\"/>\n", id);
      return true;
    case BM_CAT_COLUMN_NEW: {
      // The packed logical type shows as storage_type and the type id as logical_type.
      const bm_cat_column_new_fields& f = a->cat_column_new;
      sb_append(line,
                "<cat_column_new column_id=\"%lld\" name=\"%s\" nullability=\"%d\" "
                "storage_type=\"%d\" logical_type=\"%d\" table_id=\"%lld\"/>\n",
                id, shown(f.name), f.nullability, f.ltype_code, f.adt_id,
                static_cast<ll>(f.table_id));
      return true;
    }
    case BM_PAXGROUP_FILE_NEW:
      sb_append(line,
                "<paxgroup_file_new colgroup_id=\"%lld\" file_nr=\"%lld\" object_id=\"%lld\"/>\n",
                id, static_cast<ll>(a->paxgroup_file_new.file_nr),
                static_cast<ll>(a->paxgroup_file_new.object_id));
      return true;
    case BM_CAT_TABLE_NEW:
      sb_append(line, "<cat_table_new table_id=\"%lld\" name=\"%s\" is_auto_pax=\"%d\"/>\n", id,
                shown(a->cat_table_new.name), a->cat_table_new.is_auto_pax);
      return true;
    case BM_CAT_KEY_NEW: {
      const bm_cat_key_new_fields& f = a->cat_key_new;
      join_ids(list, f);
      sb_append(line,
                "<cat_key_new key_id=\"%lld\" name=\"%s\" type=\"%d\" table_id=\"%lld\" "
                "ref_key_id=\"%lld\" ncols=\"%lld\" col_ids=\"%s\"/>\n",
                id, shown(f.name), f.type, static_cast<ll>(f.table_id),
                static_cast<ll>(f.ref_key_id), static_cast<ll>(f.ncols), list->data);
      return true;
    }
    case BM_CAT_INDEX_NEW: {
      const bm_cat_index_new_fields& f = a->cat_index_new;
      sb_append(line,
                "<cat_index_new index_id=\"%lld\" name=\"%s\" type=\"%d\" table_id=\"%lld\" "
                "ref_key_id=\"%lld\"/>\n",
                id, shown(f.name), f.type, static_cast<ll>(f.table_id),
                static_cast<ll>(f.ref_key_id));
      return true;
    }
    case BM_STORAGE_NEW:
      sb_append(line, "<storage_new storage_id=\"%lld\" object_id=\"%lld\"/>\n", id,
                static_cast<ll>(a->storage_new.object_id));
      return true;
    case BM_PAXGROUP_NEW: {
      const bm_paxgroup_new_fields& f = a->paxgroup_new;
      join_descrs(list, f);
      sb_append(line,
                "<paxgroup_new paxgroup_id=\"%lld\" storage_id=\"%lld\" scol_id=\"%lld\" "
                "object_id=\"%lld\" file_nr=\"%lld\" ncols=\"%lld\" col_descrs=\"%s\"/>\n",
                id, static_cast<ll>(f.storage_id), static_cast<ll>(f.scol_id),
                static_cast<ll>(f.object_id), static_cast<ll>(f.file_nr), static_cast<ll>(f.ncols),
                list->data);
      return true;
    }
    case BM_CAT_COLUMN_DEL:
      sb_append(line, "<cat_column_del column_id=\"%lld\"/>\n", id);
      return true;
    case BM_PAXGROUP_FILE_DEL:
      sb_append(line,
                "<paxgroup_file_del paxgroup_id=\"%lld\" file_nr=\"%lld\" object_id=\"%lld\"/>\n",
                id, static_cast<ll>(a->paxgroup_file_del.file_nr),
                static_cast<ll>(a->paxgroup_file_del.object_id));
      return true;
    case BM_CAT_TABLE_DEL:
      sb_append(line, "<cat_table_del table_id=\"%lld\"/>\n", id);
      return true;
    case BM_CAT_TABLE_TRUNCATE:
      sb_append(line, "<cat_table_truncate table_id=\"%lld\"/>\n", id);
      return true;
    case BM_CAT_KEY_DEL:
      sb_append(line, "<cat_key_del key_id=\"%lld\"/>\n", id);
      return true;
    case BM_CAT_INDEX_DEL:
      sb_append(line, "<cat_index_del index_id=\"%lld\"/>\n", id);
      return true;
    case BM_STORAGE_DEL:
      sb_append(line, "<storage_del index_id=\"%lld\"/>\n", id);
      return true;
    case BM_PAXGROUP_DEL:
      sb_append(line, "<paxgroup_del paxgroup_id=\"%lld\" object_id=\"%lld\"/>\n", id,
                static_cast<ll>(a->paxgroup_del.object_id));
      return true;
    case BM_PDT_NEW:
      sb_append(line, "<pdt_new object_id=\"%lld\" size=\"%lld\"/>\n", id,
                static_cast<ll>(a->pdt_new.size));
      return true;
    case BM_TR_NEW:
      sb_append(line, "<tr trid=\"%lld\">\n", id);
      return true;
    case BM_TR_END:
      sb_append(line, "</tr trid=\"%lld\">\n", id);
      return true;
    case BM_MINMAX_SIZE:
    case BM_JIS_SIZE: {
      const bool minmax = a->type == BM_MINMAX_SIZE;
      const bm_minmax_size_fields& m = a->minmax_size;
      const bm_jis_size_fields& j = a->jis_size;
      if (minmax) {
        sb_append(line,
                  "<minmax_size index_id=\"%lld\" maxgroups=\"%lld\" numtuples=\"%lld\" "
                  "groupsize=\"%lld\"/>\n",
                  id, static_cast<ll>(m.maxgroups), static_cast<ll>(m.numtuples),
                  static_cast<ll>(m.groupsize));
      } else {
        sb_append(line,
                  "<jis_size index_id=\"%lld\" maxgroups=\"%lld\" numgroups=\"%lld\" "
                  "groupsize=\"%lld\"/>\n",
                  id, static_cast<ll>(j.maxgroups), static_cast<ll>(j.numgroups),
                  static_cast<ll>(j.groupsize));
      }
      return true;
    }
    case BM_MINMAX_DATA:
    case BM_MINMAX_VARDATA: {
      const bm_minmax_data_fields& f = a->minmax_data;
      sb_append(line,
                "<%s index_id=\"%lld\" column_nr=\"%d\" datasize=\"%lld\" overflow=\"%d\" "
                "overflow_datasize=\"%lld\"/>\n",
                a->type == BM_MINMAX_DATA ? "minmax_data" : "minmax_vardata", id, f.column_nr,
                static_cast<ll>(f.datasize), f.overflow, static_cast<ll>(f.overflow_datasize));
      return true;
    }
    case BM_JIS_DATA:
      sb_append(line, "<jis_data index_id=\"%lld\" jis_column=\"%d\" numgroups=\"%lld\"/>\n", id,
                a->jis_data.jis_column, static_cast<ll>(a->jis_data.numgroups));
      return true;
    case BM_CAT_LOCATION_NEW: {
      const bm_cat_location_new_fields& f = a->cat_location_new;
      sb_append(line,
                "<cat_location_new location_id=\"%lld\" name=\"%s\" usage=\"%d\" path=\"%s\"/>\n",
                id, shown(f.name), f.usage, shown(f.path));
      return true;
    }
    case BM_CAT_LOCATION_DEL:
      sb_append(line, "<cat_location_del location_id=\"%lld\"/>\n", id);
      return true;
    default:  // cat_location_update has no element
      return false;
  }
}

}  // namespace

int bm_logger_print_in(stream* s, const char* directory) {
  if (s == nullptr) return -1;
  MemContext* mem = mem_context_create(nullptr, "logger_print");

  stream* out = nullptr;
  if (directory != nullptr) {
    char* path =
        mem_printf(mem, J480_MEM_ALLOWFAILURE, "%s%c%s", directory, J480_PATH_SEP, kXmlName);
    if (path != nullptr) {
      file_remove(path);
      out = open_text_write_stream(path);
    }
  }

  CV_INFO(LOGGER, "bm_logger_print start");
  int64_t word = bm_logger_read_version(s);
  sb* line = sb_create(512);
  sb* list = sb_create(256);
  sb_append(line, "<wal base_version=\"%lld\" cur_version=\"%lld\">\n",
            static_cast<ll>(word & ~BM_LOGGER_VERSION_MASK),
            static_cast<ll>(word & BM_LOGGER_VERSION_MASK));
  emit(out, line);

  // Each transaction is read into a child context that goes once it is printed, so the dump
  // of a long log needs the memory of its largest transaction only.
  for (;;) {
    MemContext* tc = mem_context_create(mem, "logger_print_tc");
    bm_logger_action_list* actions = nullptr;
    int more = bm_logger_read_transaction(tc, s, &actions);
    if (more && actions != nullptr) {
      for (const bm_logger_action* a = actions->head; a != nullptr; a = a->next)
        if (format_action(line, list, a)) emit(out, line);
    }
    mem_context_remove(tc);
    // A damaged transaction is skipped; a file that can't be read any further ends the dump.
    if (!more || (actions == nullptr && stream_error(s) != STREAM_NOERR && !stream_at_end(s)))
      break;
  }

  sb_reset(line);
  sb_append(line, "</wal>\n");
  emit(out, line);
  CV_INFO(LOGGER, "bm_logger_print end");
  sb_destroy(list);
  sb_destroy(line);
  if (out != nullptr) stream_close_destroy(out);
  mem_context_remove(mem);
  return 0;
}

int bm_logger_print(stream* s, int to_file) {
  iobm* bm = bm_logger_get_iobm();
  const char* directory = to_file && bm != nullptr ? iobm_get_path(bm) : nullptr;
  return bm_logger_print_in(s, directory);
}
