#pragma once

#include "operand/csr_operand.h"

namespace csr_products {

// Keeps MKL from releasing the output arrays that the caller lent to the CSR product on this thread.
//
// After the finalize request MKL believes that it owns these arrays, and mkl_sparse_destroy passes each
// of them to mkl_serv_free. That function reads a header that only MKL's own blocks have, and the process
// dies. The library is therefore linked with mkl_serv_free wrapped, and the wrapper skips these arrays.
class LentArrays {
public:
    // `output` must outlive this object, and this object the handles of its call.
    explicit LentArrays(const CsrOperand& output) noexcept;
    ~LentArrays();

    LentArrays(const LentArrays&) = delete;
    LentArrays& operator=(const LentArrays&) = delete;
};

} // namespace csr_products
