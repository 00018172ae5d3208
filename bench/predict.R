# Predicted means of a 500-level treatment factor with the full SED matrix:
# 100,000 records, treatment fixed (500 levels), random blocks (1,000).
# tarnel's predict() beside emmeans on the lmer fit of the same model, each
# at its own variance parameters, in the same run; for the peer the SED
# matrix is formed from the emmeans variance matrix.  The fits themselves
# are not timed.
# Run from the package root after `make install`:
#   R_LIBS=.rlib Rscript bench/predict.R [records] [treatments]
suppressPackageStartupMessages({
  library(tarnel)
  library(lme4)
  library(emmeans)
})
args <- commandArgs(trailingOnly = TRUE)
n <- if (length(args) >= 1) as.integer(args[1]) else 100000L
nt <- if (length(args) >= 2) as.integer(args[2]) else 500L
nb <- 1000L
set.seed(7)
trt <- sample(nt, n, TRUE)
blk <- sample(nb, n, TRUE)
d <- data.frame(y = 50 + rnorm(nt, sd = 4)[trt] + rnorm(nb, sd = 2)[blk] + rnorm(n, sd = 3),
                T = factor(sprintf("t%03d", trt)), B = factor(sprintf("b%04d", blk)))

# Peak resident memory of the process during a step: the high-water mark
# is reset before it and read after it (Linux).
rss_kb <- function(field) {
  s <- readLines("/proc/self/status")
  as.numeric(gsub("[^0-9]", "", grep(paste0("^", field, ":"), s, value = TRUE)))
}
measure <- function(expr) {
  invisible(gc())
  base <- rss_kb("VmRSS")
  reset <- tryCatch({ cat("5", file = "/proc/self/clear_refs"); TRUE }, error = function(e) FALSE)
  t <- system.time(value <- expr)[["elapsed"]]
  list(value = value, time = t, base = base / 1024, peak = rss_kb("VmHWM") / 1024, reset = reset)
}

# Each prediction right after its own fit, so that the peak of one is not
# hidden in memory the other left behind.
fit <- suppressWarnings(tarnel(y ~ T, random = ~ B, data = d))
tp <- measure(predict(fit, classify = "T", sed = TRUE))
lf <- lmer(y ~ T + (1 | B), data = d, REML = TRUE)
ep <- measure({
  e <- emmeans(lf, ~ T, lmer.df = "asymptotic")
  V <- vcov(e)
  dv <- diag(V)
  list(e = e, sed = sqrt(pmax(outer(dv, dv, `+`) - 2 * V, 0)))
})

p <- tp$value
es <- as.data.frame(ep$value$e)
rel_v <- max(abs(p$pvals$predicted.value / es$emmean - 1))
rel_se <- max(abs(p$pvals$std.error / es$SE - 1))
rel_sed <- max(abs(p$sed - ep$value$sed)[lower.tri(p$sed)] / ep$value$sed[lower.tri(p$sed)])
cat(sprintf("records %d, classify factor %d levels, random blocks %d; full SED matrix %d x %d\n",
            n, nt, nb, nrow(p$sed), ncol(p$sed)))
cat(sprintf("tarnel predict():   %6.2f s, peak RSS %7.0f MB, %+.0f MB over the %.0f MB before\n", tp$time, tp$peak,
            tp$peak - tp$base, tp$base))
cat(sprintf("emmeans on lmer:    %6.2f s, peak RSS %7.0f MB, %+.0f MB over the %.0f MB before\n", ep$time, ep$peak,
            ep$peak - ep$base, ep$base))
cat(sprintf("ratio tarnel / emmeans: %.2f\n", tp$time / ep$time))
if (!tp$reset) cat("(the peak could not be reset: both peaks are of the whole run so far)\n")
cat(sprintf("each at its own variance parameters: largest relative difference of values %.1e, SEs %.1e, SEDs %.1e\n",
            rel_v, rel_se, rel_sed))
