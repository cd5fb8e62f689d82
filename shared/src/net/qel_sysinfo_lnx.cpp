// System information on Linux: there is no layer that would fill records.
#include <cerrno>

#include "net/qel_sysinfo.hpp"

namespace qel::sysinfo {

int sysinfo_get_total_system_memory_od(void*, void*) {
    return EOPNOTSUPP;
}
int sysinfo_get_free_system_memory_od(void*, void*) {
    return EOPNOTSUPP;
}
int sysinfo_get_system_cpu_utilization_od(void*, std::uint32_t, void*, void*) {
    return EOPNOTSUPP;
}
int sysinfo_get_process_list_od(void*, std::uint32_t, void*, void*) {
    return EOPNOTSUPP;
}
int sysinfo_cleanup_process_list_od(void*) {
    return EOPNOTSUPP;
}
int sysinfo_get_fru_list_od(void*, void*) {
    return EOPNOTSUPP;
}
int sysinfo_cleanup_fru_list_od(void*) {
    return EOPNOTSUPP;
}

}  // namespace qel::sysinfo
