/* SPDX-License-Identifier: Apache-2.0 */
/* memory.c: memory and text functions. */
#include <stdalign.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "anti_cpu/platform.h"
#include "check.h"

enum {
    CAPTURE = 102400,
    REPORT = 2097152,
    MOST = 64,
    ROUNDS = 2000
};

/* From single bytes to the largest block that the module asks for. */
static const uint32_t sizes[] = {1, 2, 3, 8, 20, 24, 33, 56, 104, 392, 416, 1000, 4096, 65536, CAPTURE, REPORT};
enum {
    SIZES = sizeof(sizes) / sizeof(sizes[0])
};

static bool is_aligned(const void *block) {
    return (uintptr_t)block % alignof(max_align_t) == 0;
}

static void check_blocks(void) {
    uint8_t *blocks[SIZES];
    check_promise("bep_mallocEx", "blocks of 1 byte to 2 MiB, aligned for any object");
    for (unsigned i = 0; i < SIZES; i++) {
        blocks[i] = bep_mallocEx(sizes[i], CHECK_AT);
        if (!check_that(blocks[i] != NULL, "none of %u bytes", sizes[i])) {
            continue;
        }
        check_that(is_aligned(blocks[i]), "one of %u bytes stands at %p, no multiple of %u", sizes[i],
                   (void *)blocks[i], (unsigned)alignof(max_align_t));
        memset(blocks[i], (int)(i + 1), sizes[i]);
    }
    check_promise("bep_mallocEx", "blocks do not overlap");
    for (unsigned i = 0; i < SIZES; i++) {
        check_that(blocks[i] == NULL || check_filled(blocks[i], (uint8_t)(i + 1), sizes[i]),
                   "one of %u bytes is written to through another", sizes[i]);
        bep_freeEx(blocks[i], CHECK_AT);
    }
}

static void check_zeros(void) {
    check_promise("bep_callocEx", "zeros, also where something stood before; aligned");
    for (unsigned i = 0; i < SIZES; i++) {
        for (int again = 0; again < 2; again++) {
            uint8_t *block = bep_callocEx(again == 0 ? 1 : 3, sizes[i], CHECK_AT);
            const uint32_t size = again == 0 ? sizes[i] : 3 * sizes[i];
            if (check_that(block != NULL, "none of %u bytes", size)) {
                check_that(check_filled(block, 0, size), "%u bytes are not all zero", size);
                check_that(is_aligned(block), "%u bytes stand at %p", size, (void *)block);
                memset(block, 0xa5, size);
            }
            bep_freeEx(block, CHECK_AT);
        }
    }
    check_promise("bep_callocEx", "null when there is no memory, or the product overflows");
    void *impossible = bep_callocEx(UINT32_MAX, UINT32_MAX, CHECK_AT);
    if (!check_that(impossible == NULL, "a block of %u * %u bytes", UINT32_MAX, UINT32_MAX)) {
        bep_freeEx(impossible, CHECK_AT);
    }
    check_promise("bep_freeEx", "null is accepted");
    bep_freeEx(NULL, CHECK_AT);
}

/* Keeps up to MOST blocks, each filled with a number of its own, and looks at each before it frees it. */
static void *allocate_much(void *wrong) {
    static _Atomic uint8_t numbers;
    const uint8_t first = (uint8_t)(MOST * numbers++);
    uint8_t *blocks[MOST] = {NULL};
    for (unsigned round = 0; round < ROUNDS; round++) {
        const unsigned place = round * 7 % MOST;
        const uint8_t number = (uint8_t)(first + place);
        const uint32_t size = sizes[place % 12];
        if (blocks[place] != NULL && !check_filled(blocks[place], number, size)) {
            ++*(_Atomic unsigned *)wrong;
        }
        bep_freeEx(blocks[place], CHECK_AT);
        blocks[place] = bep_mallocEx(size, CHECK_AT);
        if (blocks[place] != NULL) {
            memset(blocks[place], number, size);
        }
    }
    for (unsigned place = 0; place < MOST; place++) {
        bep_freeEx(blocks[place], CHECK_AT);
    }
    return NULL;
}

static void check_bytes(void) {
    uint8_t bytes[8] = {0};
    check_promise("bep_memSetEx", "as memset");
    check_that(bep_memSetEx(bytes, 0x1a5, 3) == bytes, "does not return its first argument");
    check_that(memcmp(bytes, "\xa5\xa5\xa5\0\0\0\0", 8) == 0, "wrote other bytes");
    check_promise("bep_memCpyEx", "as memcpy");
    check_that(bep_memCpyEx(bytes, "a\0cdefgh", 7) == bytes, "does not return its first argument");
    check_that(memcmp(bytes, "a\0cdefg", 8) == 0, "wrote other bytes");
    check_promise("bep_memCmp", "as memcmp: bytes are unsigned, zeros no end");
    check_that(bep_memCmp("a\0b", "a\0c", 3) < 0 && bep_memCmp("\x80", "\x7f", 1) > 0, "orders wrongly");
    check_that(bep_memCmp("a\0b", "a\0c", 2) == 0 && bep_memCmp("a", "b", 0) == 0, "looks too far");
}

void check_memory(void) {
    check_blocks();
    check_zeros();
    check_promise("bep_mallocEx, bep_freeEx", "from several threads at once");
    _Atomic unsigned wrong = 0;
    check_in_threads(CHECK_THREADS, allocate_much, &wrong);
    check_that(wrong == 0, "%u blocks were in two hands", wrong);
    check_bytes();
}

void check_text(void) {
    char text[8] = "zzzzzzz";
    check_promise("bep_StrNCpy", "as strncpy: pads with zeros, ends at the size");
    check_that(bep_StrNCpy(text, "ab", 4) == text, "does not return its first argument");
    check_that(memcmp(text, "ab\0\0zzz", 8) == 0, "\"ab\" in 4 bytes is another text, or not padded");
    bep_StrNCpy(text, "abcdef", 4);
    check_that(memcmp(text, "abcdzzz", 8) == 0, "\"abcdef\" in 4 bytes is cut wrongly");
    check_promise("bep_StrNCmp", "as strncmp: ends at a zero and at the length");
    check_that(bep_StrNCmp("arp", "arp", 9) == 0 && bep_StrNCmp("arp\0x", "arp\0y", 5) == 0, "differs behind the end");
    check_that(bep_StrNCmp("arp-a", "arp-b", 4) == 0 && bep_StrNCmp("a", "b", 0) == 0, "looks too far");
    check_that(bep_StrNCmp("arp", "arq", 3) < 0 && bep_StrNCmp("arp", "ar", 3) > 0, "orders wrongly");
}
