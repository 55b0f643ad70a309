// longjmp_ctx: per-thread non-local return to a chosen frame, used when memory runs out.
//
// A subsystem owns one longjmp_env; a frame that wants to catch pushes a longjmp_ctx, works, and
// pops it. longjmp_ctx_jump unwinds to the calling thread's newest frame by throwing a
// longjmp_unwind that only that frame catches, so destructors of the frames in between run. No
// other exception crosses module interfaces. Entries live in the environment's context.
#ifndef J480_UTILS_LONGJMP_CTX_H
#define J480_UTILS_LONGJMP_CTX_H

#include <cstdint>
#include <mutex>
#include <utility>

struct MemContext;
struct longjmp_ctx;

struct longjmp_env {
  std::mutex* lock;
  MemContext* mem;  // child context "longjmp_env"
  longjmp_ctx* top;  // newest first
};

struct longjmp_ctx {
  uint64_t thread;
  void* buf;  // identifies the frame to return to
  longjmp_env* env;
  longjmp_ctx* next;
  int32_t jumped;
};

// What a jump throws; caught only by the frame whose `buf` it names.
struct longjmp_unwind {
  void* buf;
  int code;
};

void longjmp_env_init(longjmp_env* env, MemContext* mem);
void longjmp_env_destroy(longjmp_env* env);
longjmp_ctx* longjmp_ctx_push(longjmp_env* env, void* buf);
void longjmp_ctx_pop(longjmp_env* env);
[[noreturn]] void longjmp_ctx_jump(longjmp_env* env, int code);

// The whole protocol around `work`: push, work, pop; on a jump back: pop, and the jump's code
// (1 for a jump with code 0, as a restored frame never reads 0). Returns 0 when the work ran to
// its end. A jump to an older frame of another environment pops this frame's entry on its way
// through, so that no entry outlives its frame.
template <typename Work>
int longjmp_ctx_run(longjmp_env* env, Work&& work) {
  char frame;  // its address names this frame
  longjmp_ctx_push(env, &frame);
  try {
    std::forward<Work>(work)();
  } catch (const longjmp_unwind& jump) {
    longjmp_ctx_pop(env);
    if (jump.buf != &frame) throw;
    return jump.code != 0 ? jump.code : 1;
  }
  longjmp_ctx_pop(env);
  return 0;
}

#endif  // J480_UTILS_LONGJMP_CTX_H
