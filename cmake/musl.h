/* SPDX-License-Identifier: Apache-2.0 */
/* musl.h: what the headers of g++'s C++ library, made for glibc, want to see declared; included before everything. */
#pragma once
#define _GLIBCXX_OS_DEFINES 1
#define __locale_t locale_t
#include <pthread.h>
extern "C" int pthread_cond_clockwait(pthread_cond_t *, pthread_mutex_t *, clockid_t, const struct timespec *);
