#pragma once

#include "host_matrix.h"

#include <string>

// The seven-point Laplacian on a cube of grid * grid * grid points.
EigenMatrix poisson(Int grid);

// A real or integer matrix from a Matrix Market file, a symmetric one with both triangles.
// Throws std::runtime_error with a message of one line.
EigenMatrix read_matrix_market(const std::string& path);

bool is_symmetric(const EigenMatrix& a);
