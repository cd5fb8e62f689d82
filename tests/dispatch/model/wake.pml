/* The wake-up of qel_dm_jobs.cpp: POSTERS threads queue JOBS jobs each, SERVERS threads wait and run them, one thread
 * destroys the dispatcher, at any moment or when all is quiet. What is done under the mutex is one step, and so is each
 * delivery of a wake-up, each picking of the pipe's event and each taking of a job; spin searches all interleavings.
 *
 * A job may block for ever, end its thread, or hit the limit of jobs; a thread may be cancelled while it waits. Held:
 * when nothing moves any more, no job is left unless no thread is left to run it; and destruction ends.
 *
 * The switches break one rule each, to show that the model would notice: KEEP_BATCH doesn't share the batch before a
 * job runs; ENTER_BLIND waits without looking for jobs; END_ALONE lets a thread that leaves during destruction wake
 * nobody; TRUST_MORE lets one leave both queues with jobs and wake nobody. */
#ifndef SERVERS
#define SERVERS 2
#endif
#ifndef POSTERS
#define POSTERS 2
#endif
#ifndef TRUST_MORE
#define TRUST_MORE false
#endif
#ifndef JOBS
#define JOBS 2
#endif

#define NONE 0
#define WRITE 1
#define ARM 2

byte jobs, batch, waiters;
byte able = SERVERS; /* servers that neither block in a job nor have ended */
bool in_flight, holds_byte, pending;
bool byte_in_pipe, armed = true; /* the kernel's side */

#define HAS_JOBS (jobs > 0 || batch > 0)

inline claim(wake) {
    wake = NONE;
    if
    :: waiters > 0 && !in_flight ->
        in_flight = true;
        wake = (holds_byte -> ARM : WRITE);
        holds_byte = true
    :: else
    fi
}
inline deliver(wake) {
    if
    :: wake == WRITE -> byte_in_pipe = true
    :: wake == ARM -> armed = true
    :: else
    fi;
    wake = NONE
}
inline wake_locked(wake) { claim(wake); deliver(wake) }
inline leave_wait(wake) {
    waiters--;
#ifndef END_ALONE
    if
    :: pending || (jobs > 0 && batch > 0 && !TRUST_MORE) -> wake_locked(wake)
    :: else
    fi
#endif
}

active [POSTERS] proctype poster() {
    byte left = JOBS, wake;
    bool was_empty;
    do
    :: left > 0 ->
        atomic {
            wake = NONE;
            left--;
            if
            :: pending -> left = 0
            :: else ->
                was_empty = jobs == 0;
                jobs++;
                if
                :: was_empty -> claim(wake)
                :: else
                fi
            fi
        }
        atomic { deliver(wake) }
    :: else -> break
    od
}

active [SERVERS] proctype server() {
    byte wake;
    bool more, picked, found;
enter:
    atomic {
        more = false;
        found = false;
        picked = false;
        if
        :: pending -> able--; goto gone
        :: else
        fi;
        waiters++;
look:
#ifndef ENTER_BLIND
        if
        :: HAS_JOBS && !in_flight ->
            if
            :: leave_wait(wake); goto run_jobs
            :: wake_locked(wake) /* the limit of jobs: ask the kernel first */
            fi
        :: else
        fi;
#endif
        skip
    }
    if
    :: atomic { byte_in_pipe && armed -> armed = false; picked = true }
    :: able > 1 -> goto cancelled
    fi;
    if
    :: true
    :: able > 1 -> goto cancelled /* with the event */
    fi;
    atomic {
        in_flight = false;
        picked = false;
        if
        :: !HAS_JOBS && !pending -> goto look
        :: else
        fi;
        leave_wait(wake);
        if
        :: pending -> able--; goto gone
        :: else
        fi
    }
run_jobs:
    if
    :: pending -> goto end_run
    :: true -> goto end_run /* the limit of jobs */
    :: !pending
    fi;
    atomic {
        found = false;
        if
        :: batch == 0 && !pending -> batch = jobs; jobs = 0
        :: else
        fi;
        if
        :: batch > 0 -> batch--; found = true
        :: else
        fi;
        more = batch > 0;
        if
        :: !found -> goto enter
        :: else
        fi;
        found = false
    }
#ifndef KEEP_BATCH
    if
    :: more && waiters > 0 ->
        atomic { claim(wake) }
        atomic { deliver(wake) }
    :: else
    fi;
#endif
    more = false;
    if
    :: goto run_jobs
    :: able > 1 -> /* the job blocks for ever */
        able--;
end_blocked:
        false
    :: atomic { able > 1 -> able--; goto ended }
    fi;
end_run:
    atomic {
        if
        :: pending || HAS_JOBS -> wake_locked(wake)
        :: else
        fi
    }
    goto enter;
ended:
    atomic {
        if
        :: pending || HAS_JOBS -> wake_locked(wake)
        :: else
        fi
    }
    goto gone;
cancelled:
    atomic {
        able--;
        if
        :: picked -> in_flight = false
        :: else
        fi;
        waiters--;
        wake_locked(wake)
    }
gone:
    skip
}

active proctype destroyer() {
    byte wake;
    if
    :: true
    :: true -> timeout; assert(!HAS_JOBS || able == 0)
    fi;
    pending = true;
    atomic { wake_locked(wake) }
    waiters == 0
}
