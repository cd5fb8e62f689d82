// The ID pools of the interface service, see the header.
#include "net/qel_if_pool.hpp"

#include <qel/ppm.h>

#include <sched.h>

#include "net/qel_if.hpp"

namespace qel::interfaces {

constinit Mutex if_gbl_mutex;

namespace {

constexpr char kMaxBind[] = "qel.if.max.bind";
constexpr std::uint32_t kDefaultMaxBind = 16;

std::uint32_t max_binds() {
    std::uint32_t binds = kDefaultMaxBind;
    static_cast<void>(qel_ppm_get_integer(kMaxBind, kDefaultMaxBind, &binds));  // then it is the default
    return binds;
}

}  // namespace

cerrno IfPool::make_locked() {
    const std::uint64_t ids = std::uint64_t{max_binds()} * shape_.ids_per_bind;
    if (ids > UINT32_MAX) return fatal(EINVAL);
    const auto size = static_cast<std::uint32_t>(ids);
    if_event<"IFEVENT001", "%s: Creating ID pool '%s' of size %d">(shape_.name, size);
    std::uint32_t pool = QEL_IDM_NO_POOL;
    if (cerrno error = qel_idm_pool_create(shape_.name, size, shape_.no_randomize, &pool); error != 0)
        return unexpected_code<"IFERROR001">(error);
    if (cerrno error = qel_idm_set_destructor(pool, shape_.free, nullptr); error != 0) {
        qel_idm_pool_destroy(&pool);
        return unexpected_code<"IFERROR002">(error);
    }
    pool_.store(pool);
    return 0;
}

void IfPool::free_if_empty_locked() {
    std::uint32_t pool = pool_.load();
    std::uint32_t used = 0;
    if (pool == QEL_IDM_NO_POOL || qel_idm_get_count(pool, &used) != 0 || used != 0) return;
    pool_.store(QEL_IDM_NO_POOL);
    while (lookups_.load() != 0) sched_yield();
    qel_idm_pool_destroy(&pool);
}

cerrno IfPool::get_id(void* object, std::uint32_t* id) {
    Locked lock{if_gbl_mutex};
    if (pool_.load() == QEL_IDM_NO_POOL)
        if (cerrno error = make_locked(); error != 0) return error;
    const cerrno error = qel_idm_get_id(pool_.load(), object, id);
    if (error == 0) return 0;
    free_if_empty_locked();
    return unexpected_code<"IFERROR003">(error);
}

void IfPool::free_if_empty() {
    Locked lock{if_gbl_mutex};
    free_if_empty_locked();
}

std::uint32_t IfPool::count() {
    Lookup lookup{*this};
    std::uint32_t count = 0;
    static_cast<void>(qel_idm_get_count(lookup.pool, &count));  // no pool: none
    return count;
}

std::uint32_t IfPool::references(std::uint32_t id) {
    Lookup lookup{*this};
    std::uint32_t count = 0;
    return qel_idm_get_id_refcount(lookup.pool, id, &count) == 0 ? count : 0;
}

cerrno IfPool::is_withdrawn(std::uint32_t id, std::uint8_t* withdrawn) {
    Lookup lookup{*this};
    return qel_idm_is_id_withdrawn(lookup.pool, id, withdrawn);
}

// The caller's reference keeps the pool until the release has begun to free it.
cerrno IfPool::release(std::uint32_t id) {
    return qel_idm_release_id(pool_.load(), id);
}

cerrno IfPool::release_and_withdraw(std::uint32_t id) {
    return qel_idm_release_and_withdraw_id(pool_.load(), id);
}

}  // namespace qel::interfaces
