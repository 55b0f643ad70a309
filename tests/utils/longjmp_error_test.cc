// Jump contexts and error records.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "utils/context.h"
#include "utils/j480_error.h"
#include "utils/longjmp_ctx.h"
#include "utils/mem.h"

namespace {

struct Env {
  MemContext* mem = mem_context_create(nullptr, "longjmp_test");
  longjmp_env env{};
  Env() { longjmp_env_init(&env, mem); }
  ~Env() {
    longjmp_env_destroy(&env);
    mem_context_remove(mem);
  }
};

// An object whose destructor must run when a jump passes its frame.
struct Witness {
  int* counter;
  ~Witness() { ++*counter; }
};

}  // namespace

// Nested frames catch the inner jump first, then the outer one after the pop. A jump through
// another environment passes a frame: that frame leaves no entry behind, and a jump with code 0
// still takes the failure path (a frame reads 0 as "no jump").
TEST(LongjmpCtx, NestedFramesCatchInnerFirstAPassedFramePopsItsEntryAndCodeZeroReadsAsOne) {
  Env e, other;
  int destroyed = 0;
  int inner_code = -1;
  int outer_code = longjmp_ctx_run(&e.env, [&] {
    inner_code = longjmp_ctx_run(&e.env, [&] {
      Witness w{&destroyed};
      longjmp_ctx_jump(&e.env, 7);
    });
    // The inner frame has popped its entry: this jump reaches the outer one.
    Witness w{&destroyed};
    longjmp_ctx_jump(&e.env, J480_ERROR_OUT_OF_MEMORY);
  });
  EXPECT_EQ(inner_code, 7);
  EXPECT_EQ(outer_code, J480_ERROR_OUT_OF_MEMORY);
  EXPECT_EQ(destroyed, 2);
  EXPECT_EQ(e.env.top, nullptr);
  EXPECT_EQ(longjmp_ctx_run(&e.env, [] {}), 0);
  EXPECT_EQ(e.env.top, nullptr);

  int code = longjmp_ctx_run(&e.env, [&] {
    longjmp_ctx_run(&other.env, [&] { longjmp_ctx_jump(&e.env, 2); });
  });
  EXPECT_EQ(code, 2);
  EXPECT_EQ(other.env.top, nullptr);
  EXPECT_EQ(e.env.top, nullptr);
  EXPECT_EQ(longjmp_ctx_run(&other.env, [&] { longjmp_ctx_jump(&other.env, 0); }), 1);
}

// Two threads on one environment with interleaved frames: each jump and each pop takes the
// calling thread's newest entry, not the newest of the environment.
TEST(LongjmpCtx, InterleavedFramesOfTwoThreadsEachReachTheirOwn) {
  Env e;
  std::atomic<int> stage{0};
  auto wait_for = [&](int s) {
    while (stage.load() < s) std::this_thread::yield();
  };
  int code_a = -1, code_b = -1;
  std::thread a([&] {
    code_a = longjmp_ctx_run(&e.env, [&] {
      stage = 1;
      wait_for(2);  // b has pushed its frame after ours
      longjmp_ctx_jump(&e.env, 5);
    });
    stage = 3;
  });
  std::thread b([&] {
    wait_for(1);
    code_b = longjmp_ctx_run(&e.env, [&] {
      stage = 2;
      wait_for(3);  // a has jumped and popped
      longjmp_ctx_jump(&e.env, 9);
    });
  });
  a.join();
  b.join();
  EXPECT_EQ(code_a, 5);
  EXPECT_EQ(code_b, 9);
  EXPECT_EQ(e.env.top, nullptr);
}

// Jumps twice through an entry that was never popped.
static void jump_twice(longjmp_env* env) {
  char buf;
  longjmp_ctx_push(env, &buf);
  try {
    longjmp_ctx_jump(env, 1);
  } catch (const longjmp_unwind&) {
  }
  longjmp_ctx_jump(env, 1);
}

TEST(LongjmpCtxDeathTest, JumpOrPopWithoutAFrameASecondJumpAndAParameterOutsideTheRecordAssert) {
  Env e;
  EXPECT_DEATH(longjmp_ctx_jump(&e.env, 2), "assertion \"ljc != NULL\" failed");
  EXPECT_DEATH(longjmp_ctx_jump(nullptr, 2), "assertion \"ljc != NULL\" failed");
  EXPECT_DEATH(longjmp_ctx_pop(&e.env), "assertion \"deleted != NULL\" failed");
  EXPECT_DEATH(jump_twice(&e.env), "assertion \"ljc->jumped == FALSE\" failed");
  j480_error* err = error_create(e.mem, 12, 1);
  EXPECT_DEATH(error_set_param(err, e.mem, 1, "x"),
               "assertion \"num < error->num_err_params\" failed");
  EXPECT_DEATH(error_set_param(err, e.mem, -1, "x"), "assertion \"num >= 0\" failed");
}

TEST(J480Error, TableHoldsEveryCodeRecordsFormatParametersAndAddErrorAppends) {
  EXPECT_STREQ(error_template(0), "No error.");
  EXPECT_NE(error_template(J480_NUM_ERRORS - 1), nullptr);
  EXPECT_EQ(error_template(J480_NUM_ERRORS), nullptr);
  EXPECT_EQ(error_template(-1), nullptr);
  Env e;
  const int32_t code = 67;  // "Table '%0' and table '%1' not equal in structure."
  j480_error* two = error_create(e.mem, code, 2);
  error_set_param(two, e.mem, 0, "t1");
  error_set_param(two, e.mem, 1, "t2");
  EXPECT_STREQ(error_to_string(e.mem, two), "Table 't1' and table 't2' not equal in structure.");
  j480_error* one = error_create(e.mem, code, 1);
  error_set_param(one, e.mem, 0, "t1");
  EXPECT_STREQ(error_to_string(e.mem, one), "Table 't1' and table '' not equal in structure.");
  EXPECT_EQ(error_message_size(error_create(e.mem, 0, 0)), int64_t{sizeof "No error."});

  // add_error appends after dropping an OK record, unless errors are ignored.
  exec_context ctx;
  ctx.mem = e.mem;
  ctx.ignore_errors = 0;
  ctx.errors = error_create(e.mem, J480_OK, 0);
  const char* params[] = {"42"};
  add_error(&ctx, "TEST", 12, 1, params);
  add_error(&ctx, "TEST", 1, 0, nullptr);
  ASSERT_NE(ctx.errors, nullptr);
  EXPECT_EQ(ctx.errors->code, 12);
  EXPECT_STREQ(error_to_string(e.mem, ctx.errors), "Integer '42' out of range.");
  ASSERT_NE(ctx.errors->next, nullptr);
  EXPECT_EQ(ctx.errors->next->code, 1);
  EXPECT_EQ(ctx.errors->next->next, nullptr);
  ctx.ignore_errors = 1;
  add_error(&ctx, "TEST", 1, 0, nullptr);
  EXPECT_EQ(ctx.errors->next->next, nullptr);
  add_error(nullptr, "TEST", 1, 0, nullptr);
}
