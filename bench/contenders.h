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

// The entry and, behind it, its peers on the same arrays, ready to run; what they prepare is not measured.
struct Contest {
    std::vector<Contender> contenders;
    std::function<Eigen::MatrixXd()> take_result; // of the last run; the next one finds ones in a dense result
};

Contest contest(const HostMatrix& a, const Product& product, double* b, double* c);

// A * A^T with a dense result, and with a CSR result.
Contest transposed_dense_contest(const HostMatrix& a);
Contest transposed_csr_contest(const HostMatrix& a);

// Sets the threads of the library, of MKL as called directly, of Eigen and of librsb.
void set_threads(int count);
