# Cubic smoothing spline terms: the basis against an independent R
# computation, the REML fit of the motorcycle data against the reference
# case and against mgcv and smooth.spline at the same smoothing parameter,
# knot points between the data, a curve for each level of a factor, and
# the covariates that cannot carry a spline.

spline_ref <- function() {
  dir <- system.file("extdata", "reference", "spline", package = "tarnel")
  list(data = utils::read.csv(file.path(dir, "data.csv")),
       expected = jsonlite::fromJSON(file.path(dir, "expected.json")))
}

# Z = Q (Q'Q)^-1 L, R = L L', from the gaps of the points scaled by c,
# written out densely.
dense_z <- function(t, c) {
  h <- c * diff(t)
  d <- length(t)
  n <- d - 2L
  Q <- matrix(0, d, n)
  R <- matrix(0, n, n)
  for (i in seq_len(n)) {
    Q[i, i] <- 1 / h[i]
    Q[i + 1, i] <- -1 / h[i] - 1 / h[i + 1]
    Q[i + 2, i] <- 1 / h[i + 1]
    R[i, i] <- (h[i] + h[i + 1]) / 3
    if (i < n) R[i, i + 1] <- R[i + 1, i] <- h[i + 1] / 6
  }
  Q %*% solve(crossprod(Q), t(chol(R)))
}

test_that("splinek and splinez give the design points and Z of the penalty", {
  r <- spline_ref()
  x <- r$data$times
  k <- splinek(x)
  expect_equal(k, r$expected$design_points, tolerance = 1e-12)
  z <- splinez(x)
  c <- 9 / diff(range(x))
  zd <- dense_z(k, c)
  expect_equal(attr(z, "scale"), c)
  expect_equal(unname(attr(z, "Zknots")), zd, tolerance = 1e-8)
  expect_equal(unname(z[, , drop = FALSE]), zd[match(x, k), ], tolerance = 1e-8, ignore_attr = TRUE)
  # With knot points, a value between knots takes the natural cubic spline
  # through each column at the knots (linear beyond the ends).
  kn <- seq(5, 55, by = 5)
  zk <- splinez(x, knots = kn)
  expect_equal(attr(zk, "knots"), kn)
  expect_equal(unname(attr(zk, "Zknots")), dense_z(kn, c), tolerance = 1e-8)
  for (j in c(1L, 4L, 9L)) {
    f <- stats::splinefun(kn, attr(zk, "Zknots")[, j], method = "natural")
    expect_equal(unname(zk[, j]), f(x), tolerance = 1e-8)
  }
})

test_that("the motorcycle spline matches the reference, mgcv and smooth.spline", {
  r <- spline_ref()
  e <- r$expected
  d <- r$data
  fit <- tarnel(accel ~ times, random = ~ cubic_spline(times), data = d)
  vc <- setNames(fit$varcomp$component, rownames(fit$varcomp))
  expect_equal(unname(vc[["cubic_spline(times)"]]), e$variance_parameters$spline, tolerance = 0.01)
  expect_equal(unname(vc[["residual"]]), e$variance_parameters$residual, tolerance = 0.01)
  expect_lt(abs(fit$loglik_standard - e$loglik_standard_REML), 0.05)
  expect_equal(unname(coef(fit)), unname(unlist(e$fixed_effects)), tolerance = 1e-3)
  curve <- fitted(fit)[match(e$design_points, d$times)]
  rng <- diff(range(d$accel))
  expect_lt(max(abs(curve - e$fitted_curve_at_design_points)) / rng, 1e-3)
  # The same times ten times larger: the same fit with the default scale.
  fit10 <- tarnel(accel ~ times10, random = ~ cubic_spline(times10), data = d)
  expect_equal(fit10$varcomp$component, fit$varcomp$component, tolerance = 1e-6)

  # At the fitted smoothing parameter, the penalised least squares of mgcv
  # with knots at every distinct time, and smooth.spline with all knots:
  # ratio = residual / spline in the scaled units; with x scaled by
  # c = 9 / range, lambda for x in its own units is ratio / c^3, and for x
  # rescaled to [0, 1] (smooth.spline) ratio / 9^3.
  # The solution of the last iteration lags the last update of the
  # parameters; a fit started at the optimum keeps them consistent.
  skip_if_not_installed("mgcv")
  st <- c("cubic_spline(times)" = e$variance_parameters$spline, residual = e$variance_parameters$residual)
  fit <- tarnel(accel ~ times, random = ~ cubic_spline(times), data = d, start = st)
  vc <- setNames(fit$varcomp$component, rownames(fit$varcomp))
  ratio <- vc[["residual"]] / vc[["cubic_spline(times)"]]
  c <- 9 / diff(range(d$times))
  k <- splinek(d$times)
  # mgcv scales its penalty by S.scale: sp = lambda * S.scale.
  gam_at <- function(sp) mgcv::gam(accel ~ s(times, bs = "cr", k = length(k)), data = d,
                                   knots = list(times = k), sp = sp)
  g <- gam_at(ratio / c^3 * gam_at(1)$smooth[[1]]$S.scale)
  expect_equal(unname(fitted(fit)), unname(fitted(g)), tolerance = 1e-6)
  ss <- stats::smooth.spline(d$times, d$accel, all.knots = TRUE, lambda = ratio / 9^3)
  expect_lt(max(abs(predict(ss, d$times)$y - fitted(fit))) / rng, 1e-5)
})

test_that("a spline within each level of a factor is Xb + Z u of its own level", {
  r <- spline_ref()
  d <- r$data[r$data$times > 10, ]
  d$g <- factor(rep(c("a", "b"), length.out = nrow(d)))
  fit <- tarnel(accel ~ g + times:g, random = ~ cubic_spline(times):g, data = d)
  u <- fit$ranef
  z <- splinez(d$times)
  expect_length(u, 2L * ncol(z))
  # The factor's levels run fastest within each spline column.
  ua <- u[seq(1L, length(u), by = 2L)]
  ub <- u[seq(2L, length(u), by = 2L)]
  zu <- ifelse(d$g == "a", drop(z %*% ua), drop(z %*% ub))
  expect_equal(unname(fitted(fit) - fit$fitted_fixed), unname(zu), tolerance = 1e-6)
  expect_gt(max(abs(ua - ub)), 1e-3)
})

test_that("covariates that cannot carry a spline are refused by name", {
  d <- spline_ref()$data
  d$f <- factor(round(d$times / 10))
  expect_error(tarnel(accel ~ times, random = ~ cubic_spline(f), data = d), "'f' is a factor")
  d$few <- rep(c(1, 2), length.out = nrow(d))
  expect_error(tarnel(accel ~ few, random = ~ cubic_spline(few), data = d), "fewer than three distinct")
  d$miss <- d$times
  d$miss[5] <- NA
  expect_error(tarnel(accel ~ times, random = ~ cubic_spline(miss), data = d), "'miss' has 1 missing")
  expect_error(tarnel(accel ~ times, random = ~ cubic_spline(times, knots = c(0, 20, 40)), data = d),
               "outside the data")
  expect_error(splinez(c(1, 2, NA, 4)), "missing values")
  big <- data.frame(x = rep(seq_len(3000), length.out = 40000), y = 0)
  expect_error(tarnel(y ~ x, random = ~ cubic_spline(x), data = big), "give fewer knot points")
  expect_error(cubic_spline(1:3), "only be used inside")
})

test_that("a random regression on Legendre polynomials of degree 2 agrees with lmer", {
  skip_if_not_installed("lme4")
  data(sleepstudy, package = "lme4")
  d <- sleepstudy
  # Legendre polynomials of Days scaled to [-1, 1], times sqrt(k + 1/2).
  x <- 2 * (d$Days - min(d$Days)) / diff(range(d$Days)) - 1
  d$L0 <- sqrt(1 / 2)
  d$L1 <- x * sqrt(3 / 2)
  d$L2 <- (3 * x^2 - 1) / 2 * sqrt(5 / 2)
  fit <- tarnel(Reaction ~ Days, random = ~ coefs(Subject, ~ 0 + legendre(Days, 2)), data = d)
  m <- lme4::lmer(Reaction ~ Days + (0 + L0 + L1 + L2 | Subject), data = d, REML = TRUE)
  vl <- as.matrix(lme4::VarCorr(m)$Subject)
  vc <- setNames(fit$varcomp$component, rownames(fit$varcomp))
  expect_equal(unname(vc[c("Subject: legendre(Days, 2)0", "Subject: legendre(Days, 2)1",
                           "Subject: legendre(Days, 2)2", "Subject: cov(legendre(Days, 2)0, legendre(Days, 2)2)")]),
               c(vl[1, 1], vl[2, 2], vl[3, 3], vl[1, 3]), tolerance = 2e-3)
  expect_equal(fit$loglik_standard, as.numeric(logLik(m)), tolerance = 1e-6)
  expect_error(tarnel(Reaction ~ Days, random = ~ coefs(Subject, ~ 0 + legendre(Days, 12)), data = d),
               "too few distinct values")
})

test_that("a spline without its fixed linear trend is warned about", {
  d <- spline_ref()$data
  expect_warning(tarnel(accel ~ 1, random = ~ cubic_spline(times), data = d), "no linear trend 'times'")
  d$g <- factor(rep(c("a", "b"), length.out = nrow(d)))
  expect_warning(tarnel(accel ~ g + times, random = ~ cubic_spline(times):g, data = d), "no linear trend 'g:times'")
  expect_no_warning(tarnel(accel ~ g + g:times, random = ~ cubic_spline(times):g, data = d))
})

test_that("spline predictions for new data follow the fitted curve, with the curve's standard errors", {
  r <- spline_ref()
  d <- r$data
  st <- c("cubic_spline(times)" = r$expected$variance_parameters$spline,
          residual = r$expected$variance_parameters$residual)
  fit <- tarnel(accel ~ times, random = ~ cubic_spline(times), data = d, start = st)
  p <- predict(fit, newdata = d, se.fit = TRUE)
  expect_equal(unname(p$fit), unname(fitted(fit)), tolerance = 1e-8)
  # Tables cannot form the spline's basis yet, and say so rather than give the trend alone.
  expect_error(predict(fit, classify = "times", at = list(times = 10)), "along the spline of 'times' are not available yet")
  # The joint covariance agrees with what the engine reports: vcov for the
  # fixed effects, the prediction error variances for the spline effects.
  fb <- tarnel:::fixed_basis(fit)
  s2 <- fit$varcomp["residual", "component"]
  W <- cbind(fb$full, splinez(d$times))
  C <- crossprod(W)
  q <- seq_len(ncol(W))[-(1:2)]
  C[cbind(q, q)] <- C[cbind(q, q)] + s2 / fit$varcomp["cubic_spline(times)", "component"]
  Ci <- solve(C) * s2
  expect_equal(unname(Ci[1:2, 1:2]), unname(fit$vcov), tolerance = 1e-5)
  expect_equal(unname(diag(Ci)[q]), unname(fit$ranef_pev), tolerance = 1e-5)
  # Between the design points and beyond them, against mgcv at the same
  # smoothing; the standard errors scaled to the same residual variance.
  skip_if_not_installed("mgcv")
  ratio <- s2 / fit$varcomp["cubic_spline(times)", "component"]
  k <- splinek(d$times)
  gam_at <- function(sp) mgcv::gam(accel ~ s(times, bs = "cr", k = length(k)), data = d,
                                   knots = list(times = k), sp = sp)
  g <- gam_at(ratio / (9 / diff(range(d$times)))^3 * gam_at(1)$smooth[[1]]$S.scale)
  nd <- data.frame(times = c(2.5, 9.9, 14.05, 21.3, 33.33, 47.1, 57.5))
  pn <- predict(fit, newdata = nd, se.fit = TRUE)
  pg <- predict(g, newdata = nd, se.fit = TRUE)
  expect_equal(unname(pn$fit), as.vector(pg$fit), tolerance = 1e-6)
  expect_equal(unname(pn$se.fit), as.vector(pg$se.fit) * sqrt(s2 / g$sig2), tolerance = 1e-5)
  ss <- stats::smooth.spline(d$times, d$accel, all.knots = TRUE, lambda = ratio / 9^3)
  expect_lt(max(abs(predict(ss, nd$times)$y - pn$fit)) / diff(range(d$accel)), 1e-5)
  # Beyond the data the curve goes on as a line.
  out <- predict(fit, newdata = data.frame(times = c(60, 70, 80)))
  expect_equal(diff(diff(unname(out))), 0, tolerance = 1e-8)
})

test_that("curves for each level of a factor are predicted and plotted with their bands", {
  d <- spline_ref()$data
  d <- d[d$times > 10, ]
  d$g <- factor(rep(c("a", "b"), length.out = nrow(d)))
  fit <- tarnel(accel ~ g + times:g, random = ~ cubic_spline(times):g, data = d)
  p <- predict(fit, newdata = d, se.fit = TRUE)
  expect_equal(unname(p$fit), unname(fitted(fit)), tolerance = 1e-8)
  # Tables cannot form the spline's basis yet, and say so rather than give the trend alone.
  expect_error(predict(fit, classify = "times", at = list(times = 10)), "along the spline of 'times' are not available yet")
  expect_true(all(p$se.fit > 0))
  png(f <- tempfile(fileext = ".png"))
  on.exit(unlink(f))
  expect_no_error(plot(fit, curve = "times", by = "g"))
  expect_error(plot(fit, curve = "times"), "give values of 'g' in 'at'")
  dev.off()
  fit1 <- tarnel(accel ~ times, random = ~ cubic_spline(times), data = d)
  png(f)
  expect_no_error(plot(fit1, curve = "times", main = "mcycle"))
  dev.off()
  expect_error(plot(fit1, curve = "accl"), "not a numeric column")
})
