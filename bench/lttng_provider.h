/* lttng_provider.h: the payload as an LTTng tracepoint, corvex_bench:event. */
#undef LTTNG_UST_TRACEPOINT_PROVIDER
#define LTTNG_UST_TRACEPOINT_PROVIDER corvex_bench
#undef LTTNG_UST_TRACEPOINT_INCLUDE
#define LTTNG_UST_TRACEPOINT_INCLUDE "bench/lttng_provider.h"

#if !defined(BENCH_LTTNG_PROVIDER_H) || defined(LTTNG_UST_TRACEPOINT_HEADER_MULTI_READ)
#define BENCH_LTTNG_PROVIDER_H

#include <lttng/tracepoint.h>
#include <stdint.h>

/* clang-format off */
LTTNG_UST_TRACEPOINT_EVENT(corvex_bench, event,
    LTTNG_UST_TP_ARGS(const char*, at_file, unsigned, at_line, const char*, with_id, const char*, with_text,
                      void*, p1, void*, p2, void*, p3, void*, p4),
    LTTNG_UST_TP_FIELDS(
        lttng_ust_field_string(file, at_file)
        lttng_ust_field_integer(unsigned, line, at_line)
        lttng_ust_field_string(id, with_id)
        lttng_ust_field_string(text, with_text)
        lttng_ust_field_integer_hex(uintptr_t, p1, (uintptr_t)p1)
        lttng_ust_field_integer_hex(uintptr_t, p2, (uintptr_t)p2)
        lttng_ust_field_integer_hex(uintptr_t, p3, (uintptr_t)p3)
        lttng_ust_field_integer_hex(uintptr_t, p4, (uintptr_t)p4)))
/* clang-format on */

#endif

#include <lttng/tracepoint-event.h>
