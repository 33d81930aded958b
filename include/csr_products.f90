!> The functions of csr_products.h for hosts in Fortran. Shapes, failures and warnings stand there and
!> hold here: a sparse operand is val, col_ind, row_ptr, one-based; dense ones are column-major, and a
!> matrix of two dimensions may be passed as it is.
!> Warning: a column stands at most once in a row of any operand. Otherwise values are wrong, and the
!> products of two sparse matrices corrupt the process's memory.
module csr_products
  use, intrinsic :: iso_c_binding, only: ip => c_int64_t, dp => c_double, ci => c_int
  implicit none
  private :: ip, dp, ci

  interface
    !> C := A*B. A is m x k, B is k x n.
    subroutine spgmatgmat_mkl_G_int64(val, col_ind, row_ptr, b, m, k, n, c) &
        bind(C, name="_Z22spgmatgmat_mkl_G_int64PdPlS0_S_lllS_")
      import :: ip, dp
      real(dp), intent(in) :: val(*), b(*)
      integer(ip), intent(in) :: col_ind(*), row_ptr(*)
      integer(ip), value :: m, k, n
      real(dp), intent(inout) :: c(*)
    end subroutine
    !> C := A*B, with leading dimensions.
    subroutine spgmatgmat_mkl_G_int64_ld(val, col_ind, row_ptr, b, ldb, m, k, n, c, ldc) &
        bind(C, name="_Z22spgmatgmat_mkl_G_int64PdPlS0_S_llllS_l")
      import :: ip, dp
      real(dp), intent(in) :: val(*), b(*)
      integer(ip), intent(in) :: col_ind(*), row_ptr(*)
      integer(ip), value :: ldb, m, k, n, ldc
      real(dp), intent(inout) :: c(*)
    end subroutine
    !> C := A*B, A symmetric by its upper triangle. This and the other _S may
    !> write beyond the m rows of C and behind C (m < k), or read beyond the k rows of B and behind B (m > k).
    subroutine spgmatgmat_mkl_S_int64(val, col_ind, row_ptr, b, m, k, n, c) &
        bind(C, name="_Z22spgmatgmat_mkl_S_int64PdPlS0_S_lllS_")
      import :: ip, dp
      real(dp), intent(in) :: val(*), b(*)
      integer(ip), intent(in) :: col_ind(*), row_ptr(*)
      integer(ip), value :: m, k, n
      real(dp), intent(inout) :: c(*)
    end subroutine
    !> C := A*B, A symmetric by its upper triangle, with leading dimensions.
    subroutine spgmatgmat_mkl_S_int64_ld(val, col_ind, row_ptr, b, ldb, m, k, n, c, ldc) &
        bind(C, name="_Z22spgmatgmat_mkl_S_int64PdPlS0_S_llllS_l")
      import :: ip, dp
      real(dp), intent(in) :: val(*), b(*)
      integer(ip), intent(in) :: col_ind(*), row_ptr(*)
      integer(ip), value :: ldb, m, k, n, ldc
      real(dp), intent(inout) :: c(*)
    end subroutine
    !> C := A*B + C, with leading dimensions.
    subroutine spgmatgmatsum_mkl_G_int64(val, col_ind, row_ptr, b, ldb, m, k, n, c, ldc) &
        bind(C, name="_Z25spgmatgmatsum_mkl_G_int64PdPlS0_S_llllS_l")
      import :: ip, dp
      real(dp), intent(in) :: val(*), b(*)
      integer(ip), intent(in) :: col_ind(*), row_ptr(*)
      integer(ip), value :: ldb, m, k, n, ldc
      real(dp), intent(inout) :: c(*)
    end subroutine
    !> C := A*B, A symmetric, with leading dimensions. Warning: despite its name this does not accumulate.
    subroutine spgmatgmatsum_mkl_S_int64(val, col_ind, row_ptr, b, ldb, m, k, n, c, ldc) &
        bind(C, name="_Z25spgmatgmatsum_mkl_S_int64PdPlS0_S_llllS_l")
      import :: ip, dp
      real(dp), intent(in) :: val(*), b(*)
      integer(ip), intent(in) :: col_ind(*), row_ptr(*)
      integer(ip), value :: ldb, m, k, n, ldc
      real(dp), intent(inout) :: c(*)
    end subroutine
    !> C := A^T*B. Warning: correct only when m = k or n = 1: the leading dimensions are k for B and m for C.
    !> Otherwise B is read, or C is written, beyond its end.
    subroutine spgmattrgmat_mkl_G_int64(val, col_ind, row_ptr, b, m, k, n, c) &
        bind(C, name="_Z24spgmattrgmat_mkl_G_int64PdPlS0_S_lllS_")
      import :: ip, dp
      real(dp), intent(in) :: val(*), b(*)
      integer(ip), intent(in) :: col_ind(*), row_ptr(*)
      integer(ip), value :: m, k, n
      real(dp), intent(inout) :: c(*)
    end subroutine
    !> C := A^T*B, A symmetric.
    subroutine spgmattrgmat_mkl_S_int64(val, col_ind, row_ptr, b, m, k, n, c) &
        bind(C, name="_Z24spgmattrgmat_mkl_S_int64PdPlS0_S_lllS_")
      import :: ip, dp
      real(dp), intent(in) :: val(*), b(*)
      integer(ip), intent(in) :: col_ind(*), row_ptr(*)
      integer(ip), value :: m, k, n
      real(dp), intent(inout) :: c(*)
    end subroutine
    !> y := A*x.
    subroutine spgmatgvec_mkl_G_int64(val, col_ind, row_ptr, x, m, k, y) &
        bind(C, name="_Z22spgmatgvec_mkl_G_int64PdPlS0_S_llS_")
      import :: ip, dp
      real(dp), intent(in) :: val(*), x(*)
      integer(ip), intent(in) :: col_ind(*), row_ptr(*)
      integer(ip), value :: m, k
      real(dp), intent(inout) :: y(*)
    end subroutine
    !> y := A*x + y.
    subroutine spgmatgvecsum_mkl_G_int64(val, col_ind, row_ptr, x, m, k, y) &
        bind(C, name="_Z25spgmatgvecsum_mkl_G_int64PdPlS0_S_llS_")
      import :: ip, dp
      real(dp), intent(in) :: val(*), x(*)
      integer(ip), intent(in) :: col_ind(*), row_ptr(*)
      integer(ip), value :: m, k
      real(dp), intent(inout) :: y(*)
    end subroutine
    !> C := A*B^T, dense. A is m x k, B is n x k, both sparse.
    subroutine spgmatspgmattr_gmat_mkl_int64_new(m, k, n, a_val, a_col_ind, a_row_ptr, b_val, b_col_ind, b_row_ptr, c) &
        bind(C, name="_Z33spgmatspgmattr_gmat_mkl_int64_newlllPdPlS0_S_S0_S0_S_")
      import :: ip, dp
      integer(ip), value :: m, k, n
      real(dp), intent(in) :: a_val(*), b_val(*)
      integer(ip), intent(in) :: a_col_ind(*), a_row_ptr(*), b_col_ind(*), b_row_ptr(*)
      real(dp), intent(inout) :: c(*)
    end subroutine
    !> C := A*B^T, one-based CSR: stage 0 in one call, 1 a count, 2 its finish or a refresh of the values.
    !> c_val and c_col_ind hold m*n elements each, at the finish too; for a refresh, the stored entries alone.
    !> Stage 2 writes nothing where the product has no entries. Warning: stage 2 takes operands with the
    !> structure that they had at the count or the product. A refresh takes c_col_ind and c_row_ptr unchecked:
    !> they must stand as that product left them, in that order.
    subroutine spgmatspgmattr_mkl_int64_new(stage, m, k, n, a_val, a_col_ind, a_row_ptr, b_val, b_col_ind, b_row_ptr, &
        ignored_count, c_val, c_col_ind, c_row_ptr, ignored_result) &
        bind(C, name="_Z28spgmatspgmattr_mkl_int64_newllllPdPlS0_S_S0_S0_lS_S0_S0_Rl")
      import :: ip, dp
      integer(ip), value :: stage, m, k, n, ignored_count
      real(dp), intent(in) :: a_val(*), b_val(*)
      integer(ip), intent(in) :: a_col_ind(*), a_row_ptr(*), b_col_ind(*), b_row_ptr(*)
      real(dp), intent(inout) :: c_val(*)
      integer(ip), intent(inout) :: c_col_ind(*), c_row_ptr(*)
      integer(ip), intent(in) :: ignored_result
    end subroutine
    !> MKL's thread count. Warning: not while a product of the last two kinds runs on another thread.
    subroutine qz_mkl_set_num_threads_int64(count) &
        bind(C, name="_Z28qz_mkl_set_num_threads_int64i")
      import :: ip, dp, ci
      integer(ci), value :: count
    end subroutine
  end interface
end module csr_products
