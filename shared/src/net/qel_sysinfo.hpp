// The platform's layer of the system information: what the calls of the same names in qel/sysinfo.h hand all
// their arguments to. Results are errno values.
#pragma once

#include <cstdint>

namespace qel::sysinfo {

int sysinfo_get_total_system_memory_od(void* request, void* memory);
int sysinfo_get_free_system_memory_od(void* request, void* memory);
int sysinfo_get_system_cpu_utilization_od(void* request, std::uint32_t interval, void* utilization,
                                          void* count);
int sysinfo_get_process_list_od(void* request, std::uint32_t node, void* list, void* count);
int sysinfo_cleanup_process_list_od(void* list);
int sysinfo_get_fru_list_od(void* list, void* count);
int sysinfo_cleanup_fru_list_od(void* list);

}  // namespace qel::sysinfo
