# Functions of the variance parameters with delta-method standard errors,
# against a closed form and against a delta method with central differences
# written here.

quiet <- function(expr) { utils::capture.output(r <- suppressWarnings(expr)); r }

ref <- function(file) utils::read.csv(system.file("extdata", "reference", "animal", file, package = "tarnel"))
animal <- ref("data.csv")
ainv <- quiet(pedigree_inverse(ref("pedigree.csv")))
fa <- quiet(tarnel(y ~ sex, random = ~ cov_known(animal, ainv), data = animal))

# Genotypes in three environments with an unstructured covariance.
set.seed(7)
S <- matrix(c(2, 1.2, 0.6, 1.2, 2.5, 1, 0.6, 1, 1.6), 3)
gx <- expand.grid(geno = sprintf("g%02d", 1:40), env = c("E1", "E2", "E3"), rep = 1:2)
u <- matrix(stats::rnorm(120), 40) %*% chol(S)
gx$y <- 10 + as.integer(gx$env) + u[cbind(as.integer(gx$geno), as.integer(gx$env))] + stats::rnorm(nrow(gx))
fu <- quiet(tarnel(y ~ env, random = ~ cov_us(env):geno, data = gx))

# The delta method with a gradient by central differences over the
# vector of all components.
numeric_delta <- function(fit, fun) {
  theta <- fit$varcomp$component
  V <- matrix(0, length(theta), length(theta), dimnames = list(rownames(fit$varcomp), rownames(fit$varcomp)))
  Vv <- vcov(fit, parameters = "variance")
  V[rownames(Vv), colnames(Vv)] <- Vv
  g <- vapply(seq_along(theta), function(k) {
    h <- 1e-5 * max(abs(theta[k]), 1e-3)
    up <- dn <- theta
    up[k] <- up[k] + h; dn[k] <- dn[k] - h
    (fun(up) - fun(dn)) / (2 * h)
  }, 1)
  c(estimate = fun(theta), se = sqrt(drop(t(g) %*% V %*% g)))
}

test_that("a heritability agrees with its closed form, whichever way the parameters are named", {
  a <- fa$varcomp$component[1]; e <- fa$varcomp$component[2]
  V <- vcov(fa, parameters = "variance")
  se <- sqrt((e^2 * V[1, 1] - 2 * a * e * V[1, 2] + a^2 * V[2, 2]) / (a + e)^4)
  h <- "h2 ~ `cov_known(animal, ainv): variance` / (`cov_known(animal, ainv): variance` + residual)"
  forms <- list(vc_delta(fa, h2 ~ V1 / (V1 + V2)),
                vc_delta(fa, h2 = ~ V1 / (V1 + residual)),
                vc_delta(fa, stats::as.formula(h)),
                vc_delta(fa, h2 = "V1 / (V1 + V2)"),
                vc_delta(fa, h2 = V1 / (`cov_known(animal, ainv): variance` + V2)))
  for (r in forms) {
    expect_identical(rownames(r), "h2")
    expect_equal(r$estimate, a / (a + e), tolerance = 1e-12)
    expect_equal(r$std.error, se, tolerance = 1e-10)
  }
  # One parameter alone is its own standard error.
  one <- vc_delta(fa, ~ V1, twice = ~ 2 * V2)
  expect_equal(one$std.error, c(1, 2) * fa$varcomp$std.error, tolerance = 1e-10)
  expect_output(print(forms[[1]]), "V1 = cov_known\\(animal, ainv\\): variance")
  key <- vc_delta(fa)
  expect_identical(key$parameter, rownames(fa$varcomp))
  expect_output(print(key), "V2")
})

test_that("correlations and other functions agree with a numeric delta method", {
  funs <- list(r12 = function(p) p[2] / sqrt(p[1] * p[3]),
               h2E3 = function(p) p[6] / (p[6] + p[7]),
               ratio = function(p) log(p[3] / p[1]),
               bessel = function(p) besselJ(p[5], 0) * p[7])
  r <- vc_delta(fu, r12 ~ V2 / sqrt(V1 * V3), h2E3 ~ V6 / (V6 + residual), ratio ~ log(V3 / V1),
                bessel ~ besselJ(V5, 0) * V7)
  for (k in names(funs)) {
    want <- numeric_delta(fu, funs[[k]])
    expect_equal(r[k, "estimate"], unname(want["estimate"]), tolerance = 1e-10, info = k)
    expect_equal(r[k, "std.error"], unname(want["se"]), tolerance = 1e-5, info = k)
  }
  # The joint covariance of the functions: its diagonal gives the errors.
  expect_equal(unname(sqrt(diag(attr(r, "vcov")))), r$std.error, tolerance = 1e-12)
  expect_equal(unname(attr(r, "key")$alias), c("V1", "V2", "V3", "V5", "V6", "V7"))

  # A parameter held fixed is a known constant: no error of its own.
  nm <- rownames(fu$varcomp)[7]
  ff <- quiet(tarnel(y ~ env, random = ~ cov_us(env):geno, data = gx, residual = ~ het(rep),
                     constrain = setNames("fixed", "residual: rep 1"), start = c("residual: rep 1" = 1)))
  fx <- vc_delta(ff, ~ `residual: rep 1`, ~ V1 / (V1 + V7))
  expect_equal(fx$std.error[1], 0)
  expect_equal(fx$std.error[2], unname(numeric_delta(ff, function(p) p[1] / (p[1] + p[7]))["se"]), tolerance = 1e-5)
})

test_that("bad functions get clear errors", {
  expect_error(vc_delta(lm(y ~ env, gx), ~ V1), "must be a tarnel fit")
  expect_error(vc_delta(fa, ~ V1 / (V1 + animal)), "'animal' in the function .* not a parameter.*V1 = `cov_known")
  expect_error(vc_delta(fa, ~ V9), "'V9'")
  expect_error(vc_delta(fa, h ~ V1, h ~ V2), "two functions have the name 'h'")
  expect_error(vc_delta(fa, ~ c(V1, V2)), "single number")
  expect_error(vc_delta(fa, ~ 3), "names no parameter")
  expect_error(vc_delta(fa, "V1 /"), "not an R expression")
  expect_error(vc_delta(fa, not_defined), "neither a parameter")
  expect_error(vc_delta(fa, ~ undefined_fn(V1)), "cannot be evaluated")
})
