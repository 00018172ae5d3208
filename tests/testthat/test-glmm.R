# Generalised models: every family and link against stats::glm without a
# random term, the penalised quasi-likelihood REML fixed points of the
# reference cases, and bad data refused before the engine runs.

quiet <- function(expr) { utils::capture.output(r <- expr); r }
ref_dir <- function(case) system.file("extdata", "reference", case, package = "tarnel")
ref_json <- function(case) paste(readLines(file.path(ref_dir(case), "expected.json")), collapse = " ")
# The first number under a key, or under a key inside the block `within`.
json_num <- function(txt, key, within = NULL) {
  if (!is.null(within)) txt <- sub(sprintf('.*?"%s":\\s*\\{([^}]*)\\}.*', within), "\\1", txt, perl = TRUE)
  as.numeric(sub(sprintf('.*?"%s":\\s*([-0-9.eE+]+).*', key), "\\1", txt, perl = TRUE))
}

sim <- function(n = 300) {
  set.seed(11)
  d <- data.frame(x = rnorm(n), f = factor(sample(letters[1:3], n, TRUE)))
  d$yb <- rbinom(n, 1, plogis(0.3 + 0.8 * d$x))
  d$size <- sample(1:8, n, TRUE)
  d$prop <- rbinom(n, d$size, plogis(-0.2 + 0.5 * d$x)) / d$size
  d$yp <- rpois(n, exp(1 + 0.3 * d$x))
  d$yg <- rgamma(n, shape = 3, rate = 3 / exp(1 + 0.2 * d$x))
  d$yn <- rnorm(n, 5 + d$x, 0.5)
  d$ynb <- MASS::rnegbin(n, exp(1 + 0.3 * d$x), 2)
  d
}

test_that("without a random term every family and link is stats::glm", {
  skip_if_not_installed("MASS")
  d <- sim()
  cases <- list(
    list("yb", binomial("logit")), list("yb", binomial("probit")), list("yb", binomial("cloglog")),
    list("yp", poisson("log")), list("yp", poisson("sqrt")),
    list("yg", Gamma("inverse")), list("yg", Gamma("log")), list("yg", Gamma("identity")),
    list("yn", gaussian("log")), list("yn", gaussian("inverse")),
    list("ynb", MASS::negative.binomial(2)), list("ynb", negative_binomial(2)))
  for (cs in cases) {
    fam <- cs[[2]]
    fo <- stats::as.formula(paste(cs[[1]], "~ x + f"))
    lab <- paste(fam$family, fam$link)
    gfam <- if (fam$family == "negative_binomial") MASS::negative.binomial(2) else fam
    g <- glm(fo, gfam, data = d, control = glm.control(epsilon = 1e-14, maxit = 100))
    fit <- quiet(tarnel(fo, data = d, family = fam))
    expect_s3_class(fit, "tarnel_glm")
    expect_lt(max(abs(fitted(fit, type = "link") - g$linear.predictors) / (1 + abs(g$linear.predictors))), 1e-6)
    expect_equal(fitted(fit), unname(fitted(g)), tolerance = 1e-6, ignore_attr = TRUE, label = lab)
    expect_equal(deviance(fit), deviance(g), tolerance = 1e-6, label = lab)
    # The coefficients, in R's coding as glm() gives them.
    expect_equal(coef(fit), coef(g), tolerance = 1e-6, label = lab)
    for (type in c("deviance", "pearson", "working", "response"))
      expect_equal(residuals(fit, type = type), unname(residuals(g, type = type)), tolerance = 1e-5,
                   label = paste(lab, type))
  }
  # Proportions with group sizes as weights, and cbind(successes, failures).
  g <- glm(prop ~ x, binomial, data = d, weights = size)
  f1 <- quiet(tarnel(prop ~ x, data = d, weights = "size", family = binomial()))
  d$succ <- round(d$prop * d$size); d$fail <- d$size - d$succ
  f2 <- quiet(tarnel(cbind(succ, fail) ~ x, data = d, family = "binomial"))
  for (f in list(f1, f2)) {
    expect_equal(unname(coef(f)[c("(Intercept)", "x")]), unname(coef(g)), tolerance = 1e-6)
    expect_equal(deviance(f), deviance(g), tolerance = 1e-6)
  }
  expect_equal(f1$dispersion, 1)
  expect_match(f1$note, "not for comparing generalised models")
  expect_true("deviance" %in% names(f1$iterations))
  expect_equal(f1$iterations$deviance[nrow(f1$iterations)], deviance(g), tolerance = 1e-5)
  # A subset keeps the response and group sizes of its own records.
  gs <- glm(cbind(succ, fail) ~ x, binomial, data = d, subset = x > min(x))
  fs <- quiet(tarnel(cbind(succ, fail) ~ x, data = d, family = binomial(), subset = x > min(x)))
  expect_equal(deviance(fs), deviance(gs), tolerance = 1e-6)
  expect_equal(unname(coef(fs)), unname(coef(gs)), tolerance = 1e-6)
})

test_that("the reference binomial and Poisson GLMMs reach the PQL REML fixed point", {
  d <- utils::read.csv(file.path(ref_dir("glmm_binomial"), "data.csv"))
  d$period <- factor(d$period); d$herd <- factor(d$herd)
  d$fail <- d$size - d$incidence
  txt <- ref_json("glmm_binomial")
  fit <- quiet(tarnel(cbind(incidence, fail) ~ period, random = ~ herd, data = d, family = binomial()))
  expect_true(fit$converged)
  expect_equal(fit$varcomp["herd", "component"], json_num(txt, "herd", "variance_parameters"), tolerance = 0.01)
  expect_lt(abs(fit$loglik - json_num(txt, "loglik_engine_with_weight_logdet")), 0.05)
  expect_equal(deviance(fit), json_num(txt, "deviance_glm_convention"), tolerance = 1e-3)
  b <- coef(fit)
  expect_equal(unname(b["period2"]), json_num(txt, "period2", "fixed_effects"), tolerance = 1e-3)
  expect_equal(unname(b["(Intercept)"]), json_num(txt, "\\(Intercept\\)", "fixed_effects"), tolerance = 1e-3)

  d <- utils::read.csv(file.path(ref_dir("glmm_poisson"), "data.csv"))
  d$YEAR <- factor(d$YEAR); d$BROOD <- factor(d$BROOD)
  txt <- ref_json("glmm_poisson")
  fit <- quiet(tarnel(TICKS ~ YEAR + HEIGHT_s, random = ~ BROOD, data = d, family = poisson()))
  expect_true(fit$converged)
  expect_equal(fit$varcomp["BROOD", "component"], json_num(txt, "BROOD", "variance_parameters"), tolerance = 0.01)
  expect_lt(abs(fit$loglik - json_num(txt, "loglik_engine_with_weight_logdet")), 0.05)
  expect_equal(unname(coef(fit)["HEIGHT_s"]), json_num(txt, "HEIGHT_s", "fixed_effects"), tolerance = 1e-3)
})

test_that("bad data and families are refused before the engine runs, naming the record", {
  skip_if_not_installed("MASS")
  d <- sim(20)
  d$yp[4] <- -1
  expect_error(tarnel(yp ~ x, data = d, family = poisson()), "record 4")
  d$yp[4] <- 2.5
  expect_error(tarnel(yp ~ x, data = d, family = poisson()), "whole numbers \\(record 4\\)")
  d$yb[7] <- 1.2
  expect_error(tarnel(yb ~ x, data = d, family = binomial()), "\\[0, 1\\].*\\(record 7\\)")
  d$size[3] <- 0
  expect_error(tarnel(prop ~ x, data = d, weights = "size", family = binomial()), "total .* 0 \\(record 3\\)")
  d$size[3] <- NA
  expect_error(tarnel(prop ~ x, data = d, weights = "size", family = binomial()), "missing values \\(record 3\\)")
  d$s <- 1:20; d$fl <- 0
  d$fl[1] <- 0; d$s[1] <- 0
  expect_error(tarnel(cbind(s, fl) ~ x, data = d, family = binomial()), "total is 0 \\(record 1\\)")
  d$yg[2] <- 0
  expect_error(tarnel(yg ~ x, data = d, family = Gamma()), "positive \\(record 2\\)")
  expect_error(tarnel(yn ~ x, data = d, family = quasipoisson()), "not available.*binomial")
  expect_error(tarnel(yp ~ x, data = d, family = binomial("log")), "links allowed are: logit, probit, cloglog")
  expect_error(tarnel(yn ~ x, data = d, family = Gamma(), na_response = "keep"), "not available")
  d$score <- factor(rep(c("low", "mid", "high"), length.out = 20), ordered = TRUE)
  expect_error(tarnel(score ~ x, data = d, family = binomial()), "two levels.*family = cumulative")
})

test_that("complete separation ends in a warning, not a crash", {
  d <- data.frame(x = c(-3:-1, 1:3), y = c(0, 0, 0, 1, 1, 1))
  said <- character()
  fit <- withCallingHandlers(quiet(tarnel(y ~ x, data = d, family = binomial())),
                             warning = function(w) { said <<- c(said, conditionMessage(w)); invokeRestart("muffleWarning") })
  expect_true(any(grepl("bounds", said)))
  expect_true(all(is.finite(fitted(fit))))
})

test_that("new-data predictions, tables and emmeans back-transform as they do for glm", {
  skip_if_not_installed("emmeans")
  d <- sim()
  nd <- d[c(1:4, 1), ]
  nd$x[5] <- NA
  for (fam in list(binomial("probit"), poisson("sqrt"))) {
    y <- if (fam$family == "binomial") "yb" else "yp"
    fo <- stats::as.formula(paste(y, "~ x + f"))
    g <- glm(fo, fam, data = d, control = glm.control(epsilon = 1e-14, maxit = 100))
    fit <- quiet(tarnel(fo, data = d, family = fam))
    for (type in c("link", "response")) {
      pg <- predict(g, nd, type = type, se.fit = TRUE)
      pt <- predict(fit, newdata = nd, type = type, se.fit = TRUE)
      expect_equal(pt$fit, pg$fit, tolerance = 1e-6, label = paste(fam$link, type))
      expect_equal(pt$se.fit, pg$se.fit, tolerance = 1e-5, label = paste(fam$link, type))
    }
    expect_equal(predict(fit, newdata = nd), predict(g, nd), tolerance = 1e-6)
    for (type in c("link", "response")) {
      eg <- summary(emmeans::emmeans(g, ~ f, type = type))
      et <- summary(emmeans::emmeans(fit, ~ f, type = type))
      expect_equal(names(et), names(eg))
      for (k in 2:3) expect_equal(et[[k]], eg[[k]], tolerance = 1e-6, label = paste(fam$link, type, names(eg)[k]))
    }
    # Tables from the working model: the link scale and the means.
    tab <- quiet(predict(fit, classify = "f"))$pvals
    eg <- summary(emmeans::emmeans(g, ~ f))
    expect_equal(tab$predicted.value, eg$emmean, tolerance = 1e-6)
    expect_equal(tab$std.error, eg$SE, tolerance = 1e-6)
    eg <- summary(emmeans::emmeans(g, ~ f, type = "response"))
    expect_equal(tab$response, eg[[2]], tolerance = 1e-6)
    expect_equal(tab$response.se, eg$SE, tolerance = 1e-6)
  }
  # With a random term, the tables agree with the fit's own estimates.
  d$h <- factor(rep(1:12, length.out = nrow(d)))
  d$yp <- d$yp + rpois(nrow(d), as.integer(d$h) %% 3)
  fit <- quiet(tarnel(yp ~ x + f, random = ~ h, data = d, family = poisson()))
  tab <- quiet(predict(fit, classify = "f"))$pvals
  et <- summary(emmeans::emmeans(fit, ~ f, type = "response"))
  expect_equal(tab$response, et$rate, tolerance = 1e-5)
  expect_equal(tab$response.se, et$SE, tolerance = 1e-4)
})

test_that("offsets, in the formula or as an argument, enter the linear predictor as in glm", {
  d <- sim()
  d$t <- rep(c(1, 2.5, 4), length.out = nrow(d))
  d$yt <- rpois(nrow(d), d$t * exp(0.5 + 0.3 * d$x))
  g <- glm(yt ~ x + f, poisson, data = d, offset = log(t), control = glm.control(epsilon = 1e-14))
  f1 <- quiet(tarnel(yt ~ x + f + offset(log(t)), data = d, family = poisson()))
  f2 <- quiet(tarnel(yt ~ x + f, data = d, family = poisson(), offset = log(t)))
  for (f in list(f1, f2)) {
    expect_equal(coef(f), coef(g), tolerance = 1e-6)
    expect_equal(deviance(f), deviance(g), tolerance = 1e-6)
    expect_equal(fitted(f), unname(fitted(g)), tolerance = 1e-6, ignore_attr = TRUE)
    expect_equal(residuals(f, "working"), unname(residuals(g, "working")), tolerance = 1e-6)
  }
  nd <- d[1:5, ]
  nd$t <- c(1, 2, 3, 4, 5)
  expect_equal(predict(f1, newdata = nd, type = "response"), predict(g, nd, type = "response"), tolerance = 1e-6,
               ignore_attr = TRUE)
  # A constant offset c with a random term moves only the intercept, by -c.
  d$h <- factor(rep(1:12, length.out = nrow(d)))
  d$c <- 0.7
  a <- quiet(tarnel(yt ~ x, random = ~ h, data = d, family = poisson()))
  b <- quiet(tarnel(yt ~ x, random = ~ h, data = d, family = poisson(), offset = c))
  expect_equal(coef(b) + c(0.7, 0), coef(a), tolerance = 1e-6)
  expect_equal(b$varcomp$component, a$varcomp$component, tolerance = 1e-5)
  expect_equal(fitted(b), fitted(a), tolerance = 1e-6)
  # Offsets of a binomial model, with a subset.
  gb <- glm(yb ~ x, binomial, data = d, offset = x / 3, subset = f != "a")
  fb <- quiet(tarnel(yb ~ x + offset(x / 3), data = d, family = binomial(), subset = f != "a"))
  expect_equal(unname(coef(fb)), unname(coef(gb)), tolerance = 1e-6)
  expect_equal(deviance(fb), deviance(gb), tolerance = 1e-6)
})
