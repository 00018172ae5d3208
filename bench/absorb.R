# Ordering plus absorption of a pedigree-like mixed model against CHOLMOD's
# ordering plus factorisation of the same matrix, in the same run.
#
#   Rscript bench/absorb.R [animals] [herds]
#   sh bench/with_openblas.sh bench/absorb.R [animals] [herds]
#
# The second form times CHOLMOD's supernodal path with an optimised BLAS
# instead of R's reference BLAS.
#
# The equations: response (1), mean (2), herds, animals with a pedigree
# (X'X + alpha A^-1).  tarnel keeps the response and the mean in its dense
# block and orders the rest; CHOLMOD factors the coefficient matrix (all
# equations but the response) with its own fill-reducing order.  Both
# log-determinants are printed as a check.  The fill is compared on the
# sparse part (herds and animals) against an approximate minimum degree
# order of CHOLMOD.
suppressPackageStartupMessages({
  library(Matrix)
  library(tarnel)
})
source(file.path("bench", "peak_memory.R"))
args <- commandArgs(trailingOnly = TRUE)
nanimal <- if (length(args) >= 1) as.integer(args[1]) else 100000L
nherd <- if (length(args) >= 2) as.integer(args[2]) else 1000L

animal_mme <- function(nanimal, nherd, seed = 1) {
  set.seed(seed)
  herd0 <- 3L
  an0 <- herd0 + nherd
  neq <- an0 + nanimal - 1L
  eq <- an0 - 1L + sample.int(nanimal)
  gen <- max(20L, nanimal %/% 10L)
  alpha <- 1.5
  g <- (seq_len(nanimal) - 1L) %/% gen
  herd <- integer(nanimal)
  sire <- dam <- integer(nanimal)
  nsire <- max(2L, gen %/% 50L)
  f <- which(g == 0)
  herd[f] <- sample.int(nherd, length(f), replace = TRUE)
  for (k in seq_len(max(g))) {
    idx <- which(g == k)
    lo <- (k - 1L) * gen
    s <- lo + sample.int(nsire, length(idx), replace = TRUE)
    d <- lo + sample.int(gen, length(idx), replace = TRUE)
    clash <- d == s
    d[clash] <- ifelse(s[clash] + nsire < lo + gen, s[clash] + nsire, lo + nsire)
    sire[idx] <- s
    dam[idx] <- d
    herd[idx] <- herd[d]
  }
  nf <- length(f)
  ped <- which(g > 0)
  a <- eq[ped]; sa <- eq[sire[ped]]; da <- eq[dam[ped]]
  y <- 10 + rnorm(length(ped))
  h <- herd0 - 1L + herd[ped]
  ii <- c(eq[f], seq_len(nherd) + herd0 - 1L, a, a, a, sa, da, sa,
          1L, 2L, 2L, h, h, h, a, a, a, a)
  jj <- c(eq[f], seq_len(nherd) + herd0 - 1L, a, sa, da, sa, da, da,
          1L, 1L, 2L, rep(1L, length(h)), rep(2L, length(h)), h, rep(1L, length(a)),
          rep(2L, length(a)), h, a)
  xx <- c(rep(alpha, nf), rep(0.5, nherd), rep(2 * alpha, length(a)), rep(-alpha, length(a)),
          rep(-alpha, length(a)), rep(0.5 * alpha, length(a)), rep(0.5 * alpha, length(a)),
          rep(0.5 * alpha, length(a)),
          sum(y^2), sum(y), length(y), y, rep(1, length(h)), rep(1, length(h)), y,
          rep(1, length(a)), rep(1, length(a)), rep(1, length(a)))
  lo <- pmin(ii, jj); hi <- pmax(ii, jj)
  M <- sparseMatrix(i = hi, j = lo, x = xx, dims = c(neq, neq))  # sums repeats
  M <- as(M, "TsparseMatrix")
  o <- order(M@i, M@j)
  list(neq = neq, i = M@i[o] + 1L, j = M@j[o] + 1L, x = M@x[o])
}

cat(sprintf("Pedigree-like MME: %d animals, %d herds\n", nanimal, nherd))
m <- animal_mme(nanimal, nherd)
cat(sprintf("NEQ %d, lower-triangle elements %d\n", m$neq, length(m$x)))
# Room for the fill, the block laid out complete and its copy.
slots <- max(80 * m$neq, 4 * length(m$x))
run <- function(mode) .Call(tarnel:::C_tarnel_bench_absorb, m$neq, 2L, m$i, m$j, m$x, slots, mode)

# tarnel: ordering + absorption (best of 3).
reset_peak()
tt <- replicate(3, run(1L))
peak_tar <- peak_mb()
best <- which.min(tt[5, ] + tt[6, ])
tar <- tt[, best]
t_tar <- tar[5] + tar[6]

# CHOLMOD: ordering + factorisation of the coefficient matrix (best of 3).
# Matrix keeps a factor it has computed in the matrix's 'factors' slot and
# hands it back on the next call, so the cache is emptied before each timing:
# every figure is a real ordering plus factorisation.  Both of CHOLMOD's
# paths are timed: supernodal (dense blocks through R's BLAS) and simplicial.
C <- sparseMatrix(i = m$i, j = m$j, x = m$x, dims = c(m$neq, m$neq), symmetric = TRUE, index1 = TRUE)
C <- as(C[-1, -1], "CsparseMatrix")
chm_time <- function(super) {
  t <- Inf
  for (k in 1:3) {
    C@factors <- list()
    t <- min(t, system.time(ch <<- Cholesky(C, perm = TRUE, LDL = FALSE, super = super))[["elapsed"]])
  }
  t
}
reset_peak()
t_simp <- chm_time(FALSE)
t_chm <- chm_time(TRUE)
peak_chm <- peak_mb()
ld_chm <- 2 * sum(log(diag(as(ch, "Matrix"))))

# Fill on the sparse part: AMD (CHOLMOD with its AMD order, simplicial) and
# the natural order.
S <- C[-1, -1]
S@factors <- list()
ch_amd <- Cholesky(S, perm = TRUE, LDL = FALSE, super = FALSE, Imult = 0)
fill_amd <- nnzero(as(ch_amd, "Matrix"))
nat <- run(0L)

cat(sprintf("tarnel  order %.3f s + absorb %.3f s = %.3f s, logdet %.10g, singular %d, peak memory %.0f MB\n",
            tar[5], tar[6], t_tar, tar[1], as.integer(tar[3]), peak_tar))
cat(sprintf("rows left by the ordering to fill in as a block: %d\n", as.integer(tar[9])))
cat(sprintf("BLAS used by R (CHOLMOD's supernodal path): %s\n", extSoftVersion()[["BLAS"]]))
cat(sprintf("CHOLMOD order + factor: supernodal %.3f s, simplicial %.3f s, logdet %.10g, peak memory %.0f MB\n",
            t_chm, t_simp, ld_chm, peak_chm))
t_best <- min(t_chm, t_simp)
cat(sprintf("time ratio tarnel / CHOLMOD (faster of its two paths): %.2f\n", t_tar / t_best))
cat(sprintf("fill (sparse part, lower incl. diagonal): g5veor %.0f, AMD %.0f, natural %.0f\n",
            tar[4], fill_amd, nat[4]))
cat(sprintf("fill ratio g5veor / AMD: %.3f; natural / AMD: %.1f\n", tar[4] / fill_amd, nat[4] / fill_amd))
cat(sprintf("relative difference of log-determinants: %.2e\n", abs(tar[1] - ld_chm) / abs(ld_chm)))
