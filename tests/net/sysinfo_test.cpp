// System information: nothing to ask on Linux, and records that are read.
#include "support/support.hpp"

#include <qel/sysinfo.h>

#include <cerrno>

namespace {

TEST(Sysinfo, the_platform_has_nothing) {
    int word = 0;
    for (void* any : {static_cast<void*>(nullptr), static_cast<void*>(&word)}) {
        EXPECT_EQ(qel_sysinfo_get_total_system_memory(any, any), 95);
        EXPECT_EQ(qel_sysinfo_get_free_system_memory(any, any), 95);
        EXPECT_EQ(qel_sysinfo_get_system_cpu_utilization(any, 1, any, any), 95);
        EXPECT_EQ(qel_sysinfo_get_process_list(any, 1, any, any), 95);
        EXPECT_EQ(qel_sysinfo_cleanup_process_list(any), 95);
        EXPECT_EQ(qel_sysinfo_get_fru_list(any, any), 95);
        EXPECT_EQ(qel_sysinfo_cleanup_fru_list(any), 95);
        EXPECT_EQ(qel_sysinfo_get_compute_node_list(any, any), 95);
        EXPECT_EQ(qel_sysinfo_cleanup_compute_node_list(any), 95);
    }
}

// Reads with 'get' from a good record, and from those that aren't.
template <class Record, class Out>
Out read(const Record& record, int (*get)(const Record*, Out*)) {
    const Out untouched{};
    Out out{};
    Record unmarked = record;
    unmarked.magic ^= 1;
    EXPECT_EQ(get(nullptr, &out), EINVAL);
    EXPECT_EQ(get(&unmarked, &out), EINVAL);
    EXPECT_EQ(get(&record, nullptr), EINVAL);
    EXPECT_EQ(out, untouched);
    EXPECT_EQ(get(&record, &out), 0);
    return out;
}

TEST(Sysinfo, accessors_give_values_or_addresses_in_the_record) {
    const qel_sysinfo_process process{1, 2, 3, 4, 0xC205920C, 0, {5}, "init"};
    EXPECT_EQ(read(process, qel_sysinfo_get_process_id), 1u);
    EXPECT_EQ(read(process, qel_sysinfo_get_process_freed_memory), 2u);
    EXPECT_EQ(read(process, qel_sysinfo_get_process_used_memory), 3u);
    EXPECT_EQ(read(process, qel_sysinfo_get_process_allocated_memory), 4u);
    EXPECT_EQ(read(process, qel_sysinfo_get_process_cpu_utilization), process.cpu_utilization);
    EXPECT_EQ(read(process, qel_sysinfo_get_process_name), process.name);
    const qel_sysinfo_fru fru{{1}, "fw", "sw", "hw", "part", "serial", "product", 9, 0xC2050F20, 0};
    EXPECT_EQ(read(fru, qel_sysinfo_get_fru_alarm_type), fru.alarm_type);
    EXPECT_EQ(read(fru, qel_sysinfo_get_fru_fw_version), fru.fw_version);
    EXPECT_EQ(read(fru, qel_sysinfo_get_fru_sw_version), fru.sw_version);
    EXPECT_EQ(read(fru, qel_sysinfo_get_fru_hw_version), fru.hw_version);
    EXPECT_EQ(read(fru, qel_sysinfo_get_fru_part_no), fru.part_no);
    EXPECT_EQ(read(fru, qel_sysinfo_get_fru_serial_no), fru.serial_no);
    EXPECT_EQ(read(fru, qel_sysinfo_get_fru_product_id), fru.product_id);
    EXPECT_EQ(read(fru, qel_sysinfo_get_fru_slot), 9u);
}

}  // namespace
