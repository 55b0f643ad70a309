#include "bm/columnspace.h"

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <new>
#include <unordered_map>

#include "bm/iob.h"
#include "utils/cvlog.h"
#include "utils/mem.h"
#include "utils/rbtree.h"

#define CBM "CBM"

namespace {

// Group records are carved from the file's context this many at a time.
constexpr int kGroupsPerChunk = 1024;

int64_t compare_lng(const void* a, const void* b) {
  int64_t x = *static_cast<const int64_t*>(a);
  int64_t y = *static_cast<const int64_t*>(b);
  return (x > y) - (x < y);
}

cs_group* group_new(cs_file* f, int64_t first, int64_t count, int64_t owner) {
  if (f->spare_groups == nullptr) {
    auto* chunk = static_cast<cs_group*>(mem_malloc(f->mem, sizeof(cs_group) * kGroupsPerChunk));
    for (int i = 0; i < kGroupsPerChunk; i++) {
      chunk[i].next_spare = f->spare_groups;
      f->spare_groups = &chunk[i];
    }
  }
  cs_group* g = f->spare_groups;
  f->spare_groups = g->next_spare;
  g->refcnt = 0;
  g->first = first;
  g->count = count;
  g->owner = owner;
  g->cs_file = f;
  g->reserved = 0;
  return g;
}

void group_unref_value(void* value) {
  cs_group_unref(static_cast<cs_group*>(value));
}

// Blocks to walk from `from` (exclusive) in direction `step` that are inside the file and free,
// stopping short of the nearest tracked run and after at most group_size - 1 blocks.
int64_t scan(cs_file* f, int64_t from, int step) {
  const int64_t group_size = f->cs->group_size;
  int64_t limit = group_size - 1;
  for (rb_tree* tree : {f->reserved_groups, f->free_groups}) {
    int64_t distance;
    if (step < 0) {
      rb_node* n = rb_search_less(tree, &from);
      if (n == nullptr) continue;
      auto* g = static_cast<cs_group*>(n->value);
      distance = from - (g->first + g->count);
    } else {
      rb_node* n = rb_search_greater(tree, &from);
      if (n == nullptr) continue;
      distance = static_cast<cs_group*>(n->value)->first - from - 1;
    }
    if (distance >= 0 && distance < limit) limit = distance;
  }
  int64_t walked = 0;
  for (int64_t nr = from + step; walked < limit && nr >= 0 && nr < f->nr_blocks; nr += step) {
    if (f->block_map[nr] != nullptr) break;
    walked++;
  }
  return walked;
}

// Releases a file's memory, trees and handle; it has left the tree of files already.
void file_release(cs_file* f) {
  columnspace* cs = f->cs;
  if (f->reserved_groups != nullptr) rb_destroy(f->reserved_groups, group_unref_value);
  if (f->free_groups != nullptr) rb_destroy(f->free_groups, group_unref_value);
  if (f->handle != nullptr && cs->file_released != nullptr) cs->file_released(cs, f->handle);
  MemContext* mem = f->mem;
  f->lock.~mutex();
  mem_context_remove(mem);
}

// Takes a file out of the columnspace and releases it. `is_in_tree` says what the caller
// expects; the file's lock is not held.
void file_drop(cs_file* f, bool is_in_tree) {
  columnspace* cs = f->cs;
  {
    std::lock_guard<std::mutex> guard(cs->lock);
    rb_node* n = rb_search(cs->files, &f->file_nr);
    bool removed_from_tree = n != nullptr && n->value == f;
    if (removed_from_tree) {
      rb_delete(cs->files, n);
      cs->num_files--;
    }
    J480_ASSERT(CBM, (is_in_tree && removed_from_tree) || (!is_in_tree && !removed_from_tree));
  }
  file_release(f);
}

// What a file leaves in its columnspace when it goes for good.
void file_forget(cs_file* f) {
  columnspace* cs = f->cs;
  if (cs->default_file_nr == f->file_nr) cs->default_file_nr = kNoFile;
  file_drop(f, true);
}

}  // namespace

void cs_group_unref(cs_group* g) {
  if (--g->refcnt > 0) return;
  cs_file* f = g->cs_file;
  g->next_spare = f->spare_groups;
  f->spare_groups = g;
}

columnspace* columnspace_create(int32_t blksz, int32_t group_size, int64_t metadata_size,
                                int32_t grow) {
  int64_t nrblks = (metadata_size + 63) / 64 * 64;
  if (nrblks <= 0) return nullptr;
  MemContext* mem = mem_context_create_concurrent(nullptr, "columnspace");
  void* raw = nullptr;
  if (mem_context_claim_minimum(mem, J480_MEM_ALLOWFAILURE))
    raw = mem_callocex(mem, sizeof(columnspace), J480_MEM_ALLOWFAILURE);
  if (raw == nullptr) {
    CV_ERROR(CBM, "columnspace_create: failed to allocate initial memory.");
    mem_context_remove(mem);
    return nullptr;
  }
  auto* cs = new (raw) columnspace();
  cs->mem = mem;
  cs->blksz = blksz;
  cs->nrblks = nrblks;
  CV_INFO(CBM, "columnspace_create: nrblks %lld", static_cast<long long>(nrblks));
  int32_t size = 1;
  while (size < group_size && size < (1 << 30)) size <<= 1;
  cs->group_size = size;
  cs->files = rb_create(mem, 0, compare_lng);
  cs->last_file_nr = -1;
  cs->keep_files = 1;
  cs->grow = grow;
  cs->default_file_nr = kNoFile;
  return cs;
}

void columnspace_destroy(columnspace* cs) {
  if (cs == nullptr) return;
  if (cs->default_file_nr != kNoFile) {
    cs_file* cs_file = columnspace_get_file(cs, cs->default_file_nr);
    if (cs_file != nullptr) {
      J480_ASSERT(CBM, cs_file->refcnt == 0);
      cs->default_file_nr = kNoFile;
      file_drop(cs_file, true);
    }
  }
  J480_ASSERT_MSG(CBM, cs->num_files == 0, "cs->num_files = %lld",
                  static_cast<long long>(cs->num_files));
  rb_destroy(cs->files, nullptr);
  if (cs->destroyed != nullptr) cs->destroyed(cs);
  MemContext* mem = cs->mem;
  cs->~columnspace();
  mem_context_remove(mem);
}

cs_file* columnspace_register_file(columnspace* cs, void* owner_value_1, void* owner_value_2,
                                   const char* name, int64_t location_id, int64_t file_nr) {
  {
    std::lock_guard<std::mutex> guard(cs->lock);
    if (file_nr < 0) {
      file_nr = ++cs->last_file_nr;
    } else if (file_nr > cs->last_file_nr) {
      cs->last_file_nr = file_nr;
    }
  }
  char label[64];
  snprintf(label, sizeof label, "file_%lld_%lld", static_cast<long long>(location_id),
           static_cast<long long>(file_nr));
  MemContext* mem = mem_context_create(cs->mem, "cs_file");
  mem->name = mem_strdup(mem, label);  // a label of the context only
  mem->chunksize = 4096;
  void* raw = mem_callocex(mem, sizeof(cs_file), J480_MEM_ALLOWFAILURE);
  iob** map =
      raw == nullptr
          ? nullptr
          : static_cast<iob**>(mem_callocex(mem, sizeof(iob*) * static_cast<uint64_t>(cs->nrblks),
                                            J480_MEM_ALLOWFAILURE));
  if (map == nullptr) {
    mem_context_remove(mem);
    return nullptr;
  }
  auto* f = new (raw) cs_file();
  f->mem = mem;
  f->location_id = location_id;
  f->file_nr = file_nr;
  f->cs = cs;
  f->nr_blocks = cs->nrblks;
  f->block_map = map;
  f->reserved_groups = rb_create(mem, 0, compare_lng);
  f->free_groups = rb_create(mem, 0, compare_lng);
  {
    std::lock_guard<std::mutex> guard(f->lock);
    cs_file_add_free(f, 0, f->nr_blocks);
  }
  CV_DEBUG(CBM, "columnspace_register_file: location_id = %lld, file_nr = %lld",
           static_cast<long long>(location_id), static_cast<long long>(file_nr));
  if (cs->file_created != nullptr) {
    f->handle = cs->file_created(cs, mem, owner_value_1, owner_value_2, name, file_nr);
    if (f->handle == nullptr) {
      file_release(f);
      return nullptr;
    }
  }
  cs->lock.lock();
  if (rb_insert(cs->files, &f->file_nr, f) == nullptr) {
    cs->lock.unlock();
    // The number is taken: the older file stays, the new one goes.
    CV_ERROR(CBM, "columnspace_register_file: file %lld is registered already",
             static_cast<long long>(file_nr));
    file_release(f);
    return nullptr;
  }
  cs->num_files++;
  cs->lock.unlock();
  return f;
}

cs_file* columnspace_get_file(columnspace* cs, int64_t file_nr) {
  std::lock_guard<std::mutex> guard(cs->lock);
  rb_node* n = rb_search(cs->files, &file_nr);
  return n == nullptr ? nullptr : static_cast<cs_file*>(n->value);
}

cs_file** columnspace_list_files(columnspace* cs, MemContext* mem, int64_t* count_out) {
  std::lock_guard<std::mutex> guard(cs->lock);
  *count_out = 0;
  if (cs->num_files == 0) return nullptr;
  auto* list = static_cast<cs_file**>(
      mem_malloc(mem, sizeof(cs_file*) * static_cast<uint64_t>(cs->num_files)));
  int64_t node_num = 0;
  for (rb_node* n = rb_first(cs->files); n != nullptr; n = rb_successor(cs->files, n)) {
    J480_ASSERT(CBM, node_num < cs->num_files);
    list[node_num++] = static_cast<cs_file*>(n->value);
  }
  *count_out = node_num;
  return list;
}

int64_t columnspace_get_default_file(columnspace* cs) {
  return cs == nullptr ? -1 : cs->default_file_nr;
}

void columnspace_set_default_file(columnspace* cs, int64_t file_nr) {
  if (cs == nullptr) return;
  J480_ASSERT(CBM, cs->default_file_nr == kNoFile || file_nr == kNoFile);
  cs->default_file_nr = file_nr;
}

int64_t cs_file_grow(cs_file* f) {
  if (f->cs->grow == 0) return -1;
  int64_t old_size = f->nr_blocks;
  int64_t new_size = old_size * 2;
  CV_DEBUG(CBM, "cs_file_grow: growing file %lld from %lld to %lld blocks.",
           static_cast<long long>(f->file_nr), static_cast<long long>(old_size),
           static_cast<long long>(new_size));
  auto* map = static_cast<iob**>(mem_realloc(
      f->mem, f->block_map, sizeof(iob*) * static_cast<uint64_t>(new_size), J480_MEM_ALLOWFAILURE));
  if (map == nullptr) return -1;
  memset(map + old_size, 0, sizeof(iob*) * static_cast<uint64_t>(old_size));
  f->block_map = map;
  f->nr_blocks = new_size;
  cs_file_add_free(f, old_size, old_size);
  return new_size;
}

int columnspace_mark_used(columnspace* cs, iob* b, int64_t file_nr, int64_t owner,
                          int64_t block_nr) {
  cs_file* cs_file = columnspace_get_file(cs, file_nr);
  J480_ASSERT(CBM, cs_file);
  std::lock_guard<std::mutex> guard(cs_file->lock);
  while (block_nr >= cs_file->nr_blocks) {
    if (cs_file_grow(cs_file) < 0) {
      CV_ERROR(
          CBM,
          "columnspace_mark_used: could not grow columnspace to desired size %lld (is now %lld).",
          static_cast<long long>(block_nr), static_cast<long long>(cs_file->nr_blocks));
      return 0;
    }
  }
  const int64_t nr = block_nr;
  J480_ASSERT(CBM, nr >= 0 && nr < cs_file->nr_blocks);
  cs_group* group = nullptr;
  if (nr > 0) {
    iob* before = cs_file->block_map[nr - 1];
    if (before != nullptr && before->group != nullptr && before->group->owner == owner)
      group = before->group;
  }
  if (group == nullptr) group = group_new(cs_file, nr, 0, owner);
  group->count++;
  cs_file->frozen = 1;
  J480_ASSERT(CBM, group);
  J480_ASSERT(CBM, cs_file->block_map[nr] == NULL);
  b->block_nr = nr;
  b->group = group;
  group->refcnt++;
  cs_file->block_map[nr] = b;
  cs_file->free_blocks--;
  return 1;
}

void cs_file_add_free(cs_file* f, int64_t nr, int64_t count) {
  f->free_blocks += count;
  if (f->frozen) return;
  const int64_t below = scan(f, nr, -1);
  const int64_t above = scan(f, nr + count - 1, 1);
  int64_t first = nr - below;
  int64_t total = count + below + above;
  rb_node* before = rb_search_less(f->free_groups, &first);
  if (before != nullptr) {
    auto* g = static_cast<cs_group*>(before->value);
    if (g->first + g->count == first) {
      g->count += total;
      return;
    }
  }
  int64_t end = first + total;
  rb_node* after = rb_search(f->free_groups, &end);
  if (after != nullptr) {
    auto* g = static_cast<cs_group*>(after->value);
    total += g->count;
    if (after == f->first_free) f->first_free = nullptr;
    if (after == f->last_free) f->last_free = nullptr;
    rb_delete(f->free_groups, after);
    cs_group_unref(g);
  }
  if (total < f->cs->group_size) return;
  cs_group* g = group_new(f, first, total, -1);
  g->refcnt = 1;
  rb_node* node = rb_insert(f->free_groups, &g->first, g);
  J480_ASSERT(CBM, node);
  if (f->first_free == nullptr || first < static_cast<cs_group*>(f->first_free->value)->first)
    f->first_free = node;
  if (f->last_free == nullptr || first > static_cast<cs_group*>(f->last_free->value)->first)
    f->last_free = node;
}

void columnspace_file_ref(cs_file* cs_file) {
  std::lock_guard<std::mutex> guard(cs_file->lock);
  cs_file->refcnt++;
  J480_ASSERT(CBM, cs_file->refcnt > 0);
}

int columnspace_file_unref(cs_file* cs_file) {
  cs_file->lock.lock();
  cs_file->refcnt--;
  J480_ASSERT(CBM, cs_file->refcnt >= 0);
  if (cs_file->refcnt == 0 && cs_file->free_blocks == cs_file->nr_blocks) {
    cs_file->lock.unlock();
    file_forget(cs_file);
    return 1;
  }
  cs_file->lock.unlock();
  return 0;
}

bool columnspace_file_block_is_free(cs_file* cs_file, int64_t nr) {
  return nr >= 0 && nr < cs_file->nr_blocks && cs_file->block_map[nr] == nullptr;
}

void columnspace_file_free_blocknr(cs_file* cs_file, int64_t blknr) {
  columnspace* cs = cs_file->cs;
  cs_file->lock.lock();
  J480_ASSERT(CBM, blknr >= 0 && blknr < cs_file->nr_blocks);
  const int64_t nr = blknr;
  iob* b = cs_file->block_map[nr];
  cs_group* group = b == nullptr ? nullptr : b->group;
  J480_ASSERT_MSG(CBM, !columnspace_file_block_is_free(cs_file, nr),
                  "location_id=%lld, file_nr=%lld, grow=%d, nrblks=%lld, free_blocks=%lld, "
                  "iobnr=%lld, group_first=%lld, group_count=%lld",
                  static_cast<long long>(cs_file->location_id),
                  static_cast<long long>(cs_file->file_nr), cs->grow,
                  static_cast<long long>(cs->nrblks), static_cast<long long>(cs_file->free_blocks),
                  static_cast<long long>(nr), static_cast<long long>(group ? group->first : -1),
                  static_cast<long long>(group ? group->count : -1));
  J480_ASSERT(CBM, group);
  if (group->reserved && group->first == nr) {
    J480_ASSERT(CBM, cs_file);
    J480_ASSERT(CBM, group->reserved);
    rb_node* node = rb_search(cs_file->reserved_groups, &group->first);
    J480_ASSERT(CBM, node);
    rb_delete(cs_file->reserved_groups, node);
    group->reserved = 0;
    cs_group_unref(group);
  }
  cs_group_unref(group);
  b->group = nullptr;
  cs_file->block_map[nr] = nullptr;
  cs_file_add_free(cs_file, nr, 1);
  if (cs_file->free_blocks == cs_file->nr_blocks) {
    if (cs->keep_files == 0) {
      CV_INFO(CBM,
              "columnspace_file_free_blocknr: no blocks in use anymore, deleting file %lld in "
              "location %lld",
              static_cast<long long>(cs_file->file_nr),
              static_cast<long long>(cs_file->location_id));
      if (cs->file_delete != nullptr) cs->file_delete(cs, cs_file->handle);
    }
    if (cs_file->refcnt == 0) {
      cs_file->lock.unlock();
      file_forget(cs_file);
      return;
    }
  }
  cs_file->lock.unlock();
}

iob* columnspace_file_get_block(cs_file* cs_file, int64_t nr) {
  J480_ASSERT(CBM, cs_file);
  std::lock_guard<std::mutex> guard(cs_file->lock);
  J480_ASSERT(CBM, nr >= 0 && nr < cs_file->nr_blocks);
  return cs_file->block_map[nr];
}

int64_t columnspace_file_used_blocks(cs_file* file) {
  return file->nr_blocks - file->free_blocks;
}
int64_t columnspace_file_nr_blocks(cs_file* file) {
  return file->nr_blocks;
}
int64_t columnspace_file_number(cs_file* file) {
  return file->file_nr;
}
int64_t columnspace_file_location(cs_file* file) {
  return file == nullptr ? -1 : file->location_id;
}

const char* columnspace_file_name(cs_file* cs_file) {
  J480_ASSERT(CBM, cs_file);
  return cs_file->cs->file_name(cs_file->cs, cs_file->handle);
}

bool columnspace_file_in_use(cs_file* file) {
  return file->refcnt > 0;
}
void columnspace_file_lock(cs_file* file) {
  file->lock.lock();
}
void columnspace_file_unlock(cs_file* file) {
  file->lock.unlock();
}

namespace {

bool fail(std::string* why, const std::string& text) {
  if (why != nullptr) *why = text;
  return false;
}

// Runs of one tree: sorted, disjoint, inside the file, with the file and the flag they claim.
bool check_runs(cs_file* f, rb_tree* tree, bool reserved, const char* name,
                std::unordered_map<const cs_group*, int64_t>* refs, std::string* why) {
  const char* broken = nullptr;
  if (rb_check(tree, &broken) < 0) return fail(why, std::string(name) + ": " + broken);
  int64_t end = 0;
  for (rb_node* n = rb_first(tree); n != nullptr; n = rb_successor(tree, n)) {
    auto* g = static_cast<cs_group*>(n->value);
    std::string at = std::string(name) + " run at " + std::to_string(g->first);
    if (n->key != &g->first) return fail(why, at + ": key is not the run's first block");
    if (g->cs_file != f || (g->reserved != 0) != reserved)
      return fail(why, at + ": wrong file or flag");
    if (g->first < end || g->count < 1 || g->first + g->count > f->nr_blocks)
      return fail(why, at + ": overlaps, is empty or leaves the file");
    end = g->first + g->count;
    (*refs)[g]++;
  }
  return true;
}

}  // namespace

bool columnspace_file_check(cs_file* f, std::string* why) {
  std::lock_guard<std::mutex> guard(f->lock);
  std::unordered_map<const cs_group*, int64_t> refs;
  int64_t free_count = 0;
  for (int64_t nr = 0; nr < f->nr_blocks; nr++) {
    iob* b = f->block_map[nr];
    if (b == nullptr) {
      free_count++;
      continue;
    }
    std::string at = "block " + std::to_string(nr);
    cs_group* g = b->group;
    if (b->block_nr != nr || g == nullptr || g->cs_file != f) return fail(why, at + ": unbound");
    if (nr < g->first || nr >= g->first + g->count) return fail(why, at + ": outside its group");
    refs[g]++;
  }
  if (free_count != f->free_blocks)
    return fail(why, "free_blocks " + std::to_string(f->free_blocks) + ", map " +
                         std::to_string(free_count));
  if (!check_runs(f, f->reserved_groups, true, "reserved", &refs, why)) return false;
  if (!check_runs(f, f->free_groups, false, "free", &refs, why)) return false;
  for (const auto& [g, count] : refs)
    if (g->refcnt != count)
      return fail(why, "group at " + std::to_string(g->first) + ": refcnt " +
                           std::to_string(g->refcnt) + ", references " + std::to_string(count));
  if (f->frozen) return true;
  rb_node* first = rb_first(f->free_groups);
  rb_node* last = nullptr;
  for (rb_node* n = first; n != nullptr; n = rb_successor(f->free_groups, n)) {
    auto* g = static_cast<cs_group*>(n->value);
    if (g->count < f->cs->group_size || g->owner != -1)
      return fail(why, "free run at " + std::to_string(g->first) + ": short or owned");
    for (int64_t nr = g->first; nr < g->first + g->count; nr++)
      if (f->block_map[nr] != nullptr)
        return fail(why, "free run at " + std::to_string(g->first) + ": block " +
                             std::to_string(nr) + " is used");
    last = n;
  }
  if (f->first_free != first || f->last_free != last)
    return fail(why, "first_free or last_free is not at the end of the free runs");
  return true;
}
