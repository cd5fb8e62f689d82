/* The doorbell of qel_sep.cpp, qel_sep_owner.cpp and qel_sep_poll.cpp: SENDERS put MESSAGES messages each and ring, one
 * condvar thread passes wake-ups on as jobs, HANDLERS threads run the jobs and look for more. Each atomic operation of
 * the code is one step here, and what is done under sep_mutex is one where nothing in between can be seen.
 *
 * A job may fail to be queued; a look for more may end at any time. Held: when nothing moves any more, no message is
 * left and no bit is set.
 *
 * The switches break one rule each, to show that the model would notice: KEEP_MARK goes to sleep without taking the
 * mark back; TAKE_BLIND takes it back by a plain store; ADD_BLIND adds bits under a mark that may be gone; CLEAR_LATE
 * tells of the handler's beginning after the first look; NO_RETRY sleeps on after a job that could not be queued;
 * SLEEP_DEAF sleeps after queueing a job without a look at what came meanwhile. */
#ifndef SENDERS
#define SENDERS 2
#endif
#ifndef MESSAGES
#define MESSAGES 2
#endif
#ifndef HANDLERS
#define HANDLERS 1
#endif

#define BEGUN 0
#define TALKING 1
#define QUEUED 2

byte messages, jobs;
bool set, awake; /* sep_flags */
bool asleep;     /* the condvar thread; a bell wakes it, and nobody hears one that rings while it is awake */
byte handler = BEGUN;
byte failures = 1;

active [SENDERS] proctype sender() {
    byte left = MESSAGES;
    bool seen_awake;
    do
    :: left > 0 ->
        left--;
        messages++;
        atomic {
            if
            :: set -> goto next /* already set: nothing to do */
            :: else -> seen_awake = awake
            fi
        }
#ifdef ADD_BLIND
        if
        :: seen_awake -> set = true; goto next
        :: else
        fi;
#else
        /* compare-and-swap; one that fails for a bit tries again, one for the mark goes on */
        atomic {
            if
            :: seen_awake && awake -> set = true; goto next
            :: else
            fi
        }
#endif
        atomic { /* under sep_mutex */
            if
            :: !set && !awake -> asleep = false
            :: else
            fi;
            set = true
        }
next:   skip
    :: else -> break
    od
}

active proctype condvar() {
    bool tired;
    do
    :: atomic { /* under sep_mutex, from the look to the sleep */
            if
            :: set && handler != QUEUED && !tired -> skip
            :: else -> asleep = true
            fi
        }
        if
        :: asleep ->
end_asleep: !asleep
#ifdef SLEEP_DEAF
            ; tired = false
#endif
        :: !asleep ->
            handler = QUEUED;
            if
            :: jobs++
            :: atomic { failures > 0 -> failures-- };
                atomic {
                    if
                    :: handler == QUEUED -> handler = BEGUN
                    :: else
                    fi
                }
#ifdef NO_RETRY
                tired = true
#endif
            fi
#ifdef SLEEP_DEAF
            ; tired = true
#endif
        fi
    od
}

active [HANDLERS] proctype dispatcher() {
    bool took;
end_idle:
    do
    :: atomic { jobs > 0 -> jobs-- };
#ifndef CLEAR_LATE
        handler = BEGUN;
#endif
look:
        atomic { took = set; if :: set -> set = false; awake = false :: else fi }
#ifdef CLEAR_LATE
        handler = BEGUN;
#endif
        if
        :: took ->
            atomic { if :: handler == BEGUN -> handler = TALKING :: else fi }
            atomic { messages = 0; took = false }
            goto look
        :: else
        fi;
        if
        :: handler != TALKING -> goto done
        :: handler == TALKING
        :: goto done /* the look for more is not due */
        fi;
        atomic {
            if
            :: awake -> goto done /* another thread looks */
            :: set && !awake -> goto look
            :: else -> awake = true
            fi
        }
        if
        :: set || !awake
        :: true /* time is up */
        fi;
#ifdef KEEP_MARK
        if
        :: atomic { set -> awake = false; goto look }
        :: atomic { !set -> goto done }
        fi;
#endif
#ifdef TAKE_BLIND
        took = set;
        atomic { awake = false; set = took }
#else
        atomic { took = set; awake = false }
#endif
        if
        :: took -> goto look
        :: else
        fi;
done:   took = false
    od
}

/* Nobody can move: all is delivered. */
active proctype judge() {
    timeout;
    assert(messages == 0 && !set && jobs == 0)
}
