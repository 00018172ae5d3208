# Fixed factors of many levels among the sparse equations: the same fit as
# with every fixed term dense, the aliased levels found, and lme4 agreeing.

sim_groups <- function(n = 1500, k = 120, seed = 11) {
  set.seed(seed)
  d <- data.frame(f = factor(c(seq_len(k), sample.int(k, n - k, TRUE))), g = factor(sample.int(30, n, TRUE)),
                  s = factor(sample(c("a", "b", "c"), n, TRUE)), x = rnorm(n))
  d$y <- 5 + rnorm(k, sd = 2)[d$f] + rnorm(30)[d$g] + 0.4 * d$x + c(0, 1, -0.5)[d$s] + rnorm(n)
  d
}
sparse_at <- function(k) tarnel_control(sparse_fixed = k)
rel <- function(a, b) max(abs(a - b) / pmax(abs(b), 1))

test_that("a many-level fixed factor in the sparse equations fits as in the dense block", {
  d <- sim_groups()
  fs <- tarnel(y ~ x + f, random = ~ g, data = d, control = sparse_at(100))
  fd <- tarnel(y ~ x + f, random = ~ g, data = d, control = sparse_at(Inf))
  expect_equal(unique(fs$sparse_fixed$term), "f")
  expect_null(fd$sparse_fixed)
  expect_lt(abs(fs$loglik - fd$loglik), 1e-8)
  expect_lt(abs(as.numeric(logLik(fs)) - as.numeric(logLik(fd))), 1e-8)
  expect_equal(attr(logLik(fs), "df"), attr(logLik(fd), "df"))
  expect_equal(fs$nedf, fd$nedf)
  expect_lt(rel(fs$varcomp$component, fd$varcomp$component), 1e-8)
  # Both leave the intercept as the aliased column, so the engine's
  # solutions are the same: the levels of f and the slope, with their SEs.
  be <- fd$fixed_engine$coefficients
  se <- sqrt(diag(fd$fixed_engine$vcov))
  lev <- fs$sparse_fixed$level
  expect_equal(fs$sparse_fixed$status, rep("estimated", 120))
  expect_lt(rel(fs$sparse_fixed$estimate, be[lev]), 1e-8)
  expect_lt(rel(fs$sparse_fixed$std.error, se[lev]), 1e-8)
  expect_lt(rel(coef(fs)[c("x", lev)], be[c("x", lev)]), 1e-8)
  expect_lt(rel(confint(fs)[lev, 2] - coef(fs)[lev], qnorm(0.975) * se[lev]), 1e-8)
  expect_lt(rel(fitted(fs, "fixed"), fitted(fd, "fixed")), 1e-8)
  expect_lt(rel(unlist(ranef(fs)), unlist(ranef(fd))), 1e-8)
  expect_equal(dim(model.matrix(fs)), c(nrow(d), 122L))
  expect_true(fs$fixed_info$sparse)
  expect_true("(Intercept)" %in% fs$fixed_info$aliased)
})

test_that("the dense terms' Wald tests follow the sparse terms, as in the dense fit with those terms first", {
  d <- sim_groups(n = 1200, k = 80, seed = 3)
  fs <- tarnel(y ~ s + x + f, random = ~ g, data = d, control = sparse_at(50))
  fd <- tarnel(y ~ f + s + x, random = ~ g, data = d, control = sparse_at(Inf))
  ws <- wald(fs)
  wd <- wald(fd)
  expect_equal(rownames(ws), c("s", "x"))
  for (t in c("s", "x")) {
    expect_equal(ws[t, "Df"], wd[t, "Df"])
    expect_lt(rel(ws[t, c("F.inc", "F.con")], wd[t, c("F.inc", "F.con")]), 1e-8)
    expect_lt(rel(ws[t, c("denDF.inc", "denDF.con")], wd[t, c("denDF.inc", "denDF.con")]), 1e-6)
  }
  expect_match(attr(ws, "note"), "f: in the sparse equations, not tested", fixed = TRUE, all = FALSE)
  expect_error(wald(fs, terms = "f"), "sparse equations, where terms get no Wald test")
  # Estimable quantities agree: the contrast of s, fitted values, and the
  # predicted means over s (f averaged).
  expect_lt(rel(coef(fs)[["sc"]] - coef(fs)[["sb"]], coef(fd)[["sc"]] - coef(fd)[["sb"]]), 1e-8)
  expect_lt(rel(fitted(fs, "fixed"), fitted(fd, "fixed")), 1e-8)
  ps <- predict(fs, classify = "s")
  pd <- predict(fd, classify = "s")
  expect_lt(rel(ps$pvals$predicted.value, pd$pvals$predicted.value), 1e-8)
  expect_lt(rel(ps$pvals$std.error, pd$pvals$std.error), 1e-8)
  pf <- predict(fs, classify = "f")$pvals
  expect_lt(rel(pf$predicted.value, predict(fd, classify = "f")$pvals$predicted.value), 1e-8)
  expect_error(predict(fs, newdata = d[1:3, ]), "not available yet")
})

test_that("levels aliased in the sparse equations are found and reported", {
  d <- sim_groups(n = 1200, k = 90, seed = 5)
  # h groups the levels of f: 10 of f's 90 equations (or h's) are redundant.
  d$h <- factor(as.integer(d$f) %% 10)
  both <- tarnel(y ~ x + h + f, random = ~ g, data = d, control = sparse_at(10))
  dense <- tarnel(y ~ x + h + f, random = ~ g, data = d, control = sparse_at(Inf))
  st <- both$sparse_fixed
  expect_setequal(unique(st$term), c("h", "f"))
  expect_equal(sum(st$status == "aliased"), 10L)
  expect_equal(rownames(wald(both)), "x")
  expect_equal(nrow(wald(tarnel(y ~ f, data = d, control = sparse_at(50)))), 0L)
  expect_true(all(is.na(st$estimate[st$status == "aliased"])))
  expect_true(all(st$level[st$status == "aliased"] %in% both$fixed_info$aliased))
  expect_equal(both$nedf, dense$nedf)
  expect_lt(abs(both$loglik - dense$loglik), 1e-8)
  expect_lt(rel(fitted(both, "fixed"), fitted(dense, "fixed")), 1e-8)
  # With h dense, all of it is aliased with f: no test, and the table says so.
  hd <- tarnel(y ~ x + h + f, random = ~ g, data = d, control = sparse_at(50))
  expect_equal(rownames(wald(hd)), "x")
  expect_match(attr(wald(hd), "note"), "(Intercept), h: no test, every column aliased", fixed = TRUE, all = FALSE)
  expect_true(all(paste0("h", 0:9) %in% hd$fixed_info$aliased))
  out <- paste(capture.output(print(summary(both))), collapse = "\n")
  expect_match(out, "f: 90 levels in the sparse equations (90 estimated, 0 aliased", fixed = TRUE)
  expect_error(tarnel_control(sparse_fixed = 1), "sparse_fixed")
  expect_error(tarnel_control(sparse_fixed = "many"), "sparse_fixed")
})

test_that("a sparse fixed factor fits as lme4 fits it", {
  skip_if_not_installed("lme4")
  d <- sim_groups(n = 1000, k = 60, seed = 8)
  fs <- tarnel(y ~ x + s + f, random = ~ g, data = d, control = sparse_at(20))
  m <- lme4::lmer(y ~ x + s + f + (1 | g), data = d, REML = TRUE)
  expect_lt(abs(as.numeric(logLik(fs)) - as.numeric(logLik(m))), 1e-5)
  vc <- as.data.frame(lme4::VarCorr(m))
  expect_lt(rel(fs$varcomp[c("g", "residual"), "component"], vc$vcov), 1e-5)
  expect_lt(rel(coef(fs)[["x"]], lme4::fixef(m)[["x"]]), 1e-5)
  expect_lt(rel(summary(fs)$fixed["x", "std.error"], sqrt(diag(as.matrix(vcov(m))))[["x"]]), 1e-5)
  expect_lt(rel(fitted(fs, "fixed"), drop(model.matrix(m) %*% lme4::fixef(m))), 1e-5)
})
