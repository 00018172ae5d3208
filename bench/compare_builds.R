# Two builds of tarnel on the same fits, in the same run: the crossed
# variance-component model of bench/vc.R and the animal model of
# bench/animal_large.R.  Each fit runs in a fresh R process with one build's
# library; the builds alternate, so that a busy machine slows both alike.
# Prints the best time of each build, the ratio after / before and the peak
# memory of each process.
# Run from the package root:
#   Rscript bench/compare_builds.R LIB_BEFORE LIB_AFTER [repeats] [animals]
args <- commandArgs(trailingOnly = TRUE)
if (length(args) < 2L) stop("usage: Rscript bench/compare_builds.R LIB_BEFORE LIB_AFTER [repeats] [animals]")
libs <- c(before = normalizePath(args[1]), after = normalizePath(args[2]))
reps <- if (length(args) >= 3L) as.integer(args[3]) else 3L
nanim <- if (length(args) >= 4L) as.integer(args[4]) else 50000L

fits <- list(
  vc = c(
    "set.seed(11); n <- 100000L; na <- 2000L; nb <- 500L; nf <- 50L",
    "a <- sample(na, n, TRUE); b <- sample(nb, n, TRUE); f <- sample(nf, n, TRUE)",
    "d <- data.frame(y = 10 + rnorm(nf, sd = 3)[f] + rnorm(na, sd = sqrt(2))[a] + rnorm(nb)[b] + rnorm(n, sd = sqrt(3)),",
    "  A = factor(sprintf('a%04d', a)), B = factor(sprintf('b%03d', b)), F = factor(sprintf('f%02d', f)))",
    "invisible(gc())",
    "t <- system.time(fit <- tarnel(y ~ F, random = ~ A + B, data = d))[['elapsed']]"),
  animal = c(
    "source(file.path('bench', 'animal_sim.R'))",
    sprintf("sim <- simulate_animals(%dL); d <- sim$data; ai <- sim$ai", nanim),
    "invisible(gc())",
    "t <- system.time(fit <- tarnel(y ~ sex, random = ~ cov_known(animal, ai), data = d))[['elapsed']]")
)

run_one <- function(lib, code) {
  script <- tempfile(fileext = ".R")
  writeLines(c("suppressPackageStartupMessages(library(tarnel))", code,
               "cat(sprintf('RESULT %.3f %.10g %d\\n', t, as.numeric(logLik(fit)), nrow(fit$iterations)))"),
             script)
  out <- system2("/usr/bin/time", c("-f", shQuote("PEAKKB %M"), "Rscript", "--no-init-file", script),
                 stdout = TRUE, stderr = TRUE, env = paste0("R_LIBS=", lib))
  res <- strsplit(grep("^RESULT", out, value = TRUE), " ")[[1]]
  peak <- as.numeric(sub("PEAKKB ", "", grep("^PEAKKB", out, value = TRUE)))
  c(time = as.numeric(res[2]), loglik = as.numeric(res[3]), iter = as.numeric(res[4]), peak_mb = peak / 1024)
}

for (name in names(fits)) {
  rows <- list()
  for (r in seq_len(reps)) for (b in names(libs)) rows[[length(rows) + 1L]] <- c(build = b, run_one(libs[[b]], fits[[name]]))
  tab <- as.data.frame(do.call(rbind, rows), stringsAsFactors = FALSE)
  for (k in c("time", "loglik", "iter", "peak_mb")) tab[[k]] <- as.numeric(tab[[k]])
  best <- tapply(tab$time, tab$build, min)
  peak <- tapply(tab$peak_mb, tab$build, max)
  ll <- tapply(tab$loglik, tab$build, function(v) v[1])
  cat(sprintf("%s: before %.2f s, after %.2f s, ratio after/before %.3f; peak memory %.0f MB / %.0f MB; log-likelihood %s / %s\n",
              name, best[["before"]], best[["after"]], best[["after"]] / best[["before"]],
              peak[["before"]], peak[["after"]], format(ll[["before"]], digits = 12), format(ll[["after"]], digits = 12)))
}
