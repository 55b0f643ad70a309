// bc20_replay: the replay of a format 2.0 log into the legacy model, and its handler registry.
//
// Reads LOG one transaction at a time (bc20_logger), each in its own memory context, and offers
// every action to the registered handlers in order; then reads location_map. Owns the registry
// (process-wide, filled once by bc20_register_types and iobm_init) and nothing else: the model
// belongs to bc20_catalog and bc20_iobm. It writes no file.
#ifndef J480_TOOLS_WAL_CONVERTER_BC20_REPLAY_H
#define J480_TOOLS_WAL_CONVERTER_BC20_REPLAY_H

#include <cstdint>

struct bc20_action;
struct iobm;
struct stream;

// A handler gets its context and one action: non-zero to go on, zero to fail the replay. It
// keeps what it needs of the action only by copying: the action dies with its transaction.
typedef int (*bc20_action_handler)(void* context, bc20_action* action);

constexpr int32_t MAX_HANDLERS = 16;

// Appends to the registry; a 17th handler fails the assertion "num_handlers < MAX_HANDLERS".
void bc20_bm_logger_add_handler(bc20_action_handler function, void* context);
int32_t bc20_bm_logger_num_handlers();

// Replays the log `s`, standing behind its byte-order mark. 0 for a clean end, -1 for a log of
// the wrong version (*fatal set), else the offset of the transaction that could not be read or
// applied (*fatal set where a handler failed).
int64_t bc20_bm_logger_replay(stream* s, int32_t* fatal);

// The column, group and index type tables, then the two index record handlers, in the order
// that fixes the numbers of the old log. A second call does nothing.
void bc20_register_types();

// Registers the catalog and storage handlers, replays <cbm>/LOG and <cbm>/location_map into
// bc20_catalog and bc20_iobm: 1, or 0 with the failure logged.
int iobm_init(iobm* bm);

// Empties the registry and forgets the registration (the next bc20_register_types registers
// again), so that a process can replay more than one log (tests, fuzzing, benchmarks).
void bc20_replay_reset_registry();
// After an assertion that a harness caught inside iobm_init: closes the file being read and
// forgets, without releasing, the scratch of the replay (bc20_iobm_forget_replay).
void bc20_replay_abandon();

#endif  // J480_TOOLS_WAL_CONVERTER_BC20_REPLAY_H
