# Terms built from a covariate on the R side: a basis matrix given by the
# user (one row a value of the covariate, or one row a record) and the
# grouping of a covariate by its distinct values.

basis_data <- function() {
  set.seed(11)
  n <- 120
  d <- data.frame(x = sample(c(2, 9.5, 10, 4, 7, 1.5), n, TRUE))
  vals <- sort(unique(d$x))
  M <- cbind(b1 = sin(vals), b2 = cos(vals), b3 = vals^2 / 50)
  rownames(M) <- vals
  d$y <- 1 + 0.3 * d$x + drop(M[as.character(d$x), ] %*% c(1, -1, 2)) + rnorm(n)
  list(d = d, M = M, Z = M[as.character(d$x), ])
}

test_that("a basis matrix gives the fit of its columns written out as covariates", {
  b <- basis_data()
  d <- b$d
  d2 <- cbind(d, b$Z, all = factor(1))
  m <- nlme::lme(y ~ x, random = list(all = nlme::pdIdent(~ 0 + b1 + b2 + b3)), data = d2, method = "REML")
  fit <- tarnel(y ~ x, random = ~ basis(x, b$M), data = d)
  expect_equal(fit$loglik_standard, as.numeric(logLik(m)), tolerance = 1e-6)
  expect_equal(unname(fit$varcomp[c("basis(x, b$M)", "residual"), "component"]),
               c(as.numeric(nlme::VarCorr(m)[1, 1]), m$sigma^2), tolerance = 1e-4)
  # One row a record, and values given by an attribute instead of row names,
  # give the same fit; so do rows in another order.
  R <- b$Z
  V <- unname(b$M[6:1, ])
  attr(V, "values") <- as.numeric(rownames(b$M))[6:1]
  for (f in list(tarnel(y ~ x, random = ~ basis(x, R), data = d), tarnel(y ~ x, random = ~ basis(x, V), data = d)))
    expect_equal(f$loglik_standard, fit$loglik_standard, tolerance = 1e-8)
  # In the fixed formula the columns are covariates, as in lm().
  fx <- tarnel(y ~ x + basis(x, b$M), data = d)
  expect_equal(unname(coef(fx)), unname(coef(lm(y ~ x + b$Z, d))), tolerance = 1e-6)
  nd <- data.frame(x = c(2, 10, 9.5))
  expect_equal(unname(predict(fx, newdata = nd)),
               unname(predict(lm(y ~ x + Z, data.frame(y = d$y, x = d$x, Z = I(b$Z))),
                              newdata = data.frame(x = nd$x, Z = I(b$M[as.character(nd$x), ])))), tolerance = 1e-6)
})

test_that("a basis matrix that does not fit the data is refused", {
  b <- basis_data()
  d <- b$d
  short <- unname(b$Z[-1, ])
  expect_error(tarnel(y ~ x, random = ~ basis(x, short), data = d), "has 119 rows; it needs one row a record \\(120\\)")
  withna <- b$M
  withna[2, 1] <- NA
  expect_error(tarnel(y ~ x, random = ~ basis(x, withna), data = d), "1 missing values")
  few <- b$M[-c(1, 5), ]
  expect_error(tarnel(y ~ x, random = ~ basis(x, few), data = d), "no row for the values 1.5, 9.5 of 'x'")
  named <- b$M
  rownames(named) <- letters[1:6]
  expect_error(tarnel(y ~ x, random = ~ basis(x, named), data = d), "row names of the matrix must be the values")
  expect_error(tarnel(y ~ x, random = ~ basis(x, letters), data = d), "'M' must be a numeric matrix")
  R <- unname(b$Z)
  expect_error(tarnel(y ~ x, random = ~ basis(x, rbind(b$M, "2" = 1)), data = d), "value 2 labels two rows")
  expect_error(predict(tarnel(y ~ x + basis(x, R), data = d), newdata = data.frame(x = 2)),
               "need a matrix whose rows are labelled")
  expect_error(basis(1:3, diag(3)), "only be used inside")
})

test_that("value_factor() groups a covariate by its values, levels in numeric order", {
  skip_if_not_installed("lme4")
  b <- basis_data()
  d <- b$d
  fit <- tarnel(y ~ 1, random = ~ value_factor(x), data = d)
  d$xf <- factor(d$x)
  ref <- tarnel(y ~ 1, random = ~ xf, data = d)
  m <- lme4::lmer(y ~ 1 + (1 | xf), data = d)
  expect_equal(fit$loglik_standard, as.numeric(logLik(m)), tolerance = 1e-6)
  expect_equal(fit$loglik_standard, ref$loglik_standard, tolerance = 1e-10)
  u <- ranef(fit)[["value_factor(x)"]]
  expect_identical(rownames(u), as.character(sort(unique(d$x))))
  expect_equal(u[, 1], ranef(m)$xf[rownames(u), 1], tolerance = 1e-4)
  expect_equal(unname(predict(fit, newdata = data.frame(x = c(10, 2)))),
               unname(fixef(m) + ranef(m)$xf[c("10", "2"), 1]), tolerance = 1e-4)
  expect_error(predict(fit, newdata = data.frame(x = 3)), "did not see")
  d$g <- factor(d$x)
  expect_error(tarnel(y ~ 1, random = ~ value_factor(g), data = d), "already a factor")
})
