// Segments without a header.
//
// A name is joined if it exists and made otherwise. Making is always exclusive: of any number of racers one
// makes the object, and the others go back and join it, so exactly one of them is told that it didn't exist.
//
// Invariant: a name that a call has made and can't finish is removed before the call returns, and no other
// name ever is.
// Locks: none. Threads: any; the kernel's exclusive creation is the only arbiter.
// Restart: objects outlive processes. One whose maker died before sizing it stays unsized and is refused.
#include "shm/qel_mem_safe_shm_object.hpp"

#include <qel/ppm.h>
#include <qel/time.h>

#include <cerrno>
#include <cstring>
#include <limits>

namespace qel {
namespace {

using shm_platform::Status;

constexpr int kSizeLooks = 10;
constexpr std::uint32_t kSizeLookMs = 100;
// A maker grants its object right after making it; another user's attach in between is refused for that long.
constexpr int kGrantPolls = 100;
constexpr std::uint32_t kGrantPollMs = 1;

int open_granted(const ShmPath& path, Fd& out) {
    int error = shm_platform::open_object(path.text, out);
    for (int poll = 0; error == EACCES && poll < kGrantPolls; ++poll) {
        qel_time_sleep(kGrantPollMs);
        error = shm_platform::open_object(path.text, out);
    }
    return error;
}

int inspect_sized(const Fd& object, Status& out) {
    for (int look = 0; look < kSizeLooks; ++look) {
        if (look != 0) qel_time_sleep(kSizeLookMs);
        if (int error = shm_platform::inspect(object, out); error != 0) return error;
        if (out.size != 0) return 0;
    }
    return EINVAL;
}

int map_segment(const Fd& object, std::uint32_t size, Segment& out) {
    void* address = nullptr;
    if (int error = shm_platform::map_object(object, size, address); error != 0) return error;
    out.mapping = Mapping{qel_shm_info{0, address, size}};
    return 0;
}

bool reserves_memory() {
    std::uint32_t wanted = 1;
    // Fails for null arguments only.
    static_cast<void>(qel_ppm_get_integer("qel.shm.prealloc", 1, &wanted));
    return wanted != 0;
}

}  // namespace

int build_path(const char* name, ShmPath& out) {
    if (strnlen(name, kShmPathSize) == kShmPathSize) return ENAMETOOLONG;
    return qel_shm_path_append(out.text, name, kShmPathSize);
}

int open_to_read(const char* name, ObjectToRead& out) {
    ShmPath path;
    Status status;
    if (int error = build_path(name, path); error != 0) return error;
    if (int error = shm_platform::open_object_to_read(path.text, out.object); error != 0) return error;
    if (int error = shm_platform::inspect(out.object, status); error != 0) return error;
    out.size = status.size;
    return 0;
}

int attach_segment(const ShmPath& path, std::uint32_t size, Segment& out) {
    Fd object;
    Status status;
    if (int error = open_granted(path, object); error != 0) return error;
    if (int error = inspect_sized(object, status); error != 0) return error;
    if (status.size > std::numeric_limits<std::uint32_t>::max()) return EINVAL;
    if (size != 0 && size != status.size) return EINVAL;
    out.identity = status.identity;
    out.created = false;
    return map_segment(object, static_cast<std::uint32_t>(status.size), out);
}

int create_segment(const ShmPath& path, std::uint32_t size, Segment& out) {
    Fd object;
    Status status;
    if (int error = shm_platform::create_object(path.text, object); error != 0) return error;
    if (int error = shm_platform::inspect(object, status); error != 0) return error;
    Undo remove{[&] { shm_platform::remove_if_same(path.text, status.identity); }};
    if (int error = shm_platform::grant_to_everybody(object); error != 0) return error;
    if (int error = shm_platform::set_size(object, size, reserves_memory()); error != 0) return error;
    if (int error = map_segment(object, size, out); error != 0) return error;
    remove.keep();
    out.identity = status.identity;
    out.created = true;
    return 0;
}

int qel_shm_open_int(const char* name, std::uint32_t size, std::uint32_t options, qel_shm_info* info,
                     std::uint8_t* existed) {
    if (name == nullptr || info == nullptr || existed == nullptr) return EINVAL;
    ShmPath path;
    if (int error = build_path(name, path); error != 0) return error;
    Segment segment;
    auto join = [&] { return attach_segment(path, size, segment); };
    auto make = [&] { return size == 0 ? ENOENT : create_segment(path, size, segment); };
    int error = (options & QEL_SHM_EXCLUSIVE) != 0 ? make() : join_or_make(join, make);
    if (error != 0) return error;
    *existed = !segment.created;
    *info = segment.mapping.release();
    return 0;
}

}  // namespace qel

using namespace qel;

int qel_shm_path_append(char* out, const char* name, size_t size) {
    if (out == nullptr || name == nullptr) return EINVAL;
    const char* root = "";
    // Fails for null arguments only.
    if (name[0] != '/') static_cast<void>(qel_ppm_get_string("qel.shm.root", "", &root));
    std::size_t root_length = std::strlen(root);
    std::size_t name_length = std::strlen(name);
    if (root_length + name_length >= size) return ENAMETOOLONG;
    std::memcpy(out, root, root_length);
    std::memcpy(out + root_length, name, name_length + 1);
    return 0;
}

int qel_shm_open(const char* name, uint32_t size, qel_shm_info* info, uint8_t* existed) {
    return qel_shm_open_int(name, size, 0, info, existed);
}

void qel_shm_close(qel_shm_info* info) {
    if (info == nullptr || info->addr == nullptr) return;
    auto* start = static_cast<std::byte*>(info->addr) - info->hdr_size;
    shm_platform::unmap(start, std::size_t{info->size} + info->hdr_size);
    info->addr = nullptr;
}

int qel_shm_unlink(const char* name) {
    if (name == nullptr) return EINVAL;
    ShmPath path;
    if (int error = build_path(name, path); error != 0) return error;
    return shm_platform::remove_object(path.text);
}
