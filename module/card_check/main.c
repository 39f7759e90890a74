/* SPDX-License-Identifier: Apache-2.0 */
/* main.c: the check as a program, for a card that needs no preparing. By itself in the archive, so that a process with
 * a main of its own does not get this one. */
#include "anti_cpu/card_check.h"

int main(void) {
    return atc_card_check() == 0 ? 0 : 1;
}
