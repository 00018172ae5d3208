# A fixed factor of many levels (contemporary groups) beside a random
# factor: 200,000 records, 20,000 fixed levels, 500 random levels.  tarnel
# puts the large fixed factor among the sparse equations; beside it, in the
# same run, the least-squares fit of the fixed part alone by Matrix (sparse
# normal equations and a sparse Cholesky factor), as lm() would fit it if
# its dense model matrix fitted in memory (200,000 x 20,000 doubles is 32 GB).
# Prints times, their ratio and the peak memory of each step.
# Run from the package root after `make install`:
#   R_LIBS=.rlib Rscript bench/fixed.R [records] [fixed levels] [random levels]
suppressPackageStartupMessages({
  library(tarnel)
  library(Matrix)
})
args <- as.numeric(commandArgs(trailingOnly = TRUE))
n <- if (length(args) >= 1) args[1] else 200000
nf <- if (length(args) >= 2) args[2] else 20000
nr <- if (length(args) >= 3) args[3] else 500
set.seed(1)
d <- data.frame(cg = factor(c(seq_len(nf), sample.int(nf, n - nf, TRUE))),
                sire = factor(sample.int(nr, n, TRUE)), x = rnorm(n))
d$y <- 100 + rnorm(nf, sd = 3)[d$cg] + rnorm(nr, sd = 1)[d$sire] + 0.5 * d$x + rnorm(n, sd = 2)

# Peak resident memory of the process since the last reset, in MB (Linux).
peak_reset <- function() try(writeLines("5", "/proc/self/clear_refs"), silent = TRUE)
peak_mb <- function() {
  s <- grep("^VmHWM", readLines("/proc/self/status"), value = TRUE)
  if (length(s)) as.numeric(gsub("[^0-9]", "", s)) / 1024 else NA_real_
}

invisible(gc()); peak_reset()
tt <- system.time(fit <- tarnel(y ~ x + cg, random = ~ sire, data = d))
t_tarnel <- tt[["elapsed"]]; c_tarnel <- tt[["user.self"]] + tt[["sys.self"]]
m_tarnel <- peak_mb()

invisible(gc()); peak_reset()
tl <- system.time({
  X <- sparse.model.matrix(~ x + cg, d)
  XtX <- crossprod(X)
  b <- solve(Cholesky(XtX), crossprod(X, d$y))
})
t_ls <- tl[["elapsed"]]; c_ls <- tl[["user.self"]] + tl[["sys.self"]]
m_ls <- peak_mb()

sf <- fit$sparse_fixed
stopifnot(fit$converged, sum(sf$status == "estimated") == nlevels(droplevels(d$cg)))
cat(sprintf("records %d, fixed levels %d (sparse), random levels %d, equations %d\n", n, nf, nr, fit$neq))
cat(sprintf("tarnel REML fit (%d iterations): %.2f s (cpu %.2f s), peak %.0f MB; sire variance %.3f, residual %.3f, x %.4f\n",
            nrow(fit$iterations), t_tarnel, c_tarnel, m_tarnel, fit$varcomp["sire", "component"],
            fit$varcomp["residual", "component"], coef(fit)[["x"]]))
cat(sprintf("Matrix least squares of the fixed part (one solve): %.2f s (cpu %.2f s), peak %.0f MB; x %.4f\n",
            t_ls, c_ls, m_ls, b[2, 1]))
cat(sprintf("ratio tarnel / Matrix: %.2f elapsed, %.2f cpu\n", t_tarnel / t_ls, c_tarnel / c_ls))
