/* SPDX-License-Identifier: Apache-2.0 */
/* card_check.h: does a card keep what platform.h promises? A program that tries it, for whoever writes the card.
 *
 *   cc my_card.c -lanti_cpu_card_check -pthread -o card_check && ./card_check
 *
 * The archive brings a main, so no more is needed; a card that wants preparing has its own main call atc_card_check.
 * Without the library: nothing of the module runs, and nothing else must use the card meanwhile. Compiles as C11 and as
 * C++20.
 */
#ifndef ANTI_CPU_CARD_CHECK_H
#define ANTI_CPU_CARD_CHECK_H

#ifdef __cplusplus
extern "C" {
#endif

/* Tries the functions of platform.h, one after the other, for some seconds, and prints a line for each promise on
 * standard output: kept, BROKEN and how, or not tried and why. Rules that it installs in the switching chip deny
 * frames from addresses that nobody has (02:00:5e:00:xx:xx), and are taken out again. Returns how many promises are
 * broken. A function that crashes, or does not come back within 20 seconds, is named, and ends the process with
 * status 1: nothing can be tried behind it. Thread safety: once at a time. */
int atc_card_check(void);

#ifdef __cplusplus
}
#endif

#endif
