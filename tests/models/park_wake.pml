/* park_wake.pml: two quick wake-ups against one sleeper, on memory where a load may pass an earlier store.
 *
 * Each thread's store of `parm` or `set` stands in its own buffer until a process drains it, or a locked instruction of
 * the thread does: the taking and giving of the mutex is one. The sleeper must come to the last value, else it stands
 * for ever: an invalid end state, as with -DPLAIN_LOOK, where the signaller looks by a plain load alone. */
#define NONE 255

byte parm = 0, set = 0;                         /* memory */
byte waker_buf = NONE, sleeper_buf = NONE;      /* the waker's store of parm, the sleeper's of set */
bool mutex = false, waiting = false;

inline drain(memory, buffer) { if :: buffer != NONE -> memory = buffer; buffer = NONE :: else fi }
inline lock(memory, buffer) { atomic { !mutex -> mutex = true; drain(memory, buffer) } }
inline unlock(memory, buffer) { atomic { drain(memory, buffer); mutex = false } }

active proctype buffers()
{
end: do
    :: atomic { waker_buf != NONE -> drain(parm, waker_buf) }
    :: atomic { sleeper_buf != NONE -> drain(set, sleeper_buf) }
    od
}

active proctype waker()
{
    byte found, value;
    for (value : 1 .. 2) {
        atomic { drain(parm, waker_buf); waker_buf = value }
        found = set;
#ifndef PLAIN_LOOK
        if :: found == 1 -> atomic { drain(parm, waker_buf); found = set } :: else fi;  /* the compare-and-swap */
#endif
        if
        :: found == 1
        :: else ->
            lock(parm, waker_buf);
            atomic { if :: set == 0 -> set = 1; waiting = false :: else fi }            /* broadcast */
            unlock(parm, waker_buf)
        fi
    }
}

active proctype sleeper()
{
    byte seen = 0;
    do
    :: seen == 2 -> break
    :: else ->
        lock(set, sleeper_buf);
        do
        :: set == 1 -> break
        :: else -> atomic { waiting = true; mutex = false }; !waiting; lock(set, sleeper_buf)
        od;
        sleeper_buf = 0;
        unlock(set, sleeper_buf);
        seen = parm
    od
}
