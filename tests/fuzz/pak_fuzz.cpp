// Any operations on a packet, beside what it should be.
#include "fuzz/fuzz_support.hpp"
#include "net/pak_model.hpp"

using namespace qel_fuzz;

int LLVMFuzzerInitialize(int*, char***) {
    use_own_shm();
    return 0;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input{data, size};
    auto dice = [&input](std::size_t n) { return input.ConsumeIntegralInRange<std::size_t>(0, n - 1); };
    qel_test::PakModel model{dice};
    while (input.remaining_bytes() != 0) require(model.step());
    return 0;
}
