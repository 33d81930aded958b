#pragma once

#include "distributed_operator.h"

#include <functional>
#include <optional>

struct Measurement {
    const char* product;
    Int rows; // of the largest rank, as the ghosts
    Int ghosts;
    Int bytes_sent;      // by all ranks
    double milliseconds; // of the slowest rank, as PETSc's
    double petsc_milliseconds;
    std::optional<double> difference; // relative to the sum of the elements; none: the product may overflow
};

// Every product of the operator beside that of PETSc's matrix; `measured` gets each, on all ranks.
void compare_products(Mat aij, DistributedOperator& a, Int repetitions,
                      const std::function<void(const Measurement&)>& measured);
