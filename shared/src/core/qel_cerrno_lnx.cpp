// The system's text of an errno number.
//
// The system has two forms of strerror_r. This file takes the one that tells when a number has no text, which
// the headers offer only without their own extensions; so it includes nothing of the library's inner headers.
#undef _GNU_SOURCE
#define _POSIX_C_SOURCE 200809L
#include <qel/cerrno.h>

#include <stdio.h>
#include <string.h>

char* strerror_pd(int errnum, char* buffer, size_t size) {
    if (buffer == nullptr || size == 0) return buffer;
    int error = strerror_r(errnum, buffer, size);
    if (error != 0 || strcmp(buffer, "Unknown error") == 0)
        snprintf(buffer, size, "Unknown Error(%d)", errnum);
    return buffer;
}
