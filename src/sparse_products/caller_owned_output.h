#pragma once

#include "operand/csr_operand.h"

// While an object of this class lives, MKL does not free the arrays of `output` on this thread.
//
// mkl_sparse_sp2m with the finalize request computes into the caller's arrays, and from then on the
// handle takes them for its own: mkl_sparse_destroy hands each to mkl_serv_free, which reads a
// header in front of a block that MKL never allocated, and the process dies. The library is linked
// with that function wrapped, and the wrapper passes over the three arrays.
class CallerOwnedOutput {
public:
    explicit CallerOwnedOutput(const CsrOperand& output) noexcept;
    ~CallerOwnedOutput();

    CallerOwnedOutput(const CallerOwnedOutput&) = delete;
    CallerOwnedOutput& operator=(const CallerOwnedOutput&) = delete;
};
