# Inverse relationship matrix of a simulated pedigree of 1,000,000
# individuals: tarnel's pedigree_inverse() beside nadiv::makeAinv(), which
# forms the same inverse with Meuwissen-Luo inbreeding, timed in the same
# run.  Then two deep pedigrees: overlapping generations (parents drawn up
# to 5,000 rows back; 1,000,000 rows, and a size the peer finishes, side by
# side) and a chain of 200,000 generations listed offspring first (the
# sort).  Peak memory of the whole run is printed at the end.  Run by hand
# from the checkout:
#   R_LIBS=.rlib Rscript bench/ainv.R [individuals] [peer individuals] [overlapping rows]
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

# Overlapping generations: 5,000 founders, then every row takes two parents
# drawn uniformly from the 5,000 rows before it.  After a few hundred rows
# nearly every earlier row is an ancestor of each new one.
overlapping <- function(n, back = 5000, founders = 5000) {
  set.seed(20261124)
  i <- seq_len(n)
  s <- pmax(i - sample.int(back, n, TRUE), 0L)
  d <- pmax(i - sample.int(back, n, TRUE), 0L)
  s[i <= founders] <- 0L
  d[i <= founders] <- 0L
  data.frame(id = i, sire = s, dam = d)
}
n_over <- if (length(args) > 2) as.numeric(args[3]) else 1e6
n_over_peer <- 12000  # nadiv did not finish 25,000 rows within 3 minutes
ped <- overlapping(n_over)
st <- system.time(a <- pedigree_inverse(ped))
cat(sprintf("\nOverlapping generations, %d rows: tarnel %8.2f s elapsed, %8.2f s CPU  (mean F %.5f, max F %.5f)\n",
            nrow(ped), st[["elapsed"]], cpu(st), mean(a$inbreeding), max(a$inbreeding)))
ped <- overlapping(n_over_peer)
st <- system.time(a <- pedigree_inverse(ped))
cat(sprintf("Overlapping generations, %d rows: tarnel %8.2f s elapsed, %8.2f s CPU\n",
            nrow(ped), st[["elapsed"]], cpu(st)))
if (requireNamespace("nadiv", quietly = TRUE)) {
  pp <- ped
  pp$sire[pp$sire == 0] <- NA
  pp$dam[pp$dam == 0] <- NA
  # nadiv reads rows that are both sire and dam as selfing and says so.
  sp <- system.time(b <- suppressWarnings(nadiv::makeAinv(pp)))
  cat(sprintf("                                   nadiv  %8.2f s elapsed, %8.2f s CPU; ratio tarnel / nadiv %.3f elapsed, %.3f CPU\n",
              sp[["elapsed"]], cpu(sp), st[["elapsed"]] / sp[["elapsed"]], cpu(st) / cpu(sp)))
  d <- a$ainv - as(b$Ainv, "symmetricMatrix")
  cat(sprintf("largest difference: A-inverse %.3g, inbreeding %.3g\n",
              max(abs(d@x)), max(abs(a$inbreeding - b$f))))
}

# A chain of 200,000 generations, listed offspring first, with identities
# that sort youngest first: each pass of the plain ordering would move one
# generation.
n_chain <- 200000
ids <- sprintf("g%07d", seq_len(n_chain))  # g0000001 the youngest
chain <- data.frame(id = ids, sire = c(ids[-1], "0"), dam = "0")
# The ordering notes (two passes that move every record) go to the null
# device.
null <- file(nullfile(), "w")
sink(null)
st <- system.time(a <- pedigree_inverse(chain))
sink()
close(null)
cat(sprintf("\nChain of %d generations, offspring first: tarnel %8.2f s elapsed, %8.2f s CPU\n",
            n_chain, st[["elapsed"]], cpu(st)))
if (requireNamespace("nadiv", quietly = TRUE)) {
  pp <- chain
  pp$sire[pp$sire == "0"] <- NA
  pp$dam <- NA
  # At most two minutes for the peer's ordering.
  setTimeLimit(elapsed = 120, transient = TRUE)
  sp <- tryCatch(system.time(o <- nadiv::prepPed(pp)), error = function(e) NULL)
  setTimeLimit()
  if (is.null(sp)) {
    cat("nadiv prepPed (ordering only):   did not finish within 120 s\n")
  } else {
    cat(sprintf("nadiv prepPed (ordering only):   %8.2f s elapsed; ratio tarnel (order and inverse) / nadiv %.3f\n",
                sp[["elapsed"]], st[["elapsed"]] / sp[["elapsed"]]))
  }
}
peak <- as.numeric(gsub("[^0-9]", "", grep("^VmHWM", readLines("/proc/self/status"), value = TRUE)))
cat(sprintf("\nPeak memory of the run: %.0f MB\n", peak / 1024))
