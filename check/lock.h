#pragma once

#include <pthread.h>

namespace csr_products::check {

// Guards all that the threads share, for a short time. A fork takes it, so that the child finds it free.
struct Lock {
    Lock() noexcept { pthread_mutex_lock(&mutex); }
    ~Lock() { pthread_mutex_unlock(&mutex); }

    inline static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

// While one lives, its thread is not cancelled: there is no way out of a function that is noexcept.
struct NoCancellation {
    NoCancellation() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before); }
    ~NoCancellation() { pthread_setcancelstate(before, nullptr); }

    int before = 0;
};

} // namespace csr_products::check
