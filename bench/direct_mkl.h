#pragma once

#include "operand/csr_operand.h"
#include "operand/product_constants.h"

#include <string>

// The products by direct calls of MKL, as a host without the library would make them. The results are
// the same; the calls are those of the entries.
namespace direct {

using csr_products::CsrOperand;
using csr_products::DescriptorPreset;

// What runs: the release of MKL, the processors that its kernels are for, the OpenMP runtime, and the mode of
// transparent huge pages.
std::string environment();

// y := A*x + beta*y
void multiply_vector(const CsrOperand& a, const double* x, double beta, double* y);

// C := op(A)*B + beta*C, with the leading dimensions of A
void multiply_dense(sparse_operation_t operation, const CsrOperand& a, const DescriptorPreset& preset, const double* b,
                    std::int64_t columns, double beta, double* c);

// C := A*B^T, dense
void multiply_transposed(const CsrOperand& a, const CsrOperand& b, double* c);

// C := A*B^T, CSR: the row pointer and the stored entries are copied into the arrays of C.
void multiply_transposed(const CsrOperand& a, const CsrOperand& b, const CsrOperand& c);

} // namespace direct
