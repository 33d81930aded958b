#include "system.h"

#include <csr_products.h>

int main() {
    spgmatgvec_mkl_G_int64(val, col_ind, row_ptr, x, 2, 2, y);
    return check();
}
