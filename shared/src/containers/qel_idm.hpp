// Retained<T>: an object reached through its ID, held for the length of a scope.
//
// An exported call retains its object first and locks second. Guards are destroyed in reverse, so the lock is
// free when the last release runs the pool's destructor.
#pragma once

#include <qel/idm.h>

#include <cstdint>
#include <utility>

namespace qel {

template <class T>
class Retained {
  public:
    Retained() = default;
    Retained(std::uint32_t pool, std::uint32_t id)
        : object_(static_cast<T*>(qel_idm_lookup_and_retain_id(pool, id))), pool_(pool), id_(id) {}
    Retained(Retained&& other)
        : object_(std::exchange(other.object_, nullptr)), pool_(other.pool_), id_(other.id_) {}
    Retained& operator=(Retained&&) = delete;
    // The release may run the pool's destructor and, through it, code of the application.
    ~Retained() noexcept(false) {
        // A release of a reference that this guard holds can't fail.
        if (object_ != nullptr) static_cast<void>(qel_idm_release_id(pool_, id_));
    }

    explicit operator bool() const { return object_ != nullptr; }
    T* get() const { return object_; }
    T* operator->() const { return object_; }
    T& operator*() const { return *object_; }

  private:
    T* object_ = nullptr;
    std::uint32_t pool_ = QEL_IDM_NO_POOL;
    std::uint32_t id_ = 0;
};

}  // namespace qel
