// What shared segments and shared locks need of the platform.
//
// Preconditions: a path is an object's whole name, as "/element.heap"; an Fd is open; a size is not 0;
// a mutex has been initialised by qel_init_shared_mutex(), by whichever process. Results are errno values,
// and outputs are written on success only. Nothing here reports, allocates from named memory or takes a lock,
// so all of it may run while the error buffer is being made.
#pragma once

#include <pthread.h>

#include <span>

#include "core/qel_fd.hpp"

namespace qel::shm_platform {

// A mutex wherever a format puts it: behind a safe segment's header of 12 bytes that is 4 modulo 8, and the C
// library needs no more, as the words of a plain mutex are ints.
typedef pthread_mutex_t PlacedMutex __attribute__((aligned(4)));
inline pthread_mutex_t* native(PlacedMutex& mutex) {
    return static_cast<pthread_mutex_t*>(static_cast<void*>(&mutex));
}

// Tells two objects apart that had one name at different times.
struct Identity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    friend bool operator==(const Identity&, const Identity&) = default;
};

struct Status {
    std::uint64_t size = 0;
    Identity identity;
};

// ENOENT without the object; EACCES also while its maker hasn't granted it yet.
int open_object(const char* path, Fd& out);

// Makes the object, of size 0 and with what the umask leaves of its mode; EEXIST if it exists.
int create_object(const char* path, Fd& out);
// Opens the object to every user, mode 0777.
int grant_to_everybody(const Fd& object);

int inspect(const Fd& object, Status& out);

// For those who only look: an object that can't be written or mapped through the descriptor, and a copy of
// its bytes. ENODATA where the object ends before them.
int open_object_to_read(const char* path, Fd& out);
int read_object(const Fd& object, std::uint64_t offset, std::span<std::byte> out);

// Gives the object its size in one step, with the memory behind it reserved first if 'reserved' says so:
// ENOSPC when the file system is full, where the first touch of a page would be a SIGBUS.
int set_size(const Fd& object, std::uint32_t size, bool reserved);

int map_object(const Fd& object, std::uint32_t size, void*& out);
void unmap(void* address, std::size_t size);

int remove_object(const char* path);
// Removes the name if it still is that of 'identity' and not of an object that somebody made since.
void remove_if_same(const char* path, const Identity& identity);

// Whether the mutex is nothing but its lock word, as qel_init_shared_mutex() made it. The C library believes
// what the mutex says of its kind: for others it follows pointers in it, changes the thread's priority, or
// ends the process.
bool is_plain(const PlacedMutex& mutex);
// Waits for the mutex for 'milliseconds' at most; ETIMEDOUT then.
int lock_for(PlacedMutex& mutex, std::uint32_t milliseconds);
// Whether the lock word says that nobody holds the mutex; a hint, as it may change at any time.
bool is_free(const PlacedMutex& mutex);
// The thread ID in the lock word, 0 if nobody holds the mutex; a hint, as it may change at any time.
std::uint32_t holder_of(const PlacedMutex& mutex);
// Makes the unlock of a mutex that the caller holds wake a waiter, whatever the lock word knows of waiters.
void expect_waiter(PlacedMutex& mutex);
// Whether the machine has more than one processor, without which nobody is waited for by spinning.
bool has_processors();
// One round of spinning: tens of nanoseconds in which the processor serves its other half.
void pause_spinning();
// Whether the kernel knows this thread ID, in the PID namespace of this process.
bool thread_exists(std::uint32_t thread);

}  // namespace qel::shm_platform
