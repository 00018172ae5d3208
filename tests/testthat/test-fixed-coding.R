# The fixed effects in R's coding: which columns are left out as depending
# on earlier ones must be those lm() leaves out, whatever the scales of the
# columns, and the estimates and their covariance those of lmer().

test_that("aliased columns are lm()'s with covariates of very different scales and empty cells", {
  skip_if_not_installed("lme4")
  set.seed(11)
  n <- 240
  d <- data.frame(g = factor(rep(1:12, each = 20)),
                  a = factor(sample(c("p", "q", "r"), n, TRUE)),
                  b = factor(sample(c("u", "v"), n, TRUE)),
                  big = runif(n, 1e3, 2e3), small = rnorm(n, sd = 1e-2))
  # Cell r:v is empty, and `both` is a combination of the two covariates.
  d$b[d$a == "r"] <- "u"
  d$both <- 3e-3 * d$big - 200 * d$small
  d$y <- rnorm(12)[d$g] + 1e-3 * d$big + 50 * d$small + as.integer(d$a) + rnorm(n)
  form <- y ~ big + small + a * b + both
  fit <- tarnel(form, random = ~ g, data = d)
  ls <- lm(form, d)
  keep <- names(coef(ls))[!is.na(coef(ls))]
  expect_identical(names(coef(fit)), keep)
  expect_setequal(fit$fixed_info$aliased, names(coef(ls))[is.na(coef(ls))])
  m <- lme4::lmer(update(form, . ~ . + (1 | g)), d, REML = TRUE,
                  control = lme4::lmerControl(check.scaleX = "ignore"))
  expect_equal(coef(fit), lme4::fixef(m)[keep], tolerance = 1e-5)
  expect_equal(unname(vcov(fit)), unname(as.matrix(vcov(m))[keep, keep]), tolerance = 1e-4)
})
