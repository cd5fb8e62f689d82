// Error codes: the list of registered tables, and the two decoders.
//
// cerr_getstrings() splits a code into four texts, cerr_strerror() makes one sentence of them. The texts of a
// subsystem come from the maps in shared memory (qel_cerrno_map*.cpp), also those of this process's own
// tables; what can't be found keeps a default text with its number, so that a decoder always says something.
//
// Invariant: the list changes only while the process has one thread; its nodes are static data of components.
// Locks: cerr_list_mutex from the lookup until the texts have been copied, because another thread's lookup
// may unmap them. Threads: any; each decodes into its own record (qel_cerrno_thread.cpp).
#include "core/qel_cerrno.hpp"

#include <qel/base.h>
#include <qel/mem.h>

#include <array>
#include <cstdio>

#include "core/qel_cerrno_map.hpp"
#include "core/qel_owned.hpp"

constinit qel_cerrno_node* qel_cerrno_root = nullptr;

namespace qel {

constinit Mutex cerr_list_mutex;

namespace {

constexpr const char* kUndecodable = "Unable to decode cerrno";

// By the three severity bits.
constexpr std::array<const char*, 8> kSeverityWords{
    "success", "informational",          "warning", "unknown", "try again",
    "fatal",   "resource not available", "unknown"};
static_assert((QEL_CERRNO_FATAL >> 29) == 5 && (QEL_CERRNO_NO_RESOURCE >> 29) == 6);

constexpr std::array<qel_cerrno_code, 6> kInfraCodes{{
    {static_cast<std::uint32_t>(InfraCode::invalid_arguments), "Invalid args"},
    {static_cast<std::uint32_t>(InfraCode::corrupt_data), "Corrupt data structure"},
    {static_cast<std::uint32_t>(InfraCode::no_heap), "Could not allocate from heap"},
    {static_cast<std::uint32_t>(InfraCode::corrupt_shared_data), "Corrupt data structure in shared memory"},
    {static_cast<std::uint32_t>(InfraCode::no_shared_memory), "Could not allocate from shared memory"},
    {static_cast<std::uint32_t>(InfraCode::lock_failed), "Could not lock or unlock mutex"},
}};
constexpr qel_cerrno_info kInfraInfo{
    "QEL Cerrno Infra", kInfraSubsystem, kInfraCodes.size(), kInfraCodes.data(), 1, 0};

constinit qel_cerrno_node qel_cerr_crt_node{QEL_CERRNO_NODE_MAGIC, nullptr, &kInfraInfo};

__attribute__((constructor)) void cerr_ctor() {
    __register_cerrno(&qel_cerr_crt_node);
}

bool is_empty(const char* text) {
    return text == nullptr || *text == '\0';
}

// The texts that stand until a table gives better ones.
void set_default_texts(qel_cerrno_thread& record, cerrno code) {
    std::snprintf(record.subsystem, sizeof record.subsystem, "Unknown Subsystem(%u)", subsystem_of(code));
    std::snprintf(record.code, sizeof record.code, "Unknown Code(%u)", code_of(code));
    record.strings = {1, kSeverityWords[code >> 29], record.subsystem, record.code, record.err};
}

void copy_map_texts_locked(qel_cerrno_thread& record, cerrno code) QEL_REQUIRES(cerr_list_mutex) {
    Owned<qel_cerrno_map_info> info{get_cerrno_info_locked(subsystem_of(code))};
    if (!info) return;
    copy_cut(record.subsystem, {info->name, strnlen(info->name, kMapNameSize)});
    if (auto row = find_row(*info, code_of(code))) copy_cut(record.code, row->text);
}

std::size_t sentence_size(const qel_cerrno_strings& texts) {
    constexpr std::size_t kWordsBetween = 50;
    return kWordsBetween + std::strlen(texts.severity) + std::strlen(texts.subsystem) +
           std::strlen(texts.code) + std::strlen(texts.err);
}

bool reserve_text(qel_cerrno_thread& record, std::size_t size) {
    if (record.capacity >= size) return true;
    qel_named_free(record.text);
    record.text = static_cast<char*>(qel_named_malloc_(size, qel_tag_e_get_string(QEL_MEM_UTILS), 0));
    record.capacity = record.text != nullptr ? static_cast<std::uint32_t>(size) : 0;
    return record.text != nullptr;
}

const char* write_sentence(qel_cerrno_thread& record, bool with_error) {
    const qel_cerrno_strings& texts = record.strings;
    if (!reserve_text(record, sentence_size(texts))) return kUndecodable;
    std::snprintf(record.text, record.capacity, "'%s' detected the '%s' condition '%s'%s%s", texts.subsystem,
                  texts.severity, texts.code, with_error ? ": " : "", with_error ? texts.err : "");
    return record.text;
}

bool is_registered(const qel_cerrno_node* node) {
    const qel_cerrno_node* at = qel_cerrno_root;
    while (at != nullptr && at != node) at = at->next;
    return at != nullptr;
}

}  // namespace
}  // namespace qel

using namespace qel;

void __register_cerrno(qel_cerrno_node* node) {
    // A node entered twice would close the list to a ring.
    if (node == nullptr || is_registered(node)) return;
    node->next = qel_cerrno_root;
    qel_cerrno_root = node;
}

cerrno qel_cerrno_validate_info(const qel_cerrno_info* info) {
    qel_check_not_interrupt_path();
    if (info == nullptr || info->subsystem >= kSubsystemCount || is_empty(info->name) || info->count == 0 ||
        info->codes == nullptr || (info->major == 0 && info->minor == 0))
        return kInvalidArguments;
    for (uint32_t i = 0; i < info->count; ++i)
        if (is_empty(info->codes[i].text)) return kInvalidArguments;
    return 0;
}

cerrno cerr_getstrings(uint32_t code, qel_cerrno_strings** out) {
    qel_check_not_interrupt_path();
    if (out == nullptr) return kInvalidArguments;
    qel_cerrno_thread* record = cerr_threadspecific();
    if (record == nullptr) return kNoHeap;
    strerror_pd(errno_of(code), record->err, sizeof record->err);
    *out = &record->strings;
    if (is_plain_errno(code)) {
        record->strings = {record->strings.decoded, nullptr, nullptr, nullptr, record->err};
        return 0;
    }
    set_default_texts(*record, code);
    if (subsystem_of(code) == 0) return kInvalidArguments;
    Locked lock{cerr_list_mutex};
    if (lock.error() != 0) return lock_failed(lock.error());
    copy_map_texts_locked(*record, code);
    return 0;
}

const char* cerr_strerror(uint32_t code) {
    qel_check_not_interrupt_path();
    qel_cerrno_thread* record = cerr_threadspecific();
    if (record == nullptr) return kUndecodable;
    int error = errno_of(code);
    if (is_plain_errno(code) || code_of(code) == 0)
        return strerror_pd(error, record->err, sizeof record->err);
    qel_cerrno_strings* texts = nullptr;
    // Whatever fails below, the default texts are a readable answer.
    static_cast<void>(cerr_getstrings(code, &texts));
    return write_sentence(*record, error != 0);
}
