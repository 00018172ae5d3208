# The design of 1,000,000 records with 10 terms: formed by tarnel (the data
# prepared and coded as for a fit, then the engine's design pass, returned
# as a sparse matrix) and by Matrix::sparse.model.matrix in the same run.
# Then whole tarnel() fits of the same model, with the time each spends on
# its preparation before the engine starts (everything in R, the argument
# lists for the engine included).  Peak memory is the growth of the
# process's resident peak during each step.
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

source(file.path("bench", "peak_memory.R"))

tarnel_design <- asNamespace("tarnel")$tarnel_design
# Alternately, twice each; the faster of each is kept.
runs <- list(tarnel = list(), matrix = list())
for (rep in 1:2) {
  runs$tarnel[[rep]] <- measure(tarnel_design(form, data = d))
  runs$matrix[[rep]] <- measure(sparse.model.matrix(form, d, contrasts.arg = contr))
}
best <- function(r) r[[which.min(vapply(r, `[[`, 1, "elapsed"))]]
td <- best(runs$tarnel)
tm <- best(runs$matrix)
X <- td$value
mm <- tm$value
runs <- NULL
stopifnot(identical(dim(X), dim(mm)), setequal(colnames(X), colnames(mm)))
same <- max(abs(X - mm[, colnames(X)]))

# Whole fits, without and with the design kept: the time from the call
# until the engine starts, taken by a tracer on the function that runs the
# engine.
engine_start <- NULL
invisible(suppressMessages(trace("with_engine_console", where = asNamespace("tarnel"), print = FALSE,
                       tracer = quote(if (is.null(engine_start)) engine_start <<- proc.time()[["elapsed"]]))))
whole_fit <- function(keep) {
  engine_start <<- NULL
  t0 <- NULL
  r <- measure({
    t0 <- proc.time()[["elapsed"]]
    tarnel(form, data = d, keep_design = keep)
  })
  r$prep <- engine_start - t0
  stopifnot(r$value$records == n)
  r$value <- NULL
  r
}
fit_plain <- whole_fit(FALSE)
fit_kept <- whole_fit(TRUE)
suppressMessages(untrace("with_engine_console", where = asNamespace("tarnel")))

cat(sprintf("records %d, equations %d, nonzeros %d; tarnel's design and sparse.model.matrix agree to %.1g\n",
            n, ncol(X), length(X@x), same))
cat(sprintf("%-40s %8s %8s %12s\n", "", "elapsed", "cpu", "peak MB"))
row <- function(label, r) cat(sprintf("%-40s %7.2fs %7.2fs %12.0f\n", label, r$elapsed, r$cpu, r$peak))
row("tarnel design (preparation + rows)", td)
row("Matrix::sparse.model.matrix", tm)
cat(sprintf("%-40s %7.2f  %7.2f\n", "ratio tarnel / Matrix", td$elapsed / tm$elapsed, td$cpu / tm$cpu))
row("tarnel() whole fit", fit_plain)
cat(sprintf("%-40s %7.2fs\n", "  of which preparation before the engine", fit_plain$prep))
row("tarnel() whole fit, design kept", fit_kept)
cat(sprintf("%-40s %7.2fs\n", "  of which preparation before the engine", fit_kept$prep))
cat(sprintf("%-40s %7.2f\n", "ratio preparation / Matrix", fit_plain$prep / tm$elapsed))
