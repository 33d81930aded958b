// A host on many ranks: solves A*x = b by a solver of PETSc's whose products with A are calls of the library
// on each rank, then runs every product beside PETSc's own.

#include "distributed_operator.h"
#include "matrix_source.h"
#include "progress_line.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <limits>

namespace {

constexpr double solver_tolerance = 1e-8;
constexpr double greatest_difference = 1e-12;
constexpr Int block_columns = 8;

int rank = 0;
int ranks = 0;

template <class... Args>
void print(std::FILE* file, const Args&... args) {
    if (rank == 0) {
        fmt::print(file, args...);
        std::fflush(file);
    }
}

template <class T>
T greatest(T value, MPI_Datatype type) {
    MPI_Allreduce(MPI_IN_PLACE, &value, 1, type, MPI_MAX, PETSC_COMM_WORLD);
    return value;
}

// Solves for a right-hand side whose solution is all ones. Returns whether the solver converged.
bool solve(Mat aij, DistributedOperator& a, bool symmetric) {
    Vec x = nullptr;
    Vec b = nullptr;
    KSP solver = nullptr;
    PC preconditioner = nullptr;
    KSPType name = nullptr;
    KSPConvergedReason reason{};
    Int iterations = 0;
    double residual = 0;
    double size = 0;
    check(MatCreateVecs(aij, &x, &b));
    check(VecSet(x, 1.0));
    a.multiply(x, b);
    check(VecNorm(b, NORM_2, &size));
    check(KSPCreate(PETSC_COMM_WORLD, &solver));
    check(KSPSetOperators(solver, a.shell(), aij)); // preconditioners read PETSc's own matrix
    check(KSPSetType(solver, symmetric ? KSPCG : KSPBCGS));
    check(KSPSetTolerances(solver, solver_tolerance, PETSC_DEFAULT, PETSC_DEFAULT, PETSC_DEFAULT));
    check(KSPGetPC(solver, &preconditioner));
    check(PCSetType(preconditioner, PCJACOBI));
    check(KSPSetFromOptions(solver));
    check(KSPGetType(solver, &name));
    // The ranks write to a pipe of mpirun's, so scripts/run-ranks says whether there is a terminal behind it.
    ProgressLine progress(rank == 0 && std::getenv("CSR_PRODUCTS_TERMINAL") != nullptr);
    const auto show = [](KSP, PetscInt iteration, PetscReal norm, void* line) {
        static_cast<ProgressLine*>(line)->show(fmt::format("iteration {}, residual {:.1e}", iteration, norm));
        return PetscErrorCode{};
    };
    check(KSPMonitorSet(solver, show, &progress, nullptr));
    const double start = MPI_Wtime();
    check(KSPSolve(solver, b, x));
    const double seconds = MPI_Wtime() - start;
    progress.show("");
    check(KSPGetConvergedReason(solver, &reason));
    check(KSPGetIterationNumber(solver, &iterations));
    check(VecScale(b, -1.0));
    a.multiply_add(x, b, b);
    check(VecNorm(b, NORM_2, &residual));
    const bool converged = reason > 0 && residual <= 1000 * solver_tolerance * size;
    print(stdout, "{}: {} after {} iterations and {:.2f} s, relative residual {:.1e}\n\n", name,
          converged ? "converged" : "did not converge", iterations, seconds, size > 0 ? residual / size : residual);
    check(KSPDestroy(&solver));
    check(VecDestroy(&x));
    check(VecDestroy(&b));
    return converged;
}

// Medians of ours and PETSc's, in turn, each the time of the slowest rank.
template <class Ours, class Theirs>
std::array<double, 2> median_milliseconds(int repetitions, Ours ours, Theirs theirs) {
    std::array<std::vector<double>, 2> times;
    const auto measure = [](auto product) {
        MPI_Barrier(PETSC_COMM_WORLD);
        const double start = MPI_Wtime();
        product();
        return greatest(1e3 * (MPI_Wtime() - start), MPI_DOUBLE);
    };
    for (int i = 0; i < repetitions; ++i) {
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

// Runs each product beside PETSc's and prints a table. Returns whether all agree.
bool compare(Mat aij, DistributedOperator& a, int repetitions) {
    Int m = 0; // of this rank, as k
    Int k = 0;
    Int all_rows = 0;
    Int all_ghosts = a.ghosts();
    check(MatGetLocalSize(aij, &m, &k));
    check(MatGetSize(aij, nullptr, &all_rows));
    MPI_Allreduce(MPI_IN_PLACE, &all_ghosts, 1, MPIU_INT, MPI_SUM, PETSC_COMM_WORLD);
    const Int most_rows = greatest(m, MPIU_INT);
    const Int most_ghosts = greatest(a.ghosts(), MPIU_INT);
    print(stdout, "{:<8} {:>6} {:>10} {:>10} {:>12} {:>10} {:>10} {:>11}\n", "product", "ranks", "rows", "ghosts",
          "bytes sent", "ms", "PETSc ms", "difference");

    bool agree = true;
    const auto compare_product = [&](const char* name, Int columns, Vec result, Vec expected, auto ours, auto theirs) {
        constexpr double nan = std::numeric_limits<double>::quiet_NaN();
        const auto times = median_milliseconds(repetitions, ours, [&] { check(theirs()); });
        // Once more into NaN. The norms are sums, which keep a NaN of any rank.
        a.ghost_values().assign(static_cast<std::size_t>(a.ghosts() * columns), nan);
        check(VecSet(result, nan));
        ours();
        double size = 0;
        double difference = 0;
        check(VecNorm(expected, NORM_2, &size));
        check(VecAXPY(result, -1.0, expected));
        check(VecNorm(result, NORM_2, &difference));
        difference /= size > 0 ? size : 1.0;
        agree = agree && difference <= greatest_difference; // false for NaN
        print(stdout, "{:<8} {:>6} {:>10} {:>10} {:>12} {:>10.3f} {:>10.3f} {:>11.1e}\n", name, ranks, most_rows,
              most_ghosts, 8 * all_ghosts * columns, times[0], times[1], difference);
    };

    std::array<Vec, 3> x{random_vector(k), random_vector(k), random_vector(k)};
    std::array<Vec, 3> y{random_vector(m), random_vector(m), random_vector(m)};
    compare_product(
        "A*x", 1, y[0], y[1], [&] { a.multiply(x[0], y[0]); }, [&] { return MatMult(aij, x[0], y[1]); });
    compare_product(
        "A*x + y", 1, y[0], y[1], [&] { a.multiply_add(x[0], y[2], y[0]); },
        [&] { return MatMultAdd(aij, x[0], y[2], y[1]); });
    compare_product(
        "A^T*x", 1, x[0], x[1], [&] { a.multiply_transposed(y[2], x[0]); },
        [&] { return MatMultTranspose(aij, y[2], x[1]); });

    std::array<Mat, 3> blocks{}; // the operand, our result, PETSc's
    std::array<double*, 2> arrays{};
    std::array<Vec, 2> views{}; // of the results
    check(MatCreateDense(PETSC_COMM_WORLD, k, PETSC_DECIDE, all_rows, block_columns, nullptr, blocks.data()));
    check(MatSetRandom(blocks[0], nullptr));
    check(MatMatMult(aij, blocks[0], MAT_INITIAL_MATRIX, PETSC_DEFAULT, &blocks[2]));
    check(MatDuplicate(blocks[2], MAT_DO_NOT_COPY_VALUES, &blocks[1]));
    for (std::size_t i = 0; i < views.size(); ++i) {
        check(MatDenseGetArray(blocks[i + 1], &arrays[i]));
        check(VecCreateMPIWithArray(PETSC_COMM_WORLD, 1, m * block_columns, PETSC_DETERMINE, arrays[i], &views[i]));
        check(MatDenseRestoreArray(blocks[i + 1], &arrays[i]));
    }
    compare_product(
        "A*B", block_columns, views[0], views[1], [&] { a.multiply(blocks[0], blocks[1]); },
        [&] { return MatMatMult(aij, blocks[0], MAT_REUSE_MATRIX, PETSC_DEFAULT, &blocks[2]); });

    for (const auto& vectors : {x, y}) {
        std::for_each(vectors.begin(), vectors.end(), [](Vec vector) { check(VecDestroy(&vector)); });
    }
    std::for_each(views.begin(), views.end(), [](Vec vector) { check(VecDestroy(&vector)); });
    std::for_each(blocks.begin(), blocks.end(), [](Mat matrix) { check(MatDestroy(&matrix)); });
    return agree;
}

int run(const std::string& path, bool built_in, Int grid, int repetitions) {
    // Every rank waits for the verdict of rank 0.
    EigenMatrix matrix;
    std::array<int, 2> verdict{}; // usable, symmetric
    if (rank == 0) {
        try {
            matrix = built_in ? poisson(grid) : read_matrix_market(path);
            matrix.makeCompressed();
            verdict = {1, static_cast<int>(is_symmetric(matrix))};
        } catch (const std::exception& error) {
            fmt::print(stderr, "distributed_host: {}\n", error.what());
        }
    }
    MPI_Bcast(verdict.data(), 2, MPI_INT, 0, PETSC_COMM_WORLD);
    if (verdict[0] == 0) {
        return 1;
    }
    const bool symmetric = verdict[1] != 0;
    if (rank == 0) {
        fmt::print("{}: {} x {}, {} stored entries that sum to {:.6g}, {}, on {} ranks\n\n",
                   built_in ? fmt::format("Poisson matrix of a {0} x {0} x {0} grid", grid) : path, matrix.rows(),
                   matrix.cols(), matrix.nonZeros(), matrix.sum(), symmetric ? "symmetric" : "unsymmetric", ranks);
    }
    Mat aij = distribute(matrix);
    matrix = EigenMatrix(); // each rank has its rows
    Int m = 0;
    Int k = 0;
    check(MatGetSize(aij, &m, &k));
    bool converged = true;
    bool agree = false;
    {
        DistributedOperator a(aij);
        if (m == k) {
            converged = solve(aij, a, symmetric);
        } else {
            print(stdout, "rectangular: no system to solve\n\n");
        }
        agree = compare(aij, a, repetitions);
    }
    check(MatDestroy(&aij));
    if (!agree) {
        print(stderr, "distributed_host: a product differs from PETSc's by more than {:.0e}\n", greatest_difference);
    }
    if (!converged && built_in) {
        print(stderr, "distributed_host: the Poisson problem did not converge\n");
    }
    if (std::fflush(stdout) != 0) {
        fmt::print(stderr, "distributed_host: standard output cannot be written\n");
        return 1;
    }
    return agree && (converged || !built_in) ? 0 : 2;
}

} // namespace

int main(int argc, char** argv) {
    MPI_Init(&argc, &argv);
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    MPI_Comm_size(MPI_COMM_WORLD, &ranks);
    int status = 0;
    try {
        std::string path;
        Int grid = 100;
        int repetitions = 5;
        CLI::App app("Solves A*x = b on many ranks with the products of csr_products under PETSc, and compares every "
                     "product with PETSc's. PETSc's own options, such as -ksp_type, come last.");
        app.footer("Exit status:\n"
                   "  0  every product agrees with PETSc's; the system of a file may not have converged, which a line "
                   "says\n"
                   "  1  bad arguments, a bad file, output that cannot be written\n"
                   "  2  a product differs from PETSc's, or the Poisson system did not converge");
        app.set_help_flag("--help", "Print this help message and exit");
        auto* const file = app.add_option("file", path, "Matrix Market file; without one, the 3-D Poisson matrix");
        app.add_option("--grid", grid, "points along an edge of the Poisson cube")
            ->excludes(file)
            ->check(CLI::Range(1, 250))
            ->capture_default_str();
        app.add_option("--repetitions", repetitions, "how often each product is timed")
            ->check(CLI::Range(1, 1000))
            ->capture_default_str();

        // PETSc's own options begin with the first one that has a single dash.
        const auto is_petscs = [](const char* argument) { return argument[0] == '-' && argument[1] != '-'; };
        char** const petsc = std::find_if(argv + 1, argv + argc, is_petscs);
        try {
            app.parse(static_cast<int>(petsc - argv), argv);
        } catch (const CLI::CallForHelp&) {
            print(stdout, "{}", app.help());
            return MPI_Finalize();
        }
        int petsc_count = static_cast<int>(argv + argc - petsc) + 1;
        char** petsc_values = petsc - 1; // PETSc skips the first, conventionally the program
        check(PetscInitialize(&petsc_count, &petsc_values, nullptr, nullptr));
        status = run(path, file->count() == 0, grid, repetitions);
        check(PetscFinalize());
    } catch (const std::exception& error) {
        if (rank == 0) {
            std::fprintf(stderr, "distributed_host: %s\n", error.what());
        }
        status = 1;
    }
    MPI_Finalize();
    return status;
}
