/* SPDX-License-Identifier: Apache-2.0 */
/* check.h: what the tries of a card have in common: the table that they fill, threads, and the clock.
 *
 * Each try names the function and the promise, does something, and says what it saw. The table is printed as it grows.
 * One thread fills it, main; threads that a try starts end within it.
 */
#ifndef CARD_CHECK_CHECK_H
#define CARD_CHECK_CHECK_H

#include <stdbool.h>
#include <stdint.h>

#define CHECK_AT __FILE__, __LINE__ /* what the functions of platform.h ask for last */

enum {
    CHECK_THREADS = 4
};

/* Begins a line: what is said next is of this promise of 'function'. Both texts live for ever: a crash names them. */
void check_promise(const char *function, const char *promise);

/* Says that the promise is broken unless 'kept'; the first of several says how, in the words of printf. Returns
 * 'kept'. */
bool check_that(bool kept, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* Adds to a promise that is kept what was seen, or says why it could not be tried. */
void check_note(const char *format, ...) __attribute__((format(printf, 1, 2)));
void check_not_tried(const char *why);

/* CLOCK_MONOTONIC, as the module reads it. */
double check_seconds(void);

/* Runs run(argument) in 'count' threads at once and waits for their end. False when a thread could not be started. */
bool check_in_threads(unsigned count, void *(*run)(void *), void *argument);

/* True when 'size' bytes at 'memory' are all 'value'. */
bool check_filled(const void *memory, uint8_t value, uint32_t size);

/* The tries, in the order in which they run. */
void check_memory(void);
void check_text(void);
void check_clock(void);
void check_mutex(void);
void check_queue(void);
void check_task(void);
void check_services(void);
void check_chip(void);
void check_card(void);

#endif
