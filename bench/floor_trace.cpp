// floor_trace.cpp: the demo's hook with the floor in place of the history: for each statement the three records that
// the demo makes, by hand, without statistics, thread tables or a copy of the SQL text.
#include "bench/floor.h"
#include "bench/payload.h"
#include "examples/demo/sql_trace.h"

namespace {

thread_local a_hand_ring ring;

void record(uint32 line, int32 cl, const char* text, int32 pn, long p1, long p2)
{
    hand_add<false, true>(ring, payload::file_end, line, cl, payload::id, text, pn, reinterpret_cast<void*>(p1),
                          reinterpret_cast<void*>(p2), nullptr, nullptr);
}

// Whole blocks, for the floor.
constexpr char starts[32] = "starts", sql[32] = "text", ends[32] = "ends";

int on_trace(unsigned what, void* trace, void* statement, void* text)
{
    const long connection = static_cast<const a_statement_trace*>(trace)->connection;
    if (ring.events == nullptr)
        hand_ring_init(ring, uint32(connection), true);
    if (what == SQLITE_TRACE_STMT) {
        record(__LINE__, UT_HIST_CL_BEG, starts, 1, connection, 0);
        record(__LINE__, UT_HIST_CL_DATA, sql, 1, reinterpret_cast<long>(text), 0);
    } else {
        const int steps = sqlite3_stmt_status(static_cast<sqlite3_stmt*>(statement), SQLITE_STMTSTATUS_VM_STEP, 1);
        record(__LINE__, UT_HIST_CL_END, ends, 2, connection, steps);
    }
    return 0;
}

}  // namespace

void register_statement_kinds() {}

void trace_statements(sqlite3* db, a_statement_trace& trace)
{
    sqlite3_trace_v2(db, SQLITE_TRACE_STMT | SQLITE_TRACE_PROFILE, on_trace, &trace);
}

void record_failure(sqlite3*, const a_statement_trace&, const char*, sqlite3_stmt*) {}
