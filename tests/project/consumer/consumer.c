/* The smallest program of a user: valid C11 and C++. It proves that headers, library and package fit
 * together. */
#include <qel/qel.h>

#include <stdio.h>
#include <string.h>

int main(void) {
    uint32_t value = 0;
    if (qel_ppm_get_integer("consumer.unset", 7, &value) != 0 || value != 7) return 1;
    if (strcmp(qel_get_version(), "0.10.0.0") != 0 || qel_get_version_id() != 0xa0000) return 2;
    printf("libqel %s: %s\n", qel_get_version(), cerr_strerror(22));
    return 0;
}
