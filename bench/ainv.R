# Inverse relationship matrix of a simulated pedigree of 1,000,000
# individuals: tarnel's pedigree_inverse() beside nadiv::makeAinv(), which
# forms the same inverse with Meuwissen-Luo inbreeding, timed in the same
# run.  Run by hand from the checkout:
#   R_LIBS=.rlib Rscript bench/ainv.R [individuals]
# (nadiv comes with `make bench-deps`; without it only tarnel is timed.)
suppressMessages(library(tarnel))
suppressMessages(library(Matrix))

# Arguments: individuals for tarnel (default 1,000,000) and for the side by
# side with the peer (default 30,000: on the deep 1,000,000-individual
# pedigree nadiv did not finish within 30 minutes, nor within 10 at 100,000).
args <- commandArgs(trailingOnly = TRUE)
n_total <- if (length(args)) as.numeric(args[1]) else 1e6
n_peer <- if (length(args) > 1) as.numeric(args[2]) else 3e4

# 20,000 founders, then generations of 98,000: 500 sires chosen from the
# males of the previous generation each mate with about 98 dams, and every
# dam has two full-sib offspring, recorded one after the other.  Ten
# generations give a deep pedigree with inbreeding building up.
simulate_pedigree <- function(n_total, founders = 20000, per_gen = 98000, sires = 500) {
  set.seed(20261121)
  id <- seq_len(founders)
  sire <- integer(founders)
  dam <- integer(founders)
  male <- rep(c(TRUE, FALSE), length.out = founders)
  prev <- id
  next_id <- founders
  while (next_id < n_total) {
    m <- min(per_gen, n_total - next_id)
    pm <- prev[male[prev]]
    pf <- prev[!male[prev]]
    nmat <- ceiling(m / 2)
    s <- sample(pm, min(sires, length(pm)))
    ms <- sample(s, nmat, replace = TRUE)
    md <- sample(pf, nmat, replace = length(pf) < nmat)
    new <- next_id + seq_len(m)
    id <- c(id, new)
    sire <- c(sire, rep(ms, each = 2)[seq_len(m)])
    dam <- c(dam, rep(md, each = 2)[seq_len(m)])
    male <- c(male, rep(c(TRUE, FALSE), length.out = m))
    prev <- new
    next_id <- next_id + m
  }
  data.frame(id = id, sire = sire, dam = dam)
}

ped <- simulate_pedigree(n_total)
invisible(capture.output(pedigree_inverse(ped[1:100, ])))
cat(sprintf("Pedigree: %d individuals, %d with both parents known\n",
            nrow(ped), sum(ped$sire > 0 & ped$dam > 0)))

# Elapsed time is what a user waits; CPU time (user + system) is shown
# beside it because other work on a shared machine stretches the elapsed.
cpu <- function(st) st[["user.self"]] + st[["sys.self"]]
st <- system.time(a <- pedigree_inverse(ped))
t_tarnel <- st[["elapsed"]]
cat(sprintf("tarnel  pedigree_inverse: %8.2f s elapsed, %8.2f s CPU  (nonzeros %d, mean F %.5f, max F %.5f, log det %.3f)\n",
            t_tarnel, cpu(st), a$giv$lcainv, mean(a$inbreeding), max(a$inbreeding), a$logdet))

if (requireNamespace("nadiv", quietly = TRUE)) {
  if (n_peer != n_total) {
    ped <- simulate_pedigree(n_peer)
    cat(sprintf("Side by side on %d individuals:\n", nrow(ped)))
    st <- system.time(a <- pedigree_inverse(ped))
    t_tarnel <- st[["elapsed"]]
    cat(sprintf("tarnel  pedigree_inverse: %8.2f s elapsed, %8.2f s CPU\n", t_tarnel, cpu(st)))
  }
  # nadiv reads unknown parents as NA; a small call first loads its code.
  pp <- ped
  pp$sire[pp$sire == 0] <- NA
  pp$dam[pp$dam == 0] <- NA
  invisible(nadiv::makeAinv(data.frame(id = 1:4, sire = c(NA, NA, 1, 1), dam = c(NA, NA, 2, 2))))
  sp <- system.time(b <- nadiv::makeAinv(pp))
  t_peer <- sp[["elapsed"]]
  cat(sprintf("nadiv   makeAinv:         %8.2f s elapsed, %8.2f s CPU  (log det %.3f)\n",
              t_peer, cpu(sp), b$logDet))
  cat(sprintf("ratio tarnel / nadiv:     %8.3f elapsed, %8.3f CPU\n", t_tarnel / t_peer,
              cpu(st) / cpu(sp)))
  # The same matrix and the same inbreeding (both in the order of ped,
  # which is already sorted).
  d <- a$ainv - as(b$Ainv, "symmetricMatrix")
  cat(sprintf("largest difference: A-inverse %.3g, inbreeding %.3g\n",
              max(abs(d@x)), max(abs(a$inbreeding - b$f))))
} else {
  cat("nadiv is not installed: no peer timing\n")
}
