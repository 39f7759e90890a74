/* SPDX-License-Identifier: Apache-2.0 */
/* version.h: the version of the headers that a process is compiled with; atc_version tells that of the library that it
 * runs with. Compiles as C11 and as C++20.
 *
 * The one place where the number stands: the build and what it installs read it here. Before 1.0 another minor version
 * may change the interface, a patch version never does. */
#ifndef ANTI_CPU_VERSION_H
#define ANTI_CPU_VERSION_H

#define ATC_VERSION_MAJOR 0
#define ATC_VERSION_MINOR 1
#define ATC_VERSION_PATCH 0

/* One number that grows from release to release, for #if: 100 for 0.1.0, 10203 for 1.2.3. */
#define ATC_VERSION_NUMBER (ATC_VERSION_MAJOR * 10000 + ATC_VERSION_MINOR * 100 + ATC_VERSION_PATCH)

/* The same as text, "0.1.0". */
#define ATC_VERSION ATC_VERSION_TEXT(ATC_VERSION_MAJOR, ATC_VERSION_MINOR, ATC_VERSION_PATCH)
#define ATC_VERSION_TEXT(major, minor, patch) ATC_VERSION_OF(major, minor, patch)
#define ATC_VERSION_OF(major, minor, patch) #major "." #minor "." #patch

#endif
