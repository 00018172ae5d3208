# A crossed two-factor variance-component model: 100,000 records, random
# factors of 2,000 and 500 levels, a fixed factor of 50 levels.  Fitted by
# tarnel and by lme4::lmer (REML) in the same run.
# Run from the package root after `make install`:
#   R_LIBS=.rlib Rscript bench/vc.R [records]
suppressPackageStartupMessages({
  library(tarnel)
  library(lme4)
})
source(file.path("bench", "peak_memory.R"))
args <- commandArgs(trailingOnly = TRUE)
n <- if (length(args)) as.integer(args[1]) else 100000L
set.seed(11)
na <- 2000L; nb <- 500L; nf <- 50L
a <- sample(na, n, TRUE); b <- sample(nb, n, TRUE); f <- sample(nf, n, TRUE)
ua <- rnorm(na, sd = sqrt(2)); ub <- rnorm(nb, sd = 1); bf <- rnorm(nf, sd = 3)
d <- data.frame(y = 10 + bf[f] + ua[a] + ub[b] + rnorm(n, sd = sqrt(3)),
                A = factor(sprintf("a%04d", a)), B = factor(sprintf("b%03d", b)), F = factor(sprintf("f%02d", f)))

r_tarnel <- timed(fit <- tarnel(y ~ F, random = ~ A + B, data = d))
r_lme4 <- timed(m <- lmer(y ~ F + (1 | A) + (1 | B), d, REML = TRUE))
t_tarnel <- r_tarnel[["time"]]
t_lme4 <- r_lme4[["time"]]

vc <- as.data.frame(VarCorr(m))
est_lme4 <- setNames(vc$vcov, c(vc$grp[1:2], "residual"))
est_tarnel <- fit$varcomp[c("A", "B", "residual"), "component"]
names(est_tarnel) <- c("A", "B", "residual")
est_lme4 <- est_lme4[names(est_tarnel)]
rel <- max(abs(est_tarnel - est_lme4) / abs(est_lme4))
cat(sprintf("records %d, levels %d x %d, fixed factor %d levels\n", n, na, nb, nf))
cat(sprintf("tarnel: %.2f s, peak memory %.0f MB (%d iterations, converged %s, workspace %.0f words)\n",
            t_tarnel, r_tarnel[["peak_mb"]], nrow(fit$iterations), fit$converged, fit$workspace))
cat(sprintf("lme4:   %.2f s, peak memory %.0f MB\n", t_lme4, r_lme4[["peak_mb"]]))
cat(sprintf("ratio tarnel / lme4: %.2f\n", t_tarnel / t_lme4))
print(rbind(tarnel = est_tarnel, lme4 = est_lme4))
cat(sprintf("largest relative difference of the variance components: %.2e\n", rel))
cat(sprintf("log-likelihood: tarnel %.4f, lme4 %.4f\n", as.numeric(logLik(fit)), as.numeric(logLik(m))))
