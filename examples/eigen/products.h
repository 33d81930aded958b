#pragma once

#include "host_matrix.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

struct Measurement {
    std::string product;
    std::string shape;
    Int stored; // entries, of the sparse operand or of the sparse result
    double milliseconds;
    double eigen_milliseconds;        // NaN where Eigen has no such product
    std::optional<double> difference; // greatest one relative to the greatest element; none: the product may overflow
};

// Every product family once on a, each beside Eigen's own; `started` gets the name of each. The symmetric
// entries run if a is symmetric, and A*A^T runs on the leading rows that have entries and fit.
std::vector<Measurement> measure_products(const HostMatrix& a, bool symmetric,
                                          const std::function<void(const std::string&)>& started);
