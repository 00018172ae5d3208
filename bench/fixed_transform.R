# The cost of putting the fixed effects in R's coding after the engine
# (finish_fixed()), in three fits: bench/vc.R's crossed model (100,000
# records, a fixed factor of 50 levels), a model of 1,000,000 records with
# ten fixed terms like bench/design.R's plus a random factor, and a fixed
# factor of 480 levels over 10,000 records (below the size at which
# a fixed factor goes to the sparse equations by default).  For each: the elapsed time
# and resident peak of the whole tarnel() call and of lme4::lmer on the
# same model in the same run, their ratio, and the share of tarnel()'s
# profile samples spent inside finish_fixed().
# Run from the package root after `make install`:
#   R_LIBS=.rlib Rscript bench/fixed_transform.R [scale]
# `scale` (default 1) multiplies every number of records.
suppressPackageStartupMessages({
  library(tarnel)
  library(lme4)
})
args <- as.numeric(commandArgs(trailingOnly = TRUE))
scale <- if (length(args)) args[1] else 1

source(file.path("bench", "peak_memory.R"))
# Share of the profile samples of a tarnel() fit that fall in finish_fixed().
finish_share <- function(form, random, d) {
  prof <- tempfile()
  Rprof(prof, interval = 0.01)
  fit <- tarnel(form, random = random, data = d)
  Rprof(NULL)
  s <- summaryRprof(prof)$by.total
  unlink(prof)
  total <- s["\"tarnel\"", "total.time"]
  ff <- if ("\"finish_fixed\"" %in% rownames(s)) s["\"finish_fixed\"", "total.time"] else 0
  c(share = ff / total, seconds = ff)
}

set.seed(1)
cases <- list()
n <- round(100000 * scale); na <- 2000; nb <- 500; nf <- 50
a <- sample.int(na, n, TRUE); b <- sample.int(nb, n, TRUE); f <- sample.int(nf, n, TRUE)
cases$vc <- list(
  d = data.frame(y = 10 + rnorm(nf, sd = 3)[f] + rnorm(na, sd = sqrt(2))[a] + rnorm(nb)[b] + rnorm(n, sd = sqrt(3)),
                 A = factor(a), B = factor(b), F = factor(f)),
  form = y ~ F, random = ~ A + B, lform = y ~ F + (1 | A) + (1 | B))
n <- round(1000000 * scale); nr <- 200
r <- sample.int(nr, n, TRUE)
cases$design <- list(
  d = data.frame(y = rnorm(nr)[r] + rnorm(n),
                 A = factor(sample(sprintf("a%d", 1:4), n, TRUE)), B = factor(sample(sprintf("b%d", 1:3), n, TRUE)),
                 C = factor(sample(sprintf("c%d", 1:5), n, TRUE)), D = factor(sample(sprintf("d%d", 1:2), n, TRUE)),
                 x1 = runif(n), x2 = rnorm(n), x3 = runif(n), R = factor(r)),
  form = y ~ A + B + C + D + x1 + x2 + x3 + A:B + x1:C, random = ~ R,
  lform = y ~ A + B + C + D + x1 + x2 + x3 + A:B + x1:C + (1 | R))
n <- round(10000 * scale); nf <- 480; nr <- 100
f <- c(seq_len(nf), sample.int(nf, n - nf, TRUE)); r <- sample.int(nr, n, TRUE)
cases$levels480 <- list(
  d = data.frame(y = rnorm(nf, sd = 2)[f] + rnorm(nr)[r] + rnorm(n), F = factor(f), R = factor(r)),
  form = y ~ F, random = ~ R, lform = y ~ F + (1 | R))

# Smallest first: the peaks are growths over the resident size, which the
# larger fits leave high.
cases <- cases[c("levels480", "vc", "design")]
cat(sprintf("%-10s %9s %8s %8s %7s %9s %9s %8s %8s\n", "case", "records", "tarnel_s", "lmer_s", "ratio",
            "tarnel_MB", "lmer_MB", "finish_s", "share"))
for (nm in names(cases)) {
  k <- cases[[nm]]
  tt <- measure(tarnel(k$form, random = k$random, data = k$d))
  tl <- measure(lmer(k$lform, data = k$d, REML = TRUE))
  # The two fits agree on the fixed effects (to the precision of lmer's
  # optimum).
  dif <- max(abs(coef(tt$value) - fixef(tl$value)[names(coef(tt$value))])) / max(abs(fixef(tl$value)))
  if (!is.finite(dif) || dif > 1e-3) stop(sprintf("%s: the fixed effects differ from lmer's by %.2g", nm, dif))
  sh <- finish_share(k$form, k$random, k$d)
  cat(sprintf("%-10s %9d %8.2f %8.2f %7.2f %9.0f %9.0f %8.2f %7.1f%%\n", nm, nrow(k$d), tt$elapsed, tl$elapsed,
              tt$elapsed / tl$elapsed, tt$peak, tl$peak, sh[["seconds"]], 100 * sh[["share"]]))
}
