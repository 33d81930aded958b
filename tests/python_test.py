"""The Python module against NumPy. Usage: PYTHONPATH=INCLUDE LD_LIBRARY_PATH=FOLDER python3 python_test.py"""

import os
import sys
import tempfile
import unittest
from unittest import mock

os.environ.update(MKL_DYNAMIC="FALSE", OMP_NUM_THREADS="1")

import csr_products as cp
import numpy as np

assert "scipy" not in sys.modules  # the module needs NumPy alone
from scipy import sparse

M, K, N = 4, 3, 2
RANDOM = np.random.default_rng(1)


def whole(*shape):
    """Whole numbers, with which every product is exact."""
    return RANDOM.integers(-9, 9, shape).astype(float)


def csr(dense):
    return cp.from_scipy(sparse.csr_matrix(dense))


def to_scipy(val, col_ind, row_ptr, shape):
    nnz = row_ptr[-1] - 1
    return sparse.csr_matrix((val[:nnz], col_ind[:nnz] - 1, row_ptr - 1), shape)


def raised(block):
    """A block with another row, which a leading dimension skips."""
    return np.asfortranarray(np.vstack([block, np.full(block.shape[1], 7.0)]))


class Module(unittest.TestCase):
    def test_products(self):
        a, e, x, b, d, s = whole(M, K), whole(N, K), whole(K), whole(K, N).copy("F"), whole(M, N).copy("F"), whole(M, M)
        s = np.triu(s)
        symmetric_d = (s + np.triu(s, 1).T) @ d
        for function, before, after, expected in [
            (cp.spgmatgmat_mkl_G_int64, (*csr(a), b, M, K, N), (), a @ b),
            (cp.spgmatgmat_mkl_G_int64_ld, (*csr(a), raised(b), K + 1, M, K, N), (M + 1,), raised(a @ b)),
            (cp.spgmatgmat_mkl_S_int64, (*csr(s), d, M, M, N), (), symmetric_d),
            (cp.spgmatgmat_mkl_S_int64_ld, (*csr(s), raised(d), M + 1, M, M, N), (M + 1,), raised(symmetric_d)),
            (cp.spgmatgmatsum_mkl_G_int64, (*csr(a), b, K, M, K, N), (M,), a @ b + 7),
            (cp.spgmatgmatsum_mkl_S_int64, (*csr(s), d, M, M, M, N), (M,), symmetric_d),
            (cp.spgmattrgmat_mkl_G_int64, (*csr(a), d[:, 0], M, K, 1), (), a.T @ d[:, 0]),
            (cp.spgmattrgmat_mkl_S_int64, (*csr(s), d, M, M, N), (), symmetric_d),
            (cp.spgmatgvec_mkl_G_int64, (*csr(a), x, M, K), (), a @ x),
            (cp.spgmatgvecsum_mkl_G_int64, (*csr(a), x, M, K), (), a @ x + 7),
            (cp.spgmatspgmattr_gmat_mkl_int64_new, (M, K, N, *csr(a), *csr(e)), (), a @ e.T),
        ]:
            with self.subTest(function.__name__):
                output = np.full(expected.shape, 7.0, order="F")
                function(*before, output, *after)
                np.testing.assert_array_equal(output, expected)

        c = np.empty(M * N), np.empty(M * N, np.int64), np.empty(M + 1, np.int64)
        for stage, factor, outputs in (0, 1, (None,) * 3), (1, 1, (None, *c[1:])), (2, 1, c), (2, 3, c), (0, 5, c):
            cp.spgmatspgmattr_mkl_int64_new(stage, M, K, N, *csr(factor * a), *csr(e), 0, *outputs, None)
            if outputs is c:
                np.testing.assert_array_equal(to_scipy(*c, (M, N)).toarray(), factor * a @ e.T)

        tasks = len(os.listdir("/proc/self/task"))
        cp.qz_mkl_set_num_threads_int64(3)
        cp.spgmatgvec_mkl_G_int64(*csr(a), x, M, K, np.empty(M))
        self.assertEqual(len(os.listdir("/proc/self/task")), tasks + 2)

    def test_arguments(self):
        x = np.array([1.0, 10.0])
        good = dict(zip(("val", "col_ind", "row_ptr"), csr(np.array([[2.0, 0], [1, 3]]))), x=x, m=2, k=2, y=np.empty(2))
        frozen = np.frombuffer(x.tobytes())
        for name, value in ("x", x), ("x", frozen), ("x", x.reshape(2, 1)), ("x", x.reshape(1, 2)), ("m", np.int32(2)):
            with self.subTest(name, value=value):
                good["y"][:] = 0
                cp.spgmatgvec_mkl_G_int64(**{**good, name: value})
                self.assertEqual([*good["y"]], [2, 31])
        for name, value, error, message in [
            ("val", [2.0, 1.0, 3.0], TypeError, "must be a NumPy array of float64, not list"),
            ("val", np.ones(3, ">f8"), TypeError, "must be an array of float64, not of >f8"),
            ("col_ind", np.ones(3, np.int32), TypeError, "must be an array of int64, not of int32"),
            ("row_ptr", None, TypeError, "must be a NumPy array of int64, not NoneType"),
            ("x", np.ones(4)[::2], ValueError, "must be contiguous, and in Fortran order"),
            ("x", np.ones((2, 2)), ValueError, "must be contiguous, and in Fortran order"),
            ("x", np.zeros(17, np.byte)[1:].view(float), ValueError, "must be aligned"),
            ("y", frozen, ValueError, "must be writable"),
            ("m", 2.0, TypeError, "'float' object cannot be interpreted as an integer"),
            ("k", 2**63, OverflowError, "9223372036854775808 does not fit in 64 bits"),
        ]:
            with self.subTest(name, value=value), self.assertRaisesRegex(error, f"^{name}: {message}"):
                cp.spgmatgvec_mkl_G_int64(**{**good, name: value})
        for output in cp.DoublesOut, cp.DoublesOutOrNone, cp.IndicesOutOrNone:
            with self.assertRaisesRegex(ValueError, "writable"):
                output.from_param(frozen.view(output.dtype))
        for counts, keywords, message in ([], {}, "missing"), ([1, 2], {}, "too many"), ([1], {"count": 2}, "multiple"):
            with self.assertRaisesRegex(TypeError, message):
                cp.qz_mkl_set_num_threads_int64(*counts, **keywords)
        with self.assertRaisesRegex(OverflowError, "^count: -2147483649 does not fit in 32 bits$"):
            cp.qz_mkl_set_num_threads_int64(-(2**31) - 1)

    def test_finding_the_library(self):
        library = os.path.abspath(os.environ["LD_LIBRARY_PATH"] + "/libcsr_products.so.1")
        for folder in "lib", "lib64", "lib/x86_64-linux-gnu":
            with self.subTest(folder), tempfile.TemporaryDirectory() as prefix:
                os.makedirs(f"{prefix}/{folder}")
                os.symlink(library, f"{prefix}/{folder}/libother.so.1")
                with mock.patch.object(cp, "__file__", f"{prefix}/include/csr_products.py"):
                    cp._load("libother.so.1")
        with self.assertRaisesRegex(ImportError, "^libother.so.1: cannot open .*: LD_LIBRARY_PATH must name its folder"):
            cp._load("libother.so.1")

    def test_from_scipy(self):
        rows, columns = np.array([0, 0, 1]), np.array([2, 2, 0])
        stale = sparse.csr_matrix((np.full(3, 100, np.int8), columns, [0, 2, 3, 3]), (3, 4))
        stale.has_canonical_format = True  # as where a host changes the columns in place
        plain = sparse.csr_matrix(whole(3, 4))
        for matrix in [*map(plain.asformat, ("csr", "csc", "bsr", "dia", "lil", "dok")), stale,
                       sparse.coo_matrix((np.ones(3), (rows, columns)), (3, 4)),
                       sparse.csc_matrix((3, 4)), sparse.csr_array((0, 4))]:
            with self.subTest(repr(matrix)):
                before = matrix.copy()
                val, col_ind, row_ptr = arrays = cp.from_scipy(matrix)
                made = to_scipy(*arrays, matrix.shape)
                self.assertTrue(made.has_canonical_format)  # a column stands once in a row
                np.testing.assert_array_equal(made.toarray(), before @ np.eye(before.shape[1]))
                self.assertEqual([each.dtype for each in arrays], [np.float64, np.int64, np.int64])
                self.assertEqual([val.size, col_ind.size], 2 * [max(1, row_ptr[-1] - 1)])
                for name, value in vars(before).items():
                    np.testing.assert_array_equal(getattr(matrix, name), value)
        with self.assertRaisesRegex(TypeError, "complex128"):
            cp.from_scipy(sparse.csr_matrix([[1j]]))

    def test_linear_operator(self):
        for a in whole(M, K), whole(K, M), whole(M, M), np.zeros((M, K)), np.zeros((0, K)), np.zeros((M, 0)):
            val, col_ind, row_ptr = cp.from_scipy(sparse.csr_matrix(a))
            made = cp.linear_operator(val, col_ind, row_ptr, a.shape)
            val *= 2
            for product, operator in (2 * a, made), (2 * a.T, made.H):
                b = whole(product.shape[1], 4)
                for operand in b, b[:, ::2], b[:, :0], b.astype(np.int16), b[:, 1], b[:, 1:2]:
                    with self.subTest(shape=product.shape, operand=operand):
                        np.testing.assert_array_equal(operator @ operand, product @ operand)
                for operand in b, b[:, 1]:
                    with self.assertRaisesRegex(TypeError, "complex128"):
                        operator @ (1j * operand)
        one, two = np.ones(1), np.array([1, 2])
        for arrays in (one[:0], two, two), (one, two[:0], two), (one, two, two[:1]), (one, two - 1, two), (one, two + 2, two):
            with self.assertRaisesRegex(ValueError, "not .* of a? ?matrix of 1 x 2$|not a matrix of 1 x 2$"):
                cp.linear_operator(*arrays, (1, 2))


if __name__ == "__main__":
    unittest.main()
