# Predictions for new data and estimated marginal means against lme4 (and
# emmeans on lme4), with tarnel held at lme4's variance parameters.

quiet <- function(expr) { utils::capture.output(r <- expr); r }
ns <- asNamespace("tarnel")

# lme4's variance parameters as tarnel's ratios to the residual variance;
# `map` names, for each tarnel parameter, lme4's "group var1 [var2]".
held_fit <- function(m, map, ...) {
  vc <- as.data.frame(lme4::VarCorr(m))
  key <- ifelse(is.na(vc$var2), paste(vc$grp, vc$var1), paste(vc$grp, vc$var1, vc$var2))
  r <- vc$vcov[match(map, key)] / stats::sigma(m)^2
  names(r) <- names(map)
  con <- setNames(rep("fixed", length(r)), names(r))
  fit <- quiet(tarnel(..., start = r, constrain = con))
  expect_equal(fit$sigma2, stats::sigma(m)^2, tolerance = 1e-8)
  fit
}

# Relative agreement (absolute near 0), with the same cells missing.
expect_rel <- function(got, want, tol = 1e-5, what = "") {
  got <- unname(got); want <- unname(want)
  expect_identical(is.na(got), is.na(want), label = what)
  ok <- !is.na(want)
  expect_lte(max(c(0, abs(got[ok] - want[ok]) / pmax(abs(want[ok]), 1e-3))), tol, label = what)
}

expect_same_emmeans <- function(fit, m, specs, ...) {
  a <- suppressMessages(summary(emmeans::emmeans(fit, specs, ...)))
  b <- suppressMessages(summary(emmeans::emmeans(m, specs, lmer.df = "asymptotic", ...)))
  what <- paste(deparse(specs), collapse = "")
  expect_equal(nrow(a), nrow(b))
  expect_rel(a$emmean, b$emmean, what = paste(what, "means"))
  expect_rel(a$SE, b$SE, what = paste(what, "SE"))
}

unbalanced <- function() {
  set.seed(21)
  d <- expand.grid(A = paste0("a", 1:3), B = paste0("b", 1:3), block = paste0("k", 1:4), rep = 1:2)
  d <- d[sample(nrow(d), 50), ]
  d <- d[!(d$A == "a3" & d$B == "b2"), ]  # an empty cell
  d$y <- 10 + as.integer(d$A) + 0.5 * as.integer(d$B) + rnorm(4)[as.integer(d$block)] + rnorm(nrow(d))
  d$C <- factor(paste0(d$A, ifelse(d$rep == 2, "y", "x")))  # nested in A: two levels in each
  droplevels(d)
}

test_that("emmeans on tarnel fits agrees with emmeans on lmer: means and standard errors", {
  skip_if_not_installed("lme4")
  skip_if_not_installed("emmeans")
  ft <- tarnel::field_trial
  sp <- tarnel::split_plot
  ub <- unbalanced()
  # one-way
  m <- suppressMessages(lme4::lmer(yield ~ variety + (1 | block), ft))
  fit <- held_fit(m, c(block = "block (Intercept)"), yield ~ variety, random = ~ block, data = ft)
  expect_same_emmeans(fit, m, ~ variety)
  # two-way on a split plot, and a covariate with `at`
  m <- suppressMessages(lme4::lmer(yield ~ variety * nitrogen_level + (1 | block) + (1 | wholeplot), sp))
  fit <- held_fit(m, c(block = "block (Intercept)", wholeplot = "wholeplot (Intercept)"),
                  yield ~ variety * nitrogen_level, random = ~ block + wholeplot, data = sp)
  expect_same_emmeans(fit, m, ~ variety)
  expect_same_emmeans(fit, m, ~ nitrogen_level | variety)
  m <- suppressMessages(lme4::lmer(yield ~ variety * nitrogen + (1 | block) + (1 | wholeplot), sp))
  fit <- held_fit(m, c(block = "block (Intercept)", wholeplot = "wholeplot (Intercept)"),
                  yield ~ variety * nitrogen, random = ~ block + wholeplot, data = sp)
  expect_same_emmeans(fit, m, ~ variety, at = list(nitrogen = c(0, 100)))
  # term functions on the grid: orthonormal polynomials, a slope within one level
  m <- suppressMessages(lme4::lmer(yield ~ variety * poly(nitrogen, 2) + (1 | block) + (1 | wholeplot), sp))
  fit <- held_fit(m, c(block = "block (Intercept)", wholeplot = "wholeplot (Intercept)"),
                  yield ~ variety * opoly(nitrogen, 2), random = ~ block + wholeplot, data = sp)
  expect_same_emmeans(fit, m, ~ variety | nitrogen, at = list(nitrogen = c(0, 55, 120)))
  fit <- held_fit(m, c(block = "block (Intercept)", wholeplot = "wholeplot (Intercept)"),
                  yield ~ variety * poly(nitrogen, 2), random = ~ block + wholeplot, data = sp)
  expect_same_emmeans(fit, m, ~ variety | nitrogen, at = list(nitrogen = c(0, 55, 120)))
  # a function of a variable in the formula: the grid is over the variable
  oats <- utils::read.csv(file.path(system.file("extdata", "reference", "oats", package = "tarnel"), "data.csv"),
                          stringsAsFactors = TRUE)
  m <- suppressMessages(lme4::lmer(yield ~ factor(nitro) * Variety + (1 | Block) + (1 | Block:Variety), oats))
  fit <- held_fit(m, c(Block = "Block (Intercept)", "Block:Variety" = "Block:Variety (Intercept)"),
                  yield ~ factor(nitro) * Variety + (1 | Block) + (1 | Block:Variety), data = oats)
  expect_same_emmeans(fit, m, ~ Variety)
  expect_same_emmeans(fit, m, ~ nitro | Variety)
  sp$gn <- sp$nitrogen * (sp$variety == "Gold")
  m <- suppressMessages(lme4::lmer(yield ~ variety + nitrogen + gn + (1 | block) + (1 | wholeplot), sp))
  fit <- held_fit(m, c(block = "block (Intercept)", wholeplot = "wholeplot (Intercept)"),
                  yield ~ variety + nitrogen + at(variety, "Gold"):nitrogen, random = ~ block + wholeplot, data = sp)
  a <- suppressMessages(summary(emmeans::emmeans(fit, ~ variety, at = list(nitrogen = 100))))
  g <- data.frame(variety = a$variety, nitrogen = 100, gn = 100 * (a$variety == "Gold"))
  X <- model.matrix(~ variety + nitrogen + gn, g)
  expect_rel(a$emmean, drop(X %*% lme4::fixef(m)), what = "at() means")
  expect_rel(a$SE, sqrt(diag(X %*% as.matrix(vcov(m)) %*% t(X))), what = "at() SE")
  # unbalanced with an empty cell: the margins through it are not estimable
  m <- suppressMessages(lme4::lmer(y ~ A * B + (1 | block), ub))
  fit <- held_fit(m, c(block = "block (Intercept)"), y ~ A * B, random = ~ block, data = ub)
  expect_same_emmeans(fit, m, ~ A)
  expect_same_emmeans(fit, m, ~ A * B)
  expect_true(anyNA(suppressMessages(summary(emmeans::emmeans(fit, ~ A)))$emmean))
  # the same in the engine's coding (a term R's model matrix cannot form)
  fit <- held_fit(m, c(block = "block (Intercept)"), y ~ helmert(A) * B, random = ~ block, data = ub)
  expect_identical(fit$fixed_info$basis, "engine")
  expect_same_emmeans(fit, m, ~ A * B)
  # nested: C within A
  m <- suppressMessages(lme4::lmer(y ~ A / C + (1 | block), ub))
  fit <- held_fit(m, c(block = "block (Intercept)"), y ~ A / C, random = ~ block, data = ub)
  expect_same_emmeans(fit, m, ~ C | A)
  expect_same_emmeans(fit, m, ~ A * C, nesting = NULL)  # every cell, most of them not estimable
  expect_same_emmeans(fit, m, ~ A)
  expect_true(all(is.infinite(suppressMessages(summary(emmeans::emmeans(fit, ~ A)))$df)))  # asymptotic
})

test_that("new data: predictions with and without random effects against lme4", {
  skip_if_not_installed("lme4")
  skip_if_not_installed("estimability")
  sl <- lme4::sleepstudy
  m <- suppressMessages(lme4::lmer(Reaction ~ Days + (Days | Subject), sl))
  fit <- held_fit(m, c("Subject: (Intercept)" = "Subject (Intercept)",
                       "Subject: cov((Intercept), Days)" = "Subject (Intercept) Days",
                       "Subject: Days" = "Subject Days"),
                  Reaction ~ Days + (Days | Subject), data = sl)
  nd <- data.frame(Days = c(0, 2.5, 9, 4, 12), Subject = factor(c("308", "372", "337", "999", "308")))
  expect_error(ns$predict_newdata(fit, nd), "did not see.*999")
  p <- ns$predict_newdata(fit, nd, allow.new.levels = TRUE, se.fit = TRUE)
  expect_rel(unname(p$fit), unname(predict(m, nd, allow.new.levels = TRUE)), 1e-6)
  expect_rel(unname(ns$predict_newdata(fit, nd, re.form = NA)), unname(predict(m, nd, re.form = NA)), 1e-6)
  expect_equal(ns$predict_newdata(fit, nd, re.form = ~ 0), ns$predict_newdata(fit, nd, re.form = NA))
  X <- model.matrix(~ Days, nd)
  expect_rel(unname(p$se.fit), sqrt(diag(X %*% as.matrix(vcov(m)) %*% t(X))), 1e-6)
  # factors, a missing value and a non-estimable cell
  ub <- unbalanced()
  m <- suppressMessages(lme4::lmer(y ~ A * B + (1 | block), ub))
  fit <- held_fit(m, c(block = "block (Intercept)"), y ~ A * B, random = ~ block, data = ub)
  nd <- ub[c(3, 8, 1, 20), c("A", "B", "block")]
  nd$B[2] <- NA
  full <- ns$predict_newdata(fit, nd)
  expect_true(is.na(full[2]))
  expect_rel(full[-2], predict(m, nd[-2, ]))
  expect_rel(ns$predict_newdata(fit, nd, re.form = NA)[-2], predict(m, nd[-2, ], re.form = NA))
  cell <- data.frame(A = "a3", B = "b2", block = "k1")
  expect_warning(v <- ns$predict_newdata(fit, cell, se.fit = TRUE), "do not estimate")
  expect_true(is.na(v$fit) && is.na(v$se.fit))
  expect_error(ns$predict_newdata(fit, data.frame(A = "a9", B = "b1", block = "k1")), "did not see.*a9")
  expect_error(ns$predict_newdata(fit, nd[, c("A", "block")]), "no column 'B'")
  expect_error(ns$predict_newdata(fit, nd, re.form = ~ (1 | block)), "not available yet")
})

test_that("the design of new data repeats the engine's, term functions included", {
  set.seed(4)
  n <- 40
  d <- data.frame(y = rnorm(n), A = factor(sample(c("a1", "a2", "a3"), n, TRUE)), B = factor(sample(c("b1", "b2"), n, TRUE)),
                  C = factor(sample(c("c1", "c2", "c3", "c4"), n, TRUE)), x = runif(n, 0.5, 3), z = rnorm(n),
                  s = sample(c(1, 2, 5), n, TRUE))
  f <- y ~ A + tr_log(x, 1) + tr_pow(x, 1.5) + tr_sin(z, 4) + above(x, 1.5) + opoly(z, 2) + helmert(C) +
    grp(C, list(g1 = c("c1", "c2"), g2 = "c4")) + at(B, "b1"):x + A:z + factor(s > 1):A + poly(x, 2) + I(z^2)
  fit <- suppressWarnings(quiet(tarnel(f, random = ~ cov_ar1(s):B, data = d, keep_design = TRUE)))
  X <- ns$engine_fixed_matrix(fit, d)
  expect_equal(unname(X), unname(fit$design[, colnames(X)]), tolerance = 1e-10)
  # the random part: Z u from the kept design columns
  Z <- fit$design[, names(fit$ranef)]
  expect_equal(ns$random_part(fit, d, "error"), drop(Z %*% fit$ranef), tolerance = 1e-10)
})

test_that("predictions for the fit's own records are its fitted values, for structured random terms too", {
  ref <- function(case) utils::read.csv(file.path(system.file("extdata", "reference", case, package = "tarnel"), "data.csv"),
                                        stringsAsFactors = TRUE)
  ped <- utils::read.csv(file.path(system.file("extdata", "reference", "animal", package = "tarnel"), "pedigree.csv"))
  ainv <- pedigree_inverse(ped)
  oats <- transform(ref("oats"), nitro = factor(nitro))
  field <- transform(ref("field_ar1ar1"), variety = factor(variety), rep = factor(rep))
  fits <- list(
    list(quiet(tarnel(y ~ sex, random = ~ cov_known(animal, ainv), data = ref("animal"))), ref("animal")),
    list(quiet(tarnel(yield ~ nitro, random = ~ cov_diag(Variety):Block, data = oats)), oats),
    list(quiet(tarnel(yield ~ variety, random = ~ rep, residual = ~ cov_ar1(col):cov_ar1(row), data = field)), field),
    list(quiet(tarnel(distance ~ age + Sex, random = ~ coefs(Subject, ~ age), data = ref("orthodont_rr"))), ref("orthodont_rr")),
    list(quiet(tarnel(log(yield) ~ Variety * factor(nitro) + offset(nitro / 10), random = ~ Block, data = ref("oats"))), ref("oats")))
  for (f in fits) {
    expect_equal(ns$predict_newdata(f[[1]], f[[2]]), fitted(f[[1]]), tolerance = 1e-10, ignore_attr = TRUE)
    expect_equal(ns$predict_newdata(f[[1]], f[[2]], re.form = NA), fitted(f[[1]], "fixed"), tolerance = 1e-10,
                 ignore_attr = TRUE)
  }
})
