// The distributed operator on the ranks of mpirun, against products of the whole matrix on each rank. Values
// are small integers, so that every sum is exact in any order and results are compared to the bit. The host
// compares its blocks of columns with PETSc's.

#include "distributed_operator.h"
#include "matrix_source.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>
#include <random>

namespace {

constexpr double nan = std::numeric_limits<double>::quiet_NaN();

int ranks() {
    int count = 0;
    MPI_Comm_size(PETSC_COMM_WORLD, &count);
    return count;
}

// A matrix whose entry is value(row, column), where that is not zero.
EigenMatrix matrix(Int rows, Int cols, const std::function<double(Int, Int)>& value) {
    EigenMatrix a(rows, cols);
    for (Int i = 0; i < rows; ++i) {
        for (Int j = 0; j < cols; ++j) {
            if (value(i, j) != 0.0) {
                a.insert(i, j) = value(i, j);
            }
        }
    }
    a.makeCompressed();
    return a;
}

EigenMatrix random_matrix(Int rows, Int cols, double density) {
    std::mt19937 random(1);
    std::bernoulli_distribution stored(density);
    return matrix(rows, cols, [&](Int, Int) { return stored(random) ? static_cast<double>(random() % 9 + 1) : 0.0; });
}

EigenMatrix only_on_rank_0(const EigenMatrix& a) {
    int rank = 0;
    MPI_Comm_rank(PETSC_COMM_WORLD, &rank);
    return rank == 0 ? a : EigenMatrix();
}

Eigen::VectorXd operand(Int rows, Int seed) {
    return Eigen::VectorXd::NullaryExpr(rows, [seed](Int i) { return double((3 * i + 7 * seed) % 11 - 5); });
}

// This rank's part of a vector, and that part of all of it.
template <class Visit>
void on_local_part(Vec vector, const Eigen::VectorXd& all, Visit visit) {
    Int begin = 0;
    Int end = 0;
    double* local = nullptr;
    check(VecGetOwnershipRange(vector, &begin, &end));
    check(VecGetArray(vector, &local));
    visit(Eigen::Map<Eigen::VectorXd>(local, end - begin), Eigen::VectorXd(all.segment(begin, end - begin)));
    check(VecRestoreArray(vector, &local));
}

void set(Vec vector, const Eigen::VectorXd& all) {
    on_local_part(vector, all, [](auto local, const auto& part) { local = part; });
}

void expect(Vec vector, const Eigen::VectorXd& all, const char* product) {
    on_local_part(vector, all,
                  [&](auto local, const auto& part) { EXPECT_EQ(Eigen::VectorXd(local), part) << product; });
}

// Outputs and ghosts hold NaN before each product.
void expect_products(DistributedOperator& op, Mat aij, const EigenMatrix& a) {
    const auto forget_ghosts = [&] { op.ghost_values().assign(std::size_t(op.ghosts()), nan); };
    const Eigen::VectorXd x_all = operand(a.cols(), 0);
    const Eigen::VectorXd y_all = operand(a.rows(), 1);
    Vec x = nullptr;
    Vec y = nullptr;
    Vec z = nullptr;
    check(MatCreateVecs(aij, &x, &y));
    check(VecDuplicate(y, &z));
    set(y, y_all);
    check(VecSet(x, nan));
    check(MatMultTranspose(op.shell(), y, x));
    expect(x, a.transpose() * y_all, "A^T*x");
    set(x, x_all);
    check(VecSet(z, nan));
    forget_ghosts();
    check(MatMult(op.shell(), x, z));
    expect(z, a * x_all, "A*x");
    forget_ghosts();
    check(MatMultAdd(op.shell(), x, y, z));
    expect(z, a * x_all + y_all, "A*x + y");
    check(MatMultAdd(op.shell(), x, z, z));
    expect(z, 2 * (a * x_all) + y_all, "A*x + z, in place");

    for (Vec* each : {&x, &y, &z}) {
        check(VecDestroy(each));
    }
}

TEST(Distributed, ProductsAgreeWithSerialOnes) {
    const Int n = 40;
    const std::pair<const char*, EigenMatrix> cases[] = {
        {"Poisson", poisson(6)},
        {"more ranks than rows", random_matrix(2, 2, 1.0)},
        {"no ghosts", matrix(n, n, [](Int i, Int j) { return i == j ? 2.0 : 0.0; })},
        {"all entries in ghosts",
         matrix(n, n, [](Int i, Int j) { return j == (i + n / 2) % n ? 1.0 + double(i) : 0.0; })},
        {"one ghost row", matrix(n, n, [](Int i, Int j) { return i == j || (i == 2 && j == n - 1) ? 3.0 : 0.0; })},
        {"wide", random_matrix(15, 70, 0.2)},
        {"tall", random_matrix(70, 15, 0.2)},
        {"unsymmetric, with empty rows",
         matrix(n, n, [](Int i, Int j) { return i % 3 == 0 && (j * 7 + i) % 5 == 0 ? 1.0 + double(j) : 0.0; })}};
    for (const auto& [name, a] : cases) {
        SCOPED_TRACE(name);
        Mat aij = distribute(only_on_rank_0(a));
        {
            DistributedOperator op(aij);
            expect_products(op, aij, a);
        }
        check(MatDestroy(&aij));
    }
}

// The operator follows new values, and a new nonzero pattern with other ghosts.
TEST(Distributed, ChangedMatrix) {
    EigenMatrix a = poisson(4);
    Mat aij = distribute(only_on_rank_0(a));
    {
        DistributedOperator op(aij);
        expect_products(op, aij, a);
        check(MatScale(aij, -3.0));
        a *= -3.0;
        expect_products(op, aij, a);
        check(MatSetOption(aij, MAT_NEW_NONZERO_LOCATION_ERR, PETSC_FALSE));
        check(MatSetOption(aij, MAT_NEW_NONZERO_ALLOCATION_ERR, PETSC_FALSE));
        for (const auto& [row, col] : {std::pair<Int, Int>{0, a.cols() - 1}, {a.rows() - 1, 1}, {5, a.cols() / 2}}) {
            check(MatSetValue(aij, row, col, ranks(), ADD_VALUES));
            a.coeffRef(row, col) += ranks() * ranks(); // every rank adds
        }
        check(MatAssemblyBegin(aij, MAT_FINAL_ASSEMBLY));
        check(MatAssemblyEnd(aij, MAT_FINAL_ASSEMBLY));
        expect_products(op, aij, a);
    }
    check(MatDestroy(&aij));
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    check(PetscInitialize(&argc, &argv, nullptr, nullptr));
    int failed = RUN_ALL_TESTS();
    MPI_Allreduce(MPI_IN_PLACE, &failed, 1, MPI_INT, MPI_MAX, PETSC_COMM_WORLD);
    check(PetscFinalize());
    return failed;
}
