# Distance-based structures: the reference case (dense REML computed outside
# tarnel), nlme's gls where it fits the same model, and a dense REML in R for
# the Matern forms nlme does not have.

quiet <- function(expr) { utils::capture.output(r <- expr); r }
wheat <- utils::read.csv(system.file("extdata", "reference", "spatial_exp", "data.csv", package = "tarnel"),
                         stringsAsFactors = TRUE)
wheat_expected <- function() {
  txt <- paste(readLines(system.file("extdata", "reference", "spatial_exp", "expected.json", package = "tarnel")),
               collapse = " ")
  num <- function(key) as.numeric(sub(sprintf('.*"%s":\\s*([-0-9.eE+]+).*', key), "\\1", txt))
  list(s2 = num("residual_variance"), rho = num("rho"), loglik = num("loglik_engine"))
}
matern_C <- function(D, phi, nu) {
  x <- D / phi
  C <- x^nu * besselK(x, nu) / (2^(nu - 1) * gamma(nu))
  C[D == 0] <- 1
  C
}
# Standard REML of y ~ X with V = s2 C, s2 profiled.
reml_C <- function(C, X, y) {
  L <- t(chol(C))
  q <- qr(forwardsolve(L, X)); r <- q$rank
  e <- qr.resid(q, forwardsolve(L, y))
  R <- qr.R(q)[seq_len(r), seq_len(r), drop = FALSE]
  n <- length(y); s2 <- sum(e^2) / (n - r)
  list(ll = -0.5 * ((n - r) * (log(2 * pi) + 1 + log(s2)) + 2 * sum(log(diag(L))) + 2 * sum(log(abs(diag(R))))),
       s2 = s2)
}
rel <- function(got, want) abs(got - want) / abs(want)
# A parameter by the last word of its name ("...: cov_exp(x, y) rho").
par_of <- function(fit, pattern) {
  key <- sub("^:", "", pattern)
  unname(fit$gammas[endsWith(names(fit$gammas), paste0(" ", key))])
}

test_that("an exponential residual on Wheat2 reproduces the reference REML fit", {
  ex <- wheat_expected()
  f <- quiet(tarnel(yield ~ variety, residual = ~ cov_exp(latitude, longitude), data = wheat))
  expect_true(f$converged)
  expect_lt(rel(f$sigma2, ex$s2), 0.01)
  expect_lt(abs(par_of(f, ":rho") - ex$rho), 0.005)
  expect_lt(abs(f$loglik - ex$loglik), 0.05)
  s <- summary(f)
  expect_match(s$notes, "correlation at distance 1", fixed = TRUE)
  expect_match(s$notes, sprintf("%.3g", -1 / log(par_of(f, ":rho"))), fixed = TRUE)
  # Matern with smoothness 0.5 is the same model, with rho = exp(-1/range).
  m <- quiet(tarnel(yield ~ variety, residual = ~ cov_matern(latitude, longitude), data = wheat))
  expect_lt(abs(exp(-1 / par_of(m, ":range")) - ex$rho), 0.005)
  expect_lt(abs(m$loglik - ex$loglik), 0.05)
  expect_equal(unname(m$constraints[grep("smoothness", names(m$constraints))]), 4L)
})

test_that("gaussian and spherical residuals agree with nlme::gls", {
  skip_if_not_installed("nlme")
  g <- nlme::gls(yield ~ variety, correlation = nlme::corGaus(form = ~ latitude + longitude), data = wheat,
                 method = "REML")
  f <- quiet(tarnel(yield ~ variety, residual = ~ cov_gauss(latitude, longitude), data = wheat))
  range <- coef(g$modelStruct$corStruct, unconstrained = FALSE)
  expect_lt(abs(par_of(f, ":rho") - exp(-1 / range^2)), 0.005)
  expect_lt(rel(f$sigma2, g$sigma^2), 0.01)
  expect_lt(abs(f$loglik_standard - as.numeric(logLik(g))), 0.05)
  # The spherical optimum of these data lies at a range far beyond the field.
  gs <- nlme::gls(yield ~ variety, correlation = nlme::corSpher(form = ~ latitude + longitude), data = wheat,
                  method = "REML")
  # Its range runs out to where the likelihood is flat, and the fit says so.
  expect_warning(fs <- quiet(tarnel(yield ~ variety, residual = ~ cov_spher(latitude, longitude), data = wheat)),
                 "no information")
  expect_lt(abs(fs$loglik_standard - as.numeric(logLik(gs))), 0.05)
  expect_match(summary(fs)$notes, "spherical correlation, 0 from the range", fixed = TRUE)
})

test_that("Matern fits with the smoothness held and estimated agree with dense REML", {
  D <- as.matrix(dist(wheat[, c("latitude", "longitude")]))
  X <- model.matrix(~ variety, wheat)
  f <- quiet(tarnel(yield ~ variety, residual = ~ cov_matern(latitude, longitude, nu = 1.5), data = wheat))
  o <- optimize(function(lp) -reml_C(matern_C(D, exp(lp), 1.5), X, wheat$yield)$ll, c(log(0.1), log(20)), tol = 1e-9)
  expect_lt(rel(par_of(f, ":range"), exp(o$minimum)), 0.01)
  expect_lt(abs(f$loglik_standard + o$objective), 0.05)
  expect_lt(rel(f$sigma2, reml_C(matern_C(D, exp(o$minimum), 1.5), X, wheat$yield)$s2), 0.01)

  set.seed(5)
  n <- 150
  d <- data.frame(x = runif(n, 0, 10), y = runif(n, 0, 10), trt = factor(sample(1:3, n, TRUE)))
  D <- as.matrix(dist(d[, 1:2]))
  d$z <- 5 + as.integer(d$trt) + 2 * drop(t(chol(matern_C(D, 1.5, 1.2))) %*% rnorm(n))
  X <- model.matrix(~ trt, d)
  f <- quiet(tarnel(z ~ trt, residual = ~ cov_matern(x, y, nu = 0.8, fit_nu = TRUE), data = d))
  o <- optim(log(c(par_of(f, ":range"), par_of(f, ":smoothness"))) + 0.2,
             function(p) -reml_C(matern_C(D, exp(p[1]), exp(p[2])), X, d$z)$ll,
             control = list(reltol = 1e-12))
  expect_lt(max(rel(c(par_of(f, ":range"), par_of(f, ":smoothness")), exp(o$par))), 0.01)
  expect_lt(abs(f$loglik_standard + o$value), 0.05)
})

test_that("a spatial random effect in blocks beside a nugget agrees with gls(corExp(nugget = TRUE))", {
  skip_if_not_installed("nlme")
  set.seed(11)
  g <- expand.grid(x = 1:12, y = 1:10, site = c("A", "B"))
  L <- t(chol(exp(-as.matrix(dist(g[1:120, 1:2])) / 2.5)))
  g$trt <- factor(sample(letters[1:4], nrow(g), TRUE))
  g$yield <- 10 + as.integer(g$trt) + 2 * c(L %*% rnorm(120), L %*% rnorm(120)) + rnorm(nrow(g), sd = 1.5)
  gl <- nlme::gls(yield ~ trt, correlation = nlme::corExp(form = ~ x + y | site, nugget = TRUE), data = g,
                  method = "REML")
  cs <- coef(gl$modelStruct$corStruct, unconstrained = FALSE)
  f <- quiet(tarnel(yield ~ trt, random = ~ cov_exp(x, y, block = site), data = g))
  vc <- f$varcomp$component
  expect_lt(rel(vc[2], gl$sigma^2 * (1 - cs[["nugget"]])), 0.01)
  expect_lt(rel(vc[3], gl$sigma^2 * cs[["nugget"]]), 0.01)
  expect_lt(abs(vc[1] - exp(-1 / cs[["range"]])), 0.005)
  expect_lt(abs(f$loglik_standard - as.numeric(logLik(gl))), 0.05)
  expect_length(f$ranef, 240L)  # one effect a position and site
  # The same model with the spatial part in the residual and the nugget as a
  # random effect of each plot.
  g$plot <- factor(seq_len(nrow(g)))
  f2 <- quiet(tarnel(yield ~ trt, random = ~ plot, residual = ~ cov_exp(x, y, block = site), data = g))
  expect_lt(abs(f2$loglik - f$loglik), 1e-3)
  expect_lt(max(rel(f2$varcomp$component[c(2, 3, 1)], vc)), 0.01)
})

test_that("spatial structures reject unusable input with clear errors", {
  d <- wheat[1:20, ]
  fit <- function(res, data = d) tarnel(yield ~ 1, residual = res, data = data)
  expect_error(fit(~ cov_exp(latitude, latitude)), "the same column")
  expect_error(fit(~ cov_exp(variety, latitude)), "must be numeric")
  expect_error(fit(~ cov_exp(lat, longitude)), "not in the data")
  expect_error(fit(~ cov_exp(latitude, separable = TRUE)), "need two coordinates")
  expect_error(fit(~ cov_powexp(latitude, longitude, power = 3)), "'power'")
  expect_error(fit(~ cov_matern(latitude, longitude, nu = -1)), "'nu'")
  expect_error(fit(~ cov_exp(latitude, longitude, colour = 2)), "unused argument")
  expect_error(fit(~ cov_exp(latitude, longitude):Block), "stands alone")
  d2 <- d; d2$latitude[3] <- NA
  expect_error(fit(~ cov_exp(latitude, longitude), d2), "missing values")
  expect_error(tarnel(yield ~ 1, random = ~ cov_exp(latitude, longitude):Block, data = d), "stands alone")
})

test_that("a separable exponential residual agrees with dense REML", {
  f <- quiet(tarnel(yield ~ variety, residual = ~ cov_exp(latitude, longitude, separable = TRUE), data = wheat))
  ax <- abs(outer(wheat$latitude, wheat$latitude, `-`)); ay <- abs(outer(wheat$longitude, wheat$longitude, `-`))
  X <- model.matrix(~ variety, wheat)
  got <- c(par_of(f, ":rho_x"), par_of(f, ":rho_y"))
  o <- optim(qlogis(got) + 0.3, function(p) -reml_C(plogis(p[1])^ax * plogis(p[2])^ay, X, wheat$yield)$ll,
             control = list(reltol = 1e-12))
  expect_lt(max(abs(got - plogis(o$par))), 0.005)
  expect_lt(abs(f$loglik_standard + o$value), 0.05)
  expect_match(summary(f)$notes, "in each direction", fixed = TRUE)
})

test_that("a limited range that falls short of the field is held and the fit says so", {
  set.seed(4)
  d <- data.frame(pos = sort(runif(80, 0, 40)), g = factor(sample(1:2, 80, TRUE)))
  d$y <- 3 + as.integer(d$g) + drop(t(chol(exp(-as.matrix(dist(d$pos)) / 4))) %*% rnorm(80))
  expect_warning(f <- quiet(tarnel(y ~ g, residual = ~ cov_spher(pos), data = d)), "shorter than the largest distance")
  expect_lt(par_of(f, ":range"), 10 * min(diff(d$pos)))
  # The exponential of the same data reaches the dense REML optimum.
  f <- quiet(tarnel(y ~ g, residual = ~ cov_exp(pos), data = d))
  D <- as.matrix(dist(d$pos)); X <- model.matrix(~ g, d)
  o <- optimize(function(r) -reml_C(r^D, X, d$y)$ll, c(0.01, 0.99), tol = 1e-10)
  expect_lt(abs(par_of(f, ":rho") - o$minimum), 0.005)
  expect_lt(abs(f$loglik_standard + o$objective), 0.05)
})

test_that("a geometrically anisotropic Matern agrees with dense REML", {
  aniso_D <- function(x, y, a, th) {
    dx <- outer(x, x, `-`); dy <- outer(y, y, `-`)
    sqrt(a * (dx * cos(th) + dy * sin(th))^2 + (dy * cos(th) - dx * sin(th))^2 / a)
  }
  set.seed(8)
  n <- 100
  d <- data.frame(x = runif(n, 0, 10), y = runif(n, 0, 10))
  d$z <- 2 + drop(t(chol(matern_C(aniso_D(d$x, d$y, 3, 0.6), 2, 1) + diag(1e-8, n))) %*% rnorm(n))
  f <- quiet(tarnel(z ~ 1, residual = ~ cov_matern(x, y, nu = 1, anisotropy = TRUE), data = d))
  got <- c(par_of(f, ":range"), par_of(f, ":anisotropy_ratio"), par_of(f, ":anisotropy_angle"))
  o <- optim(c(log(got[1:2]), got[3]) + c(0.2, 0.2, 0.1),
             function(p) -reml_C(matern_C(aniso_D(d$x, d$y, exp(p[2]), p[3]), exp(p[1]), 1), matrix(1, n, 1), d$z)$ll,
             control = list(reltol = 1e-12, maxit = 2000))
  expect_lt(max(rel(got[1:2], exp(o$par[1:2]))), 0.01)
  expect_lt(abs(got[3] - o$par[3]), 0.005)
  expect_lt(abs(f$loglik_standard + o$value), 0.05)
  expect_match(summary(f)$notes, "anisotropy ratio", fixed = TRUE)
})
