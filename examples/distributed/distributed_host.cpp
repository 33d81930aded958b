// A host on many ranks: solves A*x = b by a solver of PETSc's whose products with A are calls of the library
// on each rank, then runs every product beside PETSc's own.

#include "distributed_operator.h"
#include "matrix_source.h"
#include "progress_line.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <new>
#include <optional>
#include <stdexcept>
#include <string_view>

namespace {

constexpr double solver_tolerance = 1e-8;
constexpr double greatest_difference = 1e-12;
constexpr Int block_columns = 8;

struct Options {
    std::string path; // empty: the Poisson matrix
    Int grid = 100;
    int repetitions = 5;
    std::vector<std::string> petsc; // its options, each before its value
};

// With one dash and a name: the value -1 is none.
bool is_option(const char* argument) {
    return argument[0] == '-' && std::isalpha(static_cast<unsigned char>(argument[1])) != 0;
}

int rank_of_this_process() {
    int rank = 0;
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    return rank;
}

int number_of_ranks() {
    int ranks = 0;
    MPI_Comm_size(MPI_COMM_WORLD, &ranks);
    return ranks;
}

// By one rank for all.
template <class... Args>
void print(std::FILE* file, const Args&... args) {
    if (rank_of_this_process() == 0) {
        fmt::print(file, args...);
        std::fflush(file);
    }
}

template <class T>
T greatest(T value, MPI_Datatype type) {
    MPI_Allreduce(MPI_IN_PLACE, &value, 1, type, MPI_MAX, PETSC_COMM_WORLD);
    return value;
}

// What all ranks find wrong, so that each of them ends by itself.
struct CommonError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Throws what PETSc says first about an error, without its traceback. For calls that fail on all ranks or on none,
// as those that read options do.
template <class Call>
void throw_if_fails(Call call) {
    const auto keep = [](MPI_Comm, int, const char*, const char*, PetscErrorCode code, PetscErrorType type,
                         const char* message, void* kept) {
        if (type == PETSC_ERROR_INITIAL) {
            const std::string text = message == nullptr ? "" : message;
            *static_cast<std::string*>(kept) = text.substr(0, std::min<std::size_t>(text.find('\n'), 160));
        }
        return code;
    };
    std::string message;
    check(PetscPushErrorHandler(keep, &message));
    const PetscErrorCode code = call();
    check(PetscPopErrorHandler());
    if (code != 0) {
        throw CommonError("PETSc: " + message);
    }
}

// Shows the iterations. The ranks write to pipes of mpirun's, so run-ranks says how wide the terminal is.
class SolverProgress {
public:
    explicit SolverProgress(KSP solver) {
        const auto show = [](KSP, PetscInt iteration, PetscReal norm, void* progress) {
            static_cast<SolverProgress*>(progress)->line_.show(
                fmt::format("iteration {}, residual {:.1e}", iteration, norm));
            return PetscErrorCode{};
        };
        check(KSPMonitorSet(solver, show, this, nullptr));
    }

private:
    static int columns() {
        const char* const terminal = std::getenv("CSR_PRODUCTS_TERMINAL_COLUMNS");
        return rank_of_this_process() == 0 && terminal != nullptr ? std::atoi(terminal) : 0;
    }

    ProgressLine line_{columns()};
};

bool petsc_prints(const Options& options) {
    return std::any_of(options.petsc.begin(), options.petsc.end(),
                       [](const std::string& option) { return option.rfind("-ksp_monitor", 0) == 0; });
}

// A solver as the options want it, by default conjugate gradients or BiCGStab.
KSP make_solver(Mat aij, const DistributedOperator& a, bool symmetric) {
    KSP solver = nullptr;
    PC preconditioner = nullptr;
    check(KSPCreate(PETSC_COMM_WORLD, &solver));
    check(KSPSetOperators(solver, a.shell(), aij)); // preconditioners read PETSc's own matrix
    check(KSPSetType(solver, symmetric ? KSPCG : KSPBCGS));
    check(KSPSetTolerances(solver, solver_tolerance, PETSC_DEFAULT, PETSC_DEFAULT, PETSC_DEFAULT));
    check(KSPGetPC(solver, &preconditioner));
    check(PCSetType(preconditioner, PCJACOBI));
    throw_if_fails([&] { return KSPSetFromOptions(solver); });
    throw_if_fails([&] { return KSPSetUp(solver); });
    return solver;
}

// Solves for a right-hand side whose solution is all ones. Returns whether the solver converged.
bool solve(Mat aij, DistributedOperator& a, bool symmetric, const Options& options) {
    Vec x = nullptr;
    Vec b = nullptr;
    KSPType name = nullptr;
    KSPConvergedReason reason{};
    const char* reason_text = nullptr;
    Int iterations = 0;
    double residual = 0;
    double size = 0;
    KSP solver = make_solver(aij, a, symmetric);
    check(MatCreateVecs(aij, &x, &b));
    check(VecSet(x, 1.0));
    a.multiply(x, b);
    check(VecNorm(b, NORM_2, &size));
    const double start = MPI_Wtime();
    {
        std::optional<SolverProgress> progress;
        if (!petsc_prints(options)) {
            progress.emplace(solver);
        }
        check(KSPSolve(solver, b, x));
    }
    const double seconds = MPI_Wtime() - start;
    check(KSPGetType(solver, &name));
    check(KSPGetConvergedReason(solver, &reason));
    check(KSPGetConvergedReasonString(solver, &reason_text));
    check(KSPGetIterationNumber(solver, &iterations));
    check(VecScale(b, -1.0));
    a.multiply_add(x, b, b);
    check(VecNorm(b, NORM_2, &residual));
    residual /= size > 0 ? size : 1.0;
    const bool converged = reason > 0 && residual <= 1000 * solver_tolerance;
    const bool stopped = reason < 0 && reason != KSP_DIVERGED_ITS;
    print(stdout, "{}: {} after {} iterations and {:.2f} s{}, relative residual {}\n\n", name,
          converged ? "converged" : "did not converge", iterations, seconds,
          stopped ? fmt::format(" ({})", reason_text) : "",
          std::isfinite(residual) ? fmt::format("{:.1e}", residual) : "not finite");
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

// Runs each product beside PETSc's and prints a row for it.
class Comparison {
public:
    Comparison(Mat aij, DistributedOperator& a, int repetitions)
        : aij_(aij), a_(a), repetitions_(repetitions), all_ghosts_(a.ghosts()) {
        double by_rows = 0;
        double by_columns = 0;
        check(MatGetLocalSize(aij, &m_, &k_));
        check(MatGetSize(aij, &all_rows_, &all_columns_));
        check(MatNorm(aij, NORM_INFINITY, &by_rows));
        check(MatNorm(aij, NORM_1, &by_columns));
        bound_ = (1 + std::max(by_rows, by_columns)) *
                 static_cast<double>(block_columns * std::max(all_rows_, all_columns_));
        MPI_Allreduce(MPI_IN_PLACE, &all_ghosts_, 1, MPIU_INT, MPI_SUM, PETSC_COMM_WORLD);
        most_rows_ = greatest(m_, MPIU_INT);
        most_ghosts_ = greatest(a.ghosts(), MPIU_INT);
        print(stdout, "{:<8} {:>5} {:>9} {:>9} {:>12} {:>9} {:>9} {:>10}\n", "product", "ranks", "rows", "ghosts",
              "bytes sent", "ms", "PETSc ms", "difference");
    }

    // Whether all products agreed so far.
    bool agrees() const { return agrees_; }
    // Whether their sums may be too large for a double. They are then not compared.
    bool overflows() const { return !std::isfinite(bound_); }

    void compare_vector_products() {
        const std::array<Vec, 3> x{random_vector(k_), random_vector(k_), random_vector(k_)};
        const std::array<Vec, 3> y{random_vector(m_), random_vector(m_), random_vector(m_)};
        compare(
            "A*x", 1, y[0], y[1], [&] { a_.multiply(x[0], y[0]); }, [&] { return MatMult(aij_, x[0], y[1]); });
        compare(
            "A*x + y", 1, y[0], y[1], [&] { a_.multiply_add(x[0], y[2], y[0]); },
            [&] { return MatMultAdd(aij_, x[0], y[2], y[1]); });
        compare(
            "A^T*x", 1, x[0], x[1], [&] { a_.multiply_transposed(y[2], x[0]); },
            [&] { return MatMultTranspose(aij_, y[2], x[1]); });
        for (const auto& vectors : {x, y}) {
            std::for_each(vectors.begin(), vectors.end(), [](Vec vector) { check(VecDestroy(&vector)); });
        }
    }

    void compare_block_product() {
        std::array<Mat, 3> blocks{}; // the operand, our result, PETSc's
        std::array<Vec, 2> views{};  // of the results
        check(MatCreateDense(PETSC_COMM_WORLD, k_, PETSC_DECIDE, all_columns_, block_columns, nullptr, blocks.data()));
        check(MatSetRandom(blocks[0], nullptr));
        check(MatMatMult(aij_, blocks[0], MAT_INITIAL_MATRIX, PETSC_DEFAULT, &blocks[2]));
        check(MatDuplicate(blocks[2], MAT_DO_NOT_COPY_VALUES, &blocks[1]));
        for (std::size_t i = 0; i < views.size(); ++i) {
            double* array = nullptr;
            check(MatDenseGetArray(blocks[i + 1], &array));
            check(VecCreateMPIWithArray(PETSC_COMM_WORLD, 1, m_ * block_columns, PETSC_DETERMINE, array, &views[i]));
            check(MatDenseRestoreArray(blocks[i + 1], &array));
        }
        compare(
            "A*B", block_columns, views[0], views[1], [&] { a_.multiply(blocks[0], blocks[1]); },
            [&] { return MatMatMult(aij_, blocks[0], MAT_REUSE_MATRIX, PETSC_DEFAULT, &blocks[2]); });
        std::for_each(views.begin(), views.end(), [](Vec vector) { check(VecDestroy(&vector)); });
        std::for_each(blocks.begin(), blocks.end(), [](Mat matrix) { check(MatDestroy(&matrix)); });
    }

private:
    template <class Ours, class Theirs>
    void compare(const char* name, Int columns, Vec result, Vec expected, Ours ours, Theirs theirs) {
        const auto times = median_milliseconds(repetitions_, ours, [&] { check(theirs()); });
        // Once more into NaN. The norms are sums, which keep a NaN of any rank.
        check(VecSet(result, std::numeric_limits<double>::quiet_NaN()));
        ours();
        double size = 0;
        double difference = 0;
        check(VecNorm(expected, NORM_1, &size));
        check(VecAXPY(result, -1.0, expected));
        check(VecNorm(result, NORM_1, &difference));
        difference /= size > 0 ? size : 1.0;
        agrees_ = agrees_ && (overflows() || difference <= greatest_difference); // false for NaN
        print(stdout, "{:<8} {:>5} {:>9} {:>9} {:>12} {:>9.3f} {:>9.3f} {:>10}\n", name, number_of_ranks(), most_rows_,
              most_ghosts_, 8 * all_ghosts_ * columns, times[0], times[1],
              overflows() ? "overflow" : fmt::format("{:.1e}", difference));
    }

    Mat aij_;
    DistributedOperator& a_;
    int repetitions_;
    Int m_ = 0; // of this rank, as k
    Int k_ = 0;
    Int all_rows_ = 0;
    Int all_columns_ = 0;
    Int all_ghosts_;
    Int most_rows_ = 0;
    Int most_ghosts_ = 0;
    double bound_ = 0; // of every sum of elements of a result
    bool agrees_ = true;
};

// The matrix, which rank 0 holds. All ranks know whether it could be read and whether it is symmetric.
struct Source {
    EigenMatrix matrix;
    bool usable = false;
    bool symmetric = false;
};

Source read_matrix(const Options& options) {
    Source source;
    std::array<int, 2> verdict{};
    if (rank_of_this_process() == 0) {
        try {
            source.matrix = options.path.empty() ? poisson(options.grid) : read_matrix_market(options.path);
            verdict = {1, static_cast<int>(is_symmetric(source.matrix))};
            const int ranks = number_of_ranks();
            fmt::print("{}: {} x {}, {} stored entries that sum to {:.6g}, {}, on {} {}\n\n",
                       options.path.empty() ? fmt::format("Poisson matrix of a {0} x {0} x {0} grid", options.grid)
                                            : options.path,
                       source.matrix.rows(), source.matrix.cols(), source.matrix.nonZeros(), source.matrix.sum(),
                       verdict[1] != 0 ? "symmetric" : "unsymmetric", ranks, ranks == 1 ? "rank" : "ranks");
        } catch (const std::bad_alloc&) {
            fmt::print(stderr, "distributed_host: not enough memory for this matrix\n");
        } catch (const std::exception& error) {
            fmt::print(stderr, "distributed_host: {}\n", error.what());
        }
    }
    MPI_Bcast(verdict.data(), 2, MPI_INT, 0, PETSC_COMM_WORLD);
    source.usable = verdict[0] != 0;
    source.symmetric = verdict[1] != 0;
    return source;
}

// PETSc ignores an option that nothing asked for, as one that is spelled wrong.
void expect_all_options_used(const Options& options) {
    for (const std::string& option : options.petsc) {
        PetscBool used = PETSC_TRUE;
        if (is_option(option.c_str())) {
            check(PetscOptionsUsed(nullptr, option.c_str() + 1, &used));
        }
        if (used == PETSC_FALSE) {
            throw CommonError(fmt::format("PETSc has no use for the option {}", option));
        }
    }
}

// The exit status.
int run(const Options& options) {
    Source source = read_matrix(options);
    if (!source.usable) {
        return 1;
    }
    Mat aij = distribute(std::move(source.matrix));
    Int rows = 0;
    Int columns = 0;
    check(MatGetSize(aij, &rows, &columns));
    bool converged = true;
    bool agrees = false;
    {
        DistributedOperator a(aij);
        if (rows == columns) {
            converged = solve(aij, a, source.symmetric, options);
        } else {
            print(stdout, "rectangular: no system to solve\n\n");
        }
        expect_all_options_used(options);
        Comparison comparison(aij, a, options.repetitions);
        comparison.compare_vector_products();
        comparison.compare_block_product();
        agrees = comparison.agrees();
        if (comparison.overflows()) {
            print(stdout, "\nthe products overflow: they are not compared\n");
        }
    }
    check(MatDestroy(&aij));
    if (!agrees) {
        print(stderr, "distributed_host: a product differs from PETSc's by more than {:.0e}\n", greatest_difference);
    }
    const bool must_converge = options.path.empty();
    if (!converged && must_converge) {
        print(stderr, "distributed_host: the Poisson problem did not converge\n");
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        fmt::print(stderr, "distributed_host: standard output cannot be written\n");
        return 1;
    }
    return agrees && (converged || !must_converge) ? 0 : 2;
}

// Sorts the arguments into ours and PETSc's, wherever they stand. PETSc's begin with one dash, and what
// follows one is its value unless it begins with a dash too.
void sort_arguments(int argc, char** argv, std::vector<std::string>& ours, std::vector<std::string>& petsc) {
    for (int i = 1; i < argc; ++i) {
        if (!is_option(argv[i])) {
            ours.emplace_back(argv[i]);
            continue;
        }
        petsc.emplace_back(argv[i]);
        const bool has_value = i + 1 < argc && argv[i + 1][0] != '\0' && !is_option(argv[i + 1]) &&
                               std::string_view(argv[i + 1]).substr(0, 2) != "--";
        if (has_value) {
            petsc.emplace_back(argv[++i]);
        }
    }
}

// Returns whether there is something to do.
bool parse(int argc, char** argv, Options& options) {
    CLI::App app("Solves A*x = b on many ranks with the products of csr_products under PETSc, and compares every "
                 "product with PETSc's. Options with one dash, such as -ksp_type gmres, are PETSc's own. A word behind "
                 "one of them is its value, so the file stands before them.");
    app.footer("Exit status:\n"
               "  0  every product agrees with PETSc's, or overflows; the system of a file may not have converged,\n"
               "     which a line says\n"
               "  1  bad arguments, a bad file, too little memory, output that cannot be written\n"
               "  2  a product differs from PETSc's, or the Poisson system did not converge");
    app.set_help_flag("--help", "Print this help message and exit");
    auto* const file = app.add_option("file", options.path, "Matrix Market file; without one, the 3-D Poisson matrix");
    app.add_option("--grid", options.grid,
                   "points along an edge of the Poisson cube; 100 takes 0.8 GB of memory on one rank, 250 takes 12")
        ->excludes(file)
        ->check(CLI::Range(1, 250))
        ->capture_default_str();
    app.add_option("--repetitions", options.repetitions, "how often each product is timed")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    std::vector<std::string> ours;
    sort_arguments(argc, argv, ours, options.petsc);
    std::reverse(ours.begin(), ours.end()); // as CLI11 takes them
    try {
        app.parse(ours);
    } catch (const CLI::CallForHelp&) {
        print(stdout, "{}", app.help());
        return false;
    } catch (const CLI::ParseError& error) {
        throw CommonError(error.what());
    }
    if (file->count() > 0 && options.path.empty()) {
        throw CommonError("'': cannot be read");
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    MPI_Init(&argc, &argv);
    int status = 0;
    try {
        Options options;
        if (parse(argc, argv, options)) {
            std::vector<char*> petsc{argv[0]};
            for (std::string& option : options.petsc) {
                petsc.push_back(option.data());
            }
            petsc.push_back(nullptr);
            int count = static_cast<int>(petsc.size()) - 1;
            char** values = petsc.data();
            check(PetscInitialize(&count, &values, nullptr, nullptr));
            status = run(options);
            check(PetscFinalize());
        }
    } catch (const CommonError& error) {
        print(stderr, "distributed_host: {}\n", error.what());
        status = 1;
    } catch (const std::exception& error) { // the other ranks would wait for this one
        fmt::print(stderr, "distributed_host: rank {}: {}\n", rank_of_this_process(), error.what());
        MPI_Abort(MPI_COMM_WORLD, 1);
    }
    MPI_Finalize();
    return status;
}
