// How many threads MKL may use for later products, in the whole process.

#include "csr_products.h"

#include <mkl_service.h>

void qz_mkl_set_num_threads_int64(int count) noexcept {
    mkl_set_num_threads(count);
}
