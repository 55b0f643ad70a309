// mem: TEMPORARY stand-in (plain heap, per-context block lists) until the real contexts land.
#include "utils/mem.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <vector>

#include "utils/cvlog.h"

namespace {
std::map<MemContext*, std::vector<void*>>& blocks() {
  static std::map<MemContext*, std::vector<void*>> b;
  return b;
}
}  // namespace

MemContext* mem_context_init(MemContext* self, MemContext* parent, const char* name) {
  bool own = self == nullptr;
  if (own) self = static_cast<MemContext*>(calloc(1, sizeof(MemContext)));
  else memset(self, 0, sizeof *self);
  self->self_allocated = own;
  self->parent = parent;
  self->name = name;
  if (parent) {
    self->next_sibling = parent->first_child;
    parent->first_child = self;
  }
  return self;
}
MemContext* mem_context_create(MemContext* parent, const char* name) {
  return mem_context_init(nullptr, parent, name);
}
MemContext* mem_context_create_concurrent(MemContext* parent, const char* name) {
  return mem_context_create(parent, name);
}
static void free_tree(MemContext* ctx) {
  for (MemContext* c = ctx->first_child; c;) {
    MemContext* n = c->next_sibling;
    free_tree(c);
    if (c->self_allocated) free(c);
    c = n;
  }
  for (void* p : blocks()[ctx]) free(p);
  blocks().erase(ctx);
}
MemContext* mem_context_remove(MemContext* ctx) {
  free_tree(ctx);
  if (ctx->parent) {
    MemContext** l = &ctx->parent->first_child;
    while (*l != ctx) l = &(*l)->next_sibling;
    *l = ctx->next_sibling;
  }
  if (ctx->self_allocated) {
    free(ctx);
    return nullptr;
  }
  return ctx;
}
void mem_context_set_exception_env(MemContext* ctx, longjmp_env** env) { ctx->exception_env = env; }
int mem_context_claim_minimum(MemContext*, int) { return 1; }
uint64_t mem_context_used(const MemContext* ctx) { return ctx ? ctx->curMem : 0; }
void mem_context_print(const char*) {}
void mem_add_cleanup(MemContext*, void*, mem_cleanup_fn) {}
void* mem_mallocex(MemContext* ctx, uint64_t size, int) {
  void* p = malloc(size ? size : 1);
  blocks()[ctx].push_back(p);
  return p;
}
void* mem_callocex(MemContext* ctx, uint64_t size, int flags) {
  void* p = mem_mallocex(ctx, size, flags);
  memset(p, 0, size);
  return p;
}
void* mem_realloc(MemContext* ctx, void* block, uint64_t size, int flags) {
  if (!block) return mem_mallocex(ctx, size, flags);
  for (void*& p : blocks()[ctx])
    if (p == block) return p = realloc(block, size);
  return nullptr;
}
void* mem_reallocex(MemContext* ctx, void* block, uint64_t size, int flags) {
  return mem_realloc(ctx, block, size, flags);
}
void mem_free(MemContext*, void*) {}
char* mem_strdup(MemContext* ctx, const char* s) { return mem_strdup_flags(ctx, s, 0); }
char* mem_strdup_flags(MemContext* ctx, const char* s, int flags) {
  size_t n = strlen(s) + 1;
  char* p = static_cast<char*>(mem_mallocex(ctx, n, flags));
  memcpy(p, s, n);
  return p;
}
char* mem_printf(MemContext* ctx, int flags, const char* format, ...) {
  char buf[4096];
  va_list a;
  va_start(a, format);
  vsnprintf(buf, sizeof buf, format, a);
  va_end(a);
  return mem_strdup_flags(ctx, buf, flags);
}
const char* mem_strdup_lower(MemContext*, const char* s) { return s; }
void* mem_calloc_plain(uint64_t size) { return calloc(1, size); }
