/* park_wake.pml: two quick wake-ups against one sleeper, on memory where a load may pass an earlier store.
 *
 * Each thread's store of `parm` or `set` first stands in a buffer of its own; a process drains the buffers at any time. A
 * locked instruction, and so the taking and giving of a mutex, drains its thread's buffer first. The condition variable
 * may wake the sleeper without a signal. The sleeper must come to the last value, else it stands for ever: an invalid end
 * state. With -DPLAIN_LOOK the signaller looks by a plain load alone, with -DEARLY_READ the sleeper reads the value
 * before it gives the mutex back: then the last value can be lost, and the checker says so. */
#define NONE 255

byte parm = 0, set = 0;          /* memory */
byte waker_buf = NONE;           /* the waker's store of parm, not yet in memory */
byte sleeper_buf = NONE;         /* the sleeper's store of set, not yet in memory */
bool mutex = false, waiting = false;
byte seen = 0;
byte spurious = 1;               /* wake-ups without a signal that are still to come */

inline lock() { atomic { !mutex -> mutex = true } }
inline drain_waker() { if :: waker_buf != NONE -> parm = waker_buf; waker_buf = NONE :: else fi }
inline drain_sleeper() { if :: sleeper_buf != NONE -> set = sleeper_buf; sleeper_buf = NONE :: else fi }

active proctype buffers()
{
end:
    do
    :: atomic { waker_buf != NONE -> drain_waker() }
    :: atomic { sleeper_buf != NONE -> drain_sleeper() }
    od
}

inline wakeup(value)
{
    atomic { drain_waker(); waker_buf = value }
    found = set;
#ifndef PLAIN_LOOK
    if
    :: found == 1 -> atomic { drain_waker(); found = set }  /* the compare-and-swap */
    :: else
    fi;
#endif
    if
    :: found == 1
    :: else ->
        lock();
        atomic { drain_waker() }                        /* taking a lock is a read-modify-write */
        atomic { if :: set == 0 -> set = 1; waiting = false :: else fi }  /* broadcast */
        atomic { drain_waker(); mutex = false }
    fi
}

active proctype waker()
{
    byte found;
    wakeup(1);
    wakeup(2)
}

#define SEEN_SET (sleeper_buf != NONE -> sleeper_buf : set)   /* a thread sees its own store at once */

active proctype sleeper()
{
    do
    :: seen == 2 -> break
    :: else ->
        lock();
        atomic { drain_sleeper() }
        do
        :: SEEN_SET == 1 -> break
        :: else ->
            atomic { waiting = true; mutex = false }
            if
            :: !waiting                                             /* woken */
            :: atomic { spurious > 0 -> spurious--; waiting = false }
            fi;
            lock()
        od;
        sleeper_buf = 0;
#ifdef EARLY_READ
        seen = parm;
#endif
        atomic { drain_sleeper(); mutex = false };
#ifndef EARLY_READ
        seen = parm
#endif
    od
}
