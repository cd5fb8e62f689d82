// Making a family's ID pool.
//
// Threads that come first together each make one; the first to install its own wins and the others take
// theirs back, so no lock is needed.
#include "containers/qel_idm_family.hpp"

#include <qel/ppm.h>

namespace qel {
namespace {

void free_object(void* object, void* shape) {
    static_cast<const FamilyPool::Shape*>(shape)->free(object);
}

}  // namespace

bool FamilyPool::make_now() {
    std::uint32_t max_ids = shape_.max_ids;
    // Where the parameter can't be read, the default stands.
    if (shape_.size_key != nullptr)
        static_cast<void>(qel_ppm_get_integer(shape_.size_key, shape_.max_ids, &max_ids));
    std::uint32_t pool = 0;
    if (qel_idm_pool_create(shape_.name, max_ids, 0, &pool) != 0) return false;
    // A fresh pool takes a destructor.
    if (shape_.free != nullptr) static_cast<void>(qel_idm_set_destructor(pool, free_object, &shape_));
    std::uint32_t none = QEL_IDM_NO_POOL;
    if (!handle_.compare_exchange_strong(none, pool, std::memory_order_acq_rel)) qel_idm_pool_destroy(&pool);
    return true;
}

}  // namespace qel
