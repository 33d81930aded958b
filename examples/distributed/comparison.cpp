#include "comparison.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace {

constexpr Int block_columns = 8;

template <class T>
T over_ranks(MPI_Op operation, T value, MPI_Datatype type) {
    MPI_Allreduce(MPI_IN_PLACE, &value, 1, type, operation, PETSC_COMM_WORLD);
    return value;
}

// Medians of ours and PETSc's, in turn, each the time of the slowest rank.
template <class Ours, class Theirs>
std::array<double, 2> median_milliseconds(Int repetitions, Ours ours, Theirs theirs) {
    std::array<std::vector<double>, 2> times;
    const auto measure = [](auto product) {
        MPI_Barrier(PETSC_COMM_WORLD);
        const double start = MPI_Wtime();
        product();
        return over_ranks(MPI_MAX, 1e3 * (MPI_Wtime() - start), MPI_DOUBLE);
    };
    for (Int i = 0; i < repetitions; ++i) {
        times[0].push_back(measure(ours));
        times[1].push_back(measure(theirs));
    }
    for (auto& each : times) {
        std::nth_element(each.begin(), each.begin() + repetitions / 2, each.end());
    }
    const auto middle = static_cast<std::size_t>(repetitions / 2);
    return {times[0][middle], times[1][middle]};
}

Vec random_vector(Int local_size) {
    Vec vector = nullptr;
    check(VecCreateMPI(PETSC_COMM_WORLD, local_size, PETSC_DETERMINE, &vector));
    check(VecSetRandom(vector, nullptr));
    return vector;
}

} // namespace

void compare_products(Mat aij, DistributedOperator& a, Int repetitions,
                      const std::function<void(const Measurement&)>& measured) {
    Int m = 0;
    Int k = 0;
    Int all_rows = 0;
    Int all_columns = 0;
    double by_rows = 0;
    double by_columns = 0;
    check(MatGetLocalSize(aij, &m, &k));
    check(MatGetSize(aij, &all_rows, &all_columns));
    check(MatNorm(aij, NORM_INFINITY, &by_rows));
    check(MatNorm(aij, NORM_1, &by_columns));
    const double bound_of_sums =
        (1 + std::max(by_rows, by_columns)) * static_cast<double>(block_columns * std::max(all_rows, all_columns));
    const Int most_rows = over_ranks(MPI_MAX, m, MPIU_INT);
    const Int most_ghosts = over_ranks(MPI_MAX, a.ghosts(), MPIU_INT);
    const Int all_ghosts = over_ranks(MPI_SUM, a.ghosts(), MPIU_INT);

    const auto compare = [&](const char* product, Int columns, Vec result, Vec expected, auto ours, auto theirs) {
        const auto times = median_milliseconds(repetitions, ours, [&] { check(theirs()); });
        // Once more into NaN. The norms are sums, which keep a NaN of any rank.
        check(VecSet(result, std::numeric_limits<double>::quiet_NaN()));
        ours();
        double size = 0;
        double difference = 0;
        check(VecNorm(expected, NORM_1, &size));
        check(VecAXPY(result, -1.0, expected));
        check(VecNorm(result, NORM_1, &difference));
        measured({product, most_rows, most_ghosts, 8 * all_ghosts * columns, times[0], times[1],
                  std::isfinite(bound_of_sums) ? std::optional(difference / (size > 0 ? size : 1.0)) : std::nullopt});
    };

    const std::array<Vec, 3> x{random_vector(k), random_vector(k), random_vector(k)};
    const std::array<Vec, 3> y{random_vector(m), random_vector(m), random_vector(m)};
    compare(
        "A*x", 1, y[0], y[1], [&] { a.multiply(x[0], y[0]); }, [&] { return MatMult(aij, x[0], y[1]); });
    compare(
        "A*x + y", 1, y[0], y[1], [&] { a.multiply_add(x[0], y[2], y[0]); },
        [&] { return MatMultAdd(aij, x[0], y[2], y[1]); });
    compare(
        "A^T*x", 1, x[0], x[1], [&] { a.multiply_transposed(y[2], x[0]); },
        [&] { return MatMultTranspose(aij, y[2], x[1]); });
    for (const auto& vectors : {x, y}) {
        std::for_each(vectors.begin(), vectors.end(), [](Vec vector) { check(VecDestroy(&vector)); });
    }

    std::array<Mat, 3> blocks{}; // the operand, our result, PETSc's
    std::array<Vec, 2> views{};  // of the results
    check(MatCreateDense(PETSC_COMM_WORLD, k, PETSC_DECIDE, all_columns, block_columns, nullptr, blocks.data()));
    check(MatSetRandom(blocks[0], nullptr));
    check(MatMatMult(aij, blocks[0], MAT_INITIAL_MATRIX, PETSC_DEFAULT, &blocks[2]));
    check(MatDuplicate(blocks[2], MAT_DO_NOT_COPY_VALUES, &blocks[1]));
    for (std::size_t i = 0; i < views.size(); ++i) {
        double* array = nullptr;
        check(MatDenseGetArray(blocks[i + 1], &array));
        check(VecCreateMPIWithArray(PETSC_COMM_WORLD, 1, m * block_columns, PETSC_DETERMINE, array, &views[i]));
        check(MatDenseRestoreArray(blocks[i + 1], &array));
    }
    compare(
        "A*B", block_columns, views[0], views[1], [&] { a.multiply(blocks[0], blocks[1]); },
        [&] { return MatMatMult(aij, blocks[0], MAT_REUSE_MATRIX, PETSC_DEFAULT, &blocks[2]); });
    std::for_each(views.begin(), views.end(), [](Vec vector) { check(VecDestroy(&vector)); });
    std::for_each(blocks.begin(), blocks.end(), [](Mat matrix) { check(MatDestroy(&matrix)); });
}
