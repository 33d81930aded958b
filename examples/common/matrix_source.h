#pragma once

#include "host_matrix.h"

#include <string>

// The seven-point Laplacian on a cube of grid * grid * grid points.
EigenMatrix poisson(Int grid);

// The greatest number of rows or columns of a file that is read.
inline constexpr Int greatest_dimension = 20'000'000;

// A real, integer or pattern matrix from a Matrix Market file, a symmetric one with both triangles, of which the
// file holds one. The file is read once, so it may be a pipe. Throws std::runtime_error with a message of one line.
EigenMatrix read_matrix_market(const std::string& path);

bool is_symmetric(const EigenMatrix& a);
