// Asks for cache lines before they are needed, so that several which another processor has come at once and
// not one after another.
#pragma once

namespace qel {

// For a word that will be written: the line comes to be owned, where a read would only share it and the write
// would have to ask again.
inline void want_to_write(const void* word) {
#if defined(__x86_64__)
    // The builtin gives this instruction only for processors that are named to the compiler; all have it.
    asm volatile("prefetchw %0" : : "m"(*static_cast<const char*>(word)));
#else
    __builtin_prefetch(word, 1);
#endif
}
inline void want_to_read(const void* word) {
    __builtin_prefetch(word, 0);
    asm volatile("");  // a function that did nothing but prefetch would count as one without effect
}

}  // namespace qel
