#pragma once

#include "host_matrix.h"

#include <string>

// A product that is measured. The first columns of its b and c are read and written.
struct Product {
    std::string name;
    enum Kind { plain, accumulate, transposed, symmetric } kind;
    Int columns; // one: the vector entries, where there is one
};
