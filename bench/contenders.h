#pragma once

#include "host_matrix.h"
#include "product.h"

#include <functional>
#include <string>
#include <vector>

struct Contender {
    std::string name;
    std::function<void()> run;
};

// The entry and its peers on the same arrays, ready to run; what they prepare is not measured.
std::vector<Contender> contenders(const HostMatrix& a, const Product& product, double* b, double* c);

// A * A^T with a dense result, and with a CSR result.
std::vector<Contender> transposed_dense_contenders(const HostMatrix& a);
std::vector<Contender> transposed_csr_contenders(const HostMatrix& a);

// Sets the threads of the library, of MKL as called directly, of Eigen and of librsb.
void set_threads(int count);
