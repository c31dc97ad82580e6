/* start_handshake.pml: the start block of a thread, in the starter's stack frame, against its two users.
 *
 * The child registers, takes what it needs from the block and signals; the starter waits, reads the child's descriptor and
 * returns, and the frame is gone. Nobody may touch the block after that, and the starter must come back, also when the
 * registration fails. The condition variable may wake the starter without a signal. With -DLATE the child reads the
 * body's address only after it has signalled: the checker finds the dead frame. */
byte set = 0, child = 0;
bool mutex = false, waiting = false, gone = false, returned = false;
byte spurious = 1;

#define TOUCH_BLOCK assert(!gone)

inline lock() { atomic { !mutex -> mutex = true } }

active proctype starter()
{
    lock();
    do
    :: set == 1 -> break
    :: else ->
        atomic { waiting = true; mutex = false }
        if
        :: !waiting
        :: atomic { spurious > 0 -> spurious--; waiting = false }
        fi;
        lock()
    od;
    set = 0;
    mutex = false;
    assert(child != 0);
    gone = true;
    returned = true
}

active proctype begin_helper()
{
    byte me;
    if
    :: me = 1       /* registered */
    :: me = 2       /* no memory: the block gets a null, which counts as an answer here */
    fi;
    TOUCH_BLOCK;    /* func, parm */
    TOUCH_BLOCK;
    child = me;
    TOUCH_BLOCK;    /* the flag, and the mutex behind its handle */
    if
    :: atomic { set == 1 -> assert(false) }
    :: else
    fi;
    lock();
    TOUCH_BLOCK;
    atomic { set = 1; waiting = false }     /* and the broadcast, the block's last use */
    mutex = false;  /* a pooled mutex, not in the block */
#ifdef LATE
    TOUCH_BLOCK
#endif
}
