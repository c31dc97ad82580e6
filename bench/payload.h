// payload.h: the one event that the history, its floor and all peers record: call site, id text, event text and four
// parameters.
#ifndef BENCH_PAYLOAD_H
#define BENCH_PAYLOAD_H

#include "corvex/types.h"

namespace payload {

inline constexpr char file[] = "server/request.cpp";
inline constexpr uint32 line = 218;
inline constexpr char id[] = "query";
inline constexpr char text[] = "statement prepared";
inline void* const parms[4] = {reinterpret_cast<void*>(0x7ffd1234), reinterpret_cast<void*>(42),
                               reinterpret_cast<void*>(0x55550000), reinterpret_cast<void*>(1000)};

}  // namespace payload

#endif
