// The ID pools of services, see the header.
#include "net/qel_net_pool.hpp"

#include <sched.h>

#include <cerrno>

#include "core/qel_codes.hpp"

namespace qel::net {

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
    pool_.store(pool);
    return 0;
}

void HandlePool::free_if_empty_locked() {
    std::uint32_t pool = pool_.load();
    std::uint32_t used = 0;
    if (pool == QEL_IDM_NO_POOL || qel_idm_get_count(pool, &used) != 0 || used != 0) return;
    pool_.store(QEL_IDM_NO_POOL);
    while (lookups_.load() != 0) sched_yield();
    qel_idm_pool_destroy(&pool);
}

cerrno HandlePool::get_id(void* object, std::uint32_t* id) {
    Locked lock{*shape_.mutex};
    if (pool_.load() == QEL_IDM_NO_POOL)
        if (cerrno error = make_locked(); error != 0) return error;
    const cerrno error = qel_idm_get_id(pool_.load(), object, id);
    if (error == 0) return 0;
    free_if_empty_locked();
    return shape_.failed(error);
}

void HandlePool::free_if_empty() {
    Locked lock{*shape_.mutex};
    free_if_empty_locked();
}

std::uint32_t HandlePool::count() {
    Lookup lookup{*this};
    std::uint32_t count = 0;
    static_cast<void>(qel_idm_get_count(lookup.pool, &count));  // no pool: none
    return count;
}

std::uint32_t HandlePool::references(std::uint32_t id) {
    Lookup lookup{*this};
    std::uint32_t count = 0;
    return qel_idm_get_id_refcount(lookup.pool, id, &count) == 0 ? count : 0;
}

cerrno HandlePool::is_withdrawn(std::uint32_t id, std::uint8_t* withdrawn) {
    Lookup lookup{*this};
    return qel_idm_is_id_withdrawn(lookup.pool, id, withdrawn);
}

// The caller's reference keeps the pool until the release has begun to free it.
cerrno HandlePool::release(std::uint32_t id) {
    return qel_idm_release_id(pool_.load(), id);
}

cerrno HandlePool::release_and_withdraw(std::uint32_t id) {
    return qel_idm_release_and_withdraw_id(pool_.load(), id);
}

}  // namespace qel::net
