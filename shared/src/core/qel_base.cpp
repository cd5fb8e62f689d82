// Base utilities: random numbers, the version, string copy, rounding, printing.
//
// Thin and stateless: the random sequence is the C library's own. The digest is in qel_md5.cpp, the atomic
// operations are in qel_atomic.cpp.
#include <qel/base.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

void qel_random_set_seed(uint32_t seed) {
    std::srand(seed);
}

uint32_t qel_random_uint32(void) {
    return static_cast<uint32_t>(std::rand());
}

uint32_t qel_random_bounded_uint32(uint32_t low, uint32_t high) {
    if (high <= low) return low;
    return low + qel_random_uint32() % (high - low);
}

uint32_t qel_get_version_id(void) {
    return 0xa0000;
}

const char* qel_get_version(void) {
    return "0.10.0.0";
}

char* sstrncpy(char* destination, const char* source, size_t size) {
    if (destination == nullptr || size == 0) return destination;
    // The source need not end within the size, so it is never read past it.
    size_t length = source == nullptr ? 0 : strnlen(source, size - 1);
    std::copy_n(source, length, destination);
    destination[length] = '\0';
    return destination;
}

uint32_t qel_round32bit(uint32_t size) {
    return (size + 3) & ~3u;
}

uint32_t qel_round64bit(uint32_t size) {
    return (size + 7) & ~7u;
}

void* qel_cast_const(const void* pointer) {
    return const_cast<void*>(pointer);
}

int qel_cli_printf(const char* format, ...) {
    va_list values;
    va_start(values, format);
    int result = std::vprintf(format, values);
    va_end(values);
    return result;
}

void qel_check_not_interrupt_path(void) {}
