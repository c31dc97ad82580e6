/* print.h: one channel for messages and one for errors, each of which the program may redirect, for C99 and
 * C++11. A channel without a routine writes to standard output (messages) or standard error (errors). */
#pragma once

#include "corvex/types.h"

CORVEX_C_BEGIN

/* Receives the data pointer given at registration, unchanged, and the complete text of one message. */
typedef void (*a_ut_print_handler)(void* data, const char* msg);

/* Redirects a channel to rtn; a null rtn puts it back to its stream. The last registration wins. Register
 * before other threads print: routine and data are two words. Signal-safe, not thread-safe. */
CORVEX_API void ut_MsgPrint_Register(a_ut_print_handler rtn, void* data);
CORVEX_API void ut_ErrPrint_Register(a_ut_print_handler rtn, void* data);

/* Hands msg to the channel's routine, or writes it unchanged to the channel's stream and flushes that. No
 * line end is added. Thread-safe as far as the routine is. Not signal-safe: streams lock. */
CORVEX_API void ut_MsgPrint(const char* msg);
CORVEX_API void ut_ErrPrint(const char* msg);

/* The same with printf's conventions. A text of more than 4095 characters is cut there. */
CORVEX_API void ut_MsgPrintf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
CORVEX_API void ut_ErrPrintf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

CORVEX_C_END
