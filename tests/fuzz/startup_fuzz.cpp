// Lines of a start-up file: whatever they hold, a setting's texts lie in its line.
#include "core/qel_ppm_file.hpp"
#include "fuzz/fuzz_support.hpp"

using namespace qel_fuzz;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    qel::StartupFile file{fmemopen(const_cast<std::uint8_t*>(data), size, "r")};
    if (!file) return 0;
    qel::StartupReader reader{"section"};
    char line[qel::kStartupLineSize];
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        const auto setting = reader.read(line);
        if (!setting) continue;
        auto in_line = [&](const char* text) {
            return text >= line && text < line + sizeof line && std::memchr(text, 0, sizeof line) != nullptr;
        };
        require(in_line(setting->key) && *setting->key != '\0');
        require(setting->text == nullptr || in_line(setting->text));
    }
    return 0;
}
