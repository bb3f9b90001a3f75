/*
 * What the two programs have in common: how they stop, and how long a descriptor may be.
 */
#ifndef HAND_OVER_H
#define HAND_OVER_H

#include <stdio.h>
#include <stdlib.h>

#include "rova_error.h"

/* The longest descriptor that the importer reads. A software device's have a few hundred bytes. */
enum { max_descriptor_size = 65536 };

/* The library has already logged what went wrong, so the program only stops. */
static inline void must(rova_error_t code)
{
    if (code != ROVA_SUCCESS) {
        fprintf(stderr, "stopped by %s\n", rova_error_get_name(code));
        exit(EXIT_FAILURE);
    }
}

static inline void must_be_true(int condition, const char* what)
{
    if (!condition) {
        perror(what);
        exit(EXIT_FAILURE);
    }
}

#endif
