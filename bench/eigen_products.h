#pragma once

#include "host_matrix.h"
#include "product.h"

// Eigen's products, compiled for the baseline of the platform, and once more for AVX2 in a library of its
// own: templates compiled for two instruction sets must not meet in one program.
using EigenProduct = void(const EigenMatrix& a, const Product& product, double* b, double* c);

EigenProduct run_eigen_baseline;
EigenProduct run_eigen_avx2;
