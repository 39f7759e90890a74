/* SPDX-License-Identifier: Apache-2.0 */
/* check.c: the table, and the tries one after the other. */
#define _POSIX_C_SOURCE 200809L
#include "check.h"

#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "anti_cpu/card_check.h"

enum {
    PATIENCE_S = 20,
    MAX_NAMED = 64,
    SEEN_SIZE = 160
};

/* The line that is open, and what came of those before it. */
static struct {
    const char *volatile function; /* null: none is open */
    const char *volatile promise;
    char seen[SEEN_SIZE];
    const char *state;
    int promises;
    int broken;
    int not_tried;
    const char *named[MAX_NAMED]; /* functions that broke a promise, each once */
    int named_count;
} table;

static void print_line(void) {
    printf("%-36s %-56s %s%s%s\n", table.function, table.promise, table.state, table.seen[0] != '\0' ? ": " : "",
           table.seen);
    fflush(stdout);
}

static void name_function(const char *function) {
    for (int i = 0; i < table.named_count; i++) {
        if (strcmp(table.named[i], function) == 0) {
            return;
        }
    }
    if (table.named_count < MAX_NAMED) {
        table.named[table.named_count++] = function;
    }
}

static void end_promise(void) {
    if (table.function == NULL) {
        return;
    }
    print_line();
    table.promises++;
    table.function = NULL;
}

void check_promise(const char *function, const char *promise) {
    end_promise();
    table.promise = promise;
    table.function = function;
    table.state = "kept";
    table.seen[0] = '\0';
    alarm(PATIENCE_S);
}

bool check_that(bool kept, const char *format, ...) {
    if (!kept && strcmp(table.state, "kept") == 0) {
        va_list arguments;
        va_start(arguments, format);
        vsnprintf(table.seen, sizeof(table.seen), format, arguments);
        va_end(arguments);
        table.state = "BROKEN";
        table.broken++;
        name_function(table.function);
    }
    return kept;
}

void check_note(const char *format, ...) {
    if (strcmp(table.state, "kept") == 0) {
        va_list arguments;
        va_start(arguments, format);
        vsnprintf(table.seen, sizeof(table.seen), format, arguments);
        va_end(arguments);
    }
}

void check_not_tried(const char *why) {
    if (strcmp(table.state, "kept") == 0) {
        snprintf(table.seen, sizeof(table.seen), "%s", why);
        table.state = "not tried";
        table.not_tried++;
    }
}

double check_seconds(void) {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec + (double)now.tv_nsec / 1e9;
}

bool check_in_threads(unsigned count, void *(*run)(void *), void *argument) {
    pthread_t threads[CHECK_THREADS];
    unsigned started = 0;
    while (started < count && started < CHECK_THREADS && pthread_create(&threads[started], NULL, run, argument) == 0) {
        started++;
    }
    for (unsigned i = 0; i < started; i++) {
        pthread_join(threads[i], NULL);
    }
    return check_that(started == count, "this machine could not start %u threads", count);
}

bool check_filled(const void *memory, uint8_t value, uint32_t size) {
    const uint8_t *bytes = memory;
    for (uint32_t i = 0; i < size; i++) {
        if (bytes[i] != value) {
            return false;
        }
    }
    return true;
}

static void say(const char *text) {
    if (write(STDOUT_FILENO, text, strlen(text)) < 0) {
        _exit(2);
    }
}

/* The function that is being tried has crashed, or does not come back. */
static void give_up(int signal_number) {
    say(table.function != NULL ? table.function : "card_check");
    say("  ");
    say(table.function != NULL ? table.promise : "");
    say(signal_number == SIGALRM ? "  BROKEN: no end for 20 s\n" : "  BROKEN: crashed\n");
    say("Nothing can be tried behind this.\n");
    _exit(1);
}

int atc_card_check(void) {
    memset(&table, 0, sizeof(table));
    const int signals[] = {SIGALRM, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};
    struct sigaction before[sizeof(signals) / sizeof(signals[0])];
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = give_up;
    for (unsigned i = 0; i < sizeof(signals) / sizeof(signals[0]); i++) {
        sigaction(signals[i], &action, &before[i]);
    }

    check_memory();
    check_text();
    check_clock();
    check_mutex();
    check_queue();
    check_task();
    check_services();
    check_chip();
    check_card();
    end_promise();

    alarm(0);
    for (unsigned i = 0; i < sizeof(signals) / sizeof(signals[0]); i++) {
        sigaction(signals[i], &before[i], NULL);
    }
    printf("%d promises: %d kept, %d broken, %d not tried.\n", table.promises,
           table.promises - table.broken - table.not_tried, table.broken, table.not_tried);
    for (int i = 0; i < table.named_count; i++) {
        printf("%s%s%s", i == 0 ? "Broken by " : ", ", table.named[i], i + 1 == table.named_count ? ".\n" : "");
    }
    fflush(stdout);
    return table.broken;
}
