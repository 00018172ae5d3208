# A large animal model: the same simulation as bench/animal.R (six
# generations, few sires, one record on each animal after the first
# generation), at sizes where lme4 can no longer be run.  The peer is
# CHOLMOD (through Matrix) on the same mixed model equations: one REML
# iteration of tarnel (forming, ordering, factoring, the sparse inverse, the
# average information and the update) against one ordering plus
# factorisation by CHOLMOD, measured in the same run.  An iteration must do
# at least that factorisation, so the ratio says what the rest costs.
# Run from the package root after `make install`:
#   R_LIBS=.rlib Rscript bench/animal_large.R [animals]
#   sh bench/with_openblas.sh bench/animal_large.R [animals]   (CHOLMOD with OpenBLAS)
suppressPackageStartupMessages({
  library(tarnel)
  library(Matrix)
})
args <- commandArgs(trailingOnly = TRUE)
nanim <- if (length(args)) as.integer(args[1]) else 50000L
source(file.path("bench", "animal_sim.R"))
source(file.path("bench", "peak_memory.R"))
sim <- simulate_animals(nanim)
id <- sim$id
ngen <- sim$ngen
ai <- sim$ai
d <- sim$data

r_fit <- timed(fit <- tarnel(y ~ sex, random = ~ cov_known(animal, ai), data = d))
t_fit <- r_fit[["time"]]
iters <- nrow(fit$iterations)

# The coefficient matrix at the estimates: X'X, X'Z, Z'Z + A^-1 / gamma.
gam <- fit$varcomp[1, "gamma"]
Z <- sparseMatrix(i = seq_len(nrow(d)), j = d$animal, x = 1, dims = c(nrow(d), length(id)))
W <- cbind(1, as.numeric(d$sex == "M"), Z)
C <- crossprod(W)
C[-(1:2), -(1:2)] <- C[-(1:2), -(1:2)] + ai$ainv / gam
C <- as(forceSymmetric(C), "CsparseMatrix")
chm <- function(super) {
  t <- Inf
  for (k in 1:3) {
    C@factors <- list()  # Matrix would hand back a factor it keeps
    t <- min(t, system.time(Cholesky(C, perm = TRUE, LDL = FALSE, super = super))[["elapsed"]])
  }
  t
}
r_chm <- timed(t_chm <- min(chm(TRUE), chm(FALSE)))

cat(sprintf("animals %d, records %d, equations %d\n", length(id), nrow(d), ncol(C) + 1))
cat(sprintf("tarnel: %.2f s for %d iterations, %.2f s an iteration (converged %s), peak memory %.0f MB\n",
            t_fit, iters, t_fit / iters, fit$converged, r_fit[["peak_mb"]]))
cat(sprintf("CHOLMOD order + factor of the same equations: %.2f s, peak memory %.0f MB (BLAS %s)\n", t_chm,
            r_chm[["peak_mb"]], extSoftVersion()[["BLAS"]]))
cat(sprintf("ratio tarnel iteration / CHOLMOD factorisation: %.2f\n", t_fit / iters / t_chm))
print(fit$varcomp[, c("component", "std.error")])
