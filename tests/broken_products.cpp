// Wrong products, for the hosts to notice when this is preloaded: A*x and A*x + y by a plain loop, with the fault
// that the environment names. Also tells the thread count that a host sets.

#include "csr_products.h"

#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string_view>

namespace {

int calls = 0;

// y := A*x + beta*y, and the fault.
void multiply(const double* val, const std::int64_t* col_ind, const std::int64_t* row_ptr, const double* x,
              std::int64_t m, double beta, double* y) {
    const std::string_view fault = std::getenv("CSR_PRODUCTS_FAULT");
    calls += beta == 0.0 ? 1 : 0;
    if (fault == "every second A*x does nothing" && beta == 0.0 && calls % 2 == 0) {
        return;
    }
    const double scale = fault == "slightly wrong"                            ? 1 + 1e-11
                         : fault == "the first calls are wrong" && calls <= 2 ? 2
                                                                              : 1;
    for (std::int64_t i = 0; i < m; ++i) {
        y[i] = beta == 0.0 ? 0.0 : y[i];
        for (std::int64_t p = row_ptr[i] - 1; p < row_ptr[i + 1] - 1; ++p) {
            y[i] += scale * val[p] * x[col_ind[p] - 1];
        }
    }
    if (fault == "a NaN in the last row" && m > 0) {
        y[m - 1] = std::numeric_limits<double>::quiet_NaN();
    }
}

} // namespace

// clang-format off
void spgmatgvec_mkl_G_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const x, std::int64_t m, std::int64_t /*k*/,
    double* const y) noexcept {
    multiply(val, col_ind, row_ptr, x, m, 0.0, y);
}

void spgmatgvecsum_mkl_G_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const x, std::int64_t m, std::int64_t /*k*/,
    double* const y) noexcept {
    multiply(val, col_ind, row_ptr, x, m, 1.0, y);
}
// clang-format on

void qz_mkl_set_num_threads_int64(int count) noexcept {
    std::printf("threads: %d\n", count);
}
