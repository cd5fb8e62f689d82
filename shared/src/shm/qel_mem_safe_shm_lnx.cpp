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

int open_with(const char* path, int flags, Fd& out) {
    int descriptor = shm_open(path, flags, kEverybody);
    if (descriptor < 0) return errno;
    out.reset(descriptor);
    return 0;
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

// A word of the C library's record, wherever that lies.
int word_at(const PlacedMutex& mutex, std::size_t offset) {
    const void* word = reinterpret_cast<const std::byte*>(&mutex) + offset;
    return __atomic_load_n(static_cast<const int*>(word), __ATOMIC_RELAXED);
}

}  // namespace

int open_object(const char* path, Fd& out) {
    return open_with(path, O_RDWR, out);
}

int open_object_to_read(const char* path, Fd& out) {
    return open_with(path, O_RDONLY, out);
}

int read_object(const Fd& object, std::uint64_t offset, std::span<std::byte> out) {
    while (!out.empty()) {
        ssize_t got = pread(object.get(), out.data(), out.size(), static_cast<off_t>(offset));
        if (got < 0 && errno != EINTR) return errno;
        if (got == 0) return ENODATA;
        auto bytes = static_cast<std::size_t>(std::max<ssize_t>(got, 0));
        out = out.subspan(bytes);
        offset += bytes;
    }
    return 0;
}

int create_object(const char* path, Fd& out) {
    return open_with(path, O_RDWR | O_CREAT | O_EXCL, out);
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

bool is_plain(const PlacedMutex& mutex) {
    // Type, robust, priority inheritance, priority ceiling, elision, whose instructions not every processor
    // has. The other bits tell where to wait.
    constexpr int kMoreThanTheWord = 0x17f;
    return (word_at(mutex, offsetof(pthread_mutex_t, __data.__kind)) & kMoreThanTheWord) == 0;
}

int lock_for(PlacedMutex& mutex, std::uint32_t milliseconds) {
#if defined(__SANITIZE_THREAD__)
    // The tool follows this form only.
    timespec deadline = add(realtime_now(), from_milliseconds(milliseconds));
    return pthread_mutex_timedlock(native(mutex), &deadline);
#else
    timespec deadline = add(monotonic_now(), from_milliseconds(milliseconds));
    return pthread_mutex_clocklock(native(mutex), CLOCK_MONOTONIC, &deadline);
#endif
}

bool is_free(const PlacedMutex& mutex) {
    return word_at(mutex, offsetof(pthread_mutex_t, __data.__lock)) == 0;
}

std::uint32_t holder_of(const PlacedMutex& mutex) {
    return static_cast<std::uint32_t>(word_at(mutex, offsetof(pthread_mutex_t, __data.__owner)));
}

void expect_waiter(PlacedMutex& mutex) {
#if defined(__GLIBC__)
    constexpr int kContended = 2;
    __atomic_store_n(&native(mutex)->__data.__lock, kContended, __ATOMIC_RELAXED);
#endif
}

bool has_processors() {
    static constinit std::atomic<long> online{0};
    long count = online.load(std::memory_order_relaxed);
    if (count == 0) online.store(count = sysconf(_SC_NPROCESSORS_ONLN), std::memory_order_relaxed);
    return count > 1;
}

void pause_spinning() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("isb" ::: "memory");
#endif
}

bool thread_exists(std::uint32_t thread) {
    char path[32];
    std::snprintf(path, sizeof path, "/proc/%u", thread);
    return access(path, F_OK) == 0;
}

}  // namespace qel::shm_platform
