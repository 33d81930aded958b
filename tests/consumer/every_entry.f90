! Calls every function once, by its name and those of its arguments in Fortran, on operands whose dimensions
! all differ, and compares with the intrinsic matmul.
program every_entry
  use, intrinsic :: iso_fortran_env, only: ip => int64, dp => real64
  use csr_products
  implicit none
  integer(ip), parameter :: m = 3, k = 4, n = 2, ldb = 6, ldc = 5
  ! A is m x k, B is n x k, S is k x k with its upper triangle stored; each as CSR and dense.
  real(dp), parameter :: a_val(5) = [2, -1, 3, 5, 7], b_val(3) = [4, 6, 9], s_val(5) = [1, 2, 3, 4, 5]
  integer(ip), parameter :: a_col_ind(5) = [1, 4, 2, 1, 3], a_row_ptr(4) = [1, 3, 4, 6]
  integer(ip), parameter :: b_col_ind(3) = [1, 3, 4], b_row_ptr(3) = [1, 3, 4]
  integer(ip), parameter :: s_col_ind(5) = [1, 3, 2, 4, 4], s_row_ptr(5) = [1, 3, 5, 5, 6]
  real(dp) :: a(m, k), b(n, k), s(k, k), x(k, n), wide(ldb, n), y(m), c(m, n), c_wide(ldc, n), z(k, n), t(k)
  real(dp) :: c_val(m * n), c_sparse(m, n)
  integer(ip) :: c_col_ind(m * n), c_row_ptr(m + 1), i, p
  integer :: failures = 0

  a = reshape([real(dp) :: 2, 0, 5, 0, 3, 0, 0, 0, 7, -1, 0, 0], [m, k])
  b = reshape([real(dp) :: 4, 0, 0, 0, 6, 0, 0, 9], [n, k])
  s = reshape([real(dp) :: 1, 0, 2, 0, 0, 3, 0, 4, 2, 0, 0, 0, 0, 4, 0, 5], [k, k])
  x = reshape([(real(i, dp), i = 1, k * n)], [k, n])
  wide = reshape([(real(i, dp), i = 1, ldb * n)], [ldb, n])

  call qz_mkl_set_num_threads_int64(2)
  call spgmatgmat_mkl_G_int64(a_val, a_col_ind, a_row_ptr, x, m=m, k=k, n=n, c=c)
  call check("spgmatgmat_mkl_G_int64", all(c == matmul(a, x)))
  c_wide = 7
  call spgmatgmat_mkl_G_int64_ld(a_val, a_col_ind, a_row_ptr, wide, ldb=ldb, m=m, k=k, n=n, c=c_wide, ldc=ldc)
  call check("spgmatgmat_mkl_G_int64_ld", all(c_wide(:m, :) == matmul(a, wide(:k, :))) .and. all(c_wide(m + 1:, :) == 7))
  call spgmatgmatsum_mkl_G_int64(a_val, a_col_ind, a_row_ptr, wide, ldb=ldb, m=m, k=k, n=n, c=c_wide, ldc=ldc)
  call check("spgmatgmatsum_mkl_G_int64", all(c_wide(:m, :) == 2 * matmul(a, wide(:k, :))) .and. all(c_wide(m + 1:, :) == 7))
  call spgmatgmat_mkl_S_int64(s_val, s_col_ind, s_row_ptr, x, m=k, k=k, n=n, c=z)
  call check("spgmatgmat_mkl_S_int64", all(z == matmul(s, x)))
  call spgmatgmat_mkl_S_int64_ld(s_val, s_col_ind, s_row_ptr, wide, ldb=ldb, m=k, k=k, n=n, c=c_wide, ldc=ldc)
  call check("spgmatgmat_mkl_S_int64_ld", all(c_wide(:k, :) == matmul(s, wide(:k, :))) .and. all(c_wide(ldc, :) == 7))
  call spgmatgmatsum_mkl_S_int64(s_val, s_col_ind, s_row_ptr, wide, ldb=ldb, m=k, k=k, n=n, c=c_wide, ldc=ldc)
  call check("spgmatgmatsum_mkl_S_int64", all(c_wide(:k, :) == matmul(s, wide(:k, :))) .and. all(c_wide(ldc, :) == 7))
  call spgmattrgmat_mkl_G_int64(a_val, a_col_ind, a_row_ptr, x, m=m, k=k, n=1_ip, c=t)
  call check("spgmattrgmat_mkl_G_int64", all(t == matmul(transpose(a), x(:m, 1))))
  call spgmattrgmat_mkl_S_int64(s_val, s_col_ind, s_row_ptr, x, m=k, k=k, n=n, c=z)
  call check("spgmattrgmat_mkl_S_int64", all(z == matmul(s, x)))
  call spgmatgvec_mkl_G_int64(a_val, a_col_ind, a_row_ptr, x, m=m, k=k, y=y)
  call check("spgmatgvec_mkl_G_int64", all(y == matmul(a, x(:, 1))))
  call spgmatgvecsum_mkl_G_int64(a_val, a_col_ind, a_row_ptr, x, m=m, k=k, y=y)
  call check("spgmatgvecsum_mkl_G_int64", all(y == 2 * matmul(a, x(:, 1))))
  call spgmatspgmattr_gmat_mkl_int64_new(m, k, n, a_val, a_col_ind, a_row_ptr, b_val, b_col_ind, b_row_ptr, c)
  call check("spgmatspgmattr_gmat_mkl_int64_new", all(c == matmul(a, transpose(b))))
  call spgmatspgmattr_mkl_int64_new(0_ip, m, k, n, a_val, a_col_ind, a_row_ptr, b_val, b_col_ind, b_row_ptr, &
    0_ip, c_val, c_col_ind, c_row_ptr, 0_ip)
  c_sparse = 0
  do i = 1, m
    do p = c_row_ptr(i), c_row_ptr(i + 1) - 1
      c_sparse(i, c_col_ind(p)) = c_val(p)
    end do
  end do
  call check("spgmatspgmattr_mkl_int64_new", all(c_sparse == matmul(a, transpose(b))))

  if (failures > 0) error stop
  print '(a)', "all thirteen agree"

contains

  subroutine check(name, agrees)
    character(*), intent(in) :: name
    logical, intent(in) :: agrees
    if (agrees) return
    print '(2a)', name, ": wrong product"
    failures = failures + 1
  end subroutine
end program
