// cvconfig: the registry of settings and its layers.
#include "utils/cvconfig.h"

#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "utils/cvlog.h"
#include "utils/mem.h"

namespace {

constexpr const char* kModule = "CVCONFIG";

constexpr int64_t K = 1024LL;
constexpr int64_t M = 1024LL * K;
constexpr int64_t G = 1024LL * M;
constexpr int64_t T = 1024LL * G;

const char* const kGroupNames[CVCONFIG_NUM_GROUPS + 1] = {
    nullptr, "default", "server", "client", "system", "cbm", "memory", "engine",
};

constexpr prop_value lng(int64_t v) {
  prop_value p{};
  p.l = v;
  return p;
}
constexpr prop_value dbl(double v) {
  prop_value p{};
  p.d = v;
  return p;
}

// Validator indexes.
enum : int32_t {
  V_NONE = 0,
  V_PORT,           // 0 .. 65535
  V_0_256,          // 0 .. 256
  V_RATIO,          // 0.0001 .. 1.0
  V_32M_256T,       // 32M .. 256T
  V_1M_1G,          // 1M .. 1G
  V_4K_16M_POW2,    // 4K .. 16M, power of two
  V_4K_32M,         // 4K .. 32M
  V_1_32M,          // 1 .. 32M
  V_1_256,          // 1 .. 256
  V_1_1024,         // 1 .. 1024
  V_1_16M,          // 1 .. 16M
  V_1K_10T,         // 1K .. 10T
  V_0_1K_POW2,      // 0 .. 1K, power of two
  V_4K_64M_POW2,    // 4K .. 64M, power of two
  V_1_10K,          // 1 .. 10K
  V_1K_10M,         // 1K .. 10M
  V_0_10K,          // 0 .. 10K
  V_1_128_POW2,     // 1 .. 128, power of two
  V_64_256T,        // 64 .. 256T
  V_1_5M,           // 1 .. 5M
  V_0_2,            // 0 .. 2
  V_0_256T,         // 0 .. 256T
  V_16_10M,         // 16 .. 10M
  V_MINUS1_256,     // -1 .. 256
  V_COUNT
};

constexpr cvconfig_validator kValidators[V_COUNT] = {
    {PROP_TPE_ANY, lng(0), lng(0), nullptr},
    {PROP_TPE_LNG, lng(0), lng(65535), nullptr},
    {PROP_TPE_LNG, lng(0), lng(256), nullptr},
    {PROP_TPE_DBL, dbl(0.0001), dbl(1.0), nullptr},
    {PROP_TPE_LNG, lng(32 * M), lng(256 * T), nullptr},
    {PROP_TPE_LNG, lng(1 * M), lng(1 * G), nullptr},
    {PROP_TPE_LNG, lng(4 * K), lng(16 * M), cvconf_validate_power2},
    {PROP_TPE_LNG, lng(4 * K), lng(32 * M), nullptr},
    {PROP_TPE_LNG, lng(1), lng(32 * M), nullptr},
    {PROP_TPE_LNG, lng(1), lng(256), nullptr},
    {PROP_TPE_LNG, lng(1), lng(1024), nullptr},
    {PROP_TPE_LNG, lng(1), lng(16 * M), nullptr},
    {PROP_TPE_LNG, lng(1 * K), lng(10 * T), nullptr},
    {PROP_TPE_LNG, lng(0), lng(1 * K), cvconf_validate_power2},
    {PROP_TPE_LNG, lng(4 * K), lng(64 * M), cvconf_validate_power2},
    {PROP_TPE_LNG, lng(1), lng(10 * K), nullptr},
    {PROP_TPE_LNG, lng(1 * K), lng(10 * M), nullptr},
    {PROP_TPE_LNG, lng(0), lng(10 * K), nullptr},
    {PROP_TPE_LNG, lng(1), lng(128), cvconf_validate_power2},
    {PROP_TPE_LNG, lng(64), lng(256 * T), nullptr},
    {PROP_TPE_LNG, lng(1), lng(5 * M), nullptr},
    {PROP_TPE_LNG, lng(0), lng(2), nullptr},
    {PROP_TPE_LNG, lng(0), lng(256 * T), nullptr},
    {PROP_TPE_LNG, lng(16), lng(10 * M), nullptr},
    {PROP_TPE_LNG, lng(-1), lng(256), nullptr},
};

struct prop_row {
  const char* name;
  int32_t group;
  int32_t tpe;
  const char* def;  // null: no default, the property starts at zero/null
  int32_t validator;
};

constexpr int32_t SRV = CVGROUP_SERVER, CLI = CVGROUP_CLIENT, SYS = CVGROUP_SYSTEM,
                  CBM = CVGROUP_CBM, MEM = CVGROUP_MEMORY, ENG = CVGROUP_ENGINE;
constexpr int32_t B = PROP_TPE_BOOL, L = PROP_TPE_LNG, D = PROP_TPE_DBL, S = PROP_TPE_STR;

// Every property, in id order (row i is id i + 1). Rows marked "chosen" carry a type and default
// picked for this system where no fixed value was handed down.
constexpr prop_row kProperties[CVCONFIG_NUM_PROPERTIES] = {
    // server, ids 1 to 17
    {"profiling", SRV, B, "false", V_NONE},              // chosen
    {"profile_per_query", SRV, B, "false", V_NONE},      // chosen
    {"profile_maxsize", SRV, L, "100M", V_NONE},         // chosen
    {"profile_maxfiles", SRV, L, "10", V_NONE},          // chosen
    {"profile_file", SRV, S, nullptr, V_NONE},           // chosen
    {"port", SRV, L, "48130", V_PORT},
    {"dbfarm_path", SRV, S, nullptr, V_NONE},
    {"dbname", SRV, S, nullptr, V_NONE},
    {"dblocation", SRV, S, "default", V_NONE},
    {"query_file", SRV, S, nullptr, V_NONE},             // chosen
    {"umask", SRV, S, "077", V_NONE},
    {"allow_remote_connections", SRV, B, "false", V_NONE},  // chosen
    {"password_auth", SRV, B, "true", V_NONE},           // chosen
    {"socket_retry", SRV, L, "1", V_0_256},
    {"date_format", SRV, S, "US", V_NONE},
    {"century_boundary", SRV, L, "-1", V_NONE},          // chosen type
    {"self_inspection", SRV, B, "false", V_NONE},        // chosen
    // client, ids 18 to 22
    {"port", CLI, L, "48130", V_PORT},                   // chosen default, as the server's
    {"output_mode", CLI, S, "table", V_NONE},            // chosen
    {"host", CLI, S, "localhost", V_NONE},               // chosen
    {"connection_retries", CLI, L, "3", V_NONE},         // chosen
    {"passfile", CLI, S, nullptr, V_NONE},               // chosen
    // memory, ids 23 to 44
    {"use_huge_tlb", MEM, B, "false", V_NONE},
    {"huge_tlb_lim", MEM, L, "0", V_NONE},
    {"bitfilter_cmpshare_threshold", MEM, D, "0.5", V_NONE},  // chosen
    {"bitfilter_2bitratio", MEM, D, "0.25", V_NONE},     // chosen
    {"bitfilter_2bitminsize", MEM, L, "1M", V_NONE},     // chosen
    {"bitfilter_onratio", MEM, D, "0.5", V_NONE},        // chosen
    {"bitfilter_offratio", MEM, D, "0.1", V_NONE},       // chosen
    {"bitfilter_maxsize", MEM, L, "64M", V_NONE},        // chosen
    {"bitfilter_2passthreshold", MEM, L, "1M", V_NONE},  // chosen
    {"bitfilter_samplesize", MEM, L, "1024", V_NONE},    // chosen
    {"bitfilter_bitspertuple", MEM, L, "8", V_NONE},     // chosen
    {"large_allocation_limit", MEM, D, "0.8", V_RATIO},
    {"max_memuse", MEM, D, "0.5", V_RATIO},
    {"max_memory_size", MEM, L, nullptr, V_32M_256T},
    {"min_mem_per_transaction", MEM, L, "10M", V_1M_1G},
    {"min_trans_mem_inc", MEM, L, "10M", V_1M_1G},
    {"max_overalloc", MEM, L, "2G", V_NONE},
    {"vheap_initial_buffer_size", MEM, L, "16K", V_4K_16M_POW2},
    {"vheap_max_buffer_size", MEM, L, "512K", V_4K_16M_POW2},
    {"max_xchg_buffer_size", MEM, L, "512K", V_4K_32M},
    {"max_xchg_buffer_length", MEM, L, "64K", V_1_32M},
    {"xchg_mem_save_threshold", MEM, L, "8", V_1_256},
    // system, ids 45 to 65
    {"num_cores", SYS, L, "1", V_1_256},
    {"core_overalloc", SYS, L, "0", V_NONE},             // chosen
    {"max_transactions", SYS, L, "20", V_1_1024},
    {"vectorsize", SYS, L, "1024", V_1_16M},
    {"use_sse42", SYS, B, "true", V_NONE},               // chosen
    {"lazy_eval", SYS, B, "true", V_NONE},
    {"map_compute_all", SYS, B, "true", V_NONE},
    {"update_propagation", SYS, B, "true", V_NONE},      // chosen
    {"max_global_update_memory", SYS, D, "0.25", V_RATIO},
    {"max_update_memory_per_transaction", SYS, D, "0.25", V_RATIO},
    {"max_table_update_ratio", SYS, D, "0.05", V_RATIO},
    {"min_propagate_table_count", SYS, L, "100000", V_NONE},  // chosen
    {"max_table_snapshot_copy_mem", SYS, L, "64M", V_NONE},   // chosen
    {"combine_hash_deletion_max_cardinality", SYS, L, "1M", V_NONE},  // chosen
    {"max_number_propagate_retries", SYS, L, "10", V_NONE},   // chosen
    {"full_rewrite_on_update_propagation", SYS, B, "false", V_NONE},  // chosen
    {"full_rewrite_on_combine", SYS, B, "false", V_NONE},     // chosen
    {"max_initial_log_size", SYS, L, "33554432", V_1K_10T},
    {"max_old_log_size", SYS, L, "2147483648", V_1K_10T},
    {"bulk_insert_constraint_checking", SYS, B, "true", V_NONE},     // chosen
    {"interrupt_conflicting_checkpoint", SYS, B, "false", V_NONE},   // chosen
    // cbm, ids 66 to 88
    {"preload_mintuples", CBM, L, "0", V_NONE},          // chosen
    {"preload_maxcolsize", CBM, L, "1M", V_NONE},        // chosen
    {"io_prefetch_blocks", CBM, L, "16", V_0_1K_POW2},
    {"pin_all_strings", CBM, B, "false", V_NONE},        // chosen
    {"block_size", CBM, L, "512K", V_4K_64M_POW2},
    {"auto_pax_storage", CBM, B, "false", V_NONE},       // chosen
    {"max_num_columns_per_pax_group", CBM, L, "64", V_1_10K},
    {"max_sum_column_width_per_pax_group", CBM, L, "256K", V_1K_10M},
    {"max_num_pax_groups", CBM, L, "0", V_0_10K},
    {"bufferpool_memuse", CBM, D, "0.25", V_RATIO},
    {"bufferpool_size", CBM, L, "", V_32M_256T},
    {"pbm_enabled", CBM, B, "true", V_NONE},             // chosen
    {"columnspace_grow", CBM, B, "true", V_NONE},
    {"group_size", CBM, L, "8", V_1_128_POW2},
    {"initial_file_metadata_size", CBM, L, "128", V_64_256T},
    {"bufferpool_blocks", CBM, L, "0", V_NONE},
    {"queue_depth", CBM, L, "32", V_0_1K_POW2},
    {"minmax_maxsize", CBM, L, "1024", V_NONE},
    {"compression_nulls_enabled", CBM, B, "true", V_NONE},          // chosen
    {"compression_max_compressible_string", CBM, L, "256", V_NONE},  // chosen
    {"append_reuse_last_block", CBM, B, "true", V_NONE},            // chosen
    {"append_fill_threshold", CBM, D, "0.5", V_RATIO},
    {"append_max_tuples_to_recompress", CBM, L, "1M", V_1_5M},
    // engine, ids 89 to 122
    {"select_datadep_lo", ENG, D, "0.1", V_NONE},        // chosen
    {"select_datadep_hi", ENG, D, "0.9", V_NONE},        // chosen
    {"hash_table_min_width", ENG, L, "0", V_0_2},
    {"hash_table_min_buckets", ENG, L, "1024", V_NONE},  // chosen
    {"hash_table_max_initial_values", ENG, L, "64K", V_NONE},  // chosen
    {"antijoin_return_nothing_on_null", ENG, B, "true", V_NONE},   // chosen
    {"enable_aggregation_disk_spilling", ENG, B, "true", V_NONE},  // chosen
    {"enable_hashjoin_disk_spilling", ENG, B, "true", V_NONE},     // chosen
    {"num_tuples_in_ht_to_spill", ENG, L, "0", V_0_256T},
    {"max_disk_spill_partition_tables", ENG, L, "256", V_16_10M},
    {"max_column_width_in_prealloc", ENG, L, "1K", V_1_16M},
    {"hash_table_max_initial_keys", ENG, L, "64K", V_NONE},  // chosen
    {"max_parallelism_level", ENG, L, "1", V_0_256},
    {"max_update_parallelism_level", ENG, L, "1", V_MINUS1_256},
    {"parallel_shared_vhts", ENG, B, "false", V_NONE},   // chosen
    {"input_card_multiplicator", ENG, D, "1.0", V_NONE},  // chosen
    {"insert_crash", ENG, L, "0", V_NONE},               // chosen
    {"memfail_any", ENG, B, "false", V_NONE},
    {"memfail_any_count", ENG, L, "0", V_NONE},          // chosen
    {"memfail_any_random_min", ENG, L, "0", V_NONE},     // chosen
    {"memfail_any_random_max", ENG, L, "1000", V_NONE},
    {"memfail_specific", ENG, B, "false", V_NONE},
    {"memfail_specific_name", ENG, S, nullptr, V_NONE},  // chosen
    {"memfail_specific_count", ENG, L, "0", V_NONE},     // chosen
    {"memfail_specific_random_min", ENG, L, "0", V_NONE},     // chosen
    {"memfail_specific_random_max", ENG, L, "1000", V_NONE},  // chosen
    {"sort_intmemory", ENG, L, "64M", V_NONE},           // chosen
    {"sort_inttuples", ENG, L, "1M", V_NONE},            // chosen
    {"sort_extmemory", ENG, L, "256M", V_NONE},          // chosen
    {"sort_extfanin", ENG, L, "16", V_NONE},             // chosen
    {"sort_compression", ENG, S, "AUTO", V_NONE},
    {"derive_minmax_value_ranges", ENG, B, "true", V_NONE},    // chosen
    {"derive_selected_value_ranges", ENG, B, "true", V_NONE},  // chosen
    {"drop_columns_eagerly", ENG, B, "false", V_NONE},   // chosen
};

bool valid_group(int32_t group_id) { return group_id >= 1 && group_id <= CVCONFIG_NUM_GROUPS; }
bool valid_property(int32_t property_id) {
  return property_id >= 1 && property_id <= CVCONFIG_NUM_PROPERTIES;
}

// The first value of the property in the nearest layer that holds it, or null.
property* lookup(cvconfig_layer* layer, int32_t group_id, int32_t property_id) {
  if (layer == nullptr || layer->root == nullptr || !valid_group(group_id) ||
      !valid_property(property_id)) {
    return nullptr;
  }
  const char* name = layer->root->names[property_id];
  for (cvconfig_layer* l = layer; l != nullptr; l = l->parent) {
    property* p = property_find(l->groups[group_id], name);
    if (p != nullptr && p->cnt > 0) return p;
  }
  return nullptr;
}

int set_typed(cvconfig_layer* layer, int32_t group_id, int32_t property_id, prop_value value,
              int32_t tpe) {
  J480_ASSERT(kModule, layer && layer->root);
  J480_ASSERT(kModule, property_id >= 1 && property_id <= CVCONFIG_NUM_PROPERTIES);
  return cvconfig_set(layer, group_id, layer->root->names[property_id], value, tpe, 1);
}

}  // namespace

bool cvconfig_property_info(int32_t property_id, int32_t* group_id, int32_t* tpe,
                            const char** default_text) {
  if (!valid_property(property_id)) return false;
  const prop_row& row = kProperties[property_id - 1];
  if (group_id != nullptr) *group_id = row.group;
  if (tpe != nullptr) *tpe = row.tpe;
  if (default_text != nullptr) *default_text = row.def;
  return true;
}

cvconfig* cvconfig_create() {
  MemContext* mem = mem_context_create(nullptr, "cvconfig");
  if (mem == nullptr) return nullptr;
  cvconfig* root = static_cast<cvconfig*>(mem_calloc(mem, sizeof(cvconfig)));
  root->mem = mem;

  for (int32_t gid = CVCONFIG_NUM_GROUPS; gid >= 1; gid--) {
    property* g = property_add(mem, &root->groups, kGroupNames[gid], PROP_TPE_LNG, 1);
    property_set(g, 0, lng(gid));
  }

  root->names = static_cast<const char**>(
      mem_calloc(mem, (CVCONFIG_NUM_PROPERTIES + 1) * sizeof(const char*)));
  root->property_validator = static_cast<int32_t*>(
      mem_calloc(mem, (CVCONFIG_NUM_PROPERTIES + 1) * sizeof(int32_t)));
  for (int32_t id = 1; id <= CVCONFIG_NUM_PROPERTIES; id++) {
    root->names[id] = kProperties[id - 1].name;
    root->property_validator[id] = kProperties[id - 1].validator;
  }
  root->validators = kValidators;
  root->num_validators = V_COUNT;

  root->defaults = cvconfig_layer_create(mem, "defaults", nullptr);
  root->defaults->root = root;
  for (int32_t id = 1; id <= CVCONFIG_NUM_PROPERTIES; id++) {
    const prop_row& row = kProperties[id - 1];
    prop_value v;
    v.l = 0;
    if (!cvconfig_parse(mem, row.def, row.tpe, &v)) continue;
    // An empty default is stored as it is; a real one must pass its validator.
    int validate = row.def != nullptr && row.def[0] != '\0';
    cvconfig_set(root->defaults, row.group, row.name, v, row.tpe, validate);
  }
  return root;
}

void cvconfig_destroy(cvconfig* root) {
  if (root == nullptr) return;
  mem_context_remove(root->mem);
}

cvconfig_layer* cvconfig_defaults(cvconfig* root) { return root ? root->defaults : nullptr; }

cvconfig_layer* cvconfig_layer_create(MemContext* mem, const char* name, cvconfig_layer* parent) {
  J480_ASSERT(kModule, mem || parent);
  if (mem == nullptr) mem = parent->root->mem;
  cvconfig_layer* layer = static_cast<cvconfig_layer*>(mem_calloc(mem, sizeof(cvconfig_layer)));
  layer->mem = mem;
  layer->root = parent ? parent->root : nullptr;
  layer->name = mem_strdup(mem, name ? name : "");
  layer->parent = parent;
  return layer;
}

int32_t cvconfig_group_id(cvconfig* root, const char* name) {
  if (root == nullptr || name == nullptr) return 0;
  property* g = property_find(root->groups, name);
  return g ? static_cast<int32_t>(g->value[0].l) : 0;
}

int cvconfig_get_bool(cvconfig_layer* layer, int32_t group_id, int32_t property_id) {
  property* prop = lookup(layer, group_id, property_id);
  if (prop == nullptr) {
    CV_WARN(kModule, "cvconfig_get_bool: invalid property with gid = %d and pid = %d", group_id,
            property_id);
    return 0;
  }
  J480_ASSERT(kModule, prop->tpe == PROP_TPE_ANY || prop->tpe == PROP_TPE_BOOL);
  return prop->value[0].b != 0;
}

int64_t cvconfig_get_lng(cvconfig_layer* layer, int32_t group_id, int32_t property_id) {
  property* prop = lookup(layer, group_id, property_id);
  if (prop == nullptr) {
    CV_WARN(kModule, "cvconfig_get_lng: invalid property with gid = %d and pid = %d", group_id,
            property_id);
    return 0;
  }
  J480_ASSERT(kModule, prop->tpe == PROP_TPE_ANY || prop->tpe == PROP_TPE_LNG);
  return prop->value[0].l;
}

double cvconfig_get_dbl(cvconfig_layer* layer, int32_t group_id, int32_t property_id) {
  property* prop = lookup(layer, group_id, property_id);
  if (prop == nullptr) {
    CV_WARN(kModule, "cvconfig_get_dbl: invalid property with gid = %d and pid = %d", group_id,
            property_id);
    return 0;
  }
  J480_ASSERT(kModule, prop->tpe == PROP_TPE_ANY || prop->tpe == PROP_TPE_DBL);
  return prop->value[0].d;
}

const char* cvconfig_get_str(cvconfig_layer* layer, int32_t group_id, int32_t property_id) {
  property* prop = lookup(layer, group_id, property_id);
  if (prop == nullptr) {
    CV_WARN(kModule, "cvconfig_get_str: invalid property with gid = %d and pid = %d", group_id,
            property_id);
    return nullptr;
  }
  J480_ASSERT(kModule, prop->tpe == PROP_TPE_ANY || prop->tpe == PROP_TPE_STR);
  return prop->value[0].s;
}

int cvconfig_set_bool(cvconfig_layer* layer, int32_t group_id, int32_t property_id, int value) {
  prop_value v;
  v.b = value != 0;
  return set_typed(layer, group_id, property_id, v, PROP_TPE_BOOL);
}

int cvconfig_set_lng(cvconfig_layer* layer, int32_t group_id, int32_t property_id, int64_t value) {
  return set_typed(layer, group_id, property_id, lng(value), PROP_TPE_LNG);
}

int cvconfig_set_dbl(cvconfig_layer* layer, int32_t group_id, int32_t property_id, double value) {
  return set_typed(layer, group_id, property_id, dbl(value), PROP_TPE_DBL);
}

int cvconfig_set_str(cvconfig_layer* layer, int32_t group_id, int32_t property_id,
                     const char* value) {
  prop_value v;
  v.s = value;
  return set_typed(layer, group_id, property_id, v, PROP_TPE_STR);
}

int cvconfig_set(cvconfig_layer* config, int32_t group_id, const char* name, prop_value value,
                 int32_t tpe, int validate) {
  J480_ASSERT(kModule, config);
  J480_ASSERT(kModule, group_id >= 1 && group_id <= CVCONFIG_NUM_GROUPS);
  J480_ASSERT(kModule, name);
  if (validate && !cvconfig_validate(config, group_id, name, value, tpe)) return 0;
  property** list = &config->groups[group_id];
  property* p = property_find(*list, name);
  if (p == nullptr) {
    // Names are not copied by the list: keep the table's text for a known name, else a copy.
    int32_t id = cvconfig_property_id(config, name);
    const char* stored = id > 0 ? config->root->names[id] : mem_strdup(config->mem, name);
    p = property_add(config->mem, list, stored, tpe, 1);
  } else {
    J480_ASSERT(kModule, p->tpe == tpe);
  }
  property_set(p, 0, value);
  return 1;
}

int cvconfig_parse_size(const char* text, int64_t* value) {
  *value = 0;
  if (text == nullptr) {
    CV_ERROR(kModule, "cvconfig_parse_size: can't parse: '%s'\n", "(null)");
    return 0;
  }
  char* end = nullptr;
  double d = strtod(text, &end);
  if (end == text) {
    CV_ERROR(kModule, "cvconfig_parse_size: can't parse: '%s'\n", text);
    return 0;
  }
  const char* p = end;
  while (isspace(static_cast<unsigned char>(*p))) p++;
  int unit = toupper(static_cast<unsigned char>(*p));
  if (unit == 'K' || unit == 'M' || unit == 'G' || unit == 'T') {
    int after = toupper(static_cast<unsigned char>(p[1]));
    if (after == '\0' || isspace(after) || after == 'B') {
      d *= unit == 'K' ? 1024.0 : unit == 'M' ? 1048576.0 : unit == 'G' ? 1073741824.0
                                                                       : 1099511627776.0;
      p += after == 'B' ? 2 : 1;
    }
  }
  while (isspace(static_cast<unsigned char>(*p))) p++;
  // A value that has no 64-bit form (infinite, not a number, too large) is as unreadable as junk.
  if (*p != '\0' || !(d >= -9223372036854775808.0 && d < 9223372036854775808.0)) {
    CV_ERROR(kModule, "cvconfig_parse_size: can't parse: '%s'\n", text);
    return 0;
  }
  *value = static_cast<int64_t>(d);
  return 1;
}

int cvconfig_parse_bool(const char* text, int* value) {
  if (text == nullptr) {
    *value = 0;
    return 1;
  }
  if (strcasecmp(text, "true") == 0 || strcasecmp(text, "yes") == 0 ||
      strcasecmp(text, "on") == 0) {
    *value = 1;
  } else {
    *value = strtol(text, nullptr, 10) != 0;
  }
  return 1;
}

int cvconfig_parse(MemContext* mem, const char* text, int32_t tpe, prop_value* value) {
  if (text == nullptr || text[0] == '\0') {
    value->l = 0;
    return 1;
  }
  switch (tpe) {
    case PROP_TPE_BOOL: {
      int b = 0;
      int ok = cvconfig_parse_bool(text, &b);
      value->b = b;
      return ok;
    }
    case PROP_TPE_LNG:
      return cvconfig_parse_size(text, &value->l);
    case PROP_TPE_DBL: {
      char* end = nullptr;
      double d = strtod(text, &end);
      if (end == text) return 0;
      value->d = d;
      return 1;
    }
    case PROP_TPE_STR:
      value->s = mem_strdup(mem, text);
      return 1;
    default:
      CV_ERROR(kModule, "cvconfig_parse: invalid PropertyType %d\n", tpe);
      return 0;
  }
}

int cvconfig_validate(cvconfig_layer* layer, int32_t group_id, const char* name,
                      prop_value value, int32_t tpe) {
  int32_t id = cvconfig_property_id(layer, name);
  if (id == 0) return 1;
  cvconfig* root = layer->root;
  int32_t index = root->property_validator[id];
  if (index <= 0 || index >= root->num_validators) return 1;
  const cvconfig_validator& v = root->validators[index];
  if (tpe == PROP_TPE_LNG || tpe == PROP_TPE_DBL) {
    double x = tpe == PROP_TPE_LNG ? static_cast<double>(value.l) : value.d;
    double min, max;
    if (v.tpe == PROP_TPE_LNG) {
      min = static_cast<double>(v.min.l);
      max = static_cast<double>(v.max.l);
    } else if (v.tpe == PROP_TPE_DBL) {
      min = v.min.d;
      max = v.max.d;
    } else {
      return 0;
    }
    // Not a number compares false both ways: it must fail the range, not slip through it.
    if (!(x >= min && x <= max)) {
      CV_ERROR(kModule, "cvconfig_validate: %lf not between %lf and %lf.", x, min, max);
      return 0;
    }
  }
  return v.check ? v.check(tpe, value) : 1;
}

int32_t cvconfig_property_id(cvconfig_layer* layer, const char* name) {
  if (layer == nullptr || layer->root == nullptr || name == nullptr) return 0;
  const char* const* names = layer->root->names;
  for (int32_t id = CVCONFIG_NUM_PROPERTIES; id >= 1; id--) {
    if (strcmp(names[id], name) == 0) return id;
  }
  return 0;
}

int cvconf_validate_power2(int32_t tpe, prop_value value) {
  int64_t v;
  if (tpe == PROP_TPE_LNG) {
    v = value.l;
  } else if (tpe == PROP_TPE_DBL) {
    double d = value.d;
    v = d >= -9223372036854775808.0 && d < 9223372036854775808.0 ? static_cast<int64_t>(d) : -1;
  } else {
    CV_ERROR(kModule, "cvconf_validate_power2: unsupported property type");
    return 0;
  }
  if (v == 0) return 1;
  if (v < 0 || (v & (v - 1)) != 0) {
    CV_ERROR(kModule, "cvconf_validate_power2: %lld is not a power of two.",
             static_cast<long long>(v));
    return 0;
  }
  return 1;
}
