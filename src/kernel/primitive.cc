// primitive: signature hash, registration and lookup.
#include "kernel/primitive.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "utils/cvlog.h"

#define PRIM_MODULE "KERNEL"

namespace {

prim_desc* prims = nullptr;
int64_t prims_cnt = 0;
int32_t* hash_heads = nullptr;
int32_t* hash_chain = nullptr;

// Length of the base signature: up to "___", or the whole name.
int64_t base_length(const char* name) {
  const char* v = strstr(name, "___");
  return v ? v - name : static_cast<int64_t>(strlen(name));
}

bool is_arg_kind(const char* p, int64_t left) {
  return left >= 4 && (strncmp(p, "_col", 4) == 0 || strncmp(p, "_val", 4) == 0);
}

// Does `row` match the first `len` characters of `wanted`?
bool row_matches(const prim_desc& row, const char* wanted, int64_t len, bool with_variants) {
  const char* v = strstr(row.name, "___");
  if (v != nullptr && (!with_variants || v - row.name != len)) return false;
  return strncasecmp(row.name, wanted, static_cast<size_t>(len)) == 0;
}

const prim_desc* walk_chain(int32_t start, const char* wanted, int64_t len, bool with_variants) {
  for (int32_t i = start; i >= 0; i = hash_chain[i])
    if (row_matches(prims[i], wanted, len, with_variants)) return &prims[i];
  return nullptr;
}

// The wanted name with every "_col" turned into "_val": a constant row may serve a vector request.
char* inexact_copy(const char* name, int64_t len) {
  char* copy = static_cast<char*>(malloc(static_cast<size_t>(len) + 1));
  J480_ASSERT(PRIM_MODULE, copy != NULL);
  memcpy(copy, name, static_cast<size_t>(len));
  copy[len] = '\0';
  for (char* p = strstr(copy, "_col"); p != nullptr; p = strstr(p + 4, "_col")) memcpy(p, "_val", 4);
  return copy;
}

const prim_desc* lookup(const char* name, bool exact, bool inexact, bool with_variants) {
  if (hash_heads == nullptr || name == nullptr) return nullptr;
  int64_t len = static_cast<int64_t>(strlen(name));
  int32_t head = hash_heads[prim_signature_hash(name, len)];
  if (exact) {
    const prim_desc* row = walk_chain(head, name, len, with_variants);
    if (row != nullptr) return row;
  }
  if (inexact) {
    char* copy = inexact_copy(name, len);
    const prim_desc* row = walk_chain(head, copy, len, with_variants);
    free(copy);
    return row;
  }
  return nullptr;
}

}  // namespace

int32_t prim_signature_hash(const char* name, int64_t len) {
  int32_t h = 0;
  for (int64_t i = 0; i < len;) {
    if (is_arg_kind(name + i, len - i)) {
      i += 4;
      continue;
    }
    int64_t c = static_cast<int32_t>(tolower(static_cast<unsigned char>(name[i])));
    uint64_t t = static_cast<uint64_t>(c ^ static_cast<int64_t>(h)) * 0x5601F281ULL;
    h = static_cast<int32_t>(static_cast<uint32_t>(t >> 32) ^ static_cast<uint32_t>(t));
    i++;
  }
  return h & 0xFFF;
}

void prim_register_table(const prim_desc* rows) {
  int64_t n = 0;
  while (rows[n].name != nullptr) n++;
  if (hash_heads == nullptr) {
    hash_heads = static_cast<int32_t*>(malloc(sizeof(int32_t) * PRIM_HASH_SIZE));
    J480_ASSERT(PRIM_MODULE, hash_heads != NULL);
    for (int32_t i = 0; i < PRIM_HASH_SIZE; i++) hash_heads[i] = -1;
  }
  int64_t total = prims_cnt + n;
  prim_desc* new_prims = static_cast<prim_desc*>(malloc(sizeof(prim_desc) * static_cast<size_t>(total)));
  int32_t* new_chain = static_cast<int32_t*>(malloc(sizeof(int32_t) * static_cast<size_t>(total)));
  J480_ASSERT(PRIM_MODULE, new_prims != NULL && new_chain != NULL);
  if (prims_cnt > 0) {
    memcpy(new_prims, prims, sizeof(prim_desc) * static_cast<size_t>(prims_cnt));
    memcpy(new_chain, hash_chain, sizeof(int32_t) * static_cast<size_t>(prims_cnt));
  }
  free(prims);
  free(hash_chain);
  prims = new_prims;
  hash_chain = new_chain;
  for (int64_t i = 0; i < n; i++) {
    int64_t idx = prims_cnt++;
    prims[idx] = rows[i];
    int32_t h = prim_signature_hash(rows[i].name, base_length(rows[i].name));
    hash_chain[idx] = hash_heads[h];
    hash_heads[h] = static_cast<int32_t>(idx);
  }
}

const prim_desc* prim_lookup(const char* name, int exact_only, int with_variants) {
  return lookup(name, true, exact_only == 0, with_variants != 0);
}

const prim_desc* prim_lookup_any(const char* name, int with_variants) {
  return lookup(name, true, true, with_variants != 0);
}

const prim_desc* prim_next_variant(const prim_desc* desc, const char* name) {
  if (desc == nullptr) return nullptr;
  int64_t len = static_cast<int64_t>(strlen(name));
  J480_ASSERT(PRIM_MODULE, strncmp(desc->name, name, len) == 0);
  int64_t idx = desc - prims;
  J480_ASSERT(PRIM_MODULE, idx >= 0 && idx < prims_cnt);
  return walk_chain(hash_chain[idx], name, len, true);
}

const prim_desc* GetPrimDesc(const char* name) {
  const prim_desc* row = prim_lookup(name, 1, 0);
  if (row == nullptr && strncmp(name, "select_", 7) != 0)
    CV_INFO(PRIM_MODULE, "GetPrimDesc: signature %s not found\n", name);
  return row;
}

int32_t prim_set_function(const char* name, void* function) {
  if (hash_heads == nullptr) return 0;
  int32_t changed = 0;
  for (int32_t i = hash_heads[prim_signature_hash(name, base_length(name))]; i >= 0;
       i = hash_chain[i]) {
    if (strcmp(prims[i].name, name) == 0) {
      prims[i].ptr = function;
      changed++;
    }
  }
  return changed;
}

void prim_registry_free() {
  free(prims);
  free(hash_heads);
  free(hash_chain);
  prims = nullptr;
  hash_heads = nullptr;
  hash_chain = nullptr;
  prims_cnt = 0;
}

int64_t prim_count() { return prims_cnt; }

const prim_desc* prim_row(int64_t i) { return i >= 0 && i < prims_cnt ? &prims[i] : nullptr; }
