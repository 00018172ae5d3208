# A known relationship matrix as one factor of a direct product (genotype by
# environment with a relationship across genotypes), against a dense REML
# written here: V = Z (Sigma x A) Z' + s2 I, maximised with optim.

quiet <- function(expr) { utils::capture.output(r <- expr); r }

# A small pedigree (founders, then offspring of earlier animals), its A by
# the tabular method, and records of the animals in `nenv` environments,
# some animals in several and some with repeated records.
make_trial <- function(seed, nenv = 3L, nrec = 200L, Sigma = NULL) {
  set.seed(seed)
  nf <- 12L; no <- 36L; n <- nf + no
  ped <- data.frame(id = sprintf("a%02d", seq_len(n)), sire = NA_character_, dam = NA_character_,
                    stringsAsFactors = FALSE)
  for (i in (nf + 1L):n) {
    p <- sample(i - 1L, 2L)
    ped$sire[i] <- ped$id[p[1]]; ped$dam[i] <- ped$id[p[2]]
  }
  A <- matrix(0, n, n, dimnames = list(ped$id, ped$id))
  s <- match(ped$sire, ped$id); m <- match(ped$dam, ped$id)
  for (i in seq_len(n)) {
    j <- seq_len(i - 1L)
    if (i > 1L) A[i, j] <- A[j, i] <- 0.5 * ((if (is.na(s[i])) 0 else A[j, s[i]]) + (if (is.na(m[i])) 0 else A[j, m[i]]))
    A[i, i] <- 1 + if (is.na(s[i]) || is.na(m[i])) 0 else 0.5 * A[s[i], m[i]]
  }
  envs <- paste0("E", seq_len(nenv))
  if (is.null(Sigma)) Sigma <- 0.5 * diag(nenv) + 0.5
  g <- matrix(t(chol(kronecker(Sigma, A))) %*% stats::rnorm(nenv * n), n)
  d <- expand.grid(animal = ped$id, env = envs, rep = 1:2, stringsAsFactors = FALSE)
  d <- d[sample(nrow(d), nrec), ]
  d$y <- 10 + seq_len(nenv)[match(d$env, envs)] + g[cbind(match(d$animal, ped$id), match(d$env, envs))] +
    stats::rnorm(nrec)
  d$env <- factor(d$env, levels = envs)
  list(d = d, A = A, ainv = quiet(pedigree_inverse(ped)))
}

# Records to effects of the product, environment slowest.
trial_Z <- function(tr) {
  d <- tr$d; n <- nrow(tr$A)
  Z <- matrix(0, nrow(d), nlevels(d$env) * n)
  Z[cbind(seq_len(nrow(d)), (as.integer(d$env) - 1L) * n + match(d$animal, rownames(tr$A)))] <- 1
  Z
}

# The REML log-likelihood (without the 2 pi term) of V, and its maximum
# over the parameters of `Vfun` by optim.
dense_loglik <- function(V, X, y) {
  R <- chol(V)
  Vi <- chol2inv(R)
  XVX <- crossprod(X, Vi %*% X)
  P <- Vi - Vi %*% X %*% solve(XVX, crossprod(X, Vi))
  -0.5 * (2 * sum(log(diag(R))) + as.numeric(determinant(XVX)$modulus) + drop(crossprod(y, P %*% y)))
}
dense_optimum <- function(start, Vfun, X, y) {
  o <- stats::optim(start, function(th) -dense_loglik(Vfun(th)$V, X, y), method = "BFGS",
                    control = list(reltol = 1e-13, maxit = 2000))
  c(Vfun(o$par), loglik = -o$value)
}
# The dense average information at given components, V = sum theta_k D_k.
dense_ai <- function(theta, D, X, y) {
  V <- Reduce(`+`, Map(`*`, theta, D))
  Vi <- solve(V)
  P <- Vi - Vi %*% X %*% solve(crossprod(X, Vi %*% X), crossprod(X, Vi))
  w <- lapply(D, function(Dk) Dk %*% P %*% y)
  outer(seq_along(D), seq_along(D), Vectorize(function(i, j) 0.5 * drop(crossprod(w[[i]], P %*% w[[j]]))))
}
# Packed lower triangle by rows <-> symmetric matrix.
packed_rows <- function(S) S[upper.tri(S, diag = TRUE)]
from_packed <- function(v, n) { S <- matrix(0, n, n); S[upper.tri(S, diag = TRUE)] <- v; S + t(S) - diag(diag(S)) }
expect_rel <- function(got, want, rel, what) {
  expect_true(all(abs(got - want) <= rel * pmax(abs(want), 1e-3)),
              info = sprintf("%s: got %s, want %s", what, paste(signif(got, 6), collapse = " "),
                             paste(signif(want, 6), collapse = " ")))
}

tr <- make_trial(3L, Sigma = matrix(c(2, 1.2, 0.6, 1.2, 2.5, 1, 0.6, 1, 1.6), 3))
X <- stats::model.matrix(~ env, tr$d)
Z <- trial_Z(tr)
N <- nrow(tr$d)
ainv <- tr$ainv

test_that("unstructured x A across environments: REML optimum, log-likelihood and AI of the dense model", {
  Vus <- function(th) {
    Lc <- matrix(0, 3, 3); Lc[lower.tri(Lc, diag = TRUE)] <- th[1:6]
    S <- tcrossprod(Lc)
    list(V = Z %*% kronecker(S, tr$A) %*% t(Z) + exp(th[7]) * diag(N), comp = c(packed_rows(S), exp(th[7])))
  }
  want <- dense_optimum(c(1, 0.3, 0.3, 1, 0.3, 1, 0), Vus, X, tr$d$y)
  for (form in list(~ cov_us(env):cov_known(animal, ainv), ~ cov_us(env):cov_known(animal, tr$A))) {
    f <- quiet(tarnel(y ~ env, random = form, data = tr$d))
    expect_true(f$converged)
    expect_rel(f$varcomp$component, want$comp, 2e-3, "US x A components")
    expect_lt(abs(f$loglik - want$loglik), 1e-3)
    # The variance of the components from the inverse AI against the dense
    # AI at the same values.
    S <- from_packed(f$varcomp$component[1:6], 3)
    D <- list()
    for (i in 1:3) for (j in 1:i) {
      E <- matrix(0, 3, 3); E[i, j] <- E[j, i] <- 1
      D[[length(D) + 1L]] <- Z %*% kronecker(E, tr$A) %*% t(Z)
    }
    D[[7]] <- diag(N)
    ai <- dense_ai(f$varcomp$component, D, X, tr$d$y)
    expect_rel(f$varcomp$std.error, sqrt(diag(solve(ai))), 0.01, "US x A standard errors")
  }
  # Across environments the rows of A are asked for out of order: a
  # sparse inverse and the dense matrix give the same fit.
  f1 <- quiet(tarnel(y ~ env, random = ~ cov_us(env):cov_known(animal, ainv), data = tr$d))
  f2 <- quiet(tarnel(y ~ env, random = ~ cov_us(env):cov_known(animal, tr$A), data = tr$d))
  expect_equal(f1$varcomp$component, f2$varcomp$component, tolerance = 1e-7)
  expect_equal(unname(f1$ranef), unname(f2$ranef), tolerance = 1e-6)
})

test_that("diagonal x A and a scaled A with a grouping factor agree with the dense model and with each other", {
  Vdiag <- function(th) list(V = Z %*% kronecker(diag(exp(th[1:3])), tr$A) %*% t(Z) + exp(th[4]) * diag(N),
                             comp = exp(th))
  want <- dense_optimum(c(0, 0, 0, 0), Vdiag, X, tr$d$y)
  f <- quiet(tarnel(y ~ env, random = ~ cov_diag(env):cov_known(animal, ainv), data = tr$d))
  expect_rel(f$varcomp$component, want$comp, 2e-3, "DIAG x A components")
  expect_lt(abs(f$loglik - want$loglik), 1e-3)

  # env:cov_known(): independent genotype effects in each environment with
  # one variance, carried by the known matrix as its scale.
  Vid <- function(th) list(V = exp(th[1]) * Z %*% kronecker(diag(3), tr$A) %*% t(Z) + exp(th[2]) * diag(N),
                           comp = exp(th))
  want <- dense_optimum(c(0, 0), Vid, X, tr$d$y)
  fa <- quiet(tarnel(y ~ env, random = ~ env:cov_known(animal, ainv), data = tr$d))
  fb <- quiet(tarnel(y ~ env, random = ~ cov_known(animal, ainv):env, data = tr$d))
  for (g in list(fa, fb)) {
    expect_rel(g$varcomp$component, want$comp, 2e-3, "I x sigma A components")
    expect_lt(abs(g$loglik - want$loglik), 1e-3)
    ai <- dense_ai(g$varcomp$component, list(Z %*% kronecker(diag(3), tr$A) %*% t(Z), diag(N)), X, tr$d$y)
    expect_rel(g$varcomp$std.error, sqrt(diag(solve(ai))), 0.01, "I x sigma A standard errors")
  }
  # The diagonal with its variances made equal is that model again.
  vars <- rownames(f$varcomp)[1:3]
  fe <- quiet(tarnel(y ~ env, random = ~ cov_diag(env):cov_known(animal, ainv), data = tr$d, equal = list(vars)))
  expect_equal(fe$loglik, fa$loglik, tolerance = 1e-4)
  expect_equal(unname(fe$varcomp$component), c(rep(fa$varcomp$component[1], 3), fa$varcomp$component[2]),
               tolerance = 1e-3)
})

test_that("one environment: the diagonal x A is the plain known-matrix model", {
  d1 <- droplevels(tr$d[tr$d$env == "E2", ])
  fp <- quiet(tarnel(y ~ 1, random = ~ cov_known(animal, ainv), data = d1))
  fd <- quiet(tarnel(y ~ 1, random = ~ cov_diag(env):cov_known(animal, ainv), data = d1))
  expect_equal(unname(fd$varcomp$component), unname(fp$varcomp$component), tolerance = 1e-6)
  expect_equal(fd$loglik, fp$loglik, tolerance = 1e-8)
  expect_equal(unname(fd$ranef), unname(fp$ranef), tolerance = 1e-6)

  # With genetic groups the inverse is singular: the other factors count
  # once for each proper dimension of A, as the lone matrix's scale does.
  set.seed(5)
  ped <- data.frame(id = c("G1", "G2", sprintf("a%02d", 1:48)), sire = NA, dam = NA, stringsAsFactors = FALSE)
  ped$sire[3:14] <- sample(c("G1", "G2"), 12, TRUE)
  ped$dam[3:14] <- sample(c("G1", "G2"), 12, TRUE)
  for (i in 15:50) { p <- sample(3:(i - 1), 2); ped$sire[i] <- ped$id[p[1]]; ped$dam[i] <- ped$id[p[2]] }
  gi <- quiet(pedigree_inverse(ped, groups = 2))
  dg <- transform(tr$d, site = factor("S"))
  dg$y <- dg$y + 2 * stats::rnorm(48)[match(dg$animal, ped$id[-(1:2)])]
  fits <- function(...) list(quiet(tarnel(y ~ env, random = ~ cov_known(animal, gi), data = dg, ...)),
                             quiet(tarnel(y ~ env, random = ~ cov_diag(site):cov_known(animal, gi), data = dg, ...)))
  two <- fits()
  expect_equal(two[[2]]$loglik, two[[1]]$loglik, tolerance = 1e-6)
  expect_equal(unname(two[[2]]$varcomp$component), unname(two[[1]]$varcomp$component), tolerance = 1e-5)
  n2 <- rownames(two[[2]]$varcomp)[1]
  held <- quiet(tarnel(y ~ env, random = ~ cov_diag(site):cov_known(animal, gi), data = dg,
                       start = setNames(0.3, n2), constrain = setNames("fixed", n2)))
  n1 <- rownames(two[[1]]$varcomp)[1]
  held1 <- quiet(tarnel(y ~ env, random = ~ cov_known(animal, gi), data = dg,
                        start = setNames(0.3, n1), constrain = setNames("fixed", n1)))
  expect_equal(held$loglik, held1$loglik, tolerance = 1e-8)
})

test_that("a known matrix in a product is checked like one standing alone", {
  bad <- tr$d
  bad$animal[1] <- "zz"
  expect_error(tarnel(y ~ env, random = ~ cov_us(env):cov_known(animal, ainv), data = bad), "no row in the matrix.*zz")
  expect_error(tarnel(y ~ env, random = ~ cov_us(env):cov_known(animal), data = tr$d), "needs the known matrix")
  expect_error(tarnel(y ~ env, residual = ~ cov_ar1(env):cov_known(animal, ainv), data = tr$d),
               "belongs in the random formula")
  expect_error(tarnel(y ~ env, random = ~ cov_us(env):cov_known(animal, ainv):rep, data = tr$d),
               "plain factor \\(an identity\\) in the middle")
})
