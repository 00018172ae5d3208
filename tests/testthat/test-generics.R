# The fit as an R modelling object: generics against lme4 and nlme on the
# same models, broom.mixed, lme4's bar terms, formulae read as lm() reads
# them, and a quiet console.

sleep <- lme4::sleepstudy
fit_sleep <- tarnel(Reaction ~ Days, random = ~ (Days | Subject), data = sleep)
lm4_sleep <- suppressMessages(lme4::lmer(Reaction ~ Days + (Days | Subject), sleep, REML = TRUE))

test_that("ranef, VarCorr, sigma, confint, df.residual, deviance and formula agree with lme4", {
  skip_if_not_installed("lme4")
  fit <- fit_sleep; m <- lm4_sleep
  # VarCorr: variances, standard deviations and the correlation
  vc <- VarCorr(fit)
  want <- as.data.frame(lme4::VarCorr(m))
  expect_equal(vc$variance, want$vcov[c(1, 3, 2, 4)], tolerance = 1e-3)
  expect_equal(vc$sd_cor, want$sdcor[c(1, 3, 2, 4)], tolerance = 1e-3)
  expect_equal(vc$group, c("Subject", "Subject", "Subject", "Residual"))
  expect_equal(rownames(vc), c("Subject: (Intercept)", "Subject: cov((Intercept), Days)", "Subject: Days", "residual"))
  # ranef: one table by grouping, rows named by level
  re <- ranef(fit)
  re4 <- lme4::ranef(m, condVar = TRUE)
  expect_named(re, "Subject")
  expect_equal(rownames(re$Subject), rownames(re4$Subject))
  expect_equal(as.matrix(re$Subject), as.matrix(re4$Subject), tolerance = 1e-3)
  # conditional standard errors: the prediction error variances of the
  # mixed model equations (u - u_hat, fixed effects estimated), from a
  # dense inverse; lme4's conditional variances hold the fixed effects at
  # their estimates and are the same inverse without the fixed part
  X <- model.matrix(fit)
  expect_equal(unname(X), unname(model.matrix(m)), ignore_attr = TRUE)
  Z <- as.matrix(lme4::getME(m, "Z"))  # subject by subject, intercept and slope
  s2 <- sigma(fit)^2
  G <- matrix(c(vc$variance[1], vc$variance[2], vc$variance[2], vc$variance[3]), 2)
  Ginv <- kronecker(diag(18), solve(G))
  C <- rbind(cbind(crossprod(X), crossprod(X, Z)), cbind(crossprod(Z, X), crossprod(Z) + s2 * Ginv)) / s2
  pev <- unname(diag(solve(C))[-(1:2)])
  se <- attr(re$Subject, "se")
  expect_equal(as.vector(t(as.matrix(se))), sqrt(pev), tolerance = 1e-3)
  cv <- unname(diag(solve(crossprod(Z) / s2 + Ginv)))
  pv <- attr(re4$Subject, "postVar")
  expect_equal(as.vector(apply(pv, 3, diag)), cv, tolerance = 1e-3)
  # sigma, df.residual, deviance (the REML criterion), formula
  expect_equal(sigma(fit), sigma(m), tolerance = 1e-4)
  expect_equal(df.residual(fit), df.residual(m))
  expect_equal(deviance(fit), lme4::REMLcrit(m), tolerance = 1e-5)
  expect_equal(formula(fit), Reaction ~ Days, ignore_formula_env = TRUE)
  expect_equal(formula(fit, "random"), ~ (Days | Subject), ignore_formula_env = TRUE)
  expect_equal(nrow(model.frame(fit)), nrow(sleep))
  # Wald intervals of the fixed effects; variances on the log scale stay positive
  ci <- confint(fit)
  expect_equal(ci[c("(Intercept)", "Days"), ], confint(m, method = "Wald")[c("(Intercept)", "Days"), ], tolerance = 1e-4)
  vci <- ci[c("Subject: (Intercept)", "Subject: Days", "residual"), ]
  expect_true(all(vci[, 1] > 0 & vci[, 1] < vc$variance[c(1, 3, 4)] & vci[, 2] > vc$variance[c(1, 3, 4)]))
  expect_equal(unname(ci["residual", ] - 654.94 * exp(c(-1, 1) * 1.959964 * fit$varcomp["residual", "std.error"] / 654.94)),
               c(0, 0), tolerance = 1e-3)
})

test_that("sigma and VarCorr agree with nlme, and update() honours a new formula", {
  skip_if_not_installed("nlme")
  orth <- as.data.frame(nlme::Orthodont)
  fit <- tarnel(distance ~ age + Sex, random = ~ Subject, data = orth)
  m <- nlme::lme(distance ~ age + Sex, random = ~ 1 | Subject, data = orth, method = "REML")
  expect_equal(sigma(fit), sigma(m), tolerance = 1e-4)
  expect_equal(VarCorr(fit)$variance, as.numeric(nlme::VarCorr(m)[, "Variance"]), tolerance = 1e-3)
  expect_equal(unname(unlist(ranef(fit)$Subject)), unname(nlme::ranef(m)[levels(orth$Subject), 1]), tolerance = 1e-3)
  # a changed fixed formula is fitted, not the old model again
  up <- update(fit, . ~ . + I(age^2))
  m2 <- nlme::lme(distance ~ age + Sex + I(age^2), random = ~ 1 | Subject, data = orth, method = "REML")
  expect_equal(formula(up), distance ~ age + Sex + I(age^2), ignore_formula_env = TRUE)
  expect_equal(unname(coef(up)[c("age", "I(age^2)")]), unname(nlme::fixef(m2)[c("age", "I(age^2)")]), tolerance = 1e-4)
  expect_equal(as.numeric(logLik(up)), as.numeric(logLik(m2)), tolerance = 1e-5)
  up2 <- update(fit, random = ~ . + (0 + age | Subject))
  expect_equal(formula(up2, "random"), ~ Subject + (0 + age | Subject), ignore_formula_env = TRUE)
  expect_equal(nrow(VarCorr(up2)), 3L)
})

test_that("broom.mixed: tidy gives the fixed and random parameters, glance and augment the fit", {
  skip_if_not_installed("broom.mixed")
  t1 <- broom.mixed::tidy(fit_sleep)
  t4 <- broom.mixed::tidy(lm4_sleep)
  expect_equal(t1$effect, t4$effect)
  expect_equal(t1$term[t1$effect == "fixed"], t4$term[t4$effect == "fixed"])
  expect_setequal(t1$term, t4$term)
  expect_equal(t1$estimate[match(t4$term, t1$term)], t4$estimate, tolerance = 1e-3)
  g <- broom.mixed::glance(fit_sleep)
  expect_equal(g$df.residual, df.residual(lm4_sleep))
  a <- broom.mixed::augment(fit_sleep)
  expect_equal(nrow(a), nrow(sleep))
  expect_equal(a$.fitted, unname(fitted(lm4_sleep)), tolerance = 1e-4)
  rv <- broom.mixed::tidy(fit_sleep, effects = "ran_vals")
  expect_equal(nrow(rv), 36L)
})

test_that("lme4's bar terms give the fits of the package's own terms", {
  pen <- lme4::Penicillin
  oats <- as.data.frame(nlme::Oats)
  oats$nitro <- factor(oats$nitro)
  oats$Block <- factor(oats$Block, ordered = FALSE)
  oats$Variety <- factor(oats$Variety)
  pairs <- list(
    list(tarnel(diameter ~ 1, random = ~ (1 | plate) + (1 | sample), data = pen),
         tarnel(diameter ~ 1, random = ~ plate + sample, data = pen)),
    list(tarnel(diameter ~ (1 | plate) + (1 | sample), data = pen),  # bars among the fixed terms
         tarnel(diameter ~ 1, random = ~ plate + sample, data = pen)),
    list(tarnel(yield ~ nitro * Variety, random = ~ (1 | Block/Variety), data = oats),
         tarnel(yield ~ nitro * Variety, random = ~ Block + Block:Variety, data = oats)),
    list(fit_sleep, tarnel(Reaction ~ Days, random = ~ coefs(Subject, ~ Days), data = sleep)),
    list(tarnel(Reaction ~ Days, random = ~ (Days || Subject), data = sleep),
         tarnel(Reaction ~ Days, random = ~ coefs(Subject, ~ Days, cov = "diag"), data = sleep)))
  for (p in pairs) {
    expect_equal(p[[1]]$varcomp, p[[2]]$varcomp, tolerance = 1e-8)
    expect_equal(p[[1]]$loglik, p[[2]]$loglik)
  }
  # and the same as lme4
  m <- suppressMessages(lme4::lmer(yield ~ nitro * Variety + (1 | Block/Variety), oats))
  expect_equal(as.numeric(logLik(pairs[[3]][[1]])), as.numeric(logLik(m)), tolerance = 1e-6)
  expect_error(tarnel(Reaction ~ Days, random = ~ (Days | Subject/Days), data = sleep), "one grouping factor")
  # the readable names serve start and constrain
  fx <- tarnel(Reaction ~ Days, random = ~ (Days | Subject), data = sleep,
               start = c("Subject: Days" = 0.05), constrain = c("Subject: Days" = "fixed"))
  expect_equal(fx$varcomp["Subject: Days", c("gamma", "constraint")], data.frame(gamma = 0.05, constraint = "fixed", row.names = "Subject: Days"))
})

test_that("the formula is read as lm() reads it: functions of variables, weights, subset, offset", {
  s <- sleep
  f <- tarnel(log(Reaction) ~ poly(Days, 2) + I(Days > 4), random = ~ (1 | Subject), data = s)
  m <- suppressMessages(lme4::lmer(log(Reaction) ~ poly(Days, 2) + I(Days > 4) + (1 | Subject), s))
  b <- coef(f)
  expect_equal(unname(b[c("poly(Days, 2)1", "poly(Days, 2)2")]), unname(lme4::fixef(m)[2:3]), tolerance = 1e-5)
  expect_equal(as.numeric(logLik(f)), as.numeric(logLik(m)), tolerance = 1e-6)
  expect_equal(fitted(f), unname(fitted(m)), tolerance = 1e-6)
  # weights as in lm(): a column by name or as a string; zero weights leave the record out
  s$w <- rep(c(1, 2, 0.5, 0), 45)
  f1 <- tarnel(Reaction ~ factor(Days), random = ~ Subject, data = s, weights = w)
  f2 <- tarnel(Reaction ~ factor(Days), random = ~ Subject, data = s, weights = "w")
  f3 <- tarnel(Reaction ~ factor(Days), random = ~ Subject, data = s, subset = w > 0, weights = w)
  m1 <- suppressMessages(lme4::lmer(Reaction ~ factor(Days) + (1 | Subject), s, weights = w, subset = w > 0))
  expect_equal(f1$varcomp, f2$varcomp)
  expect_equal(f1$varcomp$component, f3$varcomp$component, tolerance = 1e-8)
  expect_equal(as.numeric(logLik(f1)), as.numeric(logLik(m1)), tolerance = 1e-6)
  expect_equal(sum(is.na(fitted(f1))), 45L)
  # subset and offset
  f4 <- tarnel(Reaction ~ Days + offset(2 * Days), random = ~ Subject, data = s, subset = Days > 1)
  m4 <- suppressMessages(lme4::lmer(Reaction ~ Days + offset(2 * Days) + (1 | Subject), s, subset = Days > 1))
  expect_equal(unname(coef(f4)), unname(lme4::fixef(m4)), tolerance = 1e-6)
  expect_equal(fitted(f4), unname(fitted(m4)), tolerance = 1e-6)
  # clear errors
  s$w[3] <- NA
  expect_error(tarnel(Reaction ~ Days, random = ~ Subject, data = s, weights = w), "weights 'w' hold 1 missing value.*record 3")
  s$w[3] <- -1
  expect_error(tarnel(Reaction ~ Days, random = ~ Subject, data = s, weights = w), "negative")
  s$w[3] <- 1
  s$g <- factor(s$Days %% 2)
  expect_error(tarnel(Reaction ~ Days, random = ~ Subject, residual = ~ het(g), data = s, weights = w), "not available yet")
  s$Sn <- as.numeric(s$Subject)
  expect_error(tarnel(Reaction ~ Days, random = ~ Sn, data = s), "numeric column.*factor\\(Sn\\)")
  expect_equal(tarnel(Reaction ~ Days, random = ~ factor(Sn), data = s)$varcomp$component,
               tarnel(Reaction ~ Days, random = ~ Subject, data = s)$varcomp$component)
  s$x <- s$Days
  s$x[17] <- NA
  expect_error(tarnel(Reaction ~ x, random = ~ Subject, data = s), "'x' has 1 missing value.*record 17")
})

test_that("a fit prints nothing; the engine's text is in the log, shown when tracing", {
  run <- function(expr) {
    out <- utils::capture.output(msg <- utils::capture.output(v <- expr, type = "message"), type = "output")
    list(value = v, text = paste(c(out, msg), collapse = "\n"))
  }
  r <- run(tarnel(yield ~ variety * nitrogen_level, random = ~ block + wholeplot, data = split_plot))
  expect_identical(r$text, "")
  expect_match(r$value$log, "STAT 1")
  t <- run(tarnel(yield ~ variety * nitrogen_level, random = ~ block + wholeplot, data = split_plot,
                  control = tarnel_control(trace = TRUE)))
  expect_match(t$text, "LogLik")
  expect_match(t$text, sprintf("%.4f", t$value$loglik_standard), fixed = TRUE)
  # the engine's messages reach the user once each, as warnings
  ns <- asNamespace("tarnel")
  log <- "STAT 1\n Notice: NonPosDef US matrix modified\nFault 134\n Notice: NonPosDef US matrix modified\nWarning: 2 negative weights may have been treated as zero\n"
  expect_equal(ns$engine_notices(log), c("Notice: NonPosDef US matrix modified", "Warning: 2 negative weights may have been treated as zero"))
  w <- testthat::capture_warnings(ns$warn_engine_notices(log))
  expect_length(w, 2L)
})

test_that("plot() draws residuals against fitted values and a normal QQ plot", {
  f <- tempfile(fileext = ".png")
  grDevices::png(f, width = 800, height = 400)
  expect_silent(plot(fit_sleep))
  grDevices::dev.off()
  expect_gt(file.size(f), 5000)
})

test_that("a retry after a shortage is silent; a structure's random effects come as a table", {
  set.seed(2)
  d <- expand.grid(g = factor(1:12), site = factor(c("A", "B", "C")), rep = 1:2)
  d$y <- 10 + rnorm(36, sd = 2)[(as.integer(d$site) - 1) * 12 + as.integer(d$g)] + rnorm(nrow(d))
  out <- utils::capture.output(msg <- utils::capture.output(
    f <- tarnel(y ~ site, random = ~ cov_us(site):g, data = d, control = tarnel_control(workspace = 2e4)),
    type = "message"))
  expect_identical(c(out, msg), character())
  expect_match(f$log, "Current workspace")
  expect_gt(f$workspace, 2e4)
  re <- ranef(f)[["cov_us(site):g"]]
  expect_equal(dim(re), c(12L, 3L))
  expect_equal(re["5", "B"], unname(f$ranef["siteB:g5"]))
  vc <- VarCorr(f)
  k <- "cov_us(site):g: site cov(A, B)"
  expect_equal(vc[k, "sd_cor"], vc[k, "variance"] / sqrt(vc["cov_us(site):g: site A", "variance"] * vc["cov_us(site):g: site B", "variance"]))
})

test_that("simulate() draws from the fitted variances", {
  sims <- simulate(fit_sleep, nsim = 3000, seed = 7)
  expect_equal(dim(sims), c(180L, 3000L))
  vc <- VarCorr(fit_sleep)$variance
  t <- sleep$Days
  want <- vc[1] + 2 * t * vc[2] + t^2 * vc[3] + vc[4]
  got <- apply(sims, 1, var)
  expect_lt(max(abs(got / want - 1)), 0.12)
  expect_lt(max(abs(rowMeans(sims) - fitted(fit_sleep, "fixed")) / sqrt(want / 3000)), 4.5)
  # records of one subject share their random effects
  expect_gt(cor(unlist(sims[1, ]), unlist(sims[2, ])), 0.3)
  # (an unstructured fit to noise: the engine's notice, printed three
  # times in the log, reaches the user once)
  set.seed(3)
  d <- transform(expand.grid(g = factor(1:8), site = factor(1:3)), y = rnorm(24))
  w <- testthat::capture_warnings(f <- tarnel(y ~ site, random = ~ cov_us(site):g, data = d))
  expect_equal(lengths(regmatches(f$log, gregexpr("NonPosDef US matrix modified", f$log))), 3L)
  expect_equal(sum(w == "tarnel engine: Notice: NonPosDef US matrix modified"), 1L)
  expect_error(simulate(f), "not available yet")
})
