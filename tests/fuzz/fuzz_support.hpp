// What fuzz targets share: an input taken to pieces, and shared memory of the program's own.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include <fuzzer/FuzzedDataProvider.h>

#include <qel/ppm.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace qel_fuzz {

// Ends the program with what the fuzzer takes for a finding.
inline void require(bool condition) {
    if (!condition) std::abort();
}

inline const std::string& shm_prefix() {
    static const std::string prefix = "qt" + std::to_string(getpid()) + ".";
    return prefix;
}

inline void remove_shm_objects() {
    namespace fs = std::filesystem;
    for (const auto& entry : fs::directory_iterator("/dev/shm"))
        if (entry.path().filename().string().starts_with(shm_prefix())) fs::remove(entry.path());
}

// To be called first: puts the program's segments under a prefix that no other has, until it ends.
inline void use_own_shm() {
    qel_ppm_set_string("qel.shm.root", ("/" + shm_prefix()).c_str());
    std::atexit(remove_shm_objects);
}

}  // namespace qel_fuzz
