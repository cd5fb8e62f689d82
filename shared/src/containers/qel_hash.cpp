// The general byte-string hash, and the attributes of a table, which have no effect.
//
// The hash is Jenkins's one-at-a-time with each byte taken as signed. A step (h += byte; h += h << 10; h ^= h
// >> 6) is written so that the byte's product with 1,025 stands ready before h does: only four operations
// depend on each other.
#include <qel/hash.h>

uint32_t qel_hash_calculate(const void* bytes, int32_t size) {
    if (bytes == nullptr) return 0;
    const signed char* byte = static_cast<const signed char*>(bytes);
    uint32_t hash = 0;
#pragma GCC unroll 8
    for (int32_t left = size; left > 0; --left) {
        uint32_t product = static_cast<uint32_t>(*byte++) * 1025;
        hash = (hash << 10) + (hash + product);
        hash ^= hash >> 6;
    }
    hash += hash << 3;
    hash ^= hash >> 11;
    return hash + (hash << 15);
}

int qel_hash_attr_init(qel_hash_attr*) {
    return 0;
}

void qel_hash_attr_sethashtable(qel_hash_attr*, uint32_t) {}
