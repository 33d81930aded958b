"""The functions of csr_products.h for hosts in Python, on NumPy arrays.

Shapes, failures and warnings stand in the header and hold here: a sparse operand is val, col_ind, row_ptr,
one-based, of float64, int64 and int64; dense ones are column-major. from_scipy makes the three arrays of any
sparse matrix of SciPy, to_scipy makes a matrix of them, and linear_operator makes what its solvers take.

An array has the type that the signature names (Doubles float64, Indices int64), and is contiguous column by column: of one dimension, (n, 1), or
in Fortran order. An output is writable, and None where the signature permits it. TypeError, ValueError or
OverflowError names the argument that is otherwise. The lengths of arrays are not checked, and the library itself
reports nothing. A call releases the interpreter's lock.

Warning: a column stands at most once in a row of any operand. Otherwise values are wrong, and the products of two
sparse matrices corrupt the process's memory.
"""

import ctypes
import functools
import inspect
import operator
import os
import pathlib
from typing import TYPE_CHECKING, Any, Callable, Optional, TypeVar

import numpy as np  # and SciPy where its matrices come or go

__version__ = "1.5.0"
__all__ = [
    "from_scipy", "linear_operator", "qz_mkl_set_num_threads_int64", "spgmatgmat_mkl_G_int64",
    "spgmatgmat_mkl_G_int64_ld", "spgmatgmat_mkl_S_int64", "spgmatgmat_mkl_S_int64_ld", "spgmatgmatsum_mkl_G_int64",
    "spgmatgmatsum_mkl_S_int64", "spgmatgvec_mkl_G_int64", "spgmatgvecsum_mkl_G_int64",
    "spgmatspgmattr_gmat_mkl_int64_new", "spgmatspgmattr_mkl_int64_new", "spgmattrgmat_mkl_G_int64",
    "spgmattrgmat_mkl_S_int64", "to_scipy",
]


def _load(name="libcsr_products.so.1"):
    """Takes the library that the process holds, or the first one in the folders of LD_LIBRARY_PATH, in the install tree
    that this file is in, or where the loader looks.
    """
    prefix = pathlib.Path(__file__).resolve().parent.parent
    named = [pathlib.Path(folder, name) for folder in os.environ.get("LD_LIBRARY_PATH", "").split(":") if folder]
    beside = [prefix / folder / name for folder in ("lib", "lib64", "lib/x86_64-linux-gnu")]
    found = next((str(path) for path in named + beside if path.exists()), name)
    for path, mode in (name, os.RTLD_NOLOAD), (found, 0):
        try:
            return ctypes.CDLL(path, os.RTLD_NOW | mode)
        except OSError as error:
            failure = error
    raise ImportError(f"{failure}: LD_LIBRARY_PATH must name its folder before Python starts") from failure


_library = _load()
_address = (ctypes.c_char * 0).from_buffer  # a third of array.ctypes' time; of a writable array in C's order


class _Array:
    """The type of an argument that is an array of `dtype`; ctypes passes what from_param returns."""

    _C_ORDER, _FORTRAN_ORDER, _ALIGNED, _WRITEABLE = 0x1, 0x2, 0x100, 0x400  # as in numpy.ndarray.flags.num

    def __init__(self, dtype, written=False, optional=False):
        self.dtype, self.written, self.optional = np.dtype(dtype), written, optional
        self.needed = self._FORTRAN_ORDER | self._ALIGNED | (self._WRITEABLE if written else 0)

    def __repr__(self):
        return "written " * self.written + f"{self.dtype} array" + " or None" * self.optional

    def from_param(self, array):
        if array is None and self.optional:
            return None
        if not isinstance(array, np.ndarray):
            raise TypeError(f"must be a NumPy array of {self.dtype}, not {type(array).__name__}")
        if array.dtype != self.dtype:
            raise TypeError(f"must be an array of {self.dtype}, not of {array.dtype}")
        flags = array.flags.num
        if flags & self.needed != self.needed:
            raise ValueError(f"must be {self._missing(flags)}")
        if flags & self._WRITEABLE:
            return _address(array if flags & self._C_ORDER else array.T)
        return ctypes.c_void_p(array.ctypes.data)

    def _missing(self, flags):
        if not flags & self._FORTRAN_ORDER:
            return "contiguous, and in Fortran order (numpy.asfortranarray) if it has several columns"
        return "writable" if flags & self._ALIGNED else "aligned"


class _Int:
    """The type of an argument that is an integer of so many bits."""

    def __init__(self, ctype):
        self.ctype, self.bits = ctype, 8 * ctypes.sizeof(ctype)
        self.limit = 2 ** (self.bits - 1)

    def __repr__(self):
        return f"int of {self.bits} bits"

    def from_param(self, number):
        number = operator.index(number)
        if not -self.limit <= number < self.limit:
            raise OverflowError(f"{number} does not fit in {self.bits} bits")
        return self.ctype(number)


def _refuse(types, arguments):
    """Raises what ctypes has hidden behind an error of its own, with the argument's name."""
    for (name, expected), argument in zip(types.items(), arguments):
        try:
            expected.from_param(argument)
        except (TypeError, ValueError, OverflowError) as error:
            raise type(error)(f"{name}: {error}") from None


_Declaration = TypeVar("_Declaration", bound=Callable[..., None])


def _entry(symbol: str) -> Callable[[_Declaration], _Declaration]:
    """Lets a declaration call `symbol` with arguments of the types that annotate them."""

    def bind(declaration):
        signature = inspect.signature(declaration)
        types = {name: parameter.annotation for name, parameter in signature.parameters.items()}
        function = getattr(_library, symbol)
        function.argtypes, function.restype = list(types.values()), None

        @functools.wraps(declaration)
        def call(*arguments, **keywords):
            if keywords or len(arguments) != len(types):
                arguments = signature.bind(*arguments, **keywords).args
            try:
                function(*arguments)
            except ctypes.ArgumentError:
                _refuse(types, arguments)
                raise

        return call

    return bind


if TYPE_CHECKING:
    from typing import SupportsIndex as Int32, SupportsIndex as Int64

    from numpy.typing import NDArray

    Doubles = NDArray[np.float64]
    Indices = NDArray[np.int64]
    DoublesOut = Doubles
    DoublesOutOrNone = Optional[Doubles]
    IndicesOrNone = Optional[Indices]
    IndicesOutOrNone = Optional[Indices]
else:
    Int64, Int32 = _Int(ctypes.c_int64), _Int(ctypes.c_int)
    Doubles, Indices, IndicesOrNone = _Array(np.float64), _Array(np.int64), _Array(np.int64, optional=True)
    DoublesOut = _Array(np.float64, written=True)
    DoublesOutOrNone = _Array(np.float64, written=True, optional=True)
    IndicesOutOrNone = _Array(np.int64, written=True, optional=True)


@_entry("_Z22spgmatgmat_mkl_G_int64PdPlS0_S_lllS_")
def spgmatgmat_mkl_G_int64(val: Doubles, col_ind: Indices, row_ptr: Indices, b: Doubles,
                           m: Int64, k: Int64, n: Int64, c: DoublesOut):
    """C := A*B. A is m x k, B is k x n, C is m x n."""


@_entry("_Z22spgmatgmat_mkl_G_int64PdPlS0_S_llllS_l")
def spgmatgmat_mkl_G_int64_ld(val: Doubles, col_ind: Indices, row_ptr: Indices, b: Doubles, ldb: Int64,
                              m: Int64, k: Int64, n: Int64, c: DoublesOut, ldc: Int64):
    """C := A*B, with leading dimensions: B holds ldb*n elements, C holds ldc*n."""


@_entry("_Z22spgmatgmat_mkl_S_int64PdPlS0_S_lllS_")
def spgmatgmat_mkl_S_int64(val: Doubles, col_ind: Indices, row_ptr: Indices, b: Doubles,
                           m: Int64, k: Int64, n: Int64, c: DoublesOut):
    """C := A*B, A symmetric by its upper triangle.

    This and the other _S may write beyond the m rows of C and behind C (m < k), or read beyond the k rows of B and
    behind B (m > k).
    """


@_entry("_Z22spgmatgmat_mkl_S_int64PdPlS0_S_llllS_l")
def spgmatgmat_mkl_S_int64_ld(val: Doubles, col_ind: Indices, row_ptr: Indices, b: Doubles, ldb: Int64,
                              m: Int64, k: Int64, n: Int64, c: DoublesOut, ldc: Int64):
    """C := A*B, A symmetric by its upper triangle, with leading dimensions."""


@_entry("_Z25spgmatgmatsum_mkl_G_int64PdPlS0_S_llllS_l")
def spgmatgmatsum_mkl_G_int64(val: Doubles, col_ind: Indices, row_ptr: Indices, b: Doubles, ldb: Int64,
                              m: Int64, k: Int64, n: Int64, c: DoublesOut, ldc: Int64):
    """C := A*B + C, with leading dimensions. C is read too."""


@_entry("_Z25spgmatgmatsum_mkl_S_int64PdPlS0_S_llllS_l")
def spgmatgmatsum_mkl_S_int64(val: Doubles, col_ind: Indices, row_ptr: Indices, b: Doubles, ldb: Int64,
                              m: Int64, k: Int64, n: Int64, c: DoublesOut, ldc: Int64):
    """C := A*B, A symmetric, with leading dimensions. Warning: despite its name this does not accumulate."""


@_entry("_Z24spgmattrgmat_mkl_G_int64PdPlS0_S_lllS_")
def spgmattrgmat_mkl_G_int64(val: Doubles, col_ind: Indices, row_ptr: Indices, b: Doubles,
                             m: Int64, k: Int64, n: Int64, c: DoublesOut):
    """C := A^T*B. A is m x k, B is m x n, C is k x n.

    Warning: correct only when m = k or n = 1: the leading dimensions are k for B and m for C. Otherwise B is read,
    or C is written, beyond its end. linear_operator has a product for any shape.
    """


@_entry("_Z24spgmattrgmat_mkl_S_int64PdPlS0_S_lllS_")
def spgmattrgmat_mkl_S_int64(val: Doubles, col_ind: Indices, row_ptr: Indices, b: Doubles,
                             m: Int64, k: Int64, n: Int64, c: DoublesOut):
    """C := A^T*B, A symmetric."""


@_entry("_Z22spgmatgvec_mkl_G_int64PdPlS0_S_llS_")
def spgmatgvec_mkl_G_int64(val: Doubles, col_ind: Indices, row_ptr: Indices, x: Doubles,
                           m: Int64, k: Int64, y: DoublesOut):
    """y := A*x. A is m x k, x holds k elements, y holds m."""


@_entry("_Z25spgmatgvecsum_mkl_G_int64PdPlS0_S_llS_")
def spgmatgvecsum_mkl_G_int64(val: Doubles, col_ind: Indices, row_ptr: Indices, x: Doubles,
                              m: Int64, k: Int64, y: DoublesOut):
    """y := A*x + y. y is read too."""


@_entry("_Z33spgmatspgmattr_gmat_mkl_int64_newlllPdPlS0_S_S0_S0_S_")
def spgmatspgmattr_gmat_mkl_int64_new(m: Int64, k: Int64, n: Int64,
                                      a_val: Doubles, a_col_ind: Indices, a_row_ptr: Indices,
                                      b_val: Doubles, b_col_ind: Indices, b_row_ptr: Indices, c: DoublesOut):
    """C := A*B^T, dense. A is m x k, B is n x k, both sparse; C is m x n. A B without entries leaves C as it was."""


@_entry("_Z28spgmatspgmattr_mkl_int64_newllllPdPlS0_S_S0_S0_lS_S0_S0_Rl")
def spgmatspgmattr_mkl_int64_new(stage: Int64, m: Int64, k: Int64, n: Int64,
                                 a_val: Doubles, a_col_ind: Indices, a_row_ptr: Indices,
                                 b_val: Doubles, b_col_ind: Indices, b_row_ptr: Indices, ignored_count: Int64,
                                 c_val: DoublesOutOrNone, c_col_ind: IndicesOutOrNone, c_row_ptr: IndicesOutOrNone,
                                 ignored_result: IndicesOrNone):
    """C := A*B^T, one-based CSR: `stage` 0 in one call, 1 a count, 2 its finish or a refresh of the values.

    c_val and c_col_ind hold m*n elements each, all of which are written, at the finish too; for a refresh, the stored
    entries alone. c_row_ptr holds m + 1. An output that is None is not written. Stage 2 needs c_col_ind and
    c_row_ptr; it writes nothing where the product has no entries. ignored_result may be None.

    Warning: stage 2 takes operands with the structure that they had at the count or the product. A refresh takes
    c_col_ind and c_row_ptr unchecked: they must stand as that product left them, in that order.
    """


@_entry("_Z28qz_mkl_set_num_threads_int64i")
def qz_mkl_set_num_threads_int64(count: Int32):
    """MKL's thread count. Warning: not while a product of the last two kinds runs on another thread."""


def from_scipy(matrix: Any) -> "tuple[Doubles, Indices, Indices]":
    """Copies a sparse matrix of SciPy, in any format, into new arrays (val, col_ind, row_ptr), one-based.

    Entries with the same place are summed, as in SciPy's products. val and col_ind hold an element each for a
    matrix without entries. A complex matrix is a TypeError.
    """
    from scipy.sparse import csr_matrix  # type: ignore

    if matrix.format != "csr":
        if matrix.dtype != np.float64:  # SciPy's astype would sum entries in their type first, and in the host's matrix
            matrix = matrix.tocoo(copy=True)
            matrix.data = matrix.data.astype(np.float64, casting="same_kind")
        matrix = matrix.tocsr()
    values = matrix.data.astype(np.float64, casting="same_kind", copy=False)
    csr = csr_matrix((values, matrix.indices, matrix.indptr), matrix.shape)  # without flags, which may be stale
    if not csr.has_canonical_format:
        csr = csr.copy()  # the arrays may be the host's
        csr.sum_duplicates()
    nnz = csr.indptr[-1]
    val, col_ind = np.zeros(max(nnz, 1)), np.ones(max(nnz, 1), np.int64)
    val[:nnz] = csr.data[:nnz]
    col_ind[:nnz] += csr.indices[:nnz]
    return val, col_ind, np.add(csr.indptr, 1, dtype=np.int64)


def _check_operand(val, col_ind, row_ptr, shape):
    """Raises what is wrong with a sparse operand of this shape. Returns its number of entries."""
    _refuse({"val": Doubles, "col_ind": Indices, "row_ptr": Indices}, (val, col_ind, row_ptr))
    m, k = shape
    if (min(m, k) < 0 or {val.ndim, col_ind.ndim, row_ptr.ndim} != {1} or row_ptr.size != m + 1 or row_ptr[0] != 1
            or (row_ptr[1:] < row_ptr[:-1]).any() or min(val.size, col_ind.size) < row_ptr[-1] - 1):
        raise ValueError(f"val, col_ind, row_ptr: not a matrix of {m} x {k}")
    columns = col_ind[: row_ptr[-1] - 1]
    if columns.size and not 1 <= columns.min() <= columns.max() <= k:
        raise ValueError(f"col_ind: not the columns of a matrix of {m} x {k}")
    return columns.size


def to_scipy(val: Doubles, col_ind: Indices, row_ptr: Indices, shape: Any) -> Any:
    """Copies the stored entries of a sparse operand, as of a CSR product, into a csr_matrix of SciPy.

    The columns of a row keep their order. Arrays that do not fit `shape` are a ValueError.
    """
    from scipy.sparse import csr_matrix  # type: ignore

    nnz = _check_operand(val, col_ind, row_ptr, shape)
    return csr_matrix((val[:nnz].copy(), col_ind[:nnz] - 1, row_ptr - 1), shape)


def linear_operator(val: Doubles, col_ind: Indices, row_ptr: Indices, shape: Any) -> Any:
    """Makes a scipy.sparse.linalg.LinearOperator of a sparse operand: linear_operator(*from_scipy(a), a.shape).

    Every product is one of the library's: those with A and A^T, by a vector and by a block. They read the three
    arrays anew, so that a host may change the values in between. Vectors and blocks may be of any real type, stride
    and order; a complex one is a TypeError. Arrays that do not fit `shape` are a ValueError.
    """
    from scipy.sparse.linalg import LinearOperator  # type: ignore

    _check_operand(val, col_ind, row_ptr, shape)
    m, k = shape
    new = np.empty if m and k else np.zeros  # the library writes nothing for a matrix without rows or columns

    def doubles(array):
        return np.require(np.asarray(array).astype(np.float64, casting="same_kind", copy=False), requirements="FA")

    def matvec(x):
        y = new(m)
        spgmatgvec_mkl_G_int64(val, col_ind, row_ptr, doubles(x), m, k, y)
        return y

    def rmatvec(x):
        y = new(k)
        spgmattrgmat_mkl_G_int64(val, col_ind, row_ptr, doubles(x), m, k, 1, y)
        return y

    def matmat(b):
        n = b.shape[1]
        c = new((m, n), order="F")
        spgmatgmat_mkl_G_int64(val, col_ind, row_ptr, doubles(b), m, k, n, c)
        return c

    def rmatmat(b):
        # By blocks the transposed product is right for a square A alone: empty rows or columns make it one.
        s, n = max(m, k), b.shape[1]
        square, padded = np.pad(row_ptr, (0, s - m), "edge"), np.pad(b, ((0, s - m), (0, 0)))
        c = new((s, n), order="F")
        spgmattrgmat_mkl_G_int64(val, col_ind, square, doubles(padded), s, s, n, c)
        return c[:k]

    return LinearOperator((m, k), matvec, rmatvec=rmatvec, matmat=matmat, dtype=np.float64, rmatmat=rmatmat)
