// The ID pools of services: one is there only while it has IDs, so that what gives its size is asked anew by
// the first client after none.
//
// A lookup may be in the pool while the destructor of its last ID takes it down. Lookups therefore are
// counted, and whoever takes the pool down waits until those that might still see it have left: they take no
// lock and call nobody, so that is soon. Who holds a reference needs no such care: the pool has its ID.
//
// Locks: the service's mutex guards making, the first ID included, and taking down. Threads: any.
#pragma once

#include <qel/idm.h>

#include <atomic>
#include <cstdint>

#include "containers/qel_idm.hpp"
#include "core/qel_lock.hpp"

namespace qel::net {

class HandlePool {
  public:
    struct Shape {
        const char* name;
        Mutex* mutex;
        std::uint64_t (*ids)();  // how many there are to be
        int no_randomize;
        void (*free)(void* object, void*);  // must end with free_if_empty()
        void (*say_creating)(const char* name, std::uint32_t ids);
        cerrno (*failed)(cerrno error);  // reports it, and gives the result
    };

    explicit constexpr HandlePool(const Shape& shape) : shape_(shape) {}

    // An ID for 'object', in a new pool if there is none. On failure no empty pool stays.
    cerrno get_id(void* object, std::uint32_t* id);
    void free_if_empty();

    template <class T>
    Retained<T> retain(std::uint32_t id) {
        Lookup lookup{*this};
        return Retained<T>{idm::retain(lookup.pool, id)};
    }
    // Calls visit(object) for every object that is not withdrawn, one reference at a time.
    template <class T, class Visit>
    void for_each(Visit visit) {
        std::uint32_t id = 0;
        while (Retained<T> object = next<T>(id)) visit(*object);
    }

    // As the calls of the ID manager.
    std::uint32_t count();
    std::uint32_t references(std::uint32_t id);
    cerrno is_withdrawn(std::uint32_t id, std::uint8_t* withdrawn);
    cerrno release(std::uint32_t id);
    cerrno release_and_withdraw(std::uint32_t id);

  private:
    struct Lookup {
        explicit Lookup(HandlePool& owner) : in_progress(owner.lookups_) {
            in_progress.fetch_add(1);
            pool = owner.pool_.load();
        }
        Lookup(const Lookup&) = delete;
        Lookup& operator=(const Lookup&) = delete;
        ~Lookup() { in_progress.fetch_sub(1); }

        std::atomic<std::uint32_t>& in_progress;
        std::uint32_t pool = QEL_IDM_NO_POOL;
    };

    template <class T>
    Retained<T> next(std::uint32_t& id) {
        Lookup lookup{*this};
        return Retained<T>{idm::retain_next(lookup.pool, id, &id)};
    }
    cerrno make_locked() QEL_REQUIRES(*shape_.mutex);
    void free_if_empty_locked() QEL_REQUIRES(*shape_.mutex);

    Shape shape_;
    std::atomic<std::uint32_t> pool_{QEL_IDM_NO_POOL};
    std::atomic<std::uint32_t> lookups_{0};
};

}  // namespace qel::net
