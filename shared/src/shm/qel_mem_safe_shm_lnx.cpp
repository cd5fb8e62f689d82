// Shared segments on Linux: POSIX shared memory, a file system in memory under /dev/shm.
//
// The umask belongs to the whole process, so it stays: an object is made with what the umask leaves and then
// granted to everybody. The memory is reserved beyond the end of the file, piece by piece, and the size set
// last: an opener sees an object of size 0 or a complete one, and a signal costs one piece at most.
//
// Threads: any; no state.
#include "shm/qel_mem_safe_shm_lnx.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>

#include "time/qel_time.hpp"

namespace qel::shm_platform {
namespace {

constexpr mode_t kEverybody = 0777;
constexpr std::uint32_t kReservedPiece = 4u << 20;

int last_error(int result) {
    return result == 0 ? 0 : errno;
}

int reserve_piece(const Fd& object, std::uint32_t offset, std::uint32_t size) {
    int error = 0;
    do error = last_error(fallocate(object.get(), FALLOC_FL_KEEP_SIZE, offset, size));
    while (error == EINTR);
    return error;
}

// A file system that can't reserve is taken as it is.
int reserve(const Fd& object, std::uint32_t size) {
    int error = 0;
    for (std::uint64_t at = 0; at < size && error == 0; at += kReservedPiece) {
        auto offset = static_cast<std::uint32_t>(at);
        error = reserve_piece(object, offset, std::min(kReservedPiece, size - offset));
    }
    return error == EOPNOTSUPP ? 0 : error;
}

}  // namespace

int open_object(const char* path, Fd& out) {
    int descriptor = shm_open(path, O_RDWR, kEverybody);
    if (descriptor < 0) return errno;
    out.reset(descriptor);
    return 0;
}

int create_object(const char* path, Fd& out) {
    int descriptor = shm_open(path, O_RDWR | O_CREAT | O_EXCL, kEverybody);
    if (descriptor < 0) return errno;
    out.reset(descriptor);
    return 0;
}

int grant_to_everybody(const Fd& object) {
    return last_error(fchmod(object.get(), kEverybody));
}

int inspect(const Fd& object, Status& out) {
    struct stat status;
    if (fstat(object.get(), &status) != 0) return errno;
    out = {static_cast<std::uint64_t>(status.st_size), {status.st_dev, status.st_ino}};
    return 0;
}

int set_size(const Fd& object, std::uint32_t size, bool reserved) {
    if (int error = reserved ? reserve(object, size) : 0; error != 0) return error;
    return last_error(ftruncate(object.get(), size));
}

int map_object(const Fd& object, std::uint32_t size, void*& out) {
    void* address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, object.get(), 0);
    if (address == MAP_FAILED) return errno;
    out = address;
    return 0;
}

void unmap(void* address, std::size_t size) {
    // Fails for an address that was never mapped only, and then there is nothing to give back.
    static_cast<void>(munmap(address, size));
}

int remove_object(const char* path) {
    return last_error(shm_unlink(path));
}

void remove_if_same(const char* path, const Identity& identity) {
    Fd object;
    Status status;
    if (open_object(path, object) != 0 || inspect(object, status) != 0) return;
    // A name that is gone by now needs no removal.
    if (status.identity == identity) static_cast<void>(remove_object(path));
}

bool is_plain(const pthread_mutex_t& mutex) {
    // Type, robust, priority inheritance, priority ceiling; the bits above tell where and how to wait.
    constexpr int kMoreThanTheWord = 0x7f;
    return (__atomic_load_n(&mutex.__data.__kind, __ATOMIC_RELAXED) & kMoreThanTheWord) == 0;
}

int lock_for(pthread_mutex_t& mutex, std::uint32_t milliseconds) {
#if defined(__SANITIZE_THREAD__)
    // The tool follows this form only.
    timespec deadline = add(realtime_now(), from_milliseconds(milliseconds));
    return pthread_mutex_timedlock(&mutex, &deadline);
#else
    timespec deadline = add(monotonic_now(), from_milliseconds(milliseconds));
    return pthread_mutex_clocklock(&mutex, CLOCK_MONOTONIC, &deadline);
#endif
}

std::uint32_t holder_of(const pthread_mutex_t& mutex) {
    int holder = __atomic_load_n(&mutex.__data.__owner, __ATOMIC_RELAXED);
    return static_cast<std::uint32_t>(holder);
}

bool thread_exists(std::uint32_t thread) {
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%u", thread);
    return access(path, F_OK) == 0;
}

}  // namespace qel::shm_platform
