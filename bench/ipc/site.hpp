// What a transport is told of the contest that it takes part in, and what all transports do in the same way:
// write a message's data, read it, time a round trip, wait.
#pragma once

#include <emmintrin.h>
#include <sched.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <span>
#include <string>

namespace qel_bench {

// 'round_trip' asks and waits for the answer, both sides in the transport's usual, sleeping form; 'polled' is
// the same with both sides asking again and again; 'one_way' sends without an answer.
enum class Pattern : std::uint32_t { round_trip, polled, one_way };

struct Site {
    std::string name;  // the beginning of every name that the transport makes in the system
    Pattern pattern;
    std::size_t size;  // of a message's data, in bytes
    unsigned clients;
    bool one_core;
    bool replies() const { return pattern != Pattern::one_way; }
    bool polls() const { return pattern == Pattern::polled; }
    // How many messages of a client may be under way: the same for all whose queue has a length.
    std::size_t depth() const { return size > 4'096 ? 32 : 256; }
    // The same as bytes, for those whose queue has a size.
    std::size_t depth_bytes() const { return depth() * (size + 64); }
    std::string socket_path() const { return "/tmp/" + name; }
};

inline std::int64_t nanoseconds_now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return std::int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

// Ends a child; the driver tells which transport it was and goes on with the others.
[[noreturn]] inline void give_up(const char* what, const char* why) {
    std::fprintf(stderr, "ipc_bench: %s: %s\n", what, why);
    std::_Exit(1);
}
inline void require(bool holds, const char* what) {
    if (!holds) give_up(what, std::strerror(errno));
}

// A message's data is written whole by its sender and read whole by its receiver, in place where the
// transport allows it. Each is one byte repeated, so that the reader sees a message that was torn or cut.
class Payload {
  public:
    void write(void* data, std::size_t size) { std::memset(data, ++mark_, size); }
    static void read(const void* data, std::size_t size) {
        __m128i differing = _mm_setzero_si128();
        const auto* bytes = static_cast<const unsigned char*>(data);
        const __m128i mark = _mm_set1_epi8(static_cast<char>(bytes[0]));
        for (std::size_t at = 0; at + 16 <= size; at += 16) {
            __m128i words = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + at));
            differing = _mm_or_si128(differing, _mm_xor_si128(words, mark));
        }
        if (_mm_movemask_epi8(_mm_cmpeq_epi8(differing, _mm_setzero_si128())) != 0xffff)
            give_up("a message", "its data are torn");
    }

  private:
    unsigned char mark_ = 0;
};

// The round trips of one batch: a client goes on while there are more() and says done() after each.
class Laps {
  public:
    Laps(std::uint64_t count, std::span<std::uint32_t> nanoseconds)
        : left_(count), nanoseconds_(nanoseconds), last_(nanoseconds_now()) {}
    bool more() const { return left_ > 0; }
    void done() {
        std::int64_t now = nanoseconds_now();
        if (taken_ < nanoseconds_.size()) nanoseconds_[taken_++] = static_cast<std::uint32_t>(now - last_);
        last_ = now;
        --left_;
    }

  private:
    std::uint64_t left_;
    std::span<std::uint32_t> nanoseconds_;
    std::size_t taken_ = 0;
    std::int64_t last_;
};

// Between two looks of one who polls. On one core the other side runs only if this one lets it.
inline void relax(const Site& site) {
    if (site.one_core) {
        sched_yield();
    } else {
        _mm_pause();
    }
}

// Memory that a process shares with those that it forks.
template <class T>
class Inherited {
  public:
    explicit Inherited(std::size_t count)
        : count_(count), items_(static_cast<T*>(mmap(nullptr, count * sizeof(T), PROT_READ | PROT_WRITE,
                                                     MAP_SHARED | MAP_ANONYMOUS | MAP_POPULATE, -1, 0))) {
        if (items_ == MAP_FAILED) give_up("mmap", std::strerror(errno));
    }
    Inherited(const Inherited&) = delete;
    ~Inherited() { munmap(items_, count_ * sizeof(T)); }
    T& operator[](std::size_t index) const { return items_[index]; }
    std::span<T> all() const { return {items_, count_}; }

  private:
    std::size_t count_;
    T* items_;
};

// A transport that needs nothing from before the fork.
struct NoGround {
    explicit NoGround(const Site&) {}
};

}  // namespace qel_bench
