#pragma once

#include "host_matrix.h"

#include <petscksp.h>
#include <vector>

static_assert(sizeof(PetscInt) == sizeof(Int), "PETSc must be built with 64-bit indices, which the library takes");

// PETSc has printed what went wrong. A rank that left alone would leave the others waiting.
inline void check(PetscErrorCode code) {
    if (code != 0) {
        MPI_Abort(PETSC_COMM_WORLD, 1);
    }
}

// The rows of rank 0's matrix, which it gives away, distributed over the ranks as a MATMPIAIJ.
Mat distribute(EigenMatrix&& matrix, MPI_Comm ranks = PETSC_COMM_WORLD);

// Products with a MATMPIAIJ, of which each rank holds a block of its own columns, and one of ghost columns,
// whose values of x belong to other ranks. Each product of a block is a call of the library. The ghost values
// travel while the own block is multiplied.
class DistributedOperator {
public:
    explicit DistributedOperator(Mat aij); // which must outlive the operator
    ~DistributedOperator();
    DistributedOperator(const DistributedOperator&) = delete;
    DistributedOperator& operator=(const DistributedOperator&) = delete;

    void multiply(Vec x, Vec y);            // y := A*x
    void multiply_add(Vec x, Vec y, Vec z); // z := A*x + y
    void multiply_transposed(Vec x, Vec y); // y := A^T*x
    void multiply(Mat b, Mat c);            // C := A*B, both dense

    Mat shell() const { return shell_; } // the operator for PETSc's solvers
    Int ghosts() const { return ghost_.cols; }

private:
    // One block as the library takes it. The indices are one-based copies, the values are PETSc's.
    struct Block {
        Int rows = 0;
        Int cols = 0;
        std::vector<Int> row_ptr;
        std::vector<Int> col_ind;
        double* val = nullptr;

        explicit Block(Mat block = nullptr);

        // No product: MKL refuses it, or leaves the output alone.
        bool is_empty() const { return col_ind.empty(); }
    };
    enum class Mode { overwrite, accumulate };

    void update();
    void multiply(double* x, double* y, Mode mode, Int columns = 1, Int ldx = 0, Int ldy = 0);

    Mat aij_;
    Mat shell_ = nullptr;
    PetscSF exchange_ = nullptr;
    PetscObjectState pattern_ = -1;
    Block own_;
    Block ghost_;                    // without its empty rows
    std::vector<Int> boundary_rows_; // the rows of A that have ghost columns
    std::vector<double> boundary_;   // those rows of an x or y, for each column
    std::vector<double> ghost_values_;
};
