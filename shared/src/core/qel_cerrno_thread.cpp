// The record into which a thread decodes error codes.
//
// It hangs on a thread-local key, made on first need, whose destructor frees it when its thread ends. A
// thread that decodes in a later destructor of its own gets another record, freed in the next round.
//
// Locks: the second cerr_list_mutex, for the making of the key only.
#include <qel/base.h>
#include <qel/cerrno.h>
#include <qel/mem.h>

#include <pthread.h>

#include "core/qel_cerrno.hpp"
#include "core/qel_owned.hpp"

namespace qel {
namespace {

constexpr pthread_key_t kNoKey = 0xffffffff;

struct RecordKey {
    Mutex cerr_list_mutex;
    pthread_key_t key QEL_GUARDED_BY(cerr_list_mutex) = kNoKey;
};

constinit RecordKey record_key;

void free_record(void* value) {
    Owned<qel_cerrno_thread> record{static_cast<qel_cerrno_thread*>(value)};
    qel_named_free(record->text);
}

// The key, made if need be, or kNoKey.
pthread_key_t get_record_key() {
    Locked lock{record_key.cerr_list_mutex};
    if (lock.error() != 0) return kNoKey;
    if (record_key.key == kNoKey && pthread_key_create(&record_key.key, free_record) != 0)
        record_key.key = kNoKey;
    return record_key.key;
}

}  // namespace
}  // namespace qel

using namespace qel;

qel_cerrno_thread* cerr_threadspecific(void) {
    qel_check_not_interrupt_path();
    pthread_key_t key = get_record_key();
    if (key == kNoKey) return nullptr;
    if (void* record = pthread_getspecific(key); record != nullptr)
        return static_cast<qel_cerrno_thread*>(record);
    auto record = allocate_zeroed<qel_cerrno_thread>(QEL_MEM_UTILS);
    if (!record || pthread_setspecific(key, record.get()) != 0) return nullptr;
    return record.release();
}
