#include <csr_products.h>

#include <cstdint>
#include <cstdio>

int main() {
    // A = (2 0; 1 3), one-based: row 1 holds entry 1, row 2 holds entries 2 and 3.
    double val[] = {2.0, 1.0, 3.0};
    std::int64_t col_ind[] = {1, 1, 2};
    std::int64_t row_ptr[] = {1, 2, 4};
    double x[] = {1.0, 10.0};
    double y[2];
    spgmatgvec_mkl_G_int64(val, col_ind, row_ptr, x, 2, 2, y);
    std::printf("%g %g\n", y[0], y[1]); // 2 31
}
