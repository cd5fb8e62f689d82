// Closing a file descriptor.
#include "core/qel_fd.hpp"

#include <pthread.h>
#include <unistd.h>

namespace qel {

void close_fd(int fd) {
    int state = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
    // The descriptor is gone whatever the result is.
    static_cast<void>(close(fd));
    pthread_setcancelstate(state, nullptr);
}

}  // namespace qel
