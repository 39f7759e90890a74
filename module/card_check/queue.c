/* SPDX-License-Identifier: Apache-2.0 */
/* queue.c: bounded, in order, whole; refusals at once, waits as long as told. */
#define _POSIX_C_SOURCE 200809L
#include <pthread.h>
#include <stdatomic.h>
#include <string.h>

#include "anti_cpu/platform.h"
#include "check.h"

enum {
    MESSAGES = 256,
    SIZE = 72,
    PRIORITY = 1,
    FLOOD = 64 * MESSAGES
};

/* Filled to its end with what its number gives. */
struct message {
    uint32_t number;
    uint8_t rest[SIZE - sizeof(uint32_t)];
};

static bool send(uint32_t queue, uint32_t number) {
    struct message message = {.number = number};
    memset(message.rest, (int)(number & 0xff), sizeof(message.rest));
    const bool taken = bep_msgQSendEx(queue, &message, sizeof(message), 0, PRIORITY, CHECK_AT) == 0;
    memset(&message, 0xee, sizeof(message)); /* the queue has a copy of its own */
    return taken;
}

/* The number, or -1 when none came, -2 when it is not whole. */
static int64_t receive(uint32_t queue, int ticks) {
    struct message message = {0};
    const int length = bep_msgQReceiveEx(queue, &message, sizeof(message), ticks, CHECK_AT);
    if (length <= 0) {
        return -1;
    }
    const bool is_whole = length == (int)sizeof(message) &&
                          check_filled(message.rest, (uint8_t)(message.number & 0xff), sizeof(message.rest));
    return is_whole ? (int64_t)message.number : -2;
}

static void check_bounds(uint32_t queue) {
    check_promise("bep_msgQSendEx", "takes max_messages, refuses the next at once");
    uint32_t taken = 0;
    const double start = check_seconds();
    while (taken < FLOOD && send(queue, taken)) {
        taken++;
    }
    check_that(taken == MESSAGES, taken == FLOOD ? "%u messages, and never full" : "%u messages of 256", taken);
    check_that(check_seconds() - start < 2, "waits %.1f s where it must not wait", check_seconds() - start);

    check_promise("bep_msgQReceiveEx", "oldest first, whole, as they were sent");
    for (uint32_t i = 0; i < taken; i++) {
        const int64_t number = receive(queue, 0);
        check_that(number == (int64_t)i, number == -2 ? "message %u is not whole" : "message %u comes as %lld", i,
                   (long long)number);
    }
    check_that(receive(queue, 0) == -1, "more come out than went in");
    check_promise("bep_msgQSendEx", "has room again when one was taken out");
    check_that(send(queue, 7) && receive(queue, 0) == 7, "a message after a full queue is lost");
}

static void check_waits(uint32_t queue) {
    const double wait = 0.2; /* seconds */
    const int ticks = (int)(wait * bep_sysClkRateGetEx());
    check_promise("bep_msgQReceiveEx", "waits the ticks given for a message, then gives up");
    double start = check_seconds();
    check_that(receive(queue, ticks) == -1, "a message out of an empty queue");
    double waited = check_seconds() - start;
    check_that(waited > 0.9 * wait && waited < wait + 2, "%.3f s instead of %.3f s", waited, wait);
    start = check_seconds();
    check_that(receive(queue, 0) == -1, "a message out of an empty queue");
    waited = check_seconds() - start;
    check_that(waited < wait, "%.3f s instead of none", waited);
}

struct senders {
    uint32_t queue;
    atomic_uint started;
    atomic_bool given_up;
};

/* Numbers have the sender in their high half; a full queue is tried again. */
static void *send_many(void *argument) {
    struct senders *senders = argument;
    const uint32_t sender = senders->started++;
    bep_taskDelayEx(bep_sysClkRateGetEx() / 20 + 1);
    for (uint32_t i = 0; i < 4 * MESSAGES; i++) {
        while (!senders->given_up && !send(senders->queue, sender << 16 | i)) {
            bep_taskDelayEx(1);
        }
    }
    return NULL;
}

static void receive_many(struct senders *senders) {
    uint32_t next[CHECK_THREADS - 1] = {0};
    for (uint32_t i = 0; i < (CHECK_THREADS - 1) * 4 * MESSAGES; i++) {
        const int64_t number = receive(senders->queue, (int)(5 * bep_sysClkRateGetEx()));
        const uint32_t sender = (uint32_t)(number >> 16);
        if (!check_that(number >= 0 && sender < CHECK_THREADS - 1, "%s after %u messages",
                        number == -2 ? "one is not whole" : "none comes any more", i)) {
            senders->given_up = true;
            return;
        }
        check_that((number & 0xffff) == next[sender]++, "messages of one sender change places or are lost");
    }
}

void check_queue(void) {
    check_promise("bep_msgQCreateEx", "a handle other than 0");
    const uint32_t queue = bep_msgQCreateEx(MESSAGES, SIZE, 0, CHECK_AT);
    if (!check_that(queue != 0, "handle 0")) {
        return;
    }
    check_bounds(queue);
    check_waits(queue);

    /* Senders start while the receiver waits: the first message must wake it. */
    check_promise("bep_msgQSendEx, bep_msgQReceiveEx", "several threads at once: in order, none lost; a send wakes");
    struct senders senders = {.queue = queue};
    pthread_t threads[CHECK_THREADS - 1];
    for (unsigned i = 0; i < CHECK_THREADS - 1; i++) {
        if (!check_that(pthread_create(&threads[i], NULL, send_many, &senders) == 0, "no thread")) {
            return;
        }
    }
    receive_many(&senders);
    for (unsigned i = 0; i < CHECK_THREADS - 1; i++) {
        pthread_join(threads[i], NULL);
    }
}
