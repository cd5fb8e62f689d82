// Retained<T>: an object reached through its ID, held for the length of a scope.
//
// An exported call retains its object first and locks second. Guards are destroyed in reverse, so the lock is
// free when the last release runs the pool's destructor.
//
// A guard keeps the place that the ID led to, so letting go resolves nothing: while a reference is held, the
// entry stays in its life and its block in the pool. That the pool isn't destroyed meanwhile is the family's
// to see to, which owns it.
#pragma once

#include <cstdint>
#include <utility>

#include "containers/qel_idm_pool.hpp"

namespace qel {

namespace idm {

// One reference to the object of an entry, or none.
struct Held {
    Pool* pool = nullptr;
    Entry* entry = nullptr;
};

// As qel_idm_lookup_and_retain_id().
Held retain(std::uint32_t pool, std::uint32_t id);
// As qel_idm_lookup_and_retain_any_id().
Held retain_any(std::uint32_t pool, std::uint32_t id);
// As qel_idm_lookup_next_and_retain().
Held retain_next(std::uint32_t pool, std::uint32_t previous_id, std::uint32_t* next_id);

// The rest of a release that took the last reference: queues the entry and runs the pool's destructor.
void end_life(Pool& pool, Entry& entry);

inline void let_go(const Held& held) {
    std::uint64_t word = held.entry->state.load(std::memory_order_relaxed);
    std::uint64_t next = 0;
    do {
        next = held.pool->marks.after_release(word);
    } while (!held.entry->state.compare_exchange_weak(word, next,
                                                      std::memory_order_acq_rel,  // R4, A4
                                                      std::memory_order_relaxed));
    if (is_last_reference(word)) [[unlikely]]
        end_life(*held.pool, *held.entry);
}

}  // namespace idm

template <class T>
class Retained {
  public:
    Retained() = default;
    Retained(std::uint32_t pool, std::uint32_t id) : Retained(idm::retain(pool, id)) {}
    explicit Retained(const idm::Held& held) : held_(held) {
        if (held_.entry != nullptr) object_ = static_cast<T*>(held_.entry->ctx);
    }
    Retained(Retained&& other) : object_(std::exchange(other.object_, nullptr)), held_(other.held_) {}
    Retained& operator=(Retained&&) = delete;
    // The release may run the pool's destructor and, through it, code of the application.
    ~Retained() noexcept(false) {
        if (object_ != nullptr) idm::let_go(held_);
    }

    explicit operator bool() const { return object_ != nullptr; }
    T* get() const { return object_; }
    T* operator->() const { return object_; }
    T& operator*() const { return *object_; }
    // Leaves the reference to the caller.
    T* release() { return std::exchange(object_, nullptr); }

  private:
    T* object_ = nullptr;
    idm::Held held_;
};

}  // namespace qel
