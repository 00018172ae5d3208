# Several responses in one fit, against an independent dense REML: the
# observed values stacked record by record (trait fastest), V built from
# Kronecker products restricted to the observed entries, the REML
# log-likelihood maximised with optim().

mt_ref <- function(case) system.file("extdata", "reference", case, package = "tarnel")

# Symmetric matrix from the lower triangle by rows (as the parameters of an
# unstructured matrix run: (1,1), (2,1), (2,2), ...).
from_lower <- function(v, T) {
  m <- matrix(0, T, T)
  m[upper.tri(m, diag = TRUE)] <- v
  m[lower.tri(m)] <- t(m)[lower.tri(m)]
  m
}

# The dense REML problem: Y (records x traits, NA missing), X0 (records x
# p, each trait gets its own copy), groups (a random term each: a factor, or
# list(f = , K = ) for levels with a known covariance K, its row names the
# levels; each with a T x T matrix across traits), the residual T x T
# matrix per record.
dense_mt <- function(Y, X0, groups) {
  T <- ncol(Y)
  obs <- as.vector(t(!is.na(Y)))
  y <- as.vector(t(Y))[obs]
  X <- (X0 %x% diag(T))[obs, , drop = FALSE]
  Ks <- lapply(groups, function(g) if (is.list(g)) g$K else diag(nlevels(g)))
  fs <- lapply(groups, function(g) if (is.list(g)) factor(g$f, levels = rownames(g$K)) else g)
  Zs <- lapply(fs, function(g) (stats::model.matrix(~ 0 + g) %x% diag(T))[obs, , drop = FALSE])
  n <- nrow(Y)
  loglik <- function(Gs, R) {
    V <- (diag(n) %x% R)[obs, obs]
    for (k in seq_along(Zs)) V <- V + Zs[[k]] %*% (Ks[[k]] %x% Gs[[k]]) %*% t(Zs[[k]])
    cv <- chol(V)
    Vi <- chol2inv(cv)
    XtVX <- t(X) %*% Vi %*% X
    P <- Vi - Vi %*% X %*% solve(XtVX, t(X) %*% Vi)
    -0.5 * (2 * sum(log(diag(cv))) + as.numeric(determinant(XtVX)$modulus) + drop(t(y) %*% P %*% y) +
              (length(y) - ncol(X)) * log(2 * pi))
  }
  list(loglik = loglik, T = T, ngroups = length(groups))
}

# Maximises the dense REML over Cholesky factors of every matrix.
dense_mt_fit <- function(prob, start) {
  T <- prob$T
  nl <- T * (T + 1) / 2
  unpack <- function(th) {
    mats <- lapply(seq_len(prob$ngroups + 1L), function(k) {
      L <- matrix(0, T, T)
      L[lower.tri(L, diag = TRUE)] <- th[(k - 1) * nl + seq_len(nl)]
      L %*% t(L)
    })
    list(G = mats[seq_len(prob$ngroups)], R = mats[[prob$ngroups + 1L]])
  }
  pack <- function(m) { L <- t(chol(m)); L[lower.tri(L, diag = TRUE)] }
  f <- function(th) { u <- unpack(th); -prob$loglik(u$G, u$R) }
  th <- unlist(lapply(start, pack))
  o <- stats::optim(th, f, method = "BFGS", control = list(maxit = 2000, reltol = 1e-14))
  u <- unpack(o$par)
  list(G = u$G, R = u$R, loglik = -o$value)
}

# The fit's matrices across traits by parameter group.
fit_matrix <- function(fit, group) fit$covariances[[group]]$covariance

sim_mt <- function(n, T, q, seed, miss = 0) {
  set.seed(seed)
  g <- factor(sample(seq_len(q), n, replace = TRUE))
  G <- 0.6^abs(outer(1:T, 1:T, "-")) * 2
  R <- 0.4^abs(outer(1:T, 1:T, "-")) * 3
  u <- matrix(rnorm(q * T), q) %*% chol(G)
  e <- matrix(rnorm(n * T), n) %*% chol(R)
  x <- rnorm(n)
  Y <- outer(rep(1, n), seq_len(T) * 10) + 0.5 * x + u[as.integer(g), , drop = FALSE] + e
  if (miss > 0) Y[matrix(runif(n * T) < miss, n)] <- NA
  Y[rowSums(!is.na(Y)) == 0, 1] <- 1 + rnorm(1)
  d <- data.frame(g = g, x = x)
  for (k in seq_len(T)) d[[paste0("y", k)]] <- Y[, k]
  list(d = d, Y = Y)
}

test_that("the bivariate reference case: components, correlations, log-likelihood and fixed effects", {
  d <- read.csv(file.path(mt_ref("bivariate"), "data.csv"))
  ex <- jsonlite::fromJSON(file.path(mt_ref("bivariate"), "expected.json"))
  d$school <- factor(d$school); d$gender <- factor(d$gender)
  fit <- tarnel(cbind(written, course) ~ trait + trait:gender, random = ~ cov_us(trait):school,
                residual = ~ units:cov_us(trait), data = d)
  expect_true(fit$converged)
  vp <- ex$variance_parameters
  G <- fit_matrix(fit, "cov_us(trait):school")
  R <- fit_matrix(fit, "residual")
  want <- c(vp$`school:written`, vp$`school:written.course`, vp$`school:course`,
            vp$`residual:written`, vp$`residual:written.course`, vp$`residual:course`)
  got <- c(G[1, 1], G[2, 1], G[2, 2], R[1, 1], R[2, 1], R[2, 2])
  expect_true(all(abs(got - want) <= 0.01 * abs(want)), info = paste(signif(got, 6), collapse = " "))
  expect_lte(abs(fit$covariances[["cov_us(trait):school"]]$correlation[2, 1] - ex$correlations$school), 0.005)
  expect_lte(abs(fit$covariances$residual$correlation[2, 1] - ex$correlations$residual), 0.005)
  expect_lte(abs(fit$loglik_standard - ex$loglik_standard_REML), 0.05)
  expect_equal(fit$nobs, ex$n_records)
  b <- coef(fit)
  fe <- ex$fixed_effects
  expect_equal(unname(b[c("traitwritten:genderF", "traitcourse:genderF")]),
               c(fe$`written:(Intercept)`, fe$`course:(Intercept)`), tolerance = 1e-3)
  expect_equal(unname(b["traitwritten:genderM"] - b["traitwritten:genderF"]), fe$`written:genderM`, tolerance = 1e-3)
  re <- ranef(fit)$school
  r10 <- ex$random_effects_first10
  expect_equal(unname(re[as.character(r10$school), c("written", "course")]), unname(as.matrix(r10[, c("written", "course")])),
               tolerance = 0.01)
  # Standard errors of the correlations: finite and below those of a
  # correlation of +-1 on these data sizes.
  se <- fit$covariances$residual$correlation.se[2, 1]
  expect_true(is.finite(se) && se > 0 && se < 0.2)
  s <- capture.output(print(summary(fit)))
  expect_true(any(grepl("correlations", s)))
})

test_that("two and three traits against the dense multivariate REML, with missing patterns", {
  # Two traits, a random factor, nothing missing.
  s2 <- sim_mt(90, 2, 12, seed = 11)
  fit2 <- tarnel(cbind(y1, y2) ~ trait + trait:x, random = ~ cov_us(trait):g, data = s2$d)
  p2 <- dense_mt(s2$Y, cbind(1, s2$d$x), list(s2$d$g))
  G2 <- fit_matrix(fit2, "cov_us(trait):g"); R2 <- fit_matrix(fit2, "residual")
  expect_equal(p2$loglik(list(G2), R2), fit2$loglik_standard, tolerance = 1e-6)
  o2 <- dense_mt_fit(p2, list(diag(2), diag(2)))
  expect_gte(fit2$loglik_standard, o2$loglik - 1e-4)
  expect_equal(c(G2, R2), c(o2$G[[1]], o2$R), tolerance = 2e-3)
  # Three traits, some missing in most patterns, a diagonal random term.
  s3 <- sim_mt(120, 3, 15, seed = 5, miss = 0.25)
  fit3 <- tarnel(cbind(y1, y2, y3) ~ trait + trait:x, random = ~ cov_us(trait):g, data = s3$d)
  expect_true(fit3$converged)
  p3 <- dense_mt(s3$Y, cbind(1, s3$d$x), list(s3$d$g))
  G3 <- fit_matrix(fit3, "cov_us(trait):g"); R3 <- fit_matrix(fit3, "residual")
  expect_equal(p3$loglik(list(G3), R3), fit3$loglik_standard, tolerance = 1e-6)
  o3 <- dense_mt_fit(p3, list(diag(3), diag(3) * 2))
  expect_gte(fit3$loglik_standard, o3$loglik - 1e-4)
  expect_equal(c(G3, R3), c(o3$G[[1]], o3$R), tolerance = 5e-3)
  expect_equal(fit3$nobs, sum(!is.na(s3$Y)))
  expect_true(all(is.na(residuals(fit3)) == is.na(s3$Y)))
})

test_that("two traits with US x A on a small pedigree against the dense REML", {
  dir <- mt_ref("animal")
  ped <- utils::read.csv(file.path(dir, "pedigree.csv"))
  d <- utils::read.csv(file.path(dir, "data.csv"))
  ainv <- pedigree_inverse(ped)
  set.seed(21)
  d$y2 <- 0.5 * d$y + stats::rnorm(nrow(d))
  d$y2[sample(nrow(d), 8)] <- NA
  fit <- tarnel(cbind(y, y2) ~ trait, random = ~ cov_us(trait):cov_known(animal, ainv), data = d)
  A <- solve(as.matrix(ainv$ainv))
  dimnames(A) <- list(as.character(ped[[1]]), as.character(ped[[1]]))
  Y <- cbind(d$y, d$y2)
  p <- dense_mt(Y, matrix(1, nrow(d)), list(list(f = as.character(d$animal), K = A)))
  G <- fit$covariances[[1]]$covariance; R <- fit$covariances$residual$covariance
  expect_equal(p$loglik(list(G), R), fit$loglik_standard, tolerance = 1e-6)
  o <- dense_mt_fit(p, list(G, R))
  expect_gte(fit$loglik_standard, o$loglik - 1e-4)
})

test_that("covariances held at 0 give the single-trait fits", {
  s <- sim_mt(80, 2, 10, seed = 3, miss = 0.15)
  zero <- c("cov_us(trait):g: trait cov(y1, y2)", "residual: trait cov(y1, y2)")
  fit <- tarnel(cbind(y1, y2) ~ trait + trait:x, random = ~ cov_us(trait):g, data = s$d,
                start = setNames(c(0, 0), zero), constrain = setNames(c("fixed", "fixed"), zero))
  f1 <- tarnel(y1 ~ x, random = ~ g, data = s$d)
  f2 <- tarnel(y2 ~ x, random = ~ g, data = s$d)
  G <- fit_matrix(fit, "cov_us(trait):g"); R <- fit_matrix(fit, "residual")
  expect_equal(c(G[1, 1], R[1, 1]), unname(f1$varcomp$component), tolerance = 1e-3)
  expect_equal(c(G[2, 2], R[2, 2]), unname(f2$varcomp$component), tolerance = 1e-3)
  expect_equal(fit$loglik_standard, f1$loglik_standard + f2$loglik_standard, tolerance = 1e-6)
  # Responses in other units: components by the square of the factor, the
  # log-likelihood by its Jacobian.
  big <- transform(s$d, y1 = y1 * 1e5, y2 = y2 * 1e5)
  fb <- tarnel(cbind(y1, y2) ~ trait + trait:x, random = ~ cov_us(trait):g, data = big,
               start = setNames(c(0, 0), zero), constrain = setNames(c("fixed", "fixed"), zero))
  expect_equal(fb$varcomp$component, fit$varcomp$component * 1e10, tolerance = 1e-6)
  expect_equal(fb$loglik_standard, fit$loglik_standard - (fit$nobs - 4) * log(1e5), tolerance = 1e-8)
  # The same with diagonal structures across traits.
  fd <- tarnel(cbind(y1, y2) ~ trait + trait:x, random = ~ cov_diag(trait):g, residual = ~ cov_diag(trait),
               data = s$d)
  expect_equal(fd$loglik_standard, fit$loglik_standard, tolerance = 1e-6)
})

test_that("bad input to a model of several responses is refused with a clear error", {
  s <- sim_mt(40, 2, 5, seed = 9)
  d <- s$d
  d$env <- factor(rep(c("a", "b", "c"), length.out = nrow(d)))
  expect_error(tarnel(cbind(y1, y2) ~ trait, residual = ~ cov_us(env), data = d),
               "across 'env'.*2 responses")
  expect_error(tarnel(y1 ~ trait + x, data = d), "'trait' stands for the responses")
  expect_error(tarnel(cbind(y1) ~ trait, data = d), "at least two")
  expect_error(tarnel(cbind(y1, y2) ~ x, data = d), "needs 'trait' as a term")
  dm <- d; dm$y1 <- NA_real_; dm$y2 <- NA_real_
  expect_error(tarnel(cbind(y1, y2) ~ trait, data = dm), "no record has any of the responses")
  dm <- d; dm$y1[1:3] <- NA; dm$y2[1:3] <- NA
  expect_message(tarnel(cbind(y1, y2) ~ trait, data = dm), "3 record\\(s\\) with none of the responses")
  bad <- c("residual: trait y1" = 1, "residual: trait y2" = 1, "residual: trait cov(y1, y2)" = 3)
  expect_error(tarnel(cbind(y1, y2) ~ trait, data = d, start = bad), "not positive definite")
})

# Two traits with a fixed factor b by trait, a covariate and a random
# factor; `rho` correlates the traits' random effects and residuals.
sim_mt_b <- function(n, seed, rho, miss = 0) {
  set.seed(seed)
  d <- data.frame(g = factor(sample(1:10, n, TRUE)), b = factor(rep(c("a", "b", "c", "d"), length.out = n)), x = rnorm(n))
  S <- matrix(c(1, rho, rho, 1), 2)
  u <- matrix(rnorm(20), 10) %*% chol(S)
  e <- matrix(rnorm(2 * n), n) %*% chol(S)
  d$y1 <- d$x + u[d$g, 1] + e[, 1]
  d$y2 <- 2 * e[, 2] - d$x + as.integer(d$b) + u[d$g, 2]
  if (miss > 0) { d$y1[runif(n) < miss] <- NA; d$y2[runif(n) < miss / 2 & !is.na(d$y1)] <- NA }
  d
}

test_that("covariances held at 0: predicted means, SEs, SEDs and Wald statistics of the single-trait fits", {
  d <- sim_mt_b(80, 3, 0)
  zero <- c("cov_us(trait):g: trait cov(y1, y2)", "residual: trait cov(y1, y2)")
  fit <- tarnel(cbind(y1, y2) ~ trait + trait:x + trait:b, random = ~ cov_us(trait):g, data = d,
                start = setNames(c(0, 0), zero), constrain = setNames(c("fixed", "fixed"), zero))
  G <- fit_matrix(fit, "cov_us(trait):g"); R <- fit_matrix(fit, "residual")
  # The single-trait fits at the same ratio of the variances; their residual
  # variance, profiled, comes back as the joint fit's.
  single <- function(k) tarnel(stats::as.formula(sprintf("y%d ~ x + b", k)), random = ~ g, data = d,
                               start = c(g = G[k, k] / R[k, k]), constrain = c(g = "fixed"))
  f <- list(single(1), single(2))
  expect_equal(c(f[[1]]$sigma2, f[[2]]$sigma2), unname(diag(R)), tolerance = 1e-6)
  pm <- predict(fit, classify = "trait:b", sed = TRUE)
  pt <- predict(fit, classify = "trait")
  w <- wald(fit)
  ws <- lapply(f, wald, ddf = "none")
  for (k in 1:2) {
    ps <- predict(f[[k]], classify = "b", sed = TRUE)
    rows <- which(pm$pvals$trait == paste0("y", k))
    expect_equal(as.character(pm$pvals$b[rows]), as.character(ps$pvals$b))
    expect_equal(pm$pvals$predicted.value[rows], ps$pvals$predicted.value, tolerance = 1e-5)
    expect_equal(pm$pvals$std.error[rows], ps$pvals$std.error, tolerance = 1e-5)
    expect_equal(unname(pm$sed[rows, rows]), unname(ps$sed), tolerance = 1e-5)
    po <- predict(f[[k]], classify = "1")
    expect_equal(pt$pvals$predicted.value[k], po$pvals$predicted.value, tolerance = 1e-5)
    expect_equal(pt$pvals$std.error[k], po$pvals$std.error, tolerance = 1e-5)
  }
  # A test of a term by trait is the sum of the traits' tests, blocks being
  # independent.
  expect_equal(rownames(w), c("trait", "trait:x", "trait:b"))
  expect_equal(w$Df, ws[[1]]$Df + ws[[2]]$Df)
  expect_equal(w$Wald.inc, ws[[1]]$Wald.inc + ws[[2]]$Wald.inc, tolerance = 1e-5)
  expect_equal(w$Wald.con, ws[[1]]$Wald.con + ws[[2]]$Wald.con, tolerance = 1e-5)
  expect_equal(w$Pr.inc, stats::pchisq(w$Wald.inc, w$Df, lower.tail = FALSE))
  expect_identical(anova(fit)$F.inc, w$F.inc)
  expect_true(any(grepl("asymptotic", attr(w, "note"))))
})

test_that("correlated traits with missing values: predictions and Wald tests are contrasts of coef() and vcov()", {
  d <- sim_mt_b(90, 8, 0.6, miss = 0.2)
  f0 <- tarnel(cbind(y1, y2) ~ trait + trait:x + trait:b, random = ~ cov_us(trait):g, data = d)
  expect_gt(abs(f0$covariances$residual$correlation[2, 1]), 0.2)
  # Held at the estimates, the fit's own coefficients are those at its
  # variance parameters.
  v <- setNames(f0$varcomp$component, rownames(f0$varcomp))
  fit <- tarnel(cbind(y1, y2) ~ trait + trait:x + trait:b, random = ~ cov_us(trait):g, data = d,
                start = v, constrain = setNames(rep("fixed", length(v)), names(v)))
  b <- coef(fit); b[is.na(b)] <- 0
  V <- matrix(0, length(b), length(b), dimnames = list(names(b), names(b)))
  V[rownames(vcov(fit)), colnames(vcov(fit))] <- vcov(fit)
  rec <- rowSums(!is.na(d[c("y1", "y2")])) > 0
  xbar <- mean(d$x[rec])
  cell <- function(k, l) {
    w <- setNames(double(length(b)), names(b))
    w[c(sprintf("traity%d", k), sprintf("traity%d:b%s", k, l))] <- 1
    w[sprintf("traity%d:x", k)] <- xbar
    w
  }
  Lc <- do.call(rbind, lapply(1:2, function(k) t(sapply(levels(d$b), cell, k = k))))
  pm <- predict(fit, classify = "trait:b", vcov = TRUE, sed = TRUE)
  expect_equal(pm$pvals$predicted.value, unname(drop(Lc %*% b)), tolerance = 1e-8)
  VL <- Lc %*% V %*% t(Lc)
  expect_equal(unname(pm$vcov), unname(VL), tolerance = 1e-8)
  expect_equal(pm$sed[5, 1], sqrt(VL[1, 1] + VL[5, 5] - 2 * VL[5, 1]), tolerance = 1e-8)
  Lt <- rbind(colMeans(Lc[1:4, ]), colMeans(Lc[5:8, ]))
  pt <- predict(fit, classify = "trait", sed = TRUE)
  expect_equal(pt$pvals$predicted.value, unname(drop(Lt %*% b)), tolerance = 1e-8)
  expect_equal(pt$pvals$std.error, sqrt(diag(Lt %*% V %*% t(Lt))), tolerance = 1e-8)
  wq <- function(L) { e <- L %*% b; drop(t(e) %*% solve(L %*% V %*% t(L), e)) }
  # trait:b after trait and trait:x: the differences between levels of b
  # within each trait; trait:x after the terms not containing it: the slopes.
  Ld <- rbind(Lc[2:4, ] - Lc[rep(1, 3), ], Lc[6:8, ] - Lc[rep(5, 3), ])
  w <- wald(fit)
  expect_equal(w["trait:b", "Wald.inc"], wq(Ld), tolerance = 1e-7)
  expect_equal(w["trait:b", "Df"], 6L)
  Ls <- diag(length(b))[match(c("traity1:x", "traity2:x"), names(b)), ]
  expect_equal(w["trait:x", "Wald.con"], wq(Ls), tolerance = 1e-7)
})

test_that("tables and tests of a fit of several responses refuse what they cannot form", {
  d <- sim_mt_b(40, 4, 0.3)
  fit <- tarnel(cbind(y1, y2) ~ trait + trait:b, random = ~ cov_us(trait):g, data = d,
                start = c("residual: trait y1" = 1.5), constrain = c("residual: trait y1" = "fixed"))
  # A value held fixed is kept in the responses' units.
  expect_equal(fit$varcomp["residual: trait y1", "component"], 1.5)
  expect_error(predict(fit, classify = "b"), "must include 'trait'")
  expect_error(predict(fit, classify = "trait:g"), "'g' is in random terms only.*not available yet")
  expect_error(predict(fit, classify = "trait:z"), "'z' is not in the fixed model")
  expect_error(predict(fit, newdata = d), "'newdata' is not available yet")
  expect_error(predict(fit, classify = "trait", average = "b"), "'average' is not available yet")
  expect_error(predict(fit), "give 'classify'")
  expect_error(wald(fit, ddf = "Kenward-Roger"), "not available yet")
  expect_error(wald(fit, terms = "b"), "not a fixed term")
  both <- predict(fit, classify = c("trait", "trait:b"))
  expect_s3_class(both, "tarnel_predictions")
  # The mean of a trait over b is the mean of its cells.
  expect_equal(both$trait$pvals$predicted.value,
               as.vector(tapply(both$`trait:b`$pvals$predicted.value, both$`trait:b`$pvals$trait, mean)))
})
