// utcallers.h: which module an address belongs to, and who called an interrupted instruction.
//
// What is read may be what the process died of: a stack, the loader's list, a file that was cut short under its
// mapping. Any of it may fault, so the caller guards each call; what was found until then stands in the result.
// Signal-safe: all of it, but what says otherwise.
#pragma once

#include <stddef.h>
#include <ucontext.h>

#include "corvex/types.h"

// An address in a module. The texts and bytes are the loader's.
struct a_place {
    uint64 pc = 0;
    const char* module = nullptr;                          // its file's name; null: in no module
    size_t module_size = 0;                                // 0: the program
    uint64 offset = 0;                                     // in the file's own addresses, as addr2line wants them
    const unsigned char *start = nullptr, *end = nullptr;  // of its mapping
    const unsigned char* build_id = nullptr;               // null: not looked for, or it has none
    size_t build_id_size = 0;
};

// Lock-free: the loader's own table for unwinders.
void ut_find_place(a_place& place, uint64 pc);
void ut_find_build_id(a_place& place);

constexpr uint32 ut_max_callers = 64;

struct a_caller_list {
    uint64 from = 0;  // the interrupted instruction
    uint32 count = 0, own = 0;
    bool found = false, more = false;  // whether the interrupted frame has been come to; whether some did not fit
    uint64 pcs[ut_max_callers];        // of the calls: an address inside the instruction
};

// Who called the instruction that the context shows, on the thread that runs the handler: its own frames are left out.
// nowhere: there is no code, and the call to it counts as not made. A fault may leave the context's pc and stack
// pointer changed.
void ut_find_callers(a_caller_list& callers, ucontext_t& context, bool nowhere);

// Has the unwinder do once what it does at its first use. Not signal-safe.
void ut_prepare_callers();
