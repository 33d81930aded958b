#pragma once

#include "host_matrix.h"

// Rows of `per_row` entries at uniformly random columns.
EigenMatrix random_matrix(Int rows, Int cols, Int per_row);

// A few long rows and many short ones, of `per_row` entries on average, with some columns far more
// frequent than others.
EigenMatrix power_law_matrix(Int rows, Int per_row);
