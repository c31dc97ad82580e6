/* lttng_provider.c: the probe that the tracepoint's header describes. */
#define LTTNG_UST_TRACEPOINT_CREATE_PROBES
#define LTTNG_UST_TRACEPOINT_DEFINE
#include "bench/lttng_provider.h"
