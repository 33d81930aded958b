// A host on many ranks: solves A*x = b by a solver of PETSc's whose products with A are calls of the library
// on each rank, then runs every product beside PETSc's own.

#include "comparison.h"
#include "distributed_operator.h"
#include "matrix_source.h"

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>
#include <optional>
#include <stdexcept>
#include <string_view>

namespace {

constexpr double solver_tolerance = 1e-8;
constexpr double greatest_difference = 1e-12;
constexpr const char* description =
    R"(Solves A*x = b on many ranks with the products of csr_products under PETSc, and compares every product with PETSc's.

Exit status:
  0  every product agrees with PETSc's, or overflows; the system of a file may not have converged, which a line says
  1  bad arguments, a bad file, too little memory, output that cannot be written
  2  a product differs from PETSc's, or the Poisson system did not converge

)";

struct Options {
    std::optional<std::string> path; // none: the Poisson matrix
    Int grid = 100;
    Int repetitions = 5;
};

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

// What all ranks find wrong, so that each of them ends by itself.
struct CommonError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// PETSc skips a word that is neither an option nor the value of one, and takes two dashes for part of a name.
void expect_no_stray_words(int argc, char** argv) {
    PetscBool behind_option = PETSC_FALSE;
    for (int i = 1; i < argc; ++i) {
        PetscBool is_option = PETSC_FALSE;
        check(PetscOptionsValidKey(argv[i], &is_option));
        if (std::string_view(argv[i]).substr(0, 2) == "--" ||
            (is_option == PETSC_FALSE && behind_option == PETSC_FALSE)) {
            throw CommonError(fmt::format("'{}' is no option, as -grid 50 or -f FILE is, nor its value", argv[i]));
        }
        behind_option = is_option;
    }
}

// PETSc also ignores an option that nothing asked for, as one that is spelled wrong.
void expect_no_unused_options() {
    Int count = 0;
    char** names = nullptr;
    char** values = nullptr;
    std::string unused;
    check(PetscOptionsLeftGet(nullptr, &count, &names, &values));
    for (Int i = 0; i < count; ++i) {
        const std::string_view name = names[i];
        if (name != "options_view" && name != "options_left") { // which PETSc reads as it ends
            unused += fmt::format(" -{}", name);
        }
    }
    check(PetscOptionsLeftRestore(nullptr, &count, &names, &values));
    if (!unused.empty()) {
        throw CommonError("unused options:" + unused);
    }
}

PetscErrorCode read_options(Options& options) {
    std::array<char, PETSC_MAX_PATH_LEN> path{};
    PetscBool is_given = PETSC_FALSE;
    std::string problem;
    PetscOptionsBegin(PETSC_COMM_WORLD, nullptr, "Distributed host", nullptr);
    const auto read_number = [&](const char* name, const char* text, Int greatest, Int& value) {
        std::array<char, 24> word{}; // PETSc would take the default where no number follows
        PetscBool has_word = PETSC_FALSE;
        check(PetscOptionsString(name, text, nullptr, fmt::format("{}", value).c_str(), word.data(), word.size(),
                                 &has_word));
        const char* const end = word.data() + std::strlen(word.data());
        if (has_word == PETSC_TRUE && (word[0] == '\0' || std::from_chars(word.data(), end, value).ptr != end)) {
            value = 0;
        }
        if (value < 1 || value > greatest) {
            problem = fmt::format("{} takes a number from 1 to {}", name, greatest);
        }
    };
    check(PetscOptionsString("-f", "Matrix Market file in place of the 3-D Poisson matrix", nullptr, "", path.data(),
                             path.size(), &is_given));
    if (is_given == PETSC_TRUE) {
        options.path = path.data();
    } else {
        read_number(
            "-grid",
            "points along an edge of the Poisson cube, 1 to 250; 100 takes 0.7 GB of memory on one rank, 250 takes 11",
            250, options.grid);
    }
    read_number("-repetitions", "how often each product is timed, 1 to 1000", 1000, options.repetitions);
    PetscOptionsEnd();
    if (!problem.empty()) {
        throw CommonError(problem);
    }
    return PetscErrorCode{};
}

// A solver as the options want it, by default conjugate gradients or BiCGStab. Preconditioners read PETSc's own matrix.
KSP make_solver(Mat shell, Mat aij, bool symmetric) {
    KSP solver = nullptr;
    PC preconditioner = nullptr;
    check(KSPCreate(PETSC_COMM_WORLD, &solver));
    check(KSPSetOperators(solver, shell, aij));
    check(KSPSetType(solver, symmetric ? KSPCG : KSPBCGS));
    check(KSPSetTolerances(solver, solver_tolerance, PETSC_DEFAULT, PETSC_DEFAULT, PETSC_DEFAULT));
    check(KSPGetPC(solver, &preconditioner));
    check(PCSetType(preconditioner, PCJACOBI));
    check(KSPSetFromOptions(solver));
    return solver;
}

// Solves for a right-hand side whose solution is all ones. Returns whether the solver converged.
bool solve(Mat aij, DistributedOperator& a, bool symmetric) {
    Vec x = nullptr;
    Vec b = nullptr;
    KSPType name = nullptr;
    KSPConvergedReason reason{};
    const char* reason_text = nullptr;
    Int iterations = 0;
    double residual = 0;
    double size = 0;
    KSP solver = make_solver(a.shell(), aij, symmetric);
    check(MatCreateVecs(aij, &x, &b));
    check(VecSet(x, 1.0));
    a.multiply(x, b);
    check(VecSet(x, 0.0)); // -ksp_initial_guess_nonzero starts from it
    check(VecNorm(b, NORM_2, &size));
    const double start = MPI_Wtime();
    check(KSPSolve(solver, b, x));
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

// Prints a row for each product. Returns whether all agree with PETSc's.
bool compare(Mat aij, DistributedOperator& a, const Options& options) {
    bool agrees = true;
    bool overflows = false;
    print(stdout, "{:<8} {:>5} {:>9} {:>9} {:>12} {:>9} {:>9} {:>10}\n", "product", "ranks", "rows", "ghosts",
          "bytes sent", "ms", "PETSc ms", "difference");
    compare_products(aij, a, options.repetitions, [&](const Measurement& row) {
        agrees = agrees && (!row.difference || *row.difference <= greatest_difference); // false for NaN
        overflows = overflows || !row.difference;
        print(stdout, "{:<8} {:>5} {:>9} {:>9} {:>12} {:>9.3f} {:>9.3f} {:>10}\n", row.product, number_of_ranks(),
              row.rows, row.ghosts, row.bytes_sent, row.milliseconds, row.petsc_milliseconds,
              row.difference ? fmt::format("{:.1e}", *row.difference) : "overflow");
    });
    if (overflows) {
        print(stdout, "\nthe products overflow: they are not compared\n");
    }
    if (!agrees) {
        print(stderr, "distributed_host: a product differs from PETSc's by more than {:.0e}\n", greatest_difference);
    }
    return agrees;
}

// The matrix, which rank 0 holds. All ranks know whether it is symmetric.
struct Source {
    EigenMatrix matrix;
    bool symmetric = false;
};

Source read_matrix(const Options& options) {
    Source source;
    std::string problem;
    int symmetric = -1; // unless it can be read
    if (rank_of_this_process() == 0) {
        try {
            source.matrix = options.path ? read_matrix_market(*options.path) : poisson(options.grid);
            symmetric = static_cast<int>(is_symmetric(source.matrix));
            const int ranks = number_of_ranks();
            fmt::print("{}: {} x {}, {} stored entries that sum to {:.6g}, {}, on {} {}\n\n",
                       options.path.value_or(fmt::format("Poisson matrix of a {0} x {0} x {0} grid", options.grid)),
                       source.matrix.rows(), source.matrix.cols(), source.matrix.nonZeros(), source.matrix.sum(),
                       symmetric == 1 ? "symmetric" : "unsymmetric", ranks, ranks == 1 ? "rank" : "ranks");
        } catch (const std::bad_alloc&) {
            problem = "not enough memory for this matrix";
        } catch (const std::exception& error) {
            problem = error.what();
        }
    }
    MPI_Bcast(&symmetric, 1, MPI_INT, 0, PETSC_COMM_WORLD);
    if (symmetric == -1) {
        throw CommonError(problem); // which rank 0 prints
    }
    source.symmetric = symmetric == 1;
    return source;
}

// The exit status.
int run(int argc, char** argv) {
    Options options;
    PetscBool wants_help = PETSC_FALSE;
    expect_no_stray_words(argc, argv);
    check(read_options(options));
    check(PetscOptionsHasHelp(nullptr, &wants_help));
    if (wants_help == PETSC_TRUE) {
        KSP solver = make_solver(nullptr, nullptr, true); // shows its options
        check(KSPDestroy(&solver));
        return 0;
    }
    Source source = read_matrix(options);
    Mat aij = distribute(std::move(source.matrix));
    Int rows = 0;
    Int columns = 0;
    check(MatGetSize(aij, &rows, &columns));
    bool converged = true;
    bool agrees = false;
    {
        DistributedOperator a(aij);
        if (rows == columns) {
            converged = solve(aij, a, source.symmetric);
        } else {
            print(stdout, "rectangular: no system to solve\n\n");
        }
        expect_no_unused_options();
        agrees = compare(aij, a, options);
    }
    check(MatDestroy(&aij));
    const bool failed = !converged && !options.path;
    if (failed) {
        print(stderr, "distributed_host: the Poisson problem did not converge\n");
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        fmt::print(stderr, "distributed_host: standard output cannot be written\n");
        return 1;
    }
    return agrees && !failed ? 0 : 2;
}

} // namespace

int main(int argc, char** argv) {
    int status = 1;
    check(PetscInitialize(&argc, &argv, nullptr, description));
    try {
        status = run(argc, argv);
    } catch (const CommonError& error) {
        print(stderr, "distributed_host: {}\n", error.what());
        check(PetscOptionsSetValue(nullptr, "-options_left", "no")); // PETSc 3.22 would list those not read so far
    } catch (const std::exception& error) {
        fmt::print(stderr, "distributed_host: rank {}: {}\n", rank_of_this_process(), error.what());
        MPI_Abort(PETSC_COMM_WORLD, 1); // the other ranks would wait for this one
    }
    check(PetscFinalize());
    return status;
}
