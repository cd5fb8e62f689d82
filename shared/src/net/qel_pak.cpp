// Packets: making and giving back, size, named offsets, fields.
//
// A packet is one block. Head and tail room make growing a matter of two words: no byte moves. What memory a
// packet came from is decided by the parameters, which are set once at most and never change after, so a
// reader needs no lock; a packet remembers whether they stood when it was made.
//
// Locks: ctx_mutex while parameters are registered. Threads: a packet has one user at a time.
#include "net/qel_pak.hpp"

#include <algorithm>
#include <cstring>

#include "core/qel_owned.hpp"

int qel_pak_trace_level = 0;

namespace qel::packets {

constinit Mutex ctx_mutex;

namespace {

constexpr BufferSource kEvents{"qel.pak.buffer.events", nullptr, 16384};
constinit qel_dt_buffer_handle events = nullptr;

// Null until they are registered.
constinit std::atomic<const qel_pak_params*> pak_params{nullptr};

const qel_pak_params* parameters() {
    return pak_params.load(std::memory_order_acquire);  // A1: sees the record that R1 publishes
}

// --- Making and giving back

// Zeroed named memory. Faster than asking for it zeroed: the heap keeps blocks of a thread's own for plain
// requests only.
void* zeroed_memory(std::size_t size) {
    void* memory = qel_named_malloc_(size, qel_tag_e_get_string(QEL_MEM_PAK), 0);
    if (memory != nullptr) std::memset(memory, 0, size);
    return memory;
}

Packet* make(std::size_t size) {
    const qel_pak_params* params = parameters();
    const std::size_t head_room = params != nullptr ? params->encap : QEL_PAK_DEFAULT_ENCAP;
    std::size_t total = 0;
    if (__builtin_add_overflow(size, sizeof(Packet) + head_room, &total)) return nullptr;
    void* block =
        params != nullptr && params->alloc_cb != nullptr ? params->alloc_cb(total) : zeroed_memory(total);
    if (block == nullptr) return nullptr;
    auto* pak = static_cast<Packet*>(block);
    pak->datagram = pak->network = pak->transport = pak->application = pak->buffer() + head_room;
    pak->size = static_cast<std::uint16_t>(size);
    pak->end = pak->datagram + size - 1;
    pak->had_params = params != nullptr;
    return pak;
}

void free_packet(Packet* pak) {
    const qel_pak_params* params = pak->had_params != 0 ? parameters() : nullptr;
    if (pak->ctx_queue.head != nullptr) free_contexts(*pak);
    if (params != nullptr && params->free_cb != nullptr)
        params->free_cb(pak);
    else
        qel_named_free(pak);
}

cerrno make_for(std::size_t size, Packet*& pak) {
    Packet* made = make(size);
    if (made == nullptr) return no_memory<"PAKERROR001", "pak alloc">();
    pak = made;
    event_at<"PAKEVENT001", "alloc ok, pak=%p, size=%lu">(kChanges, made, size);
    return 0;
}

cerrno register_locked(const qel_pak_params& params) QEL_REQUIRES(ctx_mutex) {
    if (parameters() != nullptr)
        return failed<"PAKERROR002", "QEL-PAK-ERROR: params register failed (busy), params=%p">(fatal(EBUSY),
                                                                                                &params);
    Owned<qel_pak_params> copy = allocate_zeroed<qel_pak_params>(QEL_MEM_PAK);
    if (!copy) return no_memory<"PAKERROR003", "pak params register">();
    *copy = params;
    pak_params.store(copy.release(),
                     std::memory_order_release);  // R1: publishes the record; A1 in parameters()
    return 0;
}

// A callback as "%p" takes it.
template <class Function>
const void* address_of(Function* function) {
    return reinterpret_cast<const void*>(function);
}

// --- Size

// How many bytes the datagram can grow to.
std::size_t room_to_grow(const Packet& pak, std::size_t room) {
    return std::min<std::size_t>(room, QEL_PAK_MAX_SIZE - pak.size);
}

// Moves the places that 'is_outside' names to the datagram's begin.
template <class Test>
void bring_inside(Packet& pak, Test is_outside) {
    for (std::uint32_t name = QEL_PAK_NETWORK; name <= QEL_PAK_APPLICATION; ++name) {
        std::byte*& place = pak_offset_name_to_address_inline(pak, name);
        if (is_outside(place)) place = pak.datagram;
    }
}

// --- Fields

template <FixedText Label, FixedText Words, auto Field, class Value>
cerrno get_field(const Packet* pak, Value* value) {
    if (pak == nullptr || value == nullptr) return invalid<Label, Words>();
    *value = pak->*Field;
    event_at<Label, joined<Words, " ok, pak=%p, value=%#lx">()>(kReads, pak, std::uint64_t{*value});
    return 0;
}

template <FixedText Label, FixedText Words, auto Field, class Value>
cerrno set_field(Packet* pak, Value value) {
    if (pak == nullptr) return invalid<Label, Words>();
    pak->*Field = value;
    event_at<Label, joined<Words, " ok, pak=%p, value=%#lx">()>(kReads, pak, std::uint64_t{value});
    return 0;
}

}  // namespace

qel_dt_buffer_handle event_buffer() {
    return buffer_at(events, kEvents);
}

}  // namespace qel::packets

using namespace qel;
using namespace qel::packets;

// --- Making and giving back

cerrno qel_pak_alloc(size_t size, qel_pak** pak) {
    if (size == 0 || pak == nullptr) return invalid<"PAKERROR004", "alloc">();
    return make_for(size, *pak);
}

cerrno qel_pak_get_buffer(size_t size, qel_pak** pak) {
    return qel_pak_alloc(size, pak);
}

cerrno qel_pak_from_buf_lnx(const void* buffer, size_t length, qel_pak** pak) {
    if (buffer == nullptr || length == 0 || length > QEL_PAK_MAX_SIZE || pak == nullptr)
        return invalid<"PAKERROR005", "from buf">();
    if (cerrno error = make_for(length, *pak); error != 0) return error;
    std::memcpy((*pak)->datagram, buffer, length);
    return 0;
}

cerrno qel_pak_duplicate(const qel_pak* pak, qel_pak** copy) {
    if (pak == nullptr || copy == nullptr || pak->size == 0) return invalid<"PAKERROR006", "duplicate">();
    Packet* made = nullptr;
    if (cerrno error = make_for(pak->size, made); error != 0) return error;
    std::memcpy(made->datagram, pak->datagram, pak->size);
    for (std::uint32_t name = QEL_PAK_NETWORK; name <= QEL_PAK_APPLICATION; ++name)
        pak_offset_name_to_address_inline(*made, name) +=
            pak_offset_name_to_address_inline(*pak, name) - pak->datagram;
    made->proto_id = pak->proto_id;
    made->if_input = pak->if_input;
    made->if_output = pak->if_output;
    *copy = made;
    event_at<"PAKEVENT002", "duplicate ok, pak=%p, copy=%p">(kChanges, pak, made);
    return 0;
}

cerrno qel_pak_clone(const qel_pak* pak, qel_pak** copy) {
    return qel_pak_duplicate(pak, copy);
}

cerrno qel_pak_return_buffer(qel_pak** pak) {
    if (pak == nullptr || *pak == nullptr) return invalid<"PAKERROR007", "return">();
    if ((*pak)->link != nullptr || (*pak)->on_queue != 0)
        return failed<"PAKERROR008", "QEL-PAK-ERROR: return failed, on queue, pak=%p">(fatal(EBUSY), *pak);
    event_at<"PAKEVENT003", "return ok, pak=%p">(kChanges, *pak);
    free_packet(std::exchange(*pak, nullptr));
    return 0;
}

cerrno qel_pak_params_register_lnx(const qel_pak_params* params) {
    if (params == nullptr || (params->alloc_cb != nullptr && params->free_cb == nullptr) ||
        params->encap > QEL_PAK_MAX_ENCAP)
        return invalid<"PAKERROR009", "params register">();
    Locked lock{ctx_mutex};
    if (cerrno error = register_locked(*params); error != 0) return error;
    event_at<"PAKEVENT004", "params register ok, alloc_cb=%p, free_cb=%p, encap=%u">(
        kChanges, address_of(params->alloc_cb), address_of(params->free_cb), std::uint32_t{params->encap});
    return 0;
}

// --- Size

cerrno qel_pak_add_head(qel_pak* pak, size_t bytes) {
    if (pak == nullptr) return invalid<"PAKERROR010", "add head">();
    if (bytes > room_to_grow(*pak, static_cast<std::size_t>(pak->datagram - pak->buffer())))
        return no_memory<"PAKERROR011", "add head">();
    pak->datagram -= bytes;
    pak->size = static_cast<std::uint16_t>(pak->size + bytes);
    event_at<"PAKEVENT005", "add head ok, pak=%p, bytes=%lu">(kChanges, pak, bytes);
    return 0;
}

cerrno qel_pak_trim_head(qel_pak* pak, size_t bytes) {
    if (pak == nullptr || bytes > pak->size) return invalid<"PAKERROR012", "trim head">();
    pak->datagram += bytes;
    pak->size = static_cast<std::uint16_t>(pak->size - bytes);
    bring_inside(*pak, [pak](const std::byte* place) { return place < pak->datagram; });
    event_at<"PAKEVENT006", "trim head ok, pak=%p, bytes=%lu">(kChanges, pak, bytes);
    return 0;
}

cerrno qel_pak_add_tail(qel_pak* pak, size_t bytes) {
    if (pak == nullptr) return invalid<"PAKERROR013", "add tail">();
    if (bytes > room_to_grow(*pak, static_cast<std::size_t>(pak->end + 1 - (pak->datagram + pak->size))))
        return no_memory<"PAKERROR014", "add tail">();
    pak->size = static_cast<std::uint16_t>(pak->size + bytes);
    event_at<"PAKEVENT007", "add tail ok, pak=%p, bytes=%lu">(kChanges, pak, bytes);
    return 0;
}

cerrno qel_pak_trim_tail(qel_pak* pak, size_t bytes) {
    if (pak == nullptr || bytes > pak->size) return invalid<"PAKERROR015", "trim tail">();
    pak->size = static_cast<std::uint16_t>(pak->size - bytes);
    bring_inside(*pak, [pak](const std::byte* place) { return place >= pak->datagram + pak->size; });
    event_at<"PAKEVENT008", "trim tail ok, pak=%p, bytes=%lu">(kChanges, pak, bytes);
    return 0;
}

cerrno qel_pak_get_datagram_size(const qel_pak* pak, size_t* size) {
    return get_field<"PAKERROR016", "datagram size get", &Packet::size>(pak, size);
}

cerrno qel_pak_get_data_ptr_lnx(qel_pak* pak, void** data, size_t* size) {
    if (pak == nullptr || data == nullptr || size == nullptr) return invalid<"PAKERROR017", "data ptr get">();
    *data = pak->datagram;
    *size = pak->size;
    event_at<"PAKEVENT009", "data ptr get ok, pak=%p, size=%lu">(kReads, pak, *size);
    return 0;
}

// --- Named offsets

cerrno qel_pak_get_offset(const qel_pak* pak, uint32_t name, size_t* position) {
    if (pak == nullptr || position == nullptr || !pak_offset_type_valid(name))
        return invalid<"PAKERROR018", "offset get">();
    *position = static_cast<std::size_t>(pak_offset_name_to_address_inline(*pak, name) - pak->datagram);
    event_at<"PAKEVENT010", "offset get ok, pak=%p, name=%u, position=%lu">(kReads, pak, name, *position);
    return 0;
}

cerrno qel_pak_set_offset(qel_pak* pak, uint32_t name, size_t position) {
    if (pak == nullptr || name == QEL_PAK_DATAGRAM || !pak_offset_type_valid(name) || position >= pak->size)
        return invalid<"PAKERROR019", "offset set">();
    pak_offset_name_to_address_inline(*pak, name) = pak->datagram + position;
    event_at<"PAKEVENT011", "offset set ok, pak=%p, name=%u, position=%lu">(kChanges, pak, name, position);
    return 0;
}

cerrno qel_pak_adjust_offset(qel_pak* pak, uint32_t name, int64_t distance) {
    if (pak == nullptr || name == QEL_PAK_DATAGRAM || !pak_offset_type_valid(name))
        return invalid<"PAKERROR020", "offset adjust">();
    std::byte*& place = pak_offset_name_to_address_inline(*pak, name);
    std::int64_t position = 0;
    if (__builtin_add_overflow(place - pak->datagram, distance, &position) || position < 0 ||
        position >= pak->size)
        return invalid<"PAKERROR021", "offset adjust">();
    place = pak->datagram + position;
    event_at<"PAKEVENT012", "offset adjust ok, pak=%p, name=%u, position=%lu">(kChanges, pak, name, position);
    return 0;
}

// --- Fields

cerrno qel_pak_get_if_input(const qel_pak* pak, uint64_t* ifh) {
    return get_field<"PAKERROR022", "if input get", &Packet::if_input>(pak, ifh);
}
cerrno qel_pak_set_if_input(qel_pak* pak, uint64_t ifh) {
    return set_field<"PAKERROR023", "if input set", &Packet::if_input>(pak, ifh);
}
cerrno qel_pak_get_if_output(const qel_pak* pak, uint64_t* ifh) {
    return get_field<"PAKERROR024", "if output get", &Packet::if_output>(pak, ifh);
}
cerrno qel_pak_set_if_output(qel_pak* pak, uint64_t ifh) {
    return set_field<"PAKERROR025", "if output set", &Packet::if_output>(pak, ifh);
}
cerrno qel_pak_get_proto_id(const qel_pak* pak, uint32_t* proto_id) {
    return get_field<"PAKERROR026", "proto id get", &Packet::proto_id>(pak, proto_id);
}
cerrno qel_pak_set_proto_id(qel_pak* pak, uint32_t proto_id) {
    return set_field<"PAKERROR027", "proto id set", &Packet::proto_id>(pak, proto_id);
}
cerrno qel_pak_get_priority(const qel_pak* pak, uint32_t* priority) {
    return get_field<"PAKERROR028", "priority get", &Packet::priority>(pak, priority);
}
cerrno qel_pak_set_priority(qel_pak* pak, uint32_t priority) {
    return set_field<"PAKERROR029", "priority set", &Packet::priority>(pak, priority);
}
