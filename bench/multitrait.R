# Two traits on the simulated animals of bench/animal_sim.R: genetic effects
# with an unstructured covariance across traits and an unstructured
# residual across the traits of an animal, a tenth of the second trait
# missing.  tarnel fits the animal model US x A when the relationship
# matrix can stand in a direct product, and otherwise the sire model
# US x I(sire); the peer (sommer::mmer when installed, otherwise nlme::lme
# with a pdSymm sire term and corSymm/varIdent residuals, the model of the
# sire fit) runs in the same process on the smaller size, with a time
# limit.  Each fit runs in a child process of its own, so that the peak
# memory printed is that fit's alone.
# Run from the package root after `make install`:
#   R_LIBS=.rlib Rscript bench/multitrait.R [animals...]   (default 5000 50000)
args <- commandArgs(trailingOnly = TRUE)
sizes <- if (length(args)) as.integer(args) else c(5000L, 50000L)
limit <- 600

child <- function(what, n) {
  out <- system2(file.path(R.home("bin"), "Rscript"), c("bench/multitrait.R", "--child", what, n),
                 stdout = TRUE, stderr = TRUE)
  line <- grep("^RESULT ", out, value = TRUE)
  if (!length(line)) {
    cat(sprintf("  %s on %d animals failed:\n    %s\n", what, n, paste(utils::tail(out, 3), collapse = "\n    ")))
    return(NULL)
  }
  v <- strsplit(sub("^RESULT ", "", line), " ")[[1]]
  list(model = v[1], time = as.numeric(v[2]), iter = as.numeric(v[3]), peak = as.numeric(v[4]),
       est = as.numeric(v[-(1:4)]))
}

two_traits <- function(n) {
  source(file.path("bench", "animal_sim.R"))
  sim <- simulate_animals(n)
  d <- sim$data
  set.seed(7)
  # A second trait, correlated in breeding value (0.5) and residual (0.4)
  # with the first.
  a1 <- sim$a[d$animal]
  e1 <- d$y - 10 - 0.5 * (d$sex == "M") - a1
  a2 <- 0.5 * a1 + rnorm(length(sim$a), sd = sqrt(0.45))[d$animal]
  d$y2 <- 5 + 0.3 * (d$sex == "M") + a2 + 0.4 * e1 + rnorm(nrow(d), sd = 0.9)
  d$y2[sample(nrow(d), nrow(d) %/% 10)] <- NA
  list(sim = sim, d = d)
}

run_child <- function(what, n) {
  suppressPackageStartupMessages(library(tarnel))
  s <- two_traits(n)
  d <- s$d
  ai <- s$sim$ai
  est <- NULL
  model <- what
  t <- system.time({
    if (what == "tarnel") {
      fit <- tryCatch(tarnel(cbind(y, y2) ~ trait + trait:sex, random = ~ cov_us(trait):cov_known(animal, ai), data = d),
                      error = function(e) NULL)
      model <- "animal"
      if (is.null(fit)) {
        d$sire <- factor(s$sim$sire[d$animal])
        fit <- tarnel(cbind(y, y2) ~ trait + trait:sex, random = ~ cov_us(trait):sire, data = d)
        model <- "sire"
      }
      est <- fit$varcomp$component
      iter <- nrow(fit$iterations)
    } else {
      d$sire <- factor(s$sim$sire[d$animal])
      setTimeLimit(elapsed = limit)
      long <- data.frame(value = c(d$y, d$y2), trait = factor(rep(c("y", "y2"), each = nrow(d))),
                         sex = rep(d$sex, 2), sire = rep(d$sire, 2), animal = factor(rep(d$animal, 2)))
      long <- long[!is.na(long$value), ]
      long$tnum <- as.integer(long$trait)
      m <- nlme::lme(value ~ 0 + trait + trait:sex, random = list(sire = nlme::pdSymm(~ 0 + trait)),
                     correlation = nlme::corSymm(form = ~ tnum | sire/animal),
                     weights = nlme::varIdent(form = ~ 1 | trait), data = long, method = "REML")
      G <- as.matrix(nlme::getVarCov(m))
      s2 <- m$sigma^2
      vf <- c(1, coef(m$modelStruct$varStruct, unconstrained = FALSE))
      r <- coef(m$modelStruct$corStruct, unconstrained = FALSE)
      est <- c(G[1, 1], G[2, 1], G[2, 2], s2 * vf[1]^2, r * s2 * vf[1] * vf[2], s2 * vf[2]^2)
      model <- "sire"
      iter <- NA
    }
  })[["elapsed"]]
  peak <- as.numeric(gsub("[^0-9]", "", grep("^VmHWM", readLines("/proc/self/status"), value = TRUE))) / 1024
  cat("RESULT", model, t, if (is.na(iter)) 0 else iter, peak, sprintf("%.10g", est), "\n")
}

if (length(args) >= 3 && args[1] == "--child") {
  run_child(args[2], as.integer(args[3]))
  quit(save = "no")
}

# sommer is not among Debian's packages; the peer is nlme::lme.
peer <- "nlme"
for (n in sizes) {
  cat(sprintf("\n%d animals, two traits (a tenth of the second missing)\n", n))
  a <- child("tarnel", n)
  if (is.null(a)) next
  cat(sprintf("  tarnel (%s model): %.2f s, %d iterations, peak memory %.0f MB\n", a$model, a$time, a$iter, a$peak))
  if (n != min(sizes)) next
  b <- child(peer, n)
  if (is.null(b)) next
  cat(sprintf("  %s (sire model): %.2f s, peak memory %.0f MB\n", peer, b$time, b$peak))
  if (a$model == b$model) {
    cat(sprintf("  ratio tarnel / %s: %.4f\n", peer, a$time / b$time))
    print(rbind(tarnel = a$est, peer = b$est))
    cat(sprintf("  largest relative difference of the components: %.2e\n", max(abs(a$est - b$est) / abs(b$est))))
  } else {
    cat("  the two fits are of different models: no ratio\n")
  }
}
