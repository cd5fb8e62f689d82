// The parameter set: a dictionary per process from text keys to integers and short strings.
//
// The records hang in one hash set, made by the first store; a process that stores nothing allocates nothing.
// The first call reads the start-up file into the set.
//
// Invariant: a record's key is filled with NULs to its end, so that hash and comparison see equal bytes for
// equal keys; a string value always ends in NUL.
// Locks: the set's mutex is a leaf. Under it run the hash set, named memory and the reading of the file:
// nothing that reports, traces or asks for a parameter.
// Threads: any. A string is handed out by its address in the record, so it is written only for another value.
// Restart: nothing remains but the file.
#include <qel/base.h>
#include <qel/hash.h>
#include <qel/mem.h>
#include <qel/ppm.h>

#include <cerrno>
#include <cstring>

#include "core/qel_lock.hpp"
#include "core/qel_owned.hpp"
#include "core/qel_ppm_file.hpp"

namespace qel {
namespace {

constexpr std::size_t kKeySize = 63;
constexpr std::size_t kTextSize = 32;

struct Parameter {
    qel_hash_link link;
    char key[kKeySize];
    std::uint8_t is_string;
    union {
        std::uint32_t number;
        char text[kTextSize];
    };
};

// The dictionary. Each call on it but clear_locked() finds the start-up file read.
class Parameters {
  public:
    Parameter* find_locked(const char* key) QEL_REQUIRES(mutex);
    int store_integer_locked(const char* key, std::uint32_t value) QEL_REQUIRES(mutex);
    int store_string_locked(const char* key, const char* value) QEL_REQUIRES(mutex);
    void remove_locked(const char* key) QEL_REQUIRES(mutex);
    void clear_locked() QEL_REQUIRES(mutex);

    Mutex mutex;

  private:
    void load_once_locked() QEL_REQUIRES(mutex);
    int apply_locked(const StartupSetting& setting) QEL_REQUIRES(mutex);
    Parameter* find_or_add_locked(const char* key) QEL_REQUIRES(mutex);
    Parameter* add_locked(const char* key) QEL_REQUIRES(mutex);

    qel_hashset* set_ QEL_GUARDED_BY(mutex) = nullptr;
    bool loaded_ QEL_GUARDED_BY(mutex) = false;
};

constinit Parameters parameters;

// Copies what fits of 'text' and fills the rest with NULs.
template <std::size_t N>
void fill(char (&field)[N], const char* text) {
    std::size_t length = strnlen(text, N - 1);
    std::memcpy(field, text, length);
    std::memset(field + length, 0, N - length);
}

std::uint32_t hash_parameter(const void* element, void*) {
    return qel_hash_calculate(static_cast<const Parameter*>(element)->key, kKeySize);
}

bool match_parameter(const void* probe, const void* element, void*) {
    return std::strncmp(static_cast<const Parameter*>(probe)->key,
                        static_cast<const Parameter*>(element)->key, kKeySize) == 0;
}

}  // namespace
}  // namespace qel

using namespace qel;

int qel_ppm_get_integer(const char* key, uint32_t fallback, uint32_t* out) {
    qel_check_not_interrupt_path();
    if (key == nullptr || out == nullptr) return EINVAL;
    Locked lock{parameters.mutex};
    const Parameter* found = parameters.find_locked(key);
    *out = found != nullptr && !found->is_string ? found->number : fallback;
    return 0;
}

int qel_ppm_get_string(const char* key, const char* fallback, const char** out) {
    qel_check_not_interrupt_path();
    if (key == nullptr || out == nullptr) return EINVAL;
    Locked lock{parameters.mutex};
    const Parameter* found = parameters.find_locked(key);
    *out = found != nullptr && found->is_string ? found->text : fallback;
    return 0;
}

int qel_ppm_set_integer(const char* key, uint32_t value) {
    qel_check_not_interrupt_path();
    if (key == nullptr) return EINVAL;
    Locked lock{parameters.mutex};
    return parameters.store_integer_locked(key, value);
}

int qel_ppm_set_string(const char* key, const char* value) {
    qel_check_not_interrupt_path();
    if (key == nullptr || value == nullptr) return EINVAL;
    Locked lock{parameters.mutex};
    return parameters.store_string_locked(key, value);
}

void qel_ppm_remove(const char* key) {
    qel_check_not_interrupt_path();
    if (key == nullptr) return;
    Locked lock{parameters.mutex};
    parameters.remove_locked(key);
}

void qel_ppm_destroy(void) {
    qel_check_not_interrupt_path();
    Locked lock{parameters.mutex};
    parameters.clear_locked();
}

namespace qel {
namespace {

Parameter* Parameters::find_locked(const char* key) {
    load_once_locked();
    if (set_ == nullptr) return nullptr;
    Parameter probe;
    fill(probe.key, key);
    return static_cast<Parameter*>(qel_hashset_get(set_, &probe));
}

int Parameters::store_integer_locked(const char* key, std::uint32_t value) {
    Parameter* parameter = find_or_add_locked(key);
    if (parameter == nullptr) return ENOMEM;
    parameter->is_string = 0;
    parameter->number = value;
    return 0;
}

int Parameters::store_string_locked(const char* key, const char* value) {
    Parameter* parameter = find_or_add_locked(key);
    if (parameter == nullptr) return ENOMEM;
    char text[kTextSize];
    fill(text, value);
    // Readers may hold the text that is there: an equal one isn't written again.
    if (parameter->is_string && std::strcmp(parameter->text, text) == 0) return 0;
    parameter->is_string = 1;
    std::memcpy(parameter->text, text, sizeof text);
    return 0;
}

void Parameters::remove_locked(const char* key) {
    Owned<Parameter> parameter{find_locked(key)};
    if (parameter) qel_hashset_remove(set_, parameter.get());
}

void Parameters::clear_locked() {
    if (set_ == nullptr) return;
    for (void* element = qel_hashset_first(set_); element != nullptr;) {
        // The set is freed next and looks at no element again, so none is taken out of it.
        void* following = qel_hashset_next(set_, element);
        qel_named_free(element);
        element = following;
    }
    qel_hashset_free(&set_);
}

void Parameters::load_once_locked() {
    if (loaded_) return;
    loaded_ = true;  // Now, because the settings are stored through calls that load first.
    StartupFile file = open_startup_file();
    if (!file) return;
    StartupReader reader{startup_section()};
    char line[kStartupLineSize];
    while (std::fgets(line, sizeof line, file.get()) != nullptr) {
        // A setting for which there is no memory is as if its line weren't there: nobody asked for it yet.
        if (auto setting = reader.read(line)) static_cast<void>(apply_locked(*setting));
    }
}

int Parameters::apply_locked(const StartupSetting& setting) {
    return setting.text != nullptr ? store_string_locked(setting.key, setting.text)
                                   : store_integer_locked(setting.key, setting.number);
}

Parameter* Parameters::find_or_add_locked(const char* key) {
    Parameter* found = find_locked(key);
    return found != nullptr ? found : add_locked(key);
}

Parameter* Parameters::add_locked(const char* key) {
    Owned<Parameter> parameter = allocate_zeroed<Parameter>(QEL_MEM_UTILS);
    if (!parameter) return nullptr;
    if (set_ == nullptr && qel_hashset_create(&set_, nullptr, offsetof(Parameter, link), hash_parameter,
                                              match_parameter, nullptr) != 0)
        return nullptr;
    fill(parameter->key, key);
    qel_hashset_insert(set_, parameter.get());
    return parameter.release();
}

}  // namespace
}  // namespace qel
