#include "distributed_operator.h"

#include "csr_products.h"

#include <petscsf.h>

#include <algorithm>
#include <array>
#include <utility>

namespace {

std::size_t size(Int count) {
    return static_cast<std::size_t>(count);
}

// Runs a product on the parts of two vectors that this rank holds.
template <class Product>
void on_arrays(Vec x, Vec y, Product product) {
    const double* input = nullptr;
    double* output = nullptr;
    check(VecGetArrayRead(x, &input));
    check(VecGetArray(y, &output));
    product(const_cast<double*>(input), output); // the library only reads it
    check(VecRestoreArray(y, &output));
    check(VecRestoreArrayRead(x, &input));
}

DistributedOperator& operator_of(Mat shell) {
    void* context = nullptr;
    check(MatShellGetContext(shell, static_cast<void*>(&context)));
    return *static_cast<DistributedOperator*>(context);
}

} // namespace

DistributedOperator::DistributedOperator(Mat aij) : aij_(aij) {
    Int m = 0;
    Int k = 0;
    const MPI_Comm ranks = PetscObjectComm(reinterpret_cast<PetscObject>(aij_));
    check(PetscSFCreate(ranks, &exchange_));
    check(MatGetLocalSize(aij_, &m, &k));
    check(MatCreateShell(ranks, m, k, PETSC_DETERMINE, PETSC_DETERMINE, this, &shell_));
    const auto set = [&](MatOperation operation, auto* function) {
        check(MatShellSetOperation(shell_, operation, reinterpret_cast<void (*)()>(function)));
    };
    set(
        MATOP_MULT, +[](Mat shell, Vec x, Vec y) {
            operator_of(shell).multiply(x, y);
            return PetscErrorCode{};
        });
    set(
        MATOP_MULT_ADD, +[](Mat shell, Vec x, Vec y, Vec z) {
            operator_of(shell).multiply_add(x, y, z);
            return PetscErrorCode{};
        });
    set(
        MATOP_MULT_TRANSPOSE, +[](Mat shell, Vec x, Vec y) {
            operator_of(shell).multiply_transposed(x, y);
            return PetscErrorCode{};
        });
    // Solvers multiply blocks of vectors, and build preconditioners of their own.
    set(
        MATOP_GET_DIAGONAL_BLOCK,
        +[](Mat shell, Mat* block) { return MatGetDiagonalBlock(operator_of(shell).aij_, block); });
    const auto multiply_block = [](Mat shell, Mat b, Mat c, void*) {
        operator_of(shell).multiply(b, c);
        return PetscErrorCode{};
    };
    for (const char* const dense : {MATSEQDENSE, MATMPIDENSE}) {
        check(MatShellSetMatProductOperation(shell_, MATPRODUCT_AB, nullptr, multiply_block, nullptr, dense, dense));
    }
    update();
}

DistributedOperator::~DistributedOperator() {
    check(MatDestroy(&shell_));
    check(PetscSFDestroy(&exchange_));
}

DistributedOperator::Block::Block(Mat block) {
    if (block == nullptr) {
        return;
    }
    Int row_count = 0;
    const Int* row_starts = nullptr;
    const Int* columns = nullptr;
    PetscBool done = PETSC_FALSE;
    check(MatGetSize(block, &rows, &cols));
    check(MatGetRowIJ(block, 1, PETSC_FALSE, PETSC_FALSE, &row_count, &row_starts, &columns, &done));
    row_ptr.assign(row_starts, row_starts + rows + 1);
    col_ind.assign(columns, columns + row_ptr.back() - 1);
    check(MatRestoreRowIJ(block, 1, PETSC_FALSE, PETSC_FALSE, &row_count, &row_starts, &columns, &done));
}

// Copies the indices anew if the nonzero pattern has changed, and looks where the values stand now.
void DistributedOperator::update() {
    Mat own = nullptr;
    Mat ghost = nullptr;
    const Int* ghost_columns = nullptr;
    PetscObjectState pattern = 0;
    check(MatMPIAIJGetSeqAIJ(aij_, &own, &ghost, &ghost_columns));
    check(MatGetNonzeroState(aij_, &pattern));
    if (pattern != pattern_) {
        pattern_ = pattern;
        own_ = Block(own);
        ghost_ = Block(ghost);

        PetscLayout columns = nullptr;
        check(MatGetLayouts(aij_, nullptr, &columns));
        check(PetscSFSetGraphLayout(exchange_, columns, ghost_.cols, nullptr, PETSC_COPY_VALUES, ghost_columns));

        // The accumulating product reads and writes all of y, so it gets only the rows that it changes.
        boundary_rows_.clear();
        std::vector<Int> row_ptr{1};
        for (Int row = 0; row < ghost_.rows; ++row) {
            if (ghost_.row_ptr[size(row) + 1] > ghost_.row_ptr[size(row)]) {
                boundary_rows_.push_back(row);
                row_ptr.push_back(ghost_.row_ptr[size(row) + 1]);
            }
        }
        ghost_.row_ptr = std::move(row_ptr);
    }
    for (const auto& [matrix, block] : {std::pair{own, &own_}, {ghost, &ghost_}}) {
        const double* values = nullptr;
        check(MatSeqAIJGetArrayRead(matrix, &values));
        block->val = const_cast<double*>(values); // the library only reads it
        check(MatSeqAIJRestoreArrayRead(matrix, &values));
    }
}

// Y := A*X for the parts that this rank holds of so many columns, or y := A*x + y for one.
void DistributedOperator::multiply(double* x, double* y, Mode mode, Int columns, Int ldx, Int ldy) {
    update();
    const Int boundary_count = static_cast<Int>(boundary_rows_.size());
    const Int ghost_count = ghost_.cols;
    ghost_values_.resize(size(ghost_count * columns));
    boundary_.resize(size(boundary_count * columns));
    for (Int j = 0; j < columns; ++j) {
        check(PetscSFBcastBegin(exchange_, MPIU_SCALAR, x + j * ldx, ghost_values_.data() + j * ghost_count,
                                MPI_REPLACE));
    }

    const Int m = own_.rows;
    const Int k = own_.cols;
    if (own_.is_empty()) {
        for (Int j = 0; j < columns; ++j) {
            std::fill_n(y + j * ldy, mode == Mode::overwrite ? m : 0, 0.0);
        }
    } else if (columns == 1) {
        (mode == Mode::overwrite ? spgmatgvec_mkl_G_int64 : spgmatgvecsum_mkl_G_int64)(own_.val, own_.col_ind.data(),
                                                                                       own_.row_ptr.data(), x, m, k, y);
    } else {
        spgmatgmat_mkl_G_int64(own_.val, own_.col_ind.data(), own_.row_ptr.data(), x, ldx, m, k, columns, y, ldy);
    }

    for (Int j = 0; j < columns; ++j) {
        check(
            PetscSFBcastEnd(exchange_, MPIU_SCALAR, x + j * ldx, ghost_values_.data() + j * ghost_count, MPI_REPLACE));
    }
    if (boundary_rows_.empty()) {
        return;
    }
    const auto each_boundary_element = [&](auto visit) {
        for (Int j = 0; j < columns; ++j) {
            for (Int i = 0; i < boundary_count; ++i) {
                visit(boundary_[size(i + j * boundary_count)], y[boundary_rows_[size(i)] + j * ldy]);
            }
        }
    };
    each_boundary_element([](double& boundary, double element) { boundary = element; });
    if (columns == 1) {
        spgmatgvecsum_mkl_G_int64(ghost_.val, ghost_.col_ind.data(), ghost_.row_ptr.data(), ghost_values_.data(),
                                  boundary_count, ghost_count, boundary_.data());
    } else {
        spgmatgmatsum_mkl_G_int64(ghost_.val, ghost_.col_ind.data(), ghost_.row_ptr.data(), ghost_values_.data(),
                                  ghost_count, boundary_count, ghost_count, columns, boundary_.data(), boundary_count);
    }
    each_boundary_element([](double boundary, double& element) { element = boundary; });
}

void DistributedOperator::multiply(Vec x, Vec y) {
    on_arrays(x, y, [&](double* input, double* output) { multiply(input, output, Mode::overwrite); });
}

void DistributedOperator::multiply_add(Vec x, Vec y, Vec z) {
    if (y != z) {
        check(VecCopy(y, z));
    }
    on_arrays(x, z, [&](double* input, double* output) { multiply(input, output, Mode::accumulate); });
}

void DistributedOperator::multiply(Mat b, Mat c) {
    Int columns = 0;
    Int ldb = 0;
    Int ldc = 0;
    const double* input = nullptr;
    double* output = nullptr;
    check(MatGetSize(b, nullptr, &columns));
    check(MatDenseGetLDA(b, &ldb));
    check(MatDenseGetLDA(c, &ldc));
    check(MatDenseGetArrayRead(b, &input));
    check(MatDenseGetArray(c, &output));
    multiply(const_cast<double*>(input), output, Mode::overwrite, columns, ldb, ldc);
    check(MatDenseRestoreArray(c, &output));
    check(MatDenseRestoreArrayRead(b, &input));
}

// The products of the ghost block belong to other ranks, which add them to theirs.
void DistributedOperator::multiply_transposed(Vec x, Vec y) {
    update();
    on_arrays(x, y, [&](double* input, double* output) {
        if (own_.is_empty()) {
            std::fill_n(output, own_.cols, 0.0);
        } else {
            spgmattrgmat_mkl_G_int64(own_.val, own_.col_ind.data(), own_.row_ptr.data(), input, own_.rows, own_.cols, 1,
                                     output);
        }
        ghost_values_.assign(size(ghost_.cols), 0.0); // without boundary rows there is no product
        boundary_.resize(boundary_rows_.size());
        std::transform(boundary_rows_.begin(), boundary_rows_.end(), boundary_.begin(),
                       [&](Int row) { return input[row]; });
        if (!boundary_rows_.empty()) {
            spgmattrgmat_mkl_G_int64(ghost_.val, ghost_.col_ind.data(), ghost_.row_ptr.data(), boundary_.data(),
                                     static_cast<Int>(boundary_rows_.size()), ghost_.cols, 1, ghost_values_.data());
        }
        check(PetscSFReduceBegin(exchange_, MPIU_SCALAR, ghost_values_.data(), output, MPIU_SUM));
        check(PetscSFReduceEnd(exchange_, MPIU_SCALAR, ghost_values_.data(), output, MPIU_SUM));
    });
}

Mat distribute(EigenMatrix&& matrix, MPI_Comm ranks) {
    int rank = 0;
    MPI_Comm_rank(ranks, &rank);
    if (rank != 0) {
        matrix.resize(0, 0);
    }
    matrix.makeCompressed();
    std::array<Int, 2> shape{matrix.rows(), matrix.cols()};
    MPI_Bcast(shape.data(), 2, MPIU_INT, 0, ranks);
    std::vector<Int> rows;
    std::vector<Int> columns(matrix.innerIndexPtr(), matrix.innerIndexPtr() + matrix.nonZeros());
    for (Int row = 0; row < matrix.rows(); ++row) {
        rows.insert(rows.end(), size(matrix.outerIndexPtr()[row + 1] - matrix.outerIndexPtr()[row]), row);
    }
    Mat assembled = nullptr;
    Mat aij = nullptr;
    check(MatCreate(ranks, &assembled));
    check(MatSetSizes(assembled, PETSC_DECIDE, PETSC_DECIDE, shape[0], shape[1]));
    check(MatSetType(assembled, MATMPIAIJ)); // on one rank too, which would otherwise get a MATSEQAIJ
    check(MatSetPreallocationCOO(assembled, matrix.nonZeros(), rows.data(), columns.data()));
    check(MatSetValuesCOO(assembled, matrix.valuePtr(), INSERT_VALUES));
    EigenMatrix().swap(matrix);
    check(MatDuplicate(assembled, MAT_COPY_VALUES, &aij)); // PETSc 3.18 cannot insert into the other
    check(MatDestroy(&assembled));
    return aij;
}
