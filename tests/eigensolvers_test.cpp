// SLEPc's eigensolvers on the distributed operator. LOBPCG multiplies blocks and builds a preconditioner.

#include "distributed_operator.h"
#include "matrix_source.h"

#include <gtest/gtest.h>
#include <slepceps.h>

#include <cmath>

namespace {

TEST(Eigensolvers, SmallestEigenvalue) {
    const Int grid = 6;
    const double expected = 6 - 6 * std::cos(std::acos(-1.0) / (grid + 1));
    check(SlepcInitializeNoArguments());
    Mat aij = distribute(poisson(grid));
    {
        const DistributedOperator op(aij);
        for (const char* const type : {EPSKRYLOVSCHUR, EPSLOBPCG}) {
            SCOPED_TRACE(type);
            EPS solver = nullptr;
            double eigenvalue = 0.0;
            check(EPSCreate(PETSC_COMM_WORLD, &solver));
            check(EPSSetOperators(solver, op.shell(), nullptr));
            check(EPSSetProblemType(solver, EPS_HEP));
            check(EPSSetType(solver, type));
            check(EPSSetWhichEigenpairs(solver, EPS_SMALLEST_REAL));
            check(EPSSolve(solver));
            check(EPSGetEigenvalue(solver, 0, &eigenvalue, nullptr)); // fails if none converged
            EXPECT_NEAR(eigenvalue, expected, 1e-9);
            check(EPSDestroy(&solver));
        }
    }
    check(MatDestroy(&aij));
    check(SlepcFinalize());
}

} // namespace
