// What the tests of dumps share: the texts that a dump gives, collected.
#pragma once

#include "trace/trace_support.hpp"

#include <qel/dt_dump.h>

namespace qel_test {

using Texts = std::vector<std::string>;

inline void collect(const char* text, size_t length, void* context) {
    static_cast<Texts*>(context)->emplace_back(text, length);
}

inline void collect_entry(const qel_dt_entry_info* info, const char* text, size_t length, void* context) {
    const std::string from = info->lost != 0 ? "" : std::string(info->buffer_name) + ": ";
    static_cast<Texts*>(context)->push_back(from + std::string(text, length));
}

// The messages of a buffer, without the prefix.
inline Texts messages(const std::string& name, bool copy = true) {
    Texts texts;
    qel_dt_dump_handle dump = nullptr;
    const qel_dt_dump_config config{
        QEL_DT_DUMP_ENTRY,
        reinterpret_cast<void (*)()>(+[](const qel_dt_entry_info*, const char* text, size_t length,
                                         void* context) { collect(text, length, context); })};
    EXPECT_EQ(qel_dt_init_buffer_dump_handle(name.c_str(), copy, config, &dump), 0);
    const int given = qel_dt_dump_buffer(dump, nullptr, &texts);
    EXPECT_EQ(given, static_cast<int>(texts.size()));
    qel_dt_destroy_buffer_dump_handle(dump);
    return texts;
}

// A merged dump of type 2 for the length of a test, and the texts that it gave.
class Merged {
  public:
    explicit Merged(std::vector<const char*> names, qel_dt_dump_limits limits = {0, 1}) {
        EXPECT_EQ(qel_dt_buffer_mst_init_pfx(names.data(), static_cast<int>(names.size()), &limits,
                                             collect_entry, &texts_, &handle_),
                  0);
    }
    Merged(const Merged&) = delete;
    ~Merged() { EXPECT_EQ(qel_dt_buffer_mst_destroy(handle_), 0); }
    Texts take() { return std::exchange(texts_, {}); }
    int read() { return qel_dt_buffer_mst_next(handle_); }
    Texts next() {
        EXPECT_EQ(read(), 0);
        return take();
    }

  private:
    qel_dt_mst_handle handle_ = nullptr;
    Texts texts_;
};

}  // namespace qel_test
