// utprint.cpp: the message and error channels. No lock: routine and data are plain words, set before others
// print. Not signal-safe but for the registrations.
#include <stdarg.h>
#include <stdio.h>

#include "corvex/print.h"

namespace {

constexpr size_t message_size = 4096;  // of one formatted message, the terminating NUL included

struct a_channel {
    a_ut_print_handler handler;
    void* data;

    void print(FILE* otherwise, const char* msg) const
    {
        if (handler != nullptr)
            return handler(data, msg);
        fputs(msg, otherwise);
        fflush(otherwise);
    }
};
a_channel messages, errors;

void printf_to(void (*print)(const char* msg), const char* fmt, va_list args)
{
    char msg[message_size];
    vsnprintf(msg, sizeof msg, fmt, args);
    print(msg);
}

}  // namespace

void ut_MsgPrint_Register(a_ut_print_handler rtn, void* data) { messages = {rtn, data}; }
void ut_ErrPrint_Register(a_ut_print_handler rtn, void* data) { errors = {rtn, data}; }
void ut_MsgPrint(const char* msg) { messages.print(stdout, msg); }
void ut_ErrPrint(const char* msg) { errors.print(stderr, msg); }

void ut_MsgPrintf(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    printf_to(ut_MsgPrint, fmt, args);
    va_end(args);
}

void ut_ErrPrintf(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    printf_to(ut_ErrPrint, fmt, args);
    va_end(args);
}
