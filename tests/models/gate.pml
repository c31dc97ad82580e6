/* gate.pml: writers and a dump at the gate of the shared queue, on memory where a load may pass an earlier store.
 *
 * The store that opens the gate stands in the thread's own buffer until a process drains it, or a locked instruction of
 * the thread does, or the barrier of one that wants to sleep. Who sleeps must be woken, else it stands for ever: an
 * invalid end state, as with -DNO_BARRIER, or with -DSAYS_ONCE=1, where who was woken does not say anew that the gate
 * is wanted. The dump, the last of them, gives up when it likes. */
#define THREADS 4
#ifndef SAYS_ONCE
#define SAYS_ONCE 0
#endif

bool shut = false, wanted = false; /* memory */
bool opening[THREADS];             /* buffers */
bool asleep[THREADS];
byte inside = 0;

inline drain(i) { if :: opening[i] -> shut = false; opening[i] = false :: else fi }
inline exchange() { atomic { drain(me); passed = !shut; shut = true } }

active proctype buffers()
{
end: do
    :: atomic { opening[0] -> drain(0) }
    :: atomic { opening[1] -> drain(1) }
    :: atomic { opening[2] -> drain(2) }
    :: atomic { opening[3] -> drain(3) }
    od
}

proctype thread(byte me, events; bool is_dump)
{
    bool passed, sleeps;
    byte event, i;
    for (event : 1 .. events) {
        exchange();
        do
        :: passed -> break
        :: else ->
            wanted = true;
#ifndef NO_BARRIER
            for (i : 0 .. THREADS - 1) { atomic { drain(i) } } /* each processor at its own moment */
#endif
            exchange();
            if
            :: passed -> break
            :: !passed && is_dump -> break                      /* time is over */
            :: !passed
            fi;
            atomic { sleeps = wanted; asleep[me] = wanted };    /* the kernel looks at the word and queues at once */
            if
            :: !sleeps
            :: sleeps && !asleep[me] -> wanted = !SAYS_ONCE || wanted /* woken */
            :: atomic { sleeps && asleep[me] && is_dump -> asleep[me] = false }
            fi;
            exchange()
        od;
        if
        :: passed ->
            inside++;
            assert(inside == 1);
            inside--;
            opening[me] = true;
            if
            :: wanted ->
                atomic { drain(me); wanted = false };
                atomic {
                    if
                    :: asleep[0] -> asleep[0] = false
                    :: asleep[1] -> asleep[1] = false
                    :: asleep[2] -> asleep[2] = false
                    :: asleep[3] -> asleep[3] = false
                    :: else
                    fi
                }
            :: else
            fi
        :: else
        fi
    }
}

init { atomic { run thread(0, 2, false); run thread(1, 1, false); run thread(2, 1, false); run thread(3, 1, true) } }
