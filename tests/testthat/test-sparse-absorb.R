# The benchmark entry of the sparse equations: ordering plus absorption of a
# lower triangle, checked against R's dense algebra, and its argument checks.

lower_triplets <- function(C) {
  n <- nrow(C)
  idx <- which(lower.tri(C, diag = TRUE) & C != 0, arr.ind = TRUE)
  idx <- idx[order(idx[, 1], idx[, 2]), , drop = FALSE]
  list(i = as.integer(idx[, 1]), j = as.integer(idx[, 2]), x = C[idx])
}

test_that("ordering and absorption agree with dense determinant and residual", {
  set.seed(4)
  n <- 80L
  X <- matrix(0, 300, n)
  X[, 1] <- rnorm(300) + 5
  for (r in 1:300) X[r, sample(2:n, 3)] <- runif(3, 0.5, 1.5)
  C <- crossprod(X) + diag(c(0, rep(0.7, n - 1)))
  t <- lower_triplets(C)
  for (nd in c(1L, 3L)) {
    out <- .Call(tarnel:::C_tarnel_bench_absorb, n, nd, t$i, t$j, t$x, 1e5, 1L)
    B <- C[-1, -1]
    ld <- as.numeric(determinant(B, logarithm = TRUE)$modulus)
    expect_equal(out[1], ld, tolerance = 1e-9)
    b <- C[-1, 1]
    expect_equal(out[2], C[1, 1] - sum(b * solve(B, b)), tolerance = 1e-9)
    expect_equal(out[3], 0)
  }
})

test_that("malformed arguments give R errors naming them", {
  t <- list(i = c(1L, 2L, 2L), j = c(1L, 1L, 2L), x = c(1, 0.5, 2))
  expect_error(.Call(tarnel:::C_tarnel_bench_absorb, 2L, 1L, t$i, t$j[1:2], t$x, 100, 1L), "same length")
  expect_error(.Call(tarnel:::C_tarnel_bench_absorb, 3L, 1L, c(1L, 5L), c(1L, 1L), c(1, 1), 100, 1L),
               "loading the equations failed")
  expect_error(.Call(tarnel:::C_tarnel_bench_absorb, 3L, 1L, c(2L, 1L), c(1L, 1L), c(1, 1), 100, 1L),
               "loading the equations failed")
  expect_error(.Call(tarnel:::C_tarnel_bench_absorb, 3L, 5L, t$i, t$j, t$x, 100, 1L), "ndense")
  expect_error(.Call(tarnel:::C_tarnel_bench_absorb, 3L, 1L, t$i, t$j, t$x, "a", 1L), "slots")
  # Too few slots for the fill: an R error, never an overrun.
  set.seed(2)
  n <- 60L
  C <- crossprod(matrix(rnorm(100 * n), 100, n)) + diag(n)
  tt <- lower_triplets(C)
  expect_error(.Call(tarnel:::C_tarnel_bench_absorb, n, 1L, tt$i, tt$j, tt$x, 1900, 1L),
               "more slots|Out of memory")
})
