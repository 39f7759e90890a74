// SPDX-License-Identifier: Apache-2.0
// lock.h: the module's one capability, as the compiler checks it.
//
// g_atc_lock stands for the module mutex (g_atc_global.sem). It holds no state: the mutex itself is the card's, taken
// and given by atc_sem_take and atc_sem_give (context.h). Under clang with -Wthread-safety, data marked ATC_GUARDED_BY
// and functions marked ATC_REQUIRES are checked against it at compile time; other compilers see plain declarations.
#pragma once

#if defined(__clang__)
#define ATC_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define ATC_THREAD_ATTRIBUTE(x)
#endif

#define ATC_CAPABILITY(name) ATC_THREAD_ATTRIBUTE(capability(name))
#define ATC_SCOPED_CAPABILITY ATC_THREAD_ATTRIBUTE(scoped_lockable)
#define ATC_GUARDED_BY(x) ATC_THREAD_ATTRIBUTE(guarded_by(x))
#define ATC_REQUIRES(...) ATC_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ATC_EXCLUDES(...) ATC_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define ATC_ACQUIRE(...) ATC_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define ATC_RELEASE(...) ATC_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define ATC_NO_THREAD_SAFETY_ANALYSIS ATC_THREAD_ATTRIBUTE(no_thread_safety_analysis)

struct ATC_CAPABILITY("mutex") atc_lock_t {};

extern atc_lock_t g_atc_lock;
