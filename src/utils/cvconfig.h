// cvconfig: the registry of settings, as a chain of layers over a `defaults` layer.
//
// The root object owns everything through its memory context "cvconfig": the group list, the
// table of property names (ids 1 to 122), the validators and the `defaults` layer. A layer holds
// only what it overrides; a read walks from the given layer through its parents. Strings set
// with cvconfig_set_str are not copied: the caller keeps them alive. Messages go to CVCONFIG.
#ifndef J480_UTILS_CVCONFIG_H
#define J480_UTILS_CVCONFIG_H

#include <cstdint>

#include "utils/property.h"

struct MemContext;

// Group ids.
enum cvconfig_group : int32_t {
  CVGROUP_DEFAULT = 1,
  CVGROUP_SERVER = 2,
  CVGROUP_CLIENT = 3,
  CVGROUP_SYSTEM = 4,
  CVGROUP_CBM = 5,
  CVGROUP_MEMORY = 6,
  CVGROUP_ENGINE = 7,
};
constexpr int32_t CVCONFIG_NUM_GROUPS = 7;

// Property ids: the place of each property in the concatenated lists of its groups. `port`
// stands twice: CVPROP_PORT (server, 6) and CVPROP_CLIENT_PORT (client, 18).
enum cvconfig_property : int32_t {
  CVPROP_PROFILING = 1,
  CVPROP_PROFILE_PER_QUERY = 2,
  CVPROP_PROFILE_MAXSIZE = 3,
  CVPROP_PROFILE_MAXFILES = 4,
  CVPROP_PROFILE_FILE = 5,
  CVPROP_PORT = 6,
  CVPROP_DBFARM_PATH = 7,
  CVPROP_DBNAME = 8,
  CVPROP_DBLOCATION = 9,
  CVPROP_QUERY_FILE = 10,
  CVPROP_UMASK = 11,
  CVPROP_ALLOW_REMOTE_CONNECTIONS = 12,
  CVPROP_PASSWORD_AUTH = 13,
  CVPROP_SOCKET_RETRY = 14,
  CVPROP_DATE_FORMAT = 15,
  CVPROP_CENTURY_BOUNDARY = 16,
  CVPROP_SELF_INSPECTION = 17,
  CVPROP_CLIENT_PORT = 18,
  CVPROP_OUTPUT_MODE = 19,
  CVPROP_HOST = 20,
  CVPROP_CONNECTION_RETRIES = 21,
  CVPROP_PASSFILE = 22,
  CVPROP_USE_HUGE_TLB = 23,
  CVPROP_HUGE_TLB_LIM = 24,
  CVPROP_BITFILTER_CMPSHARE_THRESHOLD = 25,
  CVPROP_BITFILTER_2BITRATIO = 26,
  CVPROP_BITFILTER_2BITMINSIZE = 27,
  CVPROP_BITFILTER_ONRATIO = 28,
  CVPROP_BITFILTER_OFFRATIO = 29,
  CVPROP_BITFILTER_MAXSIZE = 30,
  CVPROP_BITFILTER_2PASSTHRESHOLD = 31,
  CVPROP_BITFILTER_SAMPLESIZE = 32,
  CVPROP_BITFILTER_BITSPERTUPLE = 33,
  CVPROP_LARGE_ALLOCATION_LIMIT = 34,
  CVPROP_MAX_MEMUSE = 35,
  CVPROP_MAX_MEMORY_SIZE = 36,
  CVPROP_MIN_MEM_PER_TRANSACTION = 37,
  CVPROP_MIN_TRANS_MEM_INC = 38,
  CVPROP_MAX_OVERALLOC = 39,
  CVPROP_VHEAP_INITIAL_BUFFER_SIZE = 40,
  CVPROP_VHEAP_MAX_BUFFER_SIZE = 41,
  CVPROP_MAX_XCHG_BUFFER_SIZE = 42,
  CVPROP_MAX_XCHG_BUFFER_LENGTH = 43,
  CVPROP_XCHG_MEM_SAVE_THRESHOLD = 44,
  CVPROP_NUM_CORES = 45,
  CVPROP_CORE_OVERALLOC = 46,
  CVPROP_MAX_TRANSACTIONS = 47,
  CVPROP_VECTORSIZE = 48,
  CVPROP_USE_SSE42 = 49,
  CVPROP_LAZY_EVAL = 50,
  CVPROP_MAP_COMPUTE_ALL = 51,
  CVPROP_UPDATE_PROPAGATION = 52,
  CVPROP_MAX_GLOBAL_UPDATE_MEMORY = 53,
  CVPROP_MAX_UPDATE_MEMORY_PER_TRANSACTION = 54,
  CVPROP_MAX_TABLE_UPDATE_RATIO = 55,
  CVPROP_MIN_PROPAGATE_TABLE_COUNT = 56,
  CVPROP_MAX_TABLE_SNAPSHOT_COPY_MEM = 57,
  CVPROP_COMBINE_HASH_DELETION_MAX_CARDINALITY = 58,
  CVPROP_MAX_NUMBER_PROPAGATE_RETRIES = 59,
  CVPROP_FULL_REWRITE_ON_UPDATE_PROPAGATION = 60,
  CVPROP_FULL_REWRITE_ON_COMBINE = 61,
  CVPROP_MAX_INITIAL_LOG_SIZE = 62,
  CVPROP_MAX_OLD_LOG_SIZE = 63,
  CVPROP_BULK_INSERT_CONSTRAINT_CHECKING = 64,
  CVPROP_INTERRUPT_CONFLICTING_CHECKPOINT = 65,
  CVPROP_PRELOAD_MINTUPLES = 66,
  CVPROP_PRELOAD_MAXCOLSIZE = 67,
  CVPROP_IO_PREFETCH_BLOCKS = 68,
  CVPROP_PIN_ALL_STRINGS = 69,
  CVPROP_BLOCK_SIZE = 70,
  CVPROP_AUTO_PAX_STORAGE = 71,
  CVPROP_MAX_NUM_COLUMNS_PER_PAX_GROUP = 72,
  CVPROP_MAX_SUM_COLUMN_WIDTH_PER_PAX_GROUP = 73,
  CVPROP_MAX_NUM_PAX_GROUPS = 74,
  CVPROP_BUFFERPOOL_MEMUSE = 75,
  CVPROP_BUFFERPOOL_SIZE = 76,
  CVPROP_PBM_ENABLED = 77,
  CVPROP_COLUMNSPACE_GROW = 78,
  CVPROP_GROUP_SIZE = 79,
  CVPROP_INITIAL_FILE_METADATA_SIZE = 80,
  CVPROP_BUFFERPOOL_BLOCKS = 81,
  CVPROP_QUEUE_DEPTH = 82,
  CVPROP_MINMAX_MAXSIZE = 83,
  CVPROP_COMPRESSION_NULLS_ENABLED = 84,
  CVPROP_COMPRESSION_MAX_COMPRESSIBLE_STRING = 85,
  CVPROP_APPEND_REUSE_LAST_BLOCK = 86,
  CVPROP_APPEND_FILL_THRESHOLD = 87,
  CVPROP_APPEND_MAX_TUPLES_TO_RECOMPRESS = 88,
  CVPROP_SELECT_DATADEP_LO = 89,
  CVPROP_SELECT_DATADEP_HI = 90,
  CVPROP_HASH_TABLE_MIN_WIDTH = 91,
  CVPROP_HASH_TABLE_MIN_BUCKETS = 92,
  CVPROP_HASH_TABLE_MAX_INITIAL_VALUES = 93,
  CVPROP_ANTIJOIN_RETURN_NOTHING_ON_NULL = 94,
  CVPROP_ENABLE_AGGREGATION_DISK_SPILLING = 95,
  CVPROP_ENABLE_HASHJOIN_DISK_SPILLING = 96,
  CVPROP_NUM_TUPLES_IN_HT_TO_SPILL = 97,
  CVPROP_MAX_DISK_SPILL_PARTITION_TABLES = 98,
  CVPROP_MAX_COLUMN_WIDTH_IN_PREALLOC = 99,
  CVPROP_HASH_TABLE_MAX_INITIAL_KEYS = 100,
  CVPROP_MAX_PARALLELISM_LEVEL = 101,
  CVPROP_MAX_UPDATE_PARALLELISM_LEVEL = 102,
  CVPROP_PARALLEL_SHARED_VHTS = 103,
  CVPROP_INPUT_CARD_MULTIPLICATOR = 104,
  CVPROP_INSERT_CRASH = 105,
  CVPROP_MEMFAIL_ANY = 106,
  CVPROP_MEMFAIL_ANY_COUNT = 107,
  CVPROP_MEMFAIL_ANY_RANDOM_MIN = 108,
  CVPROP_MEMFAIL_ANY_RANDOM_MAX = 109,
  CVPROP_MEMFAIL_SPECIFIC = 110,
  CVPROP_MEMFAIL_SPECIFIC_NAME = 111,
  CVPROP_MEMFAIL_SPECIFIC_COUNT = 112,
  CVPROP_MEMFAIL_SPECIFIC_RANDOM_MIN = 113,
  CVPROP_MEMFAIL_SPECIFIC_RANDOM_MAX = 114,
  CVPROP_SORT_INTMEMORY = 115,
  CVPROP_SORT_INTTUPLES = 116,
  CVPROP_SORT_EXTMEMORY = 117,
  CVPROP_SORT_EXTFANIN = 118,
  CVPROP_SORT_COMPRESSION = 119,
  CVPROP_DERIVE_MINMAX_VALUE_RANGES = 120,
  CVPROP_DERIVE_SELECTED_VALUE_RANGES = 121,
  CVPROP_DROP_COLUMNS_EAGERLY = 122,
};
constexpr int32_t CVCONFIG_NUM_PROPERTIES = 122;

// A range (both ends inclusive, of type `tpe`: PROP_TPE_LNG or PROP_TPE_DBL) and an optional
// further test.
struct cvconfig_validator {
  int32_t tpe;
  prop_value min;
  prop_value max;
  int (*check)(int32_t tpe, prop_value value);
};

struct cvconfig_layer;

// The root: owner of everything through `mem`.
struct cvconfig {
  MemContext* mem;               // "cvconfig", no parent
  property* groups;              // group name -> group id (PROP_TPE_LNG)
  const char** names;            // property id (1..122) -> name; entry 0 is null
  const cvconfig_validator* validators;  // entry 0 means none
  int32_t num_validators;
  int32_t* property_validator;   // property id -> validator index
  cvconfig_layer* defaults;      // the layer named "defaults"
};

struct cvconfig_layer {
  MemContext* mem;
  cvconfig* root;
  const char* name;
  property* groups[CVCONFIG_NUM_GROUPS + 1];  // one list per group id; entry 0 unused
  cvconfig_layer* parent;
};

cvconfig* cvconfig_create();
void cvconfig_destroy(cvconfig* root);
// The layer named "defaults" of a root.
cvconfig_layer* cvconfig_defaults(cvconfig* root);
cvconfig_layer* cvconfig_layer_create(MemContext* mem, const char* name, cvconfig_layer* parent);

int cvconfig_get_bool(cvconfig_layer* layer, int32_t group_id, int32_t property_id);
int64_t cvconfig_get_lng(cvconfig_layer* layer, int32_t group_id, int32_t property_id);
double cvconfig_get_dbl(cvconfig_layer* layer, int32_t group_id, int32_t property_id);
const char* cvconfig_get_str(cvconfig_layer* layer, int32_t group_id, int32_t property_id);

// Set with validation; 1 stored, 0 refused.
int cvconfig_set_bool(cvconfig_layer* layer, int32_t group_id, int32_t property_id, int value);
int cvconfig_set_lng(cvconfig_layer* layer, int32_t group_id, int32_t property_id, int64_t value);
int cvconfig_set_dbl(cvconfig_layer* layer, int32_t group_id, int32_t property_id, double value);
int cvconfig_set_str(cvconfig_layer* layer, int32_t group_id, int32_t property_id,
                     const char* value);
// The general setter: 1 stored, 0 refused.
int cvconfig_set(cvconfig_layer* layer, int32_t group_id, const char* name, prop_value value,
                 int32_t tpe, int validate);

int cvconfig_parse(MemContext* mem, const char* text, int32_t tpe, prop_value* value);
int cvconfig_parse_size(const char* text, int64_t* value);
int cvconfig_parse_bool(const char* text, int* value);
int cvconfig_validate(cvconfig_layer* layer, int32_t group_id, const char* name,
                      prop_value value, int32_t tpe);
int32_t cvconfig_property_id(cvconfig_layer* layer, const char* name);
// Group name to group id, 0 for an unknown name.
int32_t cvconfig_group_id(cvconfig* root, const char* name);
// The group id, type and default text of a property id (1..122); false for an unknown id.
bool cvconfig_property_info(int32_t property_id, int32_t* group_id, int32_t* tpe,
                            const char** default_text);
int cvconf_validate_power2(int32_t tpe, prop_value value);

#endif  // J480_UTILS_CVCONFIG_H
