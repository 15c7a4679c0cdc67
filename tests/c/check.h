/* The check of the plain-C test programs: prints the failed condition and
 * counts it; the program exits non-zero when any failed. */
#ifndef LUMORA_TESTS_C_CHECK_H
#define LUMORA_TESTS_C_CHECK_H

#include <stdio.h>

static int failures = 0;

#define CHECK(cond)                                                                  \
    do {                                                                             \
        if (!(cond)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            ++failures;                                                              \
        }                                                                            \
    } while (0)

#endif
