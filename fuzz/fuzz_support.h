// fuzz_support: what the fuzz targets share.
//
// A per-process input file (a memory file reached by a path) for readers that open files by name, a
// check that reads every byte of a payload, a logger configuration that sends every level to
// /dev/null, and a pass-through of the system's assertion that lets one target accept named
// assertion texts as a defined end of its input. Owns the input file for the life of the process;
// owns nothing it returns.
#ifndef J480_FUZZ_FUZZ_SUPPORT_H
#define J480_FUZZ_FUZZ_SUPPORT_H

#include <cstddef>
#include <cstdint>

#include "utils/mem.h"
#include "utils/stream.h"

// A broken promise of the code under test: a crash with the check's line in the stack.
#define FUZZ_CHECK(cond)           \
  do {                             \
    if (!(cond)) __builtin_trap(); \
  } while (0)

namespace j480fuzz {

// Replaces the content of this process's input file (a memory file) with `size` bytes of `data`
// and returns its path, the same for every input.
const char* write_input(const void* data, size_t size);

// Starts the logger again with every facility at TRACE into /dev/null only, so that each
// message is formatted and written but nothing reaches the consoles or the working directory.
// With J480_FUZZ_VERBOSE set in the environment the lines go to standard error instead.
void quiet_logger();

// Reads every byte of a payload that a record claims to own: none at a null pointer, some at any
// other.
inline volatile uint8_t touch_sink;
inline void touch(const void* data, int64_t size) {
  FUZZ_CHECK(size >= 0);
  FUZZ_CHECK((size == 0) == (data == nullptr));
  uint8_t x = 0;
  for (int64_t i = 0; i < size; i++) x ^= static_cast<const uint8_t*>(data)[i];
  touch_sink = x;
}

// Thrown in place of the abort of a failed assertion whose text was accepted.
struct AcceptedAssertion {
  const char* expr;
};

// Assertion texts (the stringified expressions) to throw AcceptedAssertion for, instead of
// aborting; `exprs` must stay alive. Any other failed assertion aborts as usual.
void accept_assertions(const char* const* exprs, int count);
template <int N>
void accept_assertions(const char* const (&exprs)[N]) {
  accept_assertions(exprs, N);
}

// One log input, read as the dump drives its reader, with one context per transaction as the
// replay has it: `read_version(s)`, then `read_transaction(mem, s, &list)` for as long as it
// returns 1, each result handed to `check(rc, list)`. A call that returns 1 consumes at least one
// tag or meets a read error that ends the loop, so the loop is bounded by the input's size. An
// accepted assertion rejects the input (-1) and leaves nothing open behind it. Otherwise the
// dump, which reads the same records in the same order, runs on a stream of its own: `dump(s)`.
template <class List, class ReadVersion, class ReadTransaction, class Check, class Dump>
int fuzz_log(const uint8_t* data, size_t size, ReadVersion read_version,
             ReadTransaction read_transaction, Check check, Dump dump) {
  const char* path = write_input(data, size);
  stream* s = open_binary_read_stream(path);
  if (s == nullptr) return 0;
  MemContext* mem = nullptr;
  try {
    read_version(s);
    size_t budget = size / 4 + 2;
    for (;;) {
      FUZZ_CHECK(budget-- > 0);
      mem = mem_context_create(nullptr, "logger_replay_tc");
      List* list = reinterpret_cast<List*>(1);
      int rc = read_transaction(mem, s, &list);
      FUZZ_CHECK(rc == 0 || rc == 1);
      FUZZ_CHECK(list != reinterpret_cast<List*>(1));
      check(rc, list);
      mem_context_remove(mem);
      mem = nullptr;
      // As in the dumps: a damaged transaction is read past, a file that can't be read any
      // further (one that failed to open included) ends the log.
      if (rc == 0 || (list == nullptr && stream_error(s) != STREAM_NOERR && !stream_at_end(s)))
        break;
    }
  } catch (const AcceptedAssertion&) {
    if (mem != nullptr) mem_context_remove(mem);
    stream_close_destroy(s);
    return -1;
  }
  stream_close_destroy(s);
  s = open_binary_read_stream(path);
  FUZZ_CHECK(s != nullptr);
  dump(s);
  stream_close_destroy(s);
  return 0;
}

}  // namespace j480fuzz

#endif  // J480_FUZZ_FUZZ_SUPPORT_H
