// utprint.cpp: the message and error channels. No lock: routine and data are plain words, set before others
// print. Not signal-safe but for the registrations.
#include <stdarg.h>
#include <stdio.h>

#include "corvex/print.h"

namespace {

constexpr size_t message_size = 4096;  // of one formatted message, the terminating NUL included

a_ut_print_handler msg_print_handler;
void* msg_print_data;
a_ut_print_handler err_print_handler;
void* err_print_data;

void write_out(FILE* stream, const char* msg)
{
    fputs(msg, stream);
    fflush(stream);
}

}  // namespace

void ut_MsgPrint_Register(a_ut_print_handler rtn, void* data)
{
    msg_print_handler = rtn;
    msg_print_data = data;
}

void ut_ErrPrint_Register(a_ut_print_handler rtn, void* data)
{
    err_print_handler = rtn;
    err_print_data = data;
}

void ut_MsgPrint(const char* msg)
{
    if (msg_print_handler != nullptr)
        msg_print_handler(msg_print_data, msg);
    else
        write_out(stdout, msg);
}

void ut_ErrPrint(const char* msg)
{
    if (err_print_handler != nullptr)
        err_print_handler(err_print_data, msg);
    else
        write_out(stderr, msg);
}

void ut_MsgPrintf(const char* fmt, ...)
{
    char msg[message_size];
    va_list args;
    va_start(args, fmt);
    vsnprintf(msg, sizeof msg, fmt, args);
    va_end(args);
    ut_MsgPrint(msg);
}

void ut_ErrPrintf(const char* fmt, ...)
{
    char msg[message_size];
    va_list args;
    va_start(args, fmt);
    vsnprintf(msg, sizeof msg, fmt, args);
    va_end(args);
    ut_ErrPrint(msg);
}
