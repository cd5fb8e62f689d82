// Shims and clients of the tests' own.
#pragma once

#include <qel/qel.h>

#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "support/support.hpp"

namespace qel_test {

using Info = qel_if_shim_info;

constexpr cerrno kInvalid = 0xa0000016, kNotThere = 0xa0000002, kUnsupported = 0xa000005f, kDown = 0xa000000e,
                 kUnmarked = 0xa000004a, kNotYet = 0x4000000b;

inline std::uint32_t code(std::uint32_t index) {
    return QEL_IF_ATTR_BASE + index;
}
inline std::uint64_t handle_of(std::uint32_t shim, std::uint64_t number) {
    return std::uint64_t{shim} << 61 | number;
}

// A shim with interfaces as a test sets them up. What it was asked is written down in order.
class FakeShim {
  public:
    explicit FakeShim(std::uint32_t id, bool register_it = true) : id_(id) {
        shims()[id] = this;
        qel_if_shim_registration_init(&registration);
        registration.id = id;
        registration.name = "fake";
        qel_if_shim_handlers& handlers = registration.handlers;
        handlers.bind = [](const Info* info) { return of(info).note("bind", of(info).bind_result); };
        handlers.destroy = [](const Info* info) { return of(info).note("destroy", 0); };
        handlers.get_attr = [](const Info* info, std::uint64_t ifh, std::uint32_t attr,
                               qel_if_attr_data* data) {
            return of(info).read(ifh, attr - QEL_IF_ATTR_BASE, *data);
        };
        handlers.register_callbacks = [](const Info* info, const qel_if_shim_reg* reg) {
            {
                std::lock_guard lock{of(info).mutex_};
                of(info).last_reg = *reg;
            }
            return of(info).note("register", of(info).register_result);
        };
        handlers.deregister_callbacks = [](const Info* info, const qel_if_shim_reg*) {
            return of(info).note("deregister", 0);
        };
        handlers.get_handle = [](const Info*, const char* name, std::uint64_t* ifh) {
            *ifh = std::strlen(name);
            return cerrno{0};
        };
        handlers.has_property = [](const Info* info, std::uint64_t ifh, std::uint32_t property,
                                   std::uint8_t* has) {
            auto found = of(info).properties.find({ifh, property});
            if (found == of(info).properties.end()) return kUnsupported;
            *has = 1;
            return found->second;
        };
        if (register_it) enroll();
    }
    FakeShim(const FakeShim&) = delete;
    FakeShim& operator=(const FakeShim&) = delete;
    ~FakeShim() {
        qel_if_shim_deregister(id_);
        shims()[id_] = nullptr;
    }
    void enroll() { EXPECT_EQ(qel_if_shim_register(&registration), 0u); }

    template <class Value>
    void set(std::uint64_t ifh, std::uint32_t index, const Value& value) {
        const char* bytes = reinterpret_cast<const char*>(&value);
        values[{ifh, index}] = std::string{bytes, sizeof(value)};
    }
    void set_word(std::uint64_t ifh, std::uint32_t index, std::uint32_t value) { set(ifh, index, value); }
    // An Ethernet interface that is up.
    void add_ethernet(std::uint64_t ifh) {
        set_word(ifh, QEL_IF_ATTR_IF_TYPE, QEL_IF_TYPE_ETHERNET);
        set_word(ifh, QEL_IF_ATTR_IF_ENCAP, QEL_IF_ENCAP_ETHER);
        set_word(ifh, QEL_IF_ATTR_OPER_STATE, QEL_IF_OPER_UP);
        set_word(ifh, QEL_IF_ATTR_SPEED, 1000);
        set_word(ifh, QEL_IF_ATTR_SPEED_MAX, 2500);
    }
    std::string take_log() {
        std::lock_guard lock{mutex_};
        return std::exchange(log_, {});
    }
    cerrno note(const std::string& what, cerrno result) {
        std::lock_guard lock{mutex_};
        log_ += what + std::to_string(id_) + " ";
        return result;
    }
    static FakeShim& of(const Info* info) { return *shims()[info->shim_id]; }

    qel_if_shim_registration registration;
    cerrno bind_result = 0, register_result = 0;
    qel_if_shim_reg last_reg{};
    std::map<std::pair<std::uint64_t, std::uint32_t>, std::string> values;
    std::map<std::pair<std::uint64_t, std::uint32_t>, cerrno> errors, properties;

  private:
    static FakeShim** shims() {
        static FakeShim* all[QEL_IF_SHIM_SLOTS]{};
        return all;
    }
    cerrno read(std::uint64_t ifh, std::uint32_t index, qel_if_attr_data& data) {
        note(std::to_string(index) + "@", 0);
        if (auto error = errors.find({ifh, index}); error != errors.end()) return error->second;
        auto value = values.find({ifh, index});
        if (value == values.end()) return kUnsupported;
        EXPECT_EQ(data.size, value->second.size());
        std::memcpy(data.value, value->second.data(), value->second.size());
        return 0;
    }

    std::uint32_t id_;
    std::mutex mutex_;
    std::string log_;
};

// A client, with a dispatcher of its own if it is to have one.
class IfClient {
  public:
    explicit IfClient(bool with_dispatcher = false,
                      std::uint32_t options = QEL_IF_OPTION_BIND_ALLOW_DELETED) {
        if (with_dispatcher) {
            EXPECT_EQ(qel_dm_create(&dm, "client", QEL_DM_PRIVATE), 0);
        }
        qel_if_bind_attr attr;
        EXPECT_EQ(qel_if_bind_attr_init(&attr), 0u);
        attr.scope = &scope;
        attr.qdm = dm;
        attr.options = options;
        bind_result = qel_if_bind(&app, "test", &attr);
    }
    IfClient(const IfClient&) = delete;
    IfClient& operator=(const IfClient&) = delete;
    ~IfClient() {
        if (app != 0) {
            EXPECT_EQ(qel_if_destroy(&app), 0u);
        }
        if (dm != 0) qel_dm_destroy(&dm);
    }
    // Runs all that waits for the dispatcher up to now.
    void dispatch_all() const {
        bool last = false;
        auto end = [](qel_dm_handle, std::uint64_t flag, std::uint64_t) {
            *reinterpret_cast<bool*>(flag) = true;
        };
        EXPECT_EQ(qel_dm_execute(dm, end, reinterpret_cast<std::uint64_t>(&last), 0), 0);
        while (!last && qel_dm_wait(dm) == 0) qel_dm_dispatch(dm);
    }
    // The same until 'condition' holds.
    bool dispatch_until(const std::function<bool()>& condition) const {
        return eventually([&] {
            dispatch_all();
            return condition();
        });
    }

    std::uint32_t app = 0, scope = 5;
    qel_dm_handle dm = 0;
    cerrno bind_result = 0;
};

}  // namespace qel_test
