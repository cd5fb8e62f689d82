// The start-up parameter file: where it is, and what its lines mean. Used by the parameter set alone.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>

#include "core/qel_owned.hpp"

namespace qel {

inline void close_startup_file(std::FILE* file) {
    // The file was only read; what close() says changes nothing.
    static_cast<void>(std::fclose(file));
}
using StartupFile = Unique<std::FILE*, close_startup_file>;

// The file open for reading, or nothing. Never blocks: what isn't a regular file is refused.
StartupFile open_startup_file();
// The name of the section that is for this process, empty when it has none.
const char* startup_section();

// A line is read in pieces of at most this size, its NUL included.
inline constexpr int kStartupLineSize = 128;

// What one line sets. The texts lie in the line.
struct StartupSetting {
    const char* key;
    const char* text;      // Null for an integer.
    std::uint32_t number;  // For an integer.
};

// Reads the lines of a file in their order; 'section' must outlive it.
class StartupReader {
  public:
    explicit StartupReader(const char* section) : section_(section) {}

    // What 'line' sets in this process, or nothing. The line is cut up in place.
    std::optional<StartupSetting> read(char* line);

  private:
    void enter_section(char* name);

    const char* section_;
    bool in_section_ = true;
};

}  // namespace qel
