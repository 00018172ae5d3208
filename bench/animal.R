# An animal model: a simulated pedigree over several generations, records
# on the later generations, the additive variance through the sparse
# relationship inverse.  Fitted by tarnel (cov_known with pedigree_inverse)
# and by lme4::lmer (REML) in the same run, the relationship entered there
# as Z L with L the Cholesky factor of A, the usual way of fitting a known
# covariance with lme4.
# Run from the package root after `make install`:
#   R_LIBS=.rlib Rscript bench/animal.R [animals]
# lme4 works with a dense factor here, so its time grows fast: 3000 animals
# take it about ten minutes.
suppressPackageStartupMessages({
  library(tarnel)
  library(lme4)
  library(Matrix)
})
args <- commandArgs(trailingOnly = TRUE)
nanim <- if (length(args)) as.integer(args[1]) else 1200L
source(file.path("bench", "animal_sim.R"))
sim <- simulate_animals(nanim)
id <- sim$id
ngen <- sim$ngen
ai <- sim$ai
d <- sim$data

invisible(gc())
t_tarnel <- system.time(fit <- tarnel(y ~ sex, random = ~ cov_known(animal, ai), data = d))[["elapsed"]]

# lme4: each recorded animal has one record, so Var(y) = s2 A_rr + e I with
# A_rr the block of A over the recorded animals: y = X b + Z L v + e,
# A_rr = L L', v ~ N(0, s2 I).
invisible(gc())
t_lme4 <- system.time({
  A <- solve(ai$ainv)
  key <- as.character(d$animal)
  L <- t(chol(as.matrix(A[key, key])))
  d$animalf <- factor(key, levels = key)
  lf <- lFormula(y ~ sex + (1 | animalf), d, REML = TRUE,
                 control = lmerControl(check.nobs.vs.nRE = "ignore", check.nobs.vs.nlev = "ignore"))
  lf$reTrms$Zt <- as(t(L) %*% lf$reTrms$Zt, "CsparseMatrix")
  dev <- do.call(mkLmerDevfun, lf)
  opt <- optimizeLmer(dev)
  m <- mkMerMod(environment(dev), opt, lf$reTrms, fr = lf$fr)
})[["elapsed"]]

vc <- as.data.frame(VarCorr(m))
est_lme4 <- c(additive = vc$vcov[1], residual = vc$vcov[2])
est_tarnel <- setNames(fit$varcomp[, "component"], c("additive", "residual"))
cat(sprintf("animals %d in %d generations, records %d, nonzeros of A^-1 (lower) %d\n", length(id), ngen,
            nrow(d), ai$giv$lcainv))
cat(sprintf("tarnel: %.2f s (%d iterations, converged %s)\n", t_tarnel, nrow(fit$iterations), fit$converged))
cat(sprintf("lme4:   %.2f s (A, the Cholesky factor of its recorded block and Z L included)\n", t_lme4))
cat(sprintf("ratio tarnel / lme4: %.4f\n", t_tarnel / t_lme4))
print(rbind(tarnel = est_tarnel, lme4 = est_lme4))
cat(sprintf("largest relative difference of the variance components: %.2e\n",
            max(abs(est_tarnel - est_lme4) / abs(est_lme4))))
cat(sprintf("log-likelihood: tarnel %.4f, lme4 %.4f\n", as.numeric(logLik(fit)), as.numeric(logLik(m))))
