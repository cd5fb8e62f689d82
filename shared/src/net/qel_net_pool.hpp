// The ID pools of services: one is there only while it has IDs, so that what gives its size is asked anew by
// the first client after none. And the place of a pool that goes while others may look into it.
//
// A lookup may be in the pool while the destructor of its last ID takes it down. Uses therefore are counted,
// and whoever takes the pool down waits until those that might still see it have left: they take no lock of
// ours and call nobody, so that is soon. Who holds a reference needs no such care: the pool has its ID.
//
// Locks: the service's mutex guards making, the first ID included, and taking down. Threads: any.
#pragma once

#include <qel/idm.h>

#include <atomic>
#include <cstdint>

#include "containers/qel_idm.hpp"
#include "core/qel_lock.hpp"

namespace qel::net {

// Where a pool is found, or QEL_IDM_NO_POOL.
class PoolPlace {
  public:
    // For the length of a scope the pool that is found here isn't destroyed.
    class Use {
      public:
        explicit Use(PoolPlace& place) : uses_(place.uses_) {
            uses_.fetch_add(1);
            pool = place.pool_.load();
        }
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;
        ~Use() noexcept(false) { uses_.fetch_sub(1); }

        std::uint32_t pool = QEL_IDM_NO_POOL;

      private:
        std::atomic<std::uint32_t>& uses_;
    };

    std::uint32_t get() const { return pool_.load(); }
    void put(std::uint32_t pool) { pool_.store(pool); }
    // Waits until the uses that have begun are over. False if one isn't after a second: in the child of a
    // fork its thread may not exist.
    bool await_uses() const;
    // Takes the pool away and destroys it when its uses are over; if they don't end, it stays for good.
    void destroy();

  private:
    std::atomic<std::uint32_t> pool_{QEL_IDM_NO_POOL};
    std::atomic<std::uint32_t> uses_{0};
};

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
        PoolPlace::Use use{place_};
        return Retained<T>{idm::retain(use.pool, id)};
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
    template <class T>
    Retained<T> next(std::uint32_t& id) {
        PoolPlace::Use use{place_};
        return Retained<T>{idm::retain_next(use.pool, id, &id)};
    }
    cerrno make_locked() QEL_REQUIRES(*shape_.mutex);
    void free_if_empty_locked() QEL_REQUIRES(*shape_.mutex);

    Shape shape_;
    PoolPlace place_;
};

}  // namespace qel::net
