// Replaces one product when it is preloaded: correct for a diagonal matrix, except for a NaN.

#include "csr_products.h"

#include <limits>

void spgmatgvecsum_mkl_G_int64(double* const val, std::int64_t* const /*col_ind*/, std::int64_t* const /*row_ptr*/,
                               double* const x, std::int64_t m, std::int64_t /*k*/, double* const y) noexcept {
    for (std::int64_t i = 0; i < m; ++i) {
        y[i] += i == 0 ? std::numeric_limits<double>::quiet_NaN() : val[i] * x[i];
    }
}
