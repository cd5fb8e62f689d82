// Segments without a header: attaching to one, making one, and the loop between the two.
#pragma once

#include <cerrno>

#include "shm/qel_mem_safe_shm.hpp"
#include "shm/qel_mem_safe_shm_lnx.hpp"

namespace qel {

inline constexpr std::size_t kShmPathSize = 128;

// An object's whole name, checked.
struct ShmPath {
    char text[kShmPathSize]{};
};

// ENAMETOOLONG for a name, or a name with its root, of 128 characters or more.
int build_path(const char* name, ShmPath& out);

// An object for those who only look: read like a file, never mapped.
struct ObjectToRead {
    Fd object;
    std::uint64_t size = 0;
};
int open_to_read(const char* name, ObjectToRead& out);

struct Segment {
    Mapping mapping;
    shm_platform::Identity identity;
    bool created = false;
};

// Attaches to an object, waiting about a second for a maker that has still to size it. 'size' 0 takes any.
int attach_segment(const ShmPath& path, std::uint32_t size, Segment& out);

// Makes the object of 'size' bytes, zeroed; EEXIST if the name exists. A failure leaves no name behind.
int create_segment(const ShmPath& path, std::uint32_t size, Segment& out);

// Others may make and remove the name while a call goes back and forth between joining and making. That ends
// when they leave one of the two steps alone; the bound is for those who never do.
template <class Join, class Make>
int join_or_make(Join join, Make make) {
    constexpr int kMostRounds = 1000;
    for (int round = 0; round < kMostRounds; ++round) {
        if (int error = join(); error != ENOENT) return error;
        if (int error = make(); error != EEXIST) return error;
    }
    return EAGAIN;
}

}  // namespace qel
