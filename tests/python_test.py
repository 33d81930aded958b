"""The Python module against NumPy. Usage: PYTHONPATH=INCLUDE LD_LIBRARY_PATH=FOLDER python3 python_test.py"""

import copy
import ctypes
import inspect
import os
import pathlib
import shutil
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


def content(matrix):
    """What a matrix holds, but for what SciPy remembers of it."""
    members = {name: value for name, value in vars(matrix).items() if not name.startswith("_has")}
    return copy.deepcopy((matrix.dtype, members, dict(matrix) if matrix.format == "dok" else None))


def raised(block):
    """A block with another row, which a leading dimension skips."""
    return np.asfortranarray(np.vstack([block, np.full(block.shape[1], 7.0)]))


class Module(unittest.TestCase):
    def test_products(self):
        a, e, x, b = whole(M, K), whole(N, K), whole(K), whole(K, N).copy("F")
        # One of each kind: all are bound in the same way, and their declarations are compared with the symbols.
        for function, before, after, expected in [
            (cp.spgmatgmat_mkl_G_int64, (*csr(a), b, M, K, N), (), a @ b),
            (cp.spgmatgmatsum_mkl_G_int64, (*csr(a), raised(b), K + 1, M, K, N), (M + 1,), raised(a @ b + 7)),
            (cp.spgmatgvec_mkl_G_int64, (*csr(a), x, M, K), (), a @ x),
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
                np.testing.assert_array_equal(cp.to_scipy(*c, (M, N)).toarray(), factor * a @ e.T)

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
            ("val", np.ones(3, ">f8"), TypeError, "must be an array of float64, not of >f8"),
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

    def test_interface(self):
        self.assertEqual(cp.__all__, sorted(name for name in dir(cp) if name in cp.__all__ or inspect.isfunction(
            getattr(cp, name)) and not name.startswith("_")))
        self.assertIs(type(cp._library), ctypes.CDLL)  # which releases the interpreter's lock
        sources = pathlib.Path(cp.__file__).resolve().parent.parent
        self.assertIn(f"project(csr_products VERSION {cp.__version__} ", (sources / "CMakeLists.txt").read_text())
        for text in "c_val: written float64 array or None,", "a_row_ptr: int64 array,", "stage: int of 64 bits,":
            self.assertIn(text, str(inspect.signature(cp.spgmatspgmattr_mkl_int64_new)))

    def test_finding_the_library(self):
        library = os.path.abspath(os.environ["LD_LIBRARY_PATH"] + "/libcsr_products.so.1")
        name = "libBrokenLocale.so.1"  # of the C library, so that the loader finds one too
        with tempfile.TemporaryDirectory() as folder, \
                mock.patch.object(cp, "__file__", f"{folder}/include/csr_products.py"), \
                mock.patch.dict(os.environ, LD_LIBRARY_PATH=f":/nowhere:{folder}/named"):
            made = [pathlib.Path(folder, each, name) for each in ("named", "lib", "lib64", "lib/x86_64-linux-gnu")]
            for path in made:
                path.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy(library, path)
            for path in made:  # each is taken before those behind it
                self.assertEqual(cp._load(name)._name, str(path))
                path.unlink()
            self.assertEqual(cp._load(name)._name, name)
            with self.assertRaisesRegex(ImportError, "^libother.so.1: cannot open .*: LD_LIBRARY_PATH must name its"):
                cp._load("libother.so.1")
            shutil.copy(library, f"{folder}/named/libcsr_products.so.1")
            self.assertEqual(cp._load()._handle, cp._library._handle)  # what the process holds goes before all

    def test_from_scipy(self):
        rows, columns = np.array([0, 0, 1]), np.array([2, 2, 0])
        twice, plain = (np.full(3, 100, np.int8), columns, [0, 2, 3, 3]), whole(3, 4)
        stale = sparse.csr_matrix((np.full(3, 100.0), *twice[1:]), (3, 4))
        stale.has_canonical_format = True  # as where a host changes the columns in place
        formats = "csr", "csc", "bsr", "coo", "dia", "lil", "dok"
        for matrix in [*(sparse.csr_matrix(plain.astype(dtype)).asformat(each) for each in formats for dtype in (float, np.int8)),
                       stale, sparse.csr_matrix(twice, (3, 4)), sparse.csc_matrix(twice, (4, 3)).astype(float),
                       sparse.csr_matrix((np.ones(3), [3, 0, 1], [0, 2, 3, 3]), (3, 4)),
                       sparse.coo_matrix((np.ones(3), (rows, columns)), (3, 4)),
                       sparse.csc_matrix((3, 4)), sparse.csr_array((0, 4))]:
            with self.subTest(repr(matrix)):
                state = content(matrix)
                val, col_ind, row_ptr = arrays = cp.from_scipy(matrix)
                made = cp.to_scipy(*arrays, matrix.shape)
                self.assertTrue(made.has_canonical_format)  # a column stands once in a row
                self.assertEqual([each.dtype for each in arrays], [np.float64, np.int64, np.int64])
                self.assertEqual([val.size, col_ind.size], 2 * [max(1, row_ptr[-1] - 1)])
                val[:], col_ind[:] = 7, 1  # arrays of their own
                np.testing.assert_array_equal(made.toarray(), matrix @ np.eye(matrix.shape[1]))
                np.testing.assert_equal(content(matrix), state)
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
        val, col_ind, row_ptr = np.ones(2), np.array([2, 1]), np.array([1, 2, 3])
        for arrays, error, message in [
            ((val[:1], col_ind, row_ptr), ValueError, "not a matrix of 2 x 2"),
            ((val, col_ind[:1], row_ptr), ValueError, "not a matrix of 2 x 2"),
            ((val, col_ind, row_ptr[:2]), ValueError, "not a matrix of 2 x 2"),
            ((val, col_ind, row_ptr - 1), ValueError, "not a matrix of 2 x 2"),
            ((val, col_ind, np.array([2, 3, 3])), ValueError, "not a matrix of 2 x 2"),
            ((val, col_ind, row_ptr.reshape(3, 1)), ValueError, "not a matrix of 2 x 2"),
            ((val, col_ind, np.array([1, 2000000, 3])), ValueError, "not a matrix of 2 x 2"),
            ((val, col_ind - 1, row_ptr), ValueError, "^col_ind: not the columns of a matrix of 2 x 2"),
            ((val, col_ind + 1, row_ptr), ValueError, "^col_ind: not the columns of a matrix of 2 x 2"),
            (([1.0, 1.0], col_ind, row_ptr), TypeError, "^val: must be a NumPy array of float64, not list"),
            ((val, col_ind.astype(np.int32), row_ptr), TypeError, "^col_ind: must be an array of int64, not of int32"),
            ((val, col_ind, None), TypeError, "^row_ptr: must be a NumPy array"),
        ]:
            for function in cp.linear_operator, cp.to_scipy:
                with self.subTest(arrays=arrays), self.assertRaisesRegex(error, message):
                    function(*arrays, (2, 2))
        with self.assertRaisesRegex(ValueError, "not a matrix of -1 x 2"):
            cp.to_scipy(val, col_ind, row_ptr[:0], (-1, 2))


if __name__ == "__main__":
    unittest.main()
