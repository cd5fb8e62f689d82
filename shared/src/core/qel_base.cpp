// Base utilities: random numbers, the version, string copy, rounding.
#include <qel/base.h>

void qel_check_not_interrupt_path(void) {}

uint32_t qel_get_version_id(void) {
    return 0xa0000;
}

const char* qel_get_version(void) {
    return "0.10.0.0";
}
