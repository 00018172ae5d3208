# A binomial GLMM: 100,000 records, a random factor of 2,000 levels, a
# fixed factor of 10 levels and a covariate, logit link.  Fitted in the
# same run by tarnel (penalised quasi-likelihood, REML at each step),
# lme4::glmer(nAGQ = 0) and lme4::glmer (Laplace), each in a fresh R
# process so that its peak memory (VmHWM) is its own.  Elapsed and CPU
# seconds are both printed: on a shared machine the CPU times are the
# steadier comparison.
# Run from the package root after `make install`:
#   R_LIBS=.rlib Rscript bench/glmm.R [records] [levels] [quick]
# With a third argument "quick" the slow Laplace fit and the comparisons
# for information are left out, and tarnel and glmer(nAGQ = 0) are each
# timed three times, alternately, each ratio from the medians.
#
# The estimators differ: glmer maximises the Laplace approximation of the
# marginal likelihood (ML), nAGQ = 0 the same with the fixed effects
# inside the penalised least squares; tarnel's PQL-REML fixed point treats
# the working model as normal and estimates the variance by REML.  For a
# binary response with a moderate variance PQL is known to give a smaller
# random-effect variance than the Laplace approximation.
args <- commandArgs(trailingOnly = TRUE)

peak_mb <- function() {
  s <- readLines("/proc/self/status")
  as.numeric(sub("[^0-9]*([0-9]+).*", "\\1", s[grepl("^VmHWM", s)])) / 1024
}

if (length(args) >= 1 && args[1] == "worker") {
  # One fit: Rscript bench/glmm.R worker <method> <data.rds> <out.rds>
  suppressPackageStartupMessages({
    library(tarnel)
    library(lme4)
  })
  d <- readRDS(args[3])
  base <- peak_mb()
  st <- system.time(est <- switch(args[2],
    tarnel = {
      f <- tarnel(y ~ F + x, random = ~ A, data = d, family = binomial())
      list(var = f$varcomp["A", "component"], x = unname(coef(f)["x"]), iter = nrow(f$iterations),
           converged = f$converged)
    },
    nagq0 = {
      m <- glmer(y ~ F + x + (1 | A), d, family = binomial, nAGQ = 0)
      list(var = as.data.frame(VarCorr(m))$vcov[1], x = unname(fixef(m)["x"]), iter = NA, converged = TRUE)
    },
    laplace = {
      m <- glmer(y ~ F + x + (1 | A), d, family = binomial)
      list(var = as.data.frame(VarCorr(m))$vcov[1], x = unname(fixef(m)["x"]), iter = NA, converged = TRUE)
    }))
  saveRDS(c(est, time = st[["elapsed"]], cpu = st[["user.self"]] + st[["sys.self"]], peak = peak_mb(), base = base),
          args[4])
  quit(save = "no")
}

n <- if (length(args) >= 1) as.integer(args[1]) else 100000L
na <- if (length(args) >= 2) as.integer(args[2]) else 2000L
set.seed(7)
a <- sample(na, n, TRUE)
f <- sample(10L, n, TRUE)
x <- rnorm(n)
u <- rnorm(na, sd = sqrt(0.5))
bf <- seq(-1, 1, length.out = 10)
d <- data.frame(y = rbinom(n, 1, plogis(-0.5 + bf[f] + 0.4 * x + u[a])), x = x,
                A = factor(sprintf("a%04d", a)), F = factor(sprintf("f%02d", f)))
data_file <- tempfile(fileext = ".rds")
saveRDS(d, data_file)
script <- sub("^--file=", "", grep("^--file=", commandArgs(FALSE), value = TRUE))
rscript <- file.path(R.home("bin"), "Rscript")
run <- function(method) {
  out <- tempfile(fileext = ".rds")
  system2(rscript, c(script, "worker", method, data_file, out))
  readRDS(out)
}
quick <- length(args) >= 3 && args[3] == "quick"
if (quick) {
  reps <- lapply(1:3, function(i) lapply(c(tarnel = "tarnel", `glmer(nAGQ = 0)` = "nagq0"), run))
  med <- function(m, k) median(sapply(reps, function(r) r[[m]][[k]]))
  res <- lapply(setNames(names(reps[[1]]), names(reps[[1]])), function(m) {
    r <- reps[[1]][[m]]
    for (k in c("time", "cpu", "peak")) r[[k]] <- med(m, k)
    r
  })
} else {
  res <- lapply(c(tarnel = "tarnel", `glmer(nAGQ = 0)` = "nagq0", `glmer (Laplace)` = "laplace"), run)
}
tab <- data.frame(seconds = sapply(res, `[[`, "time"), cpu_seconds = sapply(res, `[[`, "cpu"), peak_MB = sapply(res, `[[`, "peak"),
                  start_MB = sapply(res, `[[`, "base"), var_A = sapply(res, `[[`, "var"),
                  slope_x = sapply(res, `[[`, "x"))
cat(sprintf("binomial GLMM: %d records, random factor of %d levels, fixed factor of 10 levels and a covariate\n", n, na))
cat(sprintf("tarnel: %d iterations, converged %s\n", res$tarnel$iter, res$tarnel$converged))
print(tab, digits = 4)
ratio <- function(k, col) tab[[col]][k] / tab[[col]][1]
cat(sprintf("ratio glmer(nAGQ = 0) / tarnel: %.2f elapsed, %.2f CPU\n", ratio(2, "seconds"), ratio(2, "cpu_seconds")))
if (!quick) cat(sprintf("ratio glmer (Laplace) / tarnel: %.2f elapsed, %.2f CPU\n", ratio(3, "seconds"), ratio(3, "cpu_seconds")))
cat(sprintf("load average at the end: %s\n", paste(utils::head(strsplit(readLines("/proc/loadavg"), " ")[[1]], 3), collapse = " ")))
cat("peak_MB is each process's peak resident memory (R and the packages included: start_MB before the fit)\n")
unlink(data_file)
if (quick) quit(save = "no")

# For information: the same small model (lme4::cbpp) by the three
# estimators.  tarnel gives the PQL-REML fixed point (dispersion fixed at
# 1); MASS::glmmPQL runs PQL with ML at each step and estimates a residual
# scale, so its herd variance is smaller; glmer maximises the Laplace
# approximation (ML), which for binomial data with small groups gives a
# larger variance than PQL.
if (requireNamespace("MASS", quietly = TRUE) && requireNamespace("lme4", quietly = TRUE)) {
  suppressPackageStartupMessages(library(tarnel))
  cb <- lme4::cbpp
  cb$fail <- cb$size - cb$incidence
  invisible(utils::capture.output(ft <- tarnel(cbind(incidence, fail) ~ period, random = ~ herd, data = cb,
                                               family = binomial())))
  pq <- suppressMessages(MASS::glmmPQL(cbind(incidence, fail) ~ period, random = ~ 1 | herd, family = binomial,
                                      data = cb, verbose = FALSE))
  gl <- lme4::glmer(cbind(incidence, fail) ~ period + (1 | herd), cb, family = binomial)
  b <- coef(ft)
  cmp <- rbind(tarnel = c(herd = ft$varcomp["herd", "component"], intercept = b[["(Intercept)"]],
                          period2 = b[["period2"]]),
               glmmPQL = c(as.numeric(nlme::VarCorr(pq)[1, 1]), nlme::fixef(pq)[1:2]),
               glmer = c(as.data.frame(lme4::VarCorr(gl))$vcov[1], lme4::fixef(gl)[1:2]))
  cat("\ncbpp (56 records, 15 herds): herd variance and the first fixed effects\n")
  print(cmp, digits = 4)
}

# For information: an ordered response with a random term (ordinal::wine,
# 72 ratings of 9 judges).  tarnel's cumulative family gives the PQL-REML
# fixed point; ordinal::clmm maximises the Laplace approximation (nAGQ = 1)
# or adaptive Gauss-Hermite quadrature (nAGQ = 10) of the marginal
# likelihood.  Coefficients and thresholds share the sign convention of clm.
if (requireNamespace("ordinal", quietly = TRUE)) {
  suppressPackageStartupMessages(library(tarnel))
  wine <- get(utils::data("wine", package = "ordinal", envir = environment()))
  invisible(utils::capture.output(fo <- tarnel(rating ~ temp + contact, random = ~ judge, data = wine,
                                               family = cumulative())))
  c1 <- ordinal::clmm(rating ~ temp + contact + (1 | judge), data = wine)
  c10 <- ordinal::clmm(rating ~ temp + contact + (1 | judge), data = wine, nAGQ = 10)
  row <- function(beta, alpha, v) c(judge = v, beta, alpha)
  cmp <- rbind(tarnel = row(coef(fo), fo$zeta, fo$varcomp["judge", "component"]),
               `clmm (Laplace)` = row(c1$beta, c1$alpha, c1$ST[[1]][1]^2),
               `clmm (nAGQ = 10)` = row(c10$beta, c10$alpha, c10$ST[[1]][1]^2))
  cat("\nwine (72 ratings, 9 judges), logit link: judge variance, coefficients and thresholds\n")
  print(cmp, digits = 4)
}
