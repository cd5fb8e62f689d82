// Contexts: types that modules register, and their values on packets.
//
// The table has 32 entries. An ID carries the entry's index and a serial number, so the ID of a type that has
// gone isn't mistaken for the next one of its entry. Readers take no lock: they go by the entry's ID, which
// is written last and cleared first.
//
// Locks: ctx_mutex guards changes of the table. Threads: a packet and its values have one user at a time.
#include <qel/pak_ctx.h>

#include <cstring>

#include "core/qel_owned.hpp"
#include "net/qel_pak.hpp"

namespace qel::packets {
namespace {

constexpr int kSerialShift = 16;
constexpr std::uint32_t kIndexMask = 0xffff;

struct Type {
    std::atomic<const char*> name;  // the caller's; null marks a free entry
    std::atomic<std::uint32_t> id;
    std::atomic<std::size_t> size;  // of the largest value; 0 marks a free entry
};
constinit Type ctx_id_list[QEL_PAK_MAX_CTX]{};
constinit std::uint16_t pak_serial QEL_GUARDED_BY(ctx_mutex) = 0;

// A value on a packet; its bytes follow, with room for the type's size.
struct Value {
    void* link;
    std::uint32_t id;
    std::uint32_t reserved;
    std::size_t length;

    void* bytes() { return this + 1; }
    const void* bytes() const { return this + 1; }
};
static_assert(sizeof(Value) == 24 && offsetof(Value, id) == 8 && offsetof(Value, length) == 16);

std::uint16_t next_serial_locked() QEL_REQUIRES(ctx_mutex) {
    if (++pak_serial == 0) pak_serial = 1;
    return pak_serial;
}

Type* free_type_locked() QEL_REQUIRES(ctx_mutex) {
    for (Type& type : ctx_id_list)
        if (type.name.load() == nullptr && type.size.load() == 0) return &type;
    return nullptr;
}

// The type of an ID, or null.
Type* find_type(std::uint32_t id) {
    const int index = qel_pak_ctx_is_valid_ctx_id(id);
    return index < 0 ? nullptr : &ctx_id_list[index];
}

Value* find_value(const Packet& pak, std::uint32_t id) {
    auto* value = static_cast<Value*>(qel_queue_peek_head(&pak.ctx_queue));
    while (value != nullptr && value->id != id) value = static_cast<Value*>(value->link);
    return value;
}

cerrno add_value(Packet& pak, std::uint32_t id, std::size_t room, Value*& added) {
    std::size_t size = 0;
    Owned<std::byte> memory;
    if (!__builtin_add_overflow(sizeof(Value), room, &size))
        memory = allocate_zeroed<std::byte>(QEL_MEM_PAK, size);
    if (!memory) return no_memory<"PAKERROR100", "pak ctx set">();
    auto* value = reinterpret_cast<Value*>(memory.get());
    value->id = id;
    if (qel_queue_enqueue(&pak.ctx_queue, value) == nullptr)
        return failed<"PAKERROR110", "QEL-PAK-ERROR: ctx set failed, not queued, id=0x%x, pak=%p">(
            fatal(EFAULT), id, &pak);
    static_cast<void>(memory.release());  // the packet's now
    added = value;
    return 0;
}

}  // namespace

void free_contexts(Packet& pak) {
    while (auto* value = qel_queue_dequeue(&pak.ctx_queue)) qel_named_free(value);
}

}  // namespace qel::packets

using namespace qel;
using namespace qel::packets;

cerrno qel_pak_ctx_register(const char* name, size_t size, uint32_t* id) {
    if (name == nullptr || size == 0 || id == nullptr) return invalid<"PAKERROR101", "ctx register">();
    Locked lock{ctx_mutex};
    Type* type = free_type_locked();
    if (type == nullptr) {
        *id = QEL_PAK_NO_CTX;
        return no_memory<"PAKERROR102", "pak ctx register">();
    }
    const auto index = static_cast<std::uint32_t>(type - ctx_id_list);
    *id = static_cast<std::uint32_t>(next_serial_locked()) << kSerialShift | index;
    type->name.store(name);
    type->size.store(size);
    type->id.store(*id);
    event_at<"PAKEVENT100", "ctx register ok, name=%s, size=%lu, id=0x%x">(kChanges, name, size, *id);
    return 0;
}

cerrno qel_pak_ctx_unregister(uint32_t id) {
    Locked lock{ctx_mutex};
    Type* type = find_type(id);
    if (type == nullptr) return invalid<"PAKERROR103", "ctx unregister">();
    type->id.store(0);
    type->size.store(0);
    type->name.store(nullptr);
    event_at<"PAKEVENT101", "ctx unregister ok, id=0x%x">(kChanges, id);
    return 0;
}

int qel_pak_ctx_is_valid_ctx_id(uint32_t id) {
    const std::uint32_t index = id & kIndexMask;
    if (id == 0 || index >= QEL_PAK_MAX_CTX) return -1;
    const Type& type = ctx_id_list[index];
    const bool valid = type.id.load() == id && type.name.load() != nullptr && type.size.load() != 0;
    return valid ? static_cast<int>(index) : -1;
}

uint32_t qel_pak_ctx_id_to_index(uint32_t id) {
    return id;
}

cerrno qel_pak_ctx_set(uint32_t id, qel_pak* pak, const void* value, size_t length) {
    if (pak == nullptr || value == nullptr || length == 0) return invalid<"PAKERROR104", "ctx set">();
    const Type* type = find_type(id);
    if (type == nullptr)
        return failed<"PAKERROR105", "QEL-PAK-ERROR: ctx set failed, invalid ctx id, id=0x%x, pak=%p">(
            fatal(EINVAL), id, pak);
    const std::size_t room = type->size.load();
    if (length > room)
        return failed<"PAKERROR106", "QEL-PAK-ERROR: ctx set failed, exceeds length, len=%u > %u, id=0x%x">(
            fatal(EINVAL), static_cast<std::uint32_t>(length), static_cast<std::uint32_t>(room), id);
    Value* stored = find_value(*pak, id);
    if (stored == nullptr)
        if (cerrno error = add_value(*pak, id, room, stored); error != 0) return error;
    std::memmove(stored->bytes(), value, length);
    stored->length = length;
    event_at<"PAKEVENT102", "ctx set ok, id=0x%x, pak=%p, len=%lu">(kChanges, id, pak, length);
    return 0;
}

cerrno qel_pak_ctx_get(uint32_t id, const qel_pak* pak, void* buffer, size_t* length) {
    if (pak == nullptr || buffer == nullptr || length == nullptr || find_type(id) == nullptr)
        return invalid<"PAKERROR107", "ctx get">();
    const Value* stored = find_value(*pak, id);
    if (stored == nullptr)
        return failed<"PAKERROR111", "QEL-PAK-ERROR: ctx get failed, no value, id=0x%x, pak=%p">(
            fatal(ENOENT), id, pak);
    if (*length < stored->length) return invalid<"PAKERROR108", "ctx get">();
    std::memmove(buffer, stored->bytes(), stored->length);
    *length = stored->length;
    event_at<"PAKEVENT103", "ctx get ok, id=0x%x, pak=%p, len=%lu">(kReads, id, pak, *length);
    return 0;
}

bool qel_pak_ctx_exist(uint32_t id, const qel_pak* pak) {
    return pak != nullptr && find_value(*pak, id) != nullptr;
}

cerrno qel_pak_ctx_destroy(uint32_t id, qel_pak* pak) {
    Value* stored = pak == nullptr ? nullptr : find_value(*pak, id);
    if (stored == nullptr) return invalid<"PAKERROR109", "ctx destroy">();
    qel_named_free(qel_queue_unqueue(&pak->ctx_queue, stored));
    event_at<"PAKEVENT104", "ctx destroy ok, id=0x%x, pak=%p">(kChanges, id, pak);
    return 0;
}
