// payload.h: the one event that the history, its floor and all peers record: call site with a path of 32 characters, a
// text of 25, no id ("-" where one must stand), four parameters. The texts have whole blocks, for the floor.
#ifndef BENCH_PAYLOAD_H
#define BENCH_PAYLOAD_H

#include "corvex/types.h"

namespace payload {

inline constexpr char file[48] = "server/storage/btree/cursors.cpp";
inline constexpr const char* file_end = file + 32 - 22;  // as much of it as is shown
inline constexpr uint32 line = 218;
inline constexpr char id[16] = "-";
inline constexpr char text[32] = "statement prepared, bound";
inline void* const parms[4] = {reinterpret_cast<void*>(0x7ffd1234), reinterpret_cast<void*>(42),
                               reinterpret_cast<void*>(0x55550000), reinterpret_cast<void*>(1000)};

}  // namespace payload

#endif
