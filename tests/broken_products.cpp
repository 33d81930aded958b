// A wrong A*x for the hosts to notice when this is preloaded: a plain loop with the fault that the environment names.
// Also tells the thread count that a host sets, and takes the memory for large arrays from one rank.

#include "csr_products.h"

#include <cstdio>
#include <cstdlib>
#include <limits>
#include <new>
#include <string_view>

namespace {

std::string_view variable(const char* name) {
    const char* const value = std::getenv(name);
    return value == nullptr ? "" : value;
}

} // namespace

void* operator new(std::size_t size) { // NOLINT(misc-new-delete-overloads): memory that free() releases
    void* const memory = std::malloc(size);
    if (memory == nullptr || (size > 65536 && variable("CSR_PRODUCTS_FAULT") == "no memory on rank 1" &&
                              variable("OMPI_COMM_WORLD_RANK") == "1")) {
        throw std::bad_alloc();
    }
    return memory;
}

// clang-format off
void spgmatgvec_mkl_G_int64(
    double* const val, std::int64_t* const col_ind, std::int64_t* const row_ptr,
    double* const x, std::int64_t m, std::int64_t /*k*/,
    double* const y) noexcept {
    // clang-format on
    static int calls = 0;
    const std::string_view fault = variable("CSR_PRODUCTS_FAULT");
    if (++calls % 2 == 0 && fault == "every second A*x does nothing") {
        return;
    }
    const double scale = fault == "slightly wrong"                            ? 1 + 1e-11
                         : fault == "the first calls are wrong" && calls <= 2 ? 2
                                                                              : 1;
    for (std::int64_t i = 0; i < m; ++i) {
        y[i] = fault == "a NaN in the last row" && i == m - 1 ? std::numeric_limits<double>::quiet_NaN() : 0.0;
        for (std::int64_t p = row_ptr[i] - 1; p < row_ptr[i + 1] - 1; ++p) {
            y[i] += scale * val[p] * x[col_ind[p] - 1];
        }
    }
}

void qz_mkl_set_num_threads_int64(int count) noexcept {
    std::printf("threads: %d\n", count);
}
