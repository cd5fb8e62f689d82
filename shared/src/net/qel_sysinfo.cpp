// System information: calls that go to the platform's layer, and accessors of the records that it fills.
//
// Locks: none. Threads: any.
#include "net/qel_sysinfo.hpp"

#include <qel/sysinfo.h>

#include <cerrno>
#include <cstddef>
#include <type_traits>

using namespace qel::sysinfo;

namespace {

using Process = qel_sysinfo_process;
using Fru = qel_sysinfo_fru;

static_assert(sizeof(Process) == 360 && offsetof(Process, magic) == 32);
static_assert(offsetof(Process, cpu_utilization) == 40 && offsetof(Process, name) == 104);
static_assert(sizeof(Fru) == 1232 && offsetof(Fru, part_no) == 1024 && offsetof(Fru, product_id) == 1152);
static_assert(offsetof(Fru, slot) == 1216 && offsetof(Fru, magic) == 1224);

constexpr std::uint32_t magic_of(const Process*) {
    return QEL_SYSINFO_PROCESS_MAGIC;
}
constexpr std::uint32_t magic_of(const Fru*) {
    return QEL_SYSINFO_FRU_MAGIC;
}

// Gives a field's value, or of an array its address.
template <auto Field, class Record, class Out>
int get(const Record* record, Out* out) {
    if (record == nullptr || record->magic != magic_of(record) || out == nullptr) return EINVAL;
    *out = record->*Field;
    return 0;
}

}  // namespace

int qel_sysinfo_get_total_system_memory(void* request, void* memory) {
    return sysinfo_get_total_system_memory_od(request, memory);
}
int qel_sysinfo_get_free_system_memory(void* request, void* memory) {
    return sysinfo_get_free_system_memory_od(request, memory);
}
int qel_sysinfo_get_system_cpu_utilization(void* request, uint32_t interval, void* utilization, void* count) {
    return sysinfo_get_system_cpu_utilization_od(request, interval, utilization, count);
}
int qel_sysinfo_get_process_list(void* request, uint32_t node, void* list, void* count) {
    return sysinfo_get_process_list_od(request, node, list, count);
}
int qel_sysinfo_cleanup_process_list(void* list) {
    return sysinfo_cleanup_process_list_od(list);
}
int qel_sysinfo_get_fru_list(void* list, void* count) {
    return sysinfo_get_fru_list_od(list, count);
}
int qel_sysinfo_cleanup_fru_list(void* list) {
    return sysinfo_cleanup_fru_list_od(list);
}
int qel_sysinfo_get_compute_node_list(void*, void*) {
    return EOPNOTSUPP;
}
int qel_sysinfo_cleanup_compute_node_list(void*) {
    return EOPNOTSUPP;
}

int qel_sysinfo_get_process_id(const qel_sysinfo_process* process, uint64_t* id) {
    return get<&Process::id>(process, id);
}
int qel_sysinfo_get_process_freed_memory(const qel_sysinfo_process* process, uint64_t* memory) {
    return get<&Process::freed_memory>(process, memory);
}
int qel_sysinfo_get_process_used_memory(const qel_sysinfo_process* process, uint64_t* memory) {
    return get<&Process::used_memory>(process, memory);
}
int qel_sysinfo_get_process_allocated_memory(const qel_sysinfo_process* process, uint64_t* memory) {
    return get<&Process::allocated_memory>(process, memory);
}
int qel_sysinfo_get_process_cpu_utilization(const qel_sysinfo_process* process, const void** utilization) {
    return get<&Process::cpu_utilization>(process, utilization);
}
int qel_sysinfo_get_process_name(const qel_sysinfo_process* process, const char** name) {
    return get<&Process::name>(process, name);
}

int qel_sysinfo_get_fru_alarm_type(const qel_sysinfo_fru* fru, const void** alarm_type) {
    return get<&Fru::alarm_type>(fru, alarm_type);
}
int qel_sysinfo_get_fru_fw_version(const qel_sysinfo_fru* fru, const char** version) {
    return get<&Fru::fw_version>(fru, version);
}
int qel_sysinfo_get_fru_sw_version(const qel_sysinfo_fru* fru, const char** version) {
    return get<&Fru::sw_version>(fru, version);
}
int qel_sysinfo_get_fru_hw_version(const qel_sysinfo_fru* fru, const char** version) {
    return get<&Fru::hw_version>(fru, version);
}
int qel_sysinfo_get_fru_part_no(const qel_sysinfo_fru* fru, const char** part_no) {
    return get<&Fru::part_no>(fru, part_no);
}
int qel_sysinfo_get_fru_serial_no(const qel_sysinfo_fru* fru, const char** serial_no) {
    return get<&Fru::serial_no>(fru, serial_no);
}
int qel_sysinfo_get_fru_product_id(const qel_sysinfo_fru* fru, const char** product_id) {
    return get<&Fru::product_id>(fru, product_id);
}
int qel_sysinfo_get_fru_slot(const qel_sysinfo_fru* fru, uint64_t* slot) {
    return get<&Fru::slot>(fru, slot);
}
