# The cost of a shortage of work array: the crossed model of bench/vc.R
# fitted with the work array the R side sizes from the model, and with one a
# third of that size, which the engine finds short and the R side retries
# with four times as much.  Prints the time, the peak memory and the words
# of each, and their ratio, measured in the same run.
#   R_LIBS=.rlib Rscript bench/workspace.R [records]
suppressPackageStartupMessages(library(tarnel))
source(file.path("bench", "peak_memory.R"))
args <- commandArgs(trailingOnly = TRUE)
n <- if (length(args)) as.integer(args[1]) else 100000L
set.seed(11)
na <- 2000L; nb <- 500L; nf <- 50L
a <- sample(na, n, TRUE); b <- sample(nb, n, TRUE); f <- sample(nf, n, TRUE)
d <- data.frame(y = 10 + rnorm(nf, sd = 3)[f] + rnorm(na, sd = sqrt(2))[a] + rnorm(nb)[b] + rnorm(n, sd = sqrt(3)),
                A = factor(sprintf("a%04d", a)), B = factor(sprintf("b%03d", b)), F = factor(sprintf("f%02d", f)))
r1 <- timed(fit1 <- tarnel(y ~ F, random = ~ A + B, data = d))
r2 <- timed(fit2 <- tarnel(y ~ F, random = ~ A + B, data = d,
                           control = tarnel_control(workspace = fit1$workspace / 3)))
cat(sprintf("sized from the model: %.2f s, peak memory %.0f MB, %.0f words\n", r1[["time"]], r1[["peak_mb"]], fit1$workspace))
cat(sprintf("a third, retried:     %.2f s, peak memory %.0f MB, %.0f words\n", r2[["time"]], r2[["peak_mb"]], fit2$workspace))
cat(sprintf("ratio retried / sized: time %.2f, peak memory %.2f\n", r2[["time"]] / r1[["time"]], r2[["peak_mb"]] / r1[["peak_mb"]]))
cat(sprintf("largest relative difference of the variance parameters: %.1e\n",
            max(abs(fit1$varcomp$component - fit2$varcomp$component) / abs(fit1$varcomp$component))))
