// longjmp_ctx: per-thread jump contexts.
#include "utils/longjmp_ctx.h"

#include <sys/syscall.h>
#include <unistd.h>

#include "utils/cvlog.h"
#include "utils/mem.h"

#define LONGJMP_MODULE "ERROR"
#define FALSE 0

namespace {
uint64_t this_thread() { return static_cast<uint64_t>(syscall(SYS_gettid)); }
}  // namespace

void longjmp_env_init(longjmp_env* env, MemContext* mem) {
  env->mem = mem_context_create(mem, "longjmp_env");
  env->lock = new std::mutex();
  env->top = nullptr;
}

void longjmp_env_destroy(longjmp_env* env) {
  if (env == nullptr || env->lock == nullptr) return;
  delete env->lock;
  mem_context_remove(env->mem);
  env->lock = nullptr;
  env->mem = nullptr;
  env->top = nullptr;
}

longjmp_ctx* longjmp_ctx_push(longjmp_env* env, void* buf) {
  std::lock_guard<std::mutex> guard(*env->lock);
  longjmp_ctx* ljc =
      static_cast<longjmp_ctx*>(mem_callocex(env->mem, sizeof(longjmp_ctx), J480_MEM_FORCE));
  ljc->buf = buf;
  ljc->next = env->top;
  ljc->env = env;
  ljc->thread = this_thread();
  env->top = ljc;
  return ljc;
}

void longjmp_ctx_pop(longjmp_env* env) {
  longjmp_ctx* deleted = nullptr;
  {
    std::lock_guard<std::mutex> guard(*env->lock);
    uint64_t me = this_thread();
    for (longjmp_ctx** link = &env->top; *link != nullptr; link = &(*link)->next) {
      if ((*link)->thread == me) {
        deleted = *link;
        *link = deleted->next;
        break;
      }
    }
  }
  J480_ASSERT(LONGJMP_MODULE, deleted != NULL);
  mem_free(env->mem, deleted);
}

void longjmp_ctx_jump(longjmp_env* env, int code) {
  longjmp_ctx* ljc = nullptr;
  if (env != nullptr && env->lock != nullptr) {
    std::lock_guard<std::mutex> guard(*env->lock);
    uint64_t me = this_thread();
    for (ljc = env->top; ljc != nullptr && ljc->thread != me; ljc = ljc->next) {
    }
  }
  J480_ASSERT(LONGJMP_MODULE, ljc != NULL);
  J480_ASSERT(LONGJMP_MODULE, ljc->jumped == FALSE);
  ljc->jumped = 1;
  throw longjmp_unwind{ljc->buf, code};
}
