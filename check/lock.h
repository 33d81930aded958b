#pragma once

#include <pthread.h>

namespace csr_products::check {

// Guards all that the threads share, for a short time. A fork takes it, so that the child finds it free.
struct Lock {
    Lock() noexcept { pthread_mutex_lock(&mutex); }
    ~Lock() { pthread_mutex_unlock(&mutex); }

    inline static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

} // namespace csr_products::check
