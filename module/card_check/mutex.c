/* SPDX-License-Identifier: Apache-2.0 */
/* mutex.c: one holder at a time, and nobody left out. */
#define _POSIX_C_SOURCE 200809L
#include <sched.h>
#include <stdatomic.h>

#include "anti_cpu/platform.h"
#include "check.h"

enum {
    OPTIONS = 1,
    ROUNDS = 5000,
    TAKES = 20
};
static const double PATIENCE = 2.0; /* seconds; a card whose mutex is fair takes some milliseconds */

struct exclusion {
    uint32_t sem;
    atomic_int inside;
    atomic_uint intruders;
    atomic_uint refusals;
    unsigned count; /* under the mutex */
};

/* Gives the processor away inside now and then, so that a second holder has every chance to come in. */
static void *count_up(void *argument) {
    struct exclusion *all = argument;
    for (unsigned round = 0; round < ROUNDS; round++) {
        if (bep_semTakeEx(all->sem, -1, CHECK_AT) != 0) {
            all->refusals++;
            continue;
        }
        all->intruders += atomic_fetch_add(&all->inside, 1) != 0;
        const unsigned seen = all->count;
        if (round % 64 == 0) {
            sched_yield();
        }
        all->count = seen + 1;
        atomic_fetch_sub(&all->inside, 1);
        all->refusals += bep_semGiveEx(all->sem, CHECK_AT) != 0;
    }
    return NULL;
}

struct crowd {
    uint32_t sem;
    atomic_int role; /* the first thread is busy, the others wait */
    atomic_bool is_busy;
    atomic_int waiting;
    atomic_bool too_late;
    double longest; /* seconds; under the mutex */
};

/* What a packet thread does under a flood: gives the mutex and takes it again at once. */
static void keep_busy(struct crowd *crowd) {
    while (crowd->waiting > 0) {
        bep_semTakeEx(crowd->sem, -1, CHECK_AT);
        crowd->is_busy = true;
        for (volatile unsigned i = 0; i < 300; i++) {
        }
        bep_semGiveEx(crowd->sem, CHECK_AT);
    }
}

static void *take_part(void *argument) {
    struct crowd *crowd = argument;
    if (atomic_fetch_add(&crowd->role, 1) == 0) {
        keep_busy(crowd);
        return NULL;
    }
    while (!crowd->is_busy) {
        sched_yield();
    }
    for (unsigned i = 0; i < TAKES && !crowd->too_late; i++) {
        bep_taskDelayEx(1);
        const double start = check_seconds();
        bep_semTakeEx(crowd->sem, -1, CHECK_AT);
        const double waited = check_seconds() - start;
        crowd->longest = waited > crowd->longest ? waited : crowd->longest;
        crowd->too_late = crowd->too_late || waited > PATIENCE;
        bep_semGiveEx(crowd->sem, CHECK_AT);
    }
    crowd->waiting--;
    return NULL;
}

void check_mutex(void) {
    check_promise("bep_semMCreateEx", "a handle other than 0, not taken");
    const uint32_t sem = bep_semMCreateEx(OPTIONS, CHECK_AT);
    if (!check_that(sem != 0, "handle 0")) {
        return;
    }
    check_promise("bep_semTakeEx, bep_semGiveEx", "0, again and again");
    for (int i = 0; i < 3; i++) {
        check_that(bep_semTakeEx(sem, -1, CHECK_AT) == 0, "take %d is refused", i + 1);
        check_that(bep_semGiveEx(sem, CHECK_AT) == 0, "give %d is refused", i + 1);
    }

    check_promise("bep_semTakeEx, bep_semGiveEx", "one holder at a time");
    struct exclusion all = {.sem = sem};
    check_in_threads(CHECK_THREADS, count_up, &all);
    check_that(all.refusals == 0, "%u of %u takes and gives are refused", all.refusals, 2u * CHECK_THREADS * ROUNDS);
    check_that(all.intruders == 0 && all.count == CHECK_THREADS * ROUNDS,
               "%u times a second holder came in, %u of %u counts are there", all.intruders, all.count,
               (unsigned)CHECK_THREADS * ROUNDS);

    check_promise("bep_semTakeEx, bep_semGiveEx", "who waits comes in, though another takes it all the time");
    struct crowd crowd = {.sem = sem, .waiting = CHECK_THREADS - 1};
    check_in_threads(CHECK_THREADS, take_part, &crowd);
    check_that(!crowd.too_late, "one waited %.1f s beside a thread that never rests", crowd.longest);
    check_note("longest wait %.1f ms", crowd.longest * 1e3);
}
