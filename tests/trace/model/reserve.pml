/* The reservation of qel_trace_reserve.cpp: WRITERS writers of ENTRIES entries each, of 1 to LARGEST blocks, in a buffer
 * of BLOCKS blocks. Each access to shared memory is one step; spin searches all interleavings. A writer that dies is one
 * that is never scheduled again, so it is covered.
 *
 * Held: no block ever has two owners. A writer owns its blocks from the last step of reserving to its commit.
 *
 * The switches break one rule each, to show that the model would notice: IGNORE_LOST_CURSOR keeps the reservation when
 * the swap of the cursor is lost; SKIP_FROM_CURSOR passes over a reserved entry by its count from the cursor. */
#ifndef WRITERS
#define WRITERS 2
#endif
#ifndef ENTRIES
#define ENTRIES 2
#endif
#ifndef BLOCKS
#define BLOCKS 4
#endif
#ifndef LARGEST
#define LARGEST 2
#endif
#ifndef PASSES
#define PASSES 3
#endif

/* A control entry in one word, for one swap: sequence, state, blocks. */
#define WORD(sequence, state, blocks) ((sequence) * 16 + (state) * 4 + (blocks))
#define SEQUENCE(word) ((word) / 16)
#define STATE(word) (((word) / 4) % 4)
#define COUNT(word) ((word) % 4)
#define FREE 0
#define RESERVED 1
#define USED 2

byte next_index = 0;
byte next_stamp = 0; /* laps; never wraps here, as 4096 laps are never slept through */
short control[BLOCKS] = WORD(0, FREE, 1);
byte owners[BLOCKS];

inline advance(index) {
    d_step {
        worked = (next_index == at && next_stamp == lap);
        if
        :: worked && index >= BLOCKS -> next_index = 0; next_stamp++
        :: worked && index < BLOCKS -> next_index = index
        :: else
        fi
    }
}

inline swap_control(block, expected, wanted) {
    d_step {
        worked = (control[block] == expected);
        if
        :: worked -> control[block] = wanted
        :: else
        fi
    }
}

/* As end_of_reserved(): the end of the entry at 'i' and of those that begin inside it. */
inline find_end() {
    end = i + 1;
    do
    :: i < end && i < BLOCKS ->
        seen = control[i];
        d_step {
            if
            :: STATE(seen) == RESERVED && i + COUNT(seen) > end -> end = i + COUNT(seen)
            :: else
            fi;
            seen = 0;
            i++
        }
    :: else -> break
    od
}

proctype Writer() {
    byte entry, size, at, lap, i, end, passes;
    short window[LARGEST];
    short seen;
    bool worked, whole;

    do
    :: entry == ENTRIES -> break
    :: entry < ENTRIES ->
        entry++;
        passes = 0;
        select(size : 1 .. LARGEST);
again:
        if
        :: passes == PASSES -> goto next_entry
        :: else -> passes++
        fi;
        d_step { at = next_index; lap = next_stamp; i = 0; end = 0; seen = 0 };
        if
        :: at + size > BLOCKS -> advance(BLOCKS); goto again
        :: else
        fi;
        do
        :: i < size ->
            window[i] = control[at + i];
            if
            :: STATE(window[i]) == RESERVED -> goto pass_over
            :: else -> i++
            fi
        :: else -> break
        od;
        if
        :: next_index != at || next_stamp != lap -> goto again
        :: else
        fi;
        swap_control(at, window[0], WORD(SEQUENCE(window[0]) + 1, RESERVED, size));
        if
        :: !worked -> goto again
        :: else
        fi;
        advance(at + size);
        whole = worked;
#ifdef IGNORE_LOST_CURSOR
        whole = true;
#endif
        i = 1;
        do
        :: i < size ->
            swap_control(at + i, window[i], WORD(SEQUENCE(window[i]) + 1, FREE, 1));
            d_step { whole = whole && worked; i++ }
        :: else -> break
        od;
        if
        :: !whole -> goto roll_back
        :: else
        fi;
        atomic {
            i = 0;
            do
            :: i < size -> owners[at + i]++; assert(owners[at + i] == 1); i++
            :: else -> break
            od
        };
        atomic {
            i = 0;
            do
            :: i < size -> owners[at + i]--; i++
            :: else -> break
            od
        };
        control[at] = WORD(SEQUENCE(window[0]) + 2, USED, size);
        goto next_entry;
pass_over:
#ifdef SKIP_FROM_CURSOR
        end = at + COUNT(window[i]);
#else
        i = at + i;
        find_end();
#endif
        advance(end);
        goto again;
roll_back:
        control[at] = WORD(SEQUENCE(window[0]) + 1, FREE, 1);
        goto again;
next_entry:
        atomic { i = 0; end = 0; at = 0; lap = 0; size = 0; worked = 0; window[0] = 0; window[LARGEST - 1] = 0 }
    od
}

init {
    atomic {
        byte started;
        do
        :: started < WRITERS -> run Writer(); started++
        :: else -> break
        od
    }
}
