# Forming and keeping the design of 1,000,000 records with 10 terms, by
# tarnel and by Matrix::sparse.model.matrix in the same run.
# Run from the package root after `make install`:
#   R_LIBS=.rlib Rscript bench/design.R [records]
suppressPackageStartupMessages({
  library(tarnel)
  library(Matrix)
})
args <- commandArgs(trailingOnly = TRUE)
n <- if (length(args)) as.integer(args[1]) else 1000000L
set.seed(1)
d <- data.frame(
  y = rnorm(n),
  A = factor(sample(sprintf("a%d", 1:4), n, TRUE)),
  B = factor(sample(sprintf("b%d", 1:3), n, TRUE)),
  C = factor(sample(sprintf("c%d", 1:5), n, TRUE)),
  D = factor(sample(sprintf("d%d", 1:2), n, TRUE)),
  x1 = runif(n), x2 = rnorm(n), x3 = runif(n)
)
# Ten terms: intercept, A, B, C, D, x1, x2, x3, A:B, x1:C.
form <- y ~ A + B + C + D + x1 + x2 + x3 + A:B + x1:C
contr <- lapply(d[c("A", "B", "C", "D")], contrasts, contrasts = FALSE)

gc()
t_tarnel <- system.time(fit <- tarnel(form, data = d, keep_design = TRUE))[["elapsed"]]
gc()
t_matrix <- system.time(mm <- sparse.model.matrix(form, d, contrasts.arg = contr))[["elapsed"]]

stopifnot(ncol(mm) == ncol(fit$design), fit$records == n)
same <- max(abs(as.matrix(mm[1:1000, colnames(fit$design)]) - fit$design[1:1000, ]))
cat(sprintf("records %d, equations %d, nonzeros %.0f (first 1000 rows agree to %.1g)\n",
            n, ncol(fit$design), as.double(fit$nonzero), same))
cat(sprintf("tarnel:                      %.2f s\n", t_tarnel))
cat(sprintf("Matrix::sparse.model.matrix: %.2f s\n", t_matrix))
cat(sprintf("ratio tarnel / Matrix:       %.2f\n", t_tarnel / t_matrix))
