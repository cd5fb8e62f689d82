// The ID pools of services, see the header.
#include "net/qel_net_pool.hpp"

#include <sched.h>

#include <cerrno>

#include "core/qel_codes.hpp"
#include "time/qel_time.hpp"

namespace qel::net {
namespace {

constexpr timespec kLongestUse{1, 0};

}  // namespace

bool PoolPlace::await_uses() const {
    if (uses_.load() == 0) return true;
    const timespec limit = add(monotonic_now(), kLongestUse);
    while (uses_.load() != 0) {
        if (order(monotonic_now(), limit) >= 0) return false;
        sched_yield();
    }
    return true;
}

void PoolPlace::destroy() {
    std::uint32_t pool = pool_.exchange(QEL_IDM_NO_POOL);
    if (pool != QEL_IDM_NO_POOL && await_uses()) qel_idm_pool_destroy(&pool);
}

cerrno HandlePool::make_locked() {
    const std::uint64_t ids = shape_.ids();
    if (ids > UINT32_MAX) return fatal(EINVAL);
    const auto size = static_cast<std::uint32_t>(ids);
    shape_.say_creating(shape_.name, size);
    std::uint32_t pool = QEL_IDM_NO_POOL;
    if (cerrno error = qel_idm_pool_create(shape_.name, size, shape_.no_randomize, &pool); error != 0)
        return shape_.failed(error);
    if (cerrno error = qel_idm_set_destructor(pool, shape_.free, nullptr); error != 0) {
        qel_idm_pool_destroy(&pool);
        return shape_.failed(error);
    }
    place_.put(pool);
    return 0;
}

void HandlePool::free_if_empty_locked() {
    std::uint32_t used = 0;
    if (place_.get() == QEL_IDM_NO_POOL || qel_idm_get_count(place_.get(), &used) != 0 || used != 0) return;
    place_.destroy();
}

cerrno HandlePool::get_id(void* object, std::uint32_t* id) {
    Locked lock{*shape_.mutex};
    if (place_.get() == QEL_IDM_NO_POOL)
        if (cerrno error = make_locked(); error != 0) return error;
    const cerrno error = qel_idm_get_id(place_.get(), object, id);
    if (error == 0) return 0;
    free_if_empty_locked();
    return shape_.failed(error);
}

void HandlePool::free_if_empty() {
    Locked lock{*shape_.mutex};
    free_if_empty_locked();
}

std::uint32_t HandlePool::count() {
    PoolPlace::Use use{place_};
    std::uint32_t count = 0;
    static_cast<void>(qel_idm_get_count(use.pool, &count));  // no pool: none
    return count;
}

std::uint32_t HandlePool::references(std::uint32_t id) {
    PoolPlace::Use use{place_};
    std::uint32_t count = 0;
    return qel_idm_get_id_refcount(use.pool, id, &count) == 0 ? count : 0;
}

cerrno HandlePool::is_withdrawn(std::uint32_t id, std::uint8_t* withdrawn) {
    PoolPlace::Use use{place_};
    return qel_idm_is_id_withdrawn(use.pool, id, withdrawn);
}

// The caller's reference keeps the pool until the release has begun to free it.
cerrno HandlePool::release(std::uint32_t id) {
    return qel_idm_release_id(place_.get(), id);
}

cerrno HandlePool::release_and_withdraw(std::uint32_t id) {
    return qel_idm_release_and_withdraw_id(place_.get(), id);
}

}  // namespace qel::net
