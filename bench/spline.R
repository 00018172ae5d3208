# A cubic smoothing spline over a covariate with 5,000 distinct values and
# 50,000 records: tarnel (cubic_spline with 200 equally spaced knot points,
# REML) beside mgcv::gam(y ~ s(x, bs = "cr", k = 200), method = "REML") in
# the same run.  The bases differ (tarnel's knots are equally spaced, mgcv's
# at quantiles), so the two smoothing parameters are compared through the
# effective degrees of freedom of the curve.  Each fit runs in a fresh R
# process, so that its peak memory (VmHWM) is its own.
# Run from the package root after `make install`:
#   R_LIBS=.rlib Rscript bench/spline.R [records] [distinct values]
args <- commandArgs(trailingOnly = TRUE)
if (length(args) && args[1] %in% c("tarnel", "mgcv")) {
  set.seed(19)
  n <- as.integer(args[2])
  nx <- as.integer(args[3])
  grid <- seq(0, 10, length.out = nx)
  x <- c(grid, sample(grid, n - nx, replace = TRUE))
  d <- data.frame(x = x, y = sin(x) + 0.3 * cos(3 * x) + rnorm(n, sd = 0.5))
  peak <- function() {
    s <- readLines("/proc/self/status")
    as.numeric(gsub("[^0-9]", "", grep("^VmHWM", s, value = TRUE))) / 1024
  }
  if (args[1] == "tarnel") {
    suppressPackageStartupMessages(library(tarnel))
    kn <- seq(min(x), max(x), length.out = 200)
    t <- system.time(fit <- tarnel(y ~ x, random = ~ cubic_spline(x, knots = kn), data = d))[["elapsed"]]
    vc <- setNames(fit$varcomp$component, rownames(fit$varcomp))
    s2 <- vc[["cubic_spline(x, knots = kn)"]]
    # Curve edf: the linear trend and, of the q spline effects, q less the
    # share of their prior variance left unexplained.
    edf <- 2 + length(fit$ranef) - sum(fit$ranef_pev) / s2
    cat(sprintf("RESULT %.3f %.1f %.3f %.6g %d\n", t, peak(), edf, vc[["residual"]] / s2, nrow(fit$iterations)))
  } else {
    suppressPackageStartupMessages(library(mgcv))
    t <- system.time(g <- gam(y ~ s(x, bs = "cr", k = 200), data = d, method = "REML"))[["elapsed"]]
    cat(sprintf("RESULT %.3f %.1f %.3f %.6g %d\n", t, peak(), sum(g$edf), g$sp[1], g$outer.info$iter))
  }
  quit(save = "no")
}
n <- if (length(args) >= 1) as.integer(args[1]) else 50000L
nx <- if (length(args) >= 2) as.integer(args[2]) else 5000L
run <- function(who) {
  out <- system2(file.path(R.home("bin"), "Rscript"), c("bench/spline.R", who, n, nx), stdout = TRUE)
  r <- as.numeric(strsplit(sub("^RESULT ", "", grep("^RESULT", out, value = TRUE)), " ")[[1]])
  setNames(r, c("seconds", "peak_MB", "edf", "smoothing", "iterations"))
}
tt <- run("tarnel")
mg <- run("mgcv")
cat(sprintf("records %d, distinct covariate values %d\n", n, nx))
cat(sprintf("tarnel: %.2f s, peak %.0f MB, curve edf %.2f, residual/spline %.4g, %d iterations\n",
            tt[1], tt[2], tt[3], tt[4], tt[5]))
cat(sprintf("mgcv:   %.2f s, peak %.0f MB, curve edf %.2f, sp %.4g, %d iterations\n",
            mg[1], mg[2], mg[3], mg[4], mg[5]))
cat(sprintf("ratio tarnel / mgcv: time %.3f, peak memory %.3f\n", tt[1] / mg[1], tt[2] / mg[2]))
