// The distributed operator on the ranks of mpirun, against the PETSc matrix that it works on, whose elements are
// compared with the whole matrix.

#include "csr_products.h"
#include "distributed_operator.h"
#include "matrix_source.h"

#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <numeric>

PETSC_EXTERN PetscErrorCode PetscObjectStateGet(PetscObject, PetscObjectState*); // from a header of PETSc's own

namespace {

EigenMatrix matrix(Int rows, Int cols, const std::function<double(Int, Int)>& value) {
    return Eigen::MatrixXd::NullaryExpr(rows, cols, value).sparseView(); // without its zeros
}

void expect_elements(Mat aij, const EigenMatrix& a) {
    Int begin = 0;
    Int end = 0;
    check(MatGetOwnershipRange(aij, &begin, &end));
    for (Int i = begin; i < end; ++i) {
        for (Int j = 0; j < a.cols(); ++j) {
            double element = 0.0;
            check(MatGetValue(aij, i, j, &element));
            EXPECT_EQ(element, a.coeff(i, j)) << i << ", " << j;
        }
    }
}

// Each product of several random vectors, so that it cannot live on what an earlier one left.
void expect_products(Mat shell, Mat aij) {
    const auto expect = [&](const char* product, auto are_equal) {
        PetscBool equal = PETSC_FALSE;
        check(are_equal(shell, aij, 3, &equal));
        EXPECT_TRUE(equal) << product;
    };
    expect("A^T*x", MatMultTransposeEqual); // first, as it needs no other
    expect("A*x", MatMultEqual);
    expect("A*x + y", MatMultAddEqual);
}

MPI_Comm ranks_of(Mat aij) {
    return PetscObjectComm(reinterpret_cast<PetscObject>(aij));
}

// A block whose columns are further apart than they are long, as solvers hand it over.
Mat make_block(MPI_Comm ranks, Int rows, Int columns = 3) {
    Mat block = nullptr;
    check(MatCreate(ranks, &block));
    check(MatSetSizes(block, rows, PETSC_DECIDE, PETSC_DETERMINE, columns));
    check(MatSetType(block, MATDENSE));
    check(MatDenseSetLDA(block, rows + 2));
    check(MatSetUp(block));
    check(MatSetRandom(block, nullptr));
    return block;
}

void expect_block_product(Mat shell, Mat aij) {
    Int m = 0;
    Int k = 0;
    PetscBool equal = PETSC_FALSE;
    check(MatGetLocalSize(aij, &m, &k));
    Mat b = make_block(ranks_of(aij), k);
    Mat c = make_block(ranks_of(aij), m);
    check(MatShellSetOperation(shell, MATOP_MULT, nullptr)); // PETSc would multiply column by column
    check(MatMatMult(shell, b, MAT_REUSE_MATRIX, PETSC_DEFAULT, &c));
    check(MatMatMultEqual(aij, b, c, 3, &equal));
    EXPECT_TRUE(equal) << "A*B";
    check(MatDestroy(&b));
    check(MatDestroy(&c));
}

// On integers, so that every sum is exact.
void expect_product_in_place(Mat shell, Mat aij) {
    Vec x = nullptr;
    Vec z = nullptr;
    Vec expected = nullptr;
    check(MatCreateVecs(aij, &x, &z));
    check(VecDuplicate(z, &expected));
    check(VecSet(x, 1.0));
    check(VecSet(z, 2.0));
    check(MatMultAdd(aij, x, z, expected));
    check(MatMultAdd(shell, x, z, z));
    PetscBool equal = PETSC_FALSE;
    check(VecEqual(z, expected, &equal));
    EXPECT_TRUE(equal);
    for (Vec* each : {&x, &z, &expected}) {
        check(VecDestroy(each));
    }
}

TEST(Distributed, ProductsAgreeWithPetscs) {
    const Int n = 40;
    const auto scattered = [](Int i, Int j) { return i % 3 != 1 && (j * 7 + i * i) % 5 == 0 ? 1.0 + double(j) : 0.0; };
    const std::pair<const char*, EigenMatrix> cases[] = {
        {"Poisson", poisson(6)},
        {"more ranks than rows", matrix(2, 2, [](Int i, Int j) { return double(1 + i + 2 * j); })},
        {"no ghosts", matrix(n, n, [](Int i, Int j) { return i == j ? 2.0 : 0.0; })},
        {"all entries in ghosts",
         matrix(n, n, [](Int i, Int j) { return (j - i + n) % n == n / 2 ? 1.0 + double(i) : 0.0; })},
        {"one ghost row", matrix(n, n, [](Int i, Int j) { return i == j || (i == 2 && j == n - 1) ? 3.0 : 0.0; })},
        {"unsymmetric, with empty rows", matrix(n, n, scattered)},
        {"wide", matrix(15, 70, scattered)},
        {"tall", matrix(70, 15, scattered)}};
    int rank = 0;
    MPI_Comm pairs = MPI_COMM_NULL;
    MPI_Comm_rank(PETSC_COMM_WORLD, &rank);
    MPI_Comm_split(PETSC_COMM_WORLD, (rank + 1) / 2, rank, &pairs); // whose ranks have other numbers there
    for (const auto& [name, a] : cases) {
        for (const MPI_Comm ranks : {PETSC_COMM_WORLD, pairs}) {
            SCOPED_TRACE(testing::Message() << name << (ranks == pairs ? ", a matrix for each pair of ranks" : ""));
            Mat aij = distribute(EigenMatrix(a), ranks);
            expect_elements(aij, a);
            {
                DistributedOperator op(aij);
                expect_products(op.shell(), aij);
                expect_block_product(op.shell(), aij);
            }
            check(MatDestroy(&aij));
        }
    }
    MPI_Comm_free(&pairs);
}

// The operator follows new values, and a new nonzero pattern with other ghosts.
TEST(Distributed, ChangedMatrix) {
    Mat aij = distribute(poisson(4)); // which is not compressed
    expect_elements(aij, poisson(4));
    {
        DistributedOperator op(aij);
        check(MatScale(aij, -3.0));
        expect_products(op.shell(), aij);
        check(MatSetOption(aij, MAT_NEW_NONZERO_LOCATION_ERR, PETSC_FALSE));
        check(MatSetOption(aij, MAT_NEW_NONZERO_ALLOCATION_ERR, PETSC_FALSE));
        for (const bool transposed_first : {true, false}) {
            check(MatSetValue(aij, transposed_first ? 0 : 63, 33, 3.0, ADD_VALUES));
            check(MatAssemblyBegin(aij, MAT_FINAL_ASSEMBLY));
            check(MatAssemblyEnd(aij, MAT_FINAL_ASSEMBLY));
            if (!transposed_first) {
                expect_product_in_place(op.shell(), aij);
            }
            expect_products(op.shell(), aij);
        }
        // Rank 0 keeps its ghosts, and no entry in their columns. A block without columns leaves no room for them.
        Int begin = 0;
        Int end = 0;
        check(MatGetOwnershipRange(aij, &begin, &end));
        std::vector<Int> boundary(static_cast<std::size_t>(begin == 0 ? end : 0));
        std::iota(boundary.begin(), boundary.end(), 0);
        check(MatZeroRows(aij, static_cast<Int>(boundary.size()), boundary.data(), 1.0, nullptr, nullptr));
        for (const Int columns : {0, 2}) {
            Mat b = make_block(PETSC_COMM_WORLD, end - begin, columns);
            Mat c = make_block(PETSC_COMM_WORLD, end - begin, columns);
            std::array<PetscObjectState, 2> states{};
            check(PetscObjectStateGet(reinterpret_cast<PetscObject>(c), states.data()));
            op.multiply(b, c);
            check(PetscObjectStateGet(reinterpret_cast<PetscObject>(c), &states[1]));
            EXPECT_GT(states[1], states[0]) << "PETSc does not know that C has changed";
            expect_products(op.shell(), aij);
            check(MatDestroy(&b));
            check(MatDestroy(&c));
        }
    }
    check(MatDestroy(&aij));
}

// Of a matrix without entries too, no array is null, nor where it is moved to.
TEST(HostMatrix, WithoutEntries) {
    HostMatrix original(EigenMatrix(2, 3));
    const HostMatrix a = std::move(original);
    std::vector<double> b(6, 1.0);
    std::vector<double> c(4, 7.0);
    spgmatgmat_mkl_G_int64(a.val(), a.col_ind(), a.row_ptr(), b.data(), 2, 3, 2, c.data());
    EXPECT_EQ(c, std::vector<double>(4));
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    check(PetscInitialize(&argc, &argv, nullptr, nullptr));
    const int failed = RUN_ALL_TESTS();
    check(PetscFinalize());
    return failed;
}
