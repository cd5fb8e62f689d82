// A family's ID pool, made when the family is first used.
//
//     constinit FamilyPool wheels{{"timer wheels", nullptr, 65536, free_wheel}};
//     if (!wheels.make()) return ENOMEM;
//     qel_idm_get_id(wheels.handle(), wheel, &wheel->id);
//     Retained<Wheel> wheel = wheels.retain<Wheel>(id);
//
// A number of such a pool is also what a family hands to a dispatcher in place of a pointer: an event in
// flight then finds its object, and holds it while it works, or finds nothing.
#pragma once

#include <qel/idm.h>

#include <atomic>
#include <cstdint>

#include "containers/qel_idm.hpp"

namespace qel {

class FamilyPool {
  public:
    struct Shape {
        const char* name;
        const char* size_key;  // the parameter that overrides 'max_ids', or null
        std::uint32_t max_ids;
        void (*free)(void* object);  // called with the object when its last reference has gone; or null
    };

    explicit constexpr FamilyPool(const Shape& shape) : shape_(shape) {}

    // Makes the pool unless it is there. False when memory is short.
    bool make() { return handle() != QEL_IDM_NO_POOL || make_now(); }
    std::uint32_t handle() const { return handle_.load(std::memory_order_acquire); }

    // The object of an ID, or nothing for one that is stale, foreign or withdrawn.
    template <class T>
    Retained<T> retain(std::uint64_t id) const {
        if (id > UINT32_MAX) return {};
        return Retained<T>{idm::retain(handle(), static_cast<std::uint32_t>(id))};
    }
    // The same, but a withdrawn one is found, too.
    template <class T>
    Retained<T> retain_any(std::uint64_t id) const {
        if (id > UINT32_MAX) return {};
        return Retained<T>{idm::retain_any(handle(), static_cast<std::uint32_t>(id))};
    }

    // Drops one reference; the last one frees the object.
    void release(std::uint32_t id) { static_cast<void>(qel_idm_release_id(handle(), id)); }

  private:
    bool make_now();

    Shape shape_;
    std::atomic<std::uint32_t> handle_{QEL_IDM_NO_POOL};
};

}  // namespace qel
