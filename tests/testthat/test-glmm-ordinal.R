# The cumulative (ordinal) family: without a random term the maximum
# likelihood fit of clm and polr, in their sign convention; with one, the
# random effects point the way clmm's do; bad responses refused.

quiet <- function(expr) { utils::capture.output(r <- expr); r }

test_that("without a random term the cumulative family is clm's fit for every link", {
  skip_if_not_installed("ordinal")
  skip_if_not_installed("MASS")
  housing <- get(utils::data("housing", package = "MASS", envir = environment()))
  ctl <- ordinal::clm.control(gradTol = 1e-12, relTol = 1e-12)
  for (lk in c("logit", "probit", "cloglog")) {
    cm <- ordinal::clm(Sat ~ Infl + Type + Cont, weights = Freq, data = housing, link = lk, control = ctl)
    fit <- quiet(tarnel(Sat ~ Infl + Type + Cont, weights = Freq, data = housing, family = cumulative(lk)))
    expect_s3_class(fit, "tarnel_ordinal")
    expect_equal(coef(fit), cm$beta, tolerance = 1e-6, label = lk)
    expect_equal(fit$zeta, cm$alpha, tolerance = 1e-6, label = lk)
    expect_equal(deviance(fit), -2 * cm$logLik, tolerance = 1e-6, label = lk)
    # Probabilities of each record's own category, and of all categories.
    P <- fitted(fit, type = "response")
    expect_equal(P[cbind(seq_len(nrow(housing)), as.integer(housing$Sat))], unname(fitted(cm)), tolerance = 1e-6)
    expect_equal(rowSums(P), rep(1, nrow(housing)))
    # Standard errors of the expected information: near clm's observed ones.
    se <- sqrt(diag(vcov(fit)))
    expect_lt(max(abs(se / sqrt(diag(vcov(cm)))[names(se)] - 1)), 0.05)
  }
  pm <- MASS::polr(Sat ~ Infl + Type + Cont, weights = Freq, data = housing, Hess = TRUE)
  fit <- quiet(tarnel(Sat ~ Infl + Type + Cont, weights = Freq, data = housing, family = cumulative()))
  expect_equal(coef(fit), coef(pm), tolerance = 1e-4)
  expect_equal(fit$zeta, pm$zeta, tolerance = 1e-4)
  expect_equal(unname(fitted(fit, type = "link")), unname(pm$lp), tolerance = 1e-4)
  # The Wald table tests the terms of the formula, not the thresholds.
  expect_setequal(fit$wald_table$term, c("Infl", "Type", "Cont"))
})

test_that("offsets, subsets and two categories follow polr and glm", {
  skip_if_not_installed("ordinal")
  set.seed(5)
  n <- 400
  d <- data.frame(x = rnorm(n), o = runif(n, -1, 1), g = factor(sample(c("a", "b"), n, TRUE)))
  d$y <- cut(0.8 * d$x + d$o + rlogis(n), c(-Inf, -1, 0.3, 1.5, Inf), labels = c("lo", "mid", "hi", "top"),
             ordered_result = TRUE)
  ctl <- ordinal::clm.control(gradTol = 1e-12, relTol = 1e-12)
  cm <- ordinal::clm(y ~ x + g + offset(o), data = d, control = ctl)
  f1 <- quiet(tarnel(y ~ x + g + offset(o), data = d, family = cumulative()))
  f2 <- quiet(tarnel(y ~ x + g, data = d, family = cumulative(), offset = o))
  for (f in list(f1, f2)) {
    expect_equal(coef(f), cm$beta, tolerance = 1e-6)
    expect_equal(f$zeta, cm$alpha, tolerance = 1e-6)
    expect_equal(deviance(f), -2 * cm$logLik, tolerance = 1e-6)
  }
  cs <- ordinal::clm(y ~ x, data = d, subset = g == "a", control = ctl)
  fs <- quiet(tarnel(y ~ x, data = d, subset = g == "a", family = cumulative()))
  expect_equal(c(coef(fs), fs$zeta), c(cs$beta, cs$alpha), tolerance = 1e-6)
  expect_equal(nrow(fitted(fs, type = "response")), sum(d$g == "a"))
  # Two categories: a binomial model with the sign of the slope and
  # intercept -zeta.
  d$up <- factor(d$y %in% c("hi", "top"), labels = c("no", "yes"))
  gb <- glm(up ~ x + g, binomial("probit"), data = d, control = glm.control(epsilon = 1e-14))
  fb <- quiet(tarnel(up ~ x + g, data = d, family = cumulative("probit")))
  expect_equal(c(-fb$zeta, coef(fb)), coef(gb), tolerance = 1e-6, ignore_attr = TRUE)
  expect_equal(deviance(fb), deviance(gb), tolerance = 1e-6)
})

test_that("with a random term the effects point as clmm's, and bad responses are refused", {
  skip_if_not_installed("ordinal")
  wine <- get(utils::data("wine", package = "ordinal", envir = environment()))
  fit <- quiet(tarnel(rating ~ temp + contact, random = ~ judge, data = wine, family = cumulative()))
  cm <- ordinal::clmm(rating ~ temp + contact + (1 | judge), data = wine)
  expect_true(fit$converged)
  # PQL-type REML against the Laplace approximation: close, not equal.
  expect_lt(max(abs(coef(fit) / cm$beta - 1)), 0.1)
  expect_lt(max(abs(fit$zeta / cm$alpha - 1)), 0.1)
  expect_gt(stats::cor(fit$ranef, ordinal::ranef(cm)$judge[, 1]), 0.99)
  expect_error(residuals(fit), "not available yet")
  expect_error(predict(fit), "not available yet")

  d <- data.frame(x = 1:12, y = factor(rep(c("a", "c"), 6), levels = c("a", "b", "c"), ordered = TRUE))
  expect_error(tarnel(y ~ x, data = d, family = cumulative()), "no record at level 'b'")
  d$y[1:2] <- "b"
  expect_error(tarnel(y ~ x, data = d, family = cumulative(), subset = x > 2), "no record at level 'b'")
  expect_error(tarnel(x ~ y, data = d, family = cumulative()), "ordered factor response.*integer")
  expect_error(tarnel(y ~ x - 1, data = d, family = cumulative()), "thresholds in place of an intercept")
  expect_error(tarnel(y ~ x, data = d, family = cumulative("cauchit")), "should be one of")
})
