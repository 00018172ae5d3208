# REML fits against independent results: the reference cases (dense REML
# computed outside tarnel), dense computations in R, and lme4.

quiet <- function(expr) { utils::capture.output(r <- expr); r }

ref_dir <- function(case) system.file("extdata", "reference", case, package = "tarnel")
ref_data <- function(case) utils::read.csv(file.path(ref_dir(case), "data.csv"), stringsAsFactors = TRUE)
# The few fields of expected.json the tests read.
ref_expected <- function(case) {
  txt <- paste(readLines(file.path(ref_dir(case), "expected.json")), collapse = " ")
  num <- function(key) as.numeric(sub(sprintf('.*"%s":\\s*([-0-9.eE+]+).*', key), "\\1", txt))
  vp <- sub('.*"variance_parameters":\\s*\\{([^}]*)\\}.*', "\\1", txt)
  pairs <- regmatches(vp, gregexpr('"[^"]+":\\s*[-0-9.eE+]+', vp))[[1]]
  list(vp = setNames(as.numeric(sub('.*:\\s*', "", pairs)), sub('^"([^"]+)".*', "\\1", pairs)),
       loglik = num("loglik_engine"), loglik_std = num("loglik_standard_REML"), n = num("n_records"))
}

# Dense REML, standard convention, for V and full X (rank-deficient allowed).
dense_reml <- function(V, X, y) {
  L <- t(chol(V))
  Xw <- forwardsolve(L, X); yw <- forwardsolve(L, y)
  q <- qr(Xw); r <- q$rank
  e <- qr.resid(q, yw)
  R <- qr.R(q)[seq_len(r), seq_len(r), drop = FALSE]
  n <- length(y)
  list(ll = -0.5 * ((n - r) * log(2 * pi) + 2 * sum(log(diag(L))) + 2 * sum(log(abs(diag(R)))) + sum(e^2)),
       xb = drop(L %*% qr.fitted(q, yw)), rank = r)
}
# The dense average information matrix of a model V = sum theta_k D_k.
dense_ai <- function(theta, D, X, y) {
  V <- Reduce(`+`, Map(`*`, theta, D))
  Vi <- solve(V)
  VX <- Vi %*% X
  P <- Vi - VX %*% solve(t(X) %*% VX, t(VX))  # X of full rank here
  Py <- P %*% y
  w <- lapply(D, function(Dk) Dk %*% Py)
  outer(seq_along(D), seq_along(D), Vectorize(function(i, j) 0.5 * drop(t(w[[i]]) %*% P %*% w[[j]])))
}
zmat <- function(f) { f <- factor(f); m <- outer(as.integer(f), seq_len(nlevels(f)), `==`) * 1; m }
# The numerator relationship matrix by the tabular method (parents first).
tabular_A <- function(ped) {
  n <- nrow(ped)
  s <- match(ped[[2]], ped[[1]]); m <- match(ped[[3]], ped[[1]])
  A <- matrix(0, n, n, dimnames = list(ped[[1]], ped[[1]]))
  for (i in seq_len(n)) {
    j <- seq_len(i - 1L)
    if (i > 1L) A[i, j] <- A[j, i] <- 0.5 * ((if (is.na(s[i])) 0 else A[j, s[i]]) + (if (is.na(m[i])) 0 else A[j, m[i]]))
    A[i, i] <- 1 + if (is.na(s[i]) || is.na(m[i])) 0 else 0.5 * A[s[i], m[i]]
  }
  A
}
animal_ped <- utils::read.csv(file.path(ref_dir("animal"), "pedigree.csv"))
animal_ainv <- pedigree_inverse(animal_ped)
animal_Z <- function(d) outer(match(d$animal, animal_ped$id), seq_len(nrow(animal_ped)), `==`) * 1
ar1 <- function(n, rho) rho^abs(outer(seq_len(n), seq_len(n), `-`))

# A fit, or a recorded failure carrying the engine's text.
fit_or_fail <- function(expr, what) {
  tryCatch(quiet(expr), error = function(e) { fail(paste(what, conditionMessage(e))); NULL })
}
expect_abs <- function(got, want, tol, info = NULL) expect_lte(abs(got - want), tol, label = paste(info, signif(got, 8), "vs", signif(want, 8)))
expect_close <- function(got, want, rel = 0.01, what = "") {
  expect_true(all(abs(got - want) <= rel * abs(want)), info = sprintf("%s: got %s, want %s", what,
              paste(signif(got, 6), collapse = " "), paste(signif(want, 6), collapse = " ")))
}

# Each reference case: the fit, the reference values in the fit's order,
# and the dense V built from given components.
ref_cases <- list(
  dyestuff = list(fit = function(d) tarnel(Yield ~ 1, random = ~ Batch, data = d),
                  par = c("Batch", "residual"), X = function(d) matrix(1, nrow(d)),
                  D = function(d) list(tcrossprod(zmat(d$Batch)), diag(nrow(d))), y = "Yield"),
  penicillin = list(fit = function(d) tarnel(diameter ~ 1, random = ~ plate + sample, data = d),
                    par = c("plate", "sample", "residual"), X = function(d) matrix(1, nrow(d)),
                    D = function(d) list(tcrossprod(zmat(d$plate)), tcrossprod(zmat(d$sample)), diag(nrow(d))),
                    y = "diameter"),
  oats = list(fit = function(d) tarnel(yield ~ nitro * Variety, random = ~ Block + Block:Variety, data = d),
              prep = function(d) transform(d, nitro = factor(nitro)),
              par = c("Block", "Block:Variety", "residual"),
              X = function(d) model.matrix(~ nitro * Variety, d),
              D = function(d) list(tcrossprod(zmat(d$Block)), tcrossprod(zmat(interaction(d$Block, d$Variety))), diag(nrow(d))),
              y = "yield"),
  orthodont_rr = list(fit = function(d) tarnel(distance ~ age + Sex, random = ~ coefs(Subject, ~ age), data = d),
                      par = c("Subject: (Intercept)", "Subject: cov((Intercept), age)",
                              "Subject: age", "residual"),
                      X = function(d) model.matrix(~ age + Sex, d),
                      D = function(d) { Z <- zmat(d$Subject); Za <- Z * d$age
                        list(tcrossprod(Z), Z %*% t(Za) + Za %*% t(Z), tcrossprod(Za), diag(nrow(d))) },
                      y = "distance"),
  hetres = list(fit = function(d) tarnel(y ~ group, random = ~ block, residual = ~ het(group), data = d),
                prep = function(d) transform(d, block = factor(block)),
                par = c("block", "residual: group a", "residual: group b", "residual: group c"),
                X = function(d) model.matrix(~ group, d),
                D = function(d) c(list(tcrossprod(zmat(d$block))), lapply(levels(d$group), function(l) diag(as.numeric(d$group == l)))),
                y = "y"),
  field_ar1ar1 = list(fit = function(d) tarnel(yield ~ variety, random = ~ rep, residual = ~ cov_ar1(col):cov_ar1(row), data = d),
                      prep = function(d) transform(d, variety = factor(variety), rep = factor(rep)),
                      par = c("rep", "residual", "residual: col ar1", "residual: row ar1"),
                      X = function(d) model.matrix(~ variety, d),
                      V = function(d, p) p[1] * tcrossprod(zmat(d$rep)) +
                        p[2] * kronecker(ar1(length(unique(d$col)), p[3]), ar1(length(unique(d$row)), p[4])),
                      y = "yield"),
  animal = list(fit = function(d) tarnel(y ~ sex, random = ~ cov_known(animal, animal_ainv), data = d),
                par = c("cov_known(animal, animal_ainv): variance", "residual"),
                X = function(d) model.matrix(~ sex, d),
                D = function(d) { Z <- animal_Z(d); list(Z %*% tabular_A(animal_ped) %*% t(Z), diag(nrow(d))) },
                y = "y")
)

dense_V <- function(case, d, p) {
  if (!is.null(case$V)) return(case$V(d, p))
  Reduce(`+`, Map(`*`, p, case$D(d)))
}

test_that("every reference case fits: parameters, log-likelihood, fitted X b and standard errors", {
  for (nm in names(ref_cases)) {
    case <- ref_cases[[nm]]
    d <- ref_data(nm)
    if (!is.null(case$prep)) d <- case$prep(d)
    ex <- ref_expected(nm)
    # the dense computation reproduces the reference log-likelihood first
    dn <- dense_reml(dense_V(case, d, unname(ex$vp)), case$X(d), d[[case$y]])
    expect_equal(dn$ll, ex$loglik_std, tolerance = 1e-6, info = nm)
    fit <- fit_or_fail(case$fit(d), nm)
    if (is.null(fit)) next
    expect_true(fit$converged, info = nm)
    got <- fit$varcomp_all[case$par, "component"]
    corr <- grepl("ar1$", case$par)
    expect_close(got[!corr], unname(ex$vp)[!corr], what = nm)
    expect_true(all(abs(got[corr] - unname(ex$vp)[corr]) <= 0.005), info = nm)
    expect_abs(fit$loglik, ex$loglik, 0.05, info = nm)
    expect_abs(as.numeric(logLik(fit)), ex$loglik_std, 0.05, info = nm)
    expect_true(max(abs(fitted(fit, "fixed") - dn$xb) / abs(dn$xb)) < 1e-4, info = nm)
    expect_equal(fit$nedf, nrow(d) - dn$rank, info = nm)
    # standard errors from the dense average information at the estimates
    if (nm %in% c("oats", "field_ar1ar1")) next  # X not of full rank; V not linear
    ai <- dense_ai(got, case$D(d), case$X(d), d[[case$y]])
    expect_close(fit$varcomp_all[case$par, "std.error"], sqrt(diag(solve(ai))), rel = 0.02, what = nm)
  }
})

test_that("fixed effects: the covariance of the fitted X b is the GLS one at the estimates", {
  d <- transform(ref_data("oats"), nitro = factor(nitro))
  fit <- fit_or_fail(tarnel(yield ~ nitro * Variety, random = ~ Block + Block:Variety, data = d, keep_design = TRUE), "oats")
  if (is.null(fit)) return()
  V <- dense_V(ref_cases$oats, d, fit$varcomp_all[ref_cases$oats$par, "component"])
  X <- model.matrix(~ nitro * Variety, d)
  # coefficients and their covariance in R's coding of the same formula
  expect_equal(names(coef(fit)), colnames(X))
  cov_fit <- X %*% vcov(fit) %*% t(X)
  cov_gls <- X %*% solve(t(X) %*% solve(V, X)) %*% t(X)
  expect_lt(max(abs(cov_fit - cov_gls)) / max(abs(cov_gls)), 1e-4)
  expect_lt(max(abs(X %*% coef(fit) - fitted(fit, "fixed"))), 1e-8 * max(abs(d$yield)))
  expect_equal(unname(fitted(fit)), unname(d$yield - residuals(fit)), tolerance = 1e-8)
})

test_that("a field with missing plots is completed and agrees with dense REML on the observed plots", {
  d <- ref_cases$field_ar1ar1$prep(ref_data("field_ar1ar1"))
  drop <- c(7, 50, 51, 200)
  dd <- d[-drop, ]
  fit <- quiet(tarnel(yield ~ variety, random = ~ rep, residual = ~ cov_ar1(col):cov_ar1(row), data = dd))
  expect_true(fit$converged)
  expect_equal(length(fitted(fit)), nrow(dd))
  expect_equal(fit$records, nrow(d))
  Vfull <- function(p) ref_cases$field_ar1ar1$V(d, p)[-drop, -drop]
  X <- model.matrix(~ variety, dd)
  obj <- function(p) -dense_reml(Vfull(c(exp(p[1:2]), tanh(p[3:4]))), X, dd$yield)$ll
  ex <- ref_expected("field_ar1ar1")$vp
  o <- optim(c(log(ex[1:2]), atanh(ex[3:4])), obj, method = "BFGS")
  want <- c(exp(o$par[1:2]), tanh(o$par[3:4]))
  got <- fit$varcomp_all[ref_cases$field_ar1ar1$par, "component"]
  expect_close(got[1:2], want[1:2])
  expect_true(all(abs(got[3:4] - want[3:4]) < 0.005))
  expect_abs(as.numeric(logLik(fit)), -o$value, 0.05)
})

test_that("constraints: a fixed ratio, equal variances and a linear constraint", {
  d <- ref_data("penicillin")
  X <- matrix(1, nrow(d)); y <- d$diameter
  Dp <- ref_cases$penicillin$D(d)
  # plate ratio held at 2: the remaining REML problem in sample ratio and scale
  fit <- quiet(tarnel(diameter ~ 1, random = ~ plate + sample, data = d, start = c(plate = 2),
                      constrain = c(plate = "fixed")))
  expect_equal(fit$varcomp["plate", "constraint"], "fixed")
  expect_equal(unname(fit$gammas["plate"]), 2)
  obj <- function(p) -dense_reml(exp(p[2]) * (2 * Dp[[1]] + exp(p[1]) * Dp[[2]] + Dp[[3]]), X, y)$ll
  o <- optim(c(log(5), log(0.3)), obj, method = "BFGS")
  expect_close(fit$varcomp[c("sample", "residual"), "component"], exp(o$par[2]) * c(exp(o$par[1]), 1))
  # plate and sample held equal
  fit <- quiet(tarnel(diameter ~ 1, random = ~ plate + sample, data = d, equal = list(c("plate", "sample"))))
  obj <- function(p) -dense_reml(exp(p[1]) * (Dp[[1]] + Dp[[2]]) + exp(p[2]) * Dp[[3]], X, y)$ll
  o <- optim(c(0, log(0.3)), obj, method = "BFGS")
  expect_close(fit$varcomp[c("plate", "sample", "residual"), "component"], exp(o$par[c(1, 1, 2)]))
  expect_abs(as.numeric(logLik(fit)), -o$value, 0.05)
  # plate - 0.5 sample held at its start (0.2 - 0.5 * 0.4 = 0)
  A <- matrix(c(1, -0.5), 2, dimnames = list(c("plate", "sample"), NULL))
  fit <- quiet(tarnel(diameter ~ 1, random = ~ plate + sample, data = d, start = c(plate = 0.2, sample = 0.4), lincon = A))
  g <- fit$gammas
  expect_abs(unname(g["plate"] - 0.5 * g["sample"]), 0, 1e-6)
})

test_that("update() refits from the estimates, and the iteration log and AI are kept", {
  d <- ref_data("dyestuff")
  fit <- quiet(tarnel(Yield ~ 1, random = ~ Batch, data = d))
  again <- quiet(update(fit))
  expect_true(again$converged)
  expect_lte(nrow(again$iterations), nrow(fit$iterations))
  expect_equal(again$varcomp$component, fit$varcomp$component, tolerance = 1e-3)
  expect_equal(tail(fit$iterations$loglik, 1), fit$loglik, tolerance = 1e-6)
  expect_equal(dim(fit$ai), c(2L, 2L))
  expect_equal(vcov(fit, "variance")["Batch", "Batch"], fit$varcomp["Batch", "std.error"]^2)
})

test_that("faults reach R: non-convergence warns with the engine's text; bad structures are R errors", {
  d <- ref_data("penicillin")
  expect_warning(quiet(tarnel(diameter ~ 1, random = ~ plate + sample, data = d, control = tarnel_control(maxiter = 2))),
                 "LogLikelihood not converged")
  fit <- suppressWarnings(quiet(tarnel(diameter ~ 1, random = ~ plate + sample, data = d,
                                       control = tarnel_control(workspace = 2000))))
  expect_gt(fit$workspace, 2000)
  expect_error(tarnel(diameter ~ 1, random = ~ plate, data = d, control = tarnel_control(workspace = 500, max_workspace = 1000)),
               "Insufficient workspace|limit of 1000 words")
  expect_error(tarnel(diameter ~ 1, residual = ~ cov_us(plate), data = d), "variances go in het")
  expect_error(tarnel(diameter ~ 1, residual = ~ cov_ar1(plate):cov_ar1(sample), data = rbind(d, d[1, ])), "share one cell")
  expect_error(tarnel(diameter ~ 1, random = ~ coefs(plate, ~ sample), data = d), "must be a covariate")
  expect_error(tarnel(diameter ~ 1, random = ~ plate, data = d, start = c(nothere = 1)), "no parameter named 'nothere'")
  expect_error(tarnel(diameter ~ 1, random = ~ plate, data = d, constrain = c(plate = "frozen")), "must be \"fixed\"")
  expect_error(tarnel(diameter ~ 1, random = ~ cov_ar2(plate), data = droplevels(d[d$plate %in% c("a", "b"), ])),
               "at least 3")
})

lme4_vc <- function(m) {
  vc <- as.data.frame(lme4::VarCorr(m))
  setNames(vc$vcov, ifelse(is.na(vc$var2), paste(vc$grp, vc$var1), paste(vc$grp, vc$var1, vc$var2)))
}

test_that("agreement with lme4 on data sets that lme4 and nlme ship", {
  skip_if_not_installed("lme4")
  skip_if_not_installed("nlme")
  sleep <- lme4::sleepstudy
  pastes <- lme4::Pastes
  machines <- as.data.frame(nlme::Machines); machines$Worker <- factor(machines$Worker, ordered = FALSE)
  ergo <- as.data.frame(nlme::ergoStool); ergo$Subject <- factor(ergo$Subject, ordered = FALSE)
  rail <- as.data.frame(nlme::Rail); rail$Rail <- factor(rail$Rail, ordered = FALSE)
  cake <- lme4::cake; cake$temperature <- factor(cake$temperature, ordered = FALSE)
  orth <- as.data.frame(nlme::Orthodont); orth$Subject <- factor(orth$Subject, ordered = FALSE)
  tfit <- function(expr) tryCatch(quiet(expr), error = identity)
  simple <- function(...) c(setNames(paste(c(...), "(Intercept)"), c(...)), residual = "Residual NA")
  cases <- list(
    list(tfit(tarnel(Reaction ~ Days, random = ~ coefs(Subject, ~ Days), data = sleep)),
         lme4::lmer(Reaction ~ Days + (Days | Subject), sleep, REML = TRUE),
         c("Subject: (Intercept)" = "Subject (Intercept)", "Subject: Days" = "Subject Days",
           "Subject: cov((Intercept), Days)" = "Subject (Intercept) Days", residual = "Residual NA")),
    list(tfit(tarnel(Reaction ~ Days, random = ~ coefs(Subject, ~ Days, cov = "diag"), data = sleep)),
         lme4::lmer(Reaction ~ Days + (Days || Subject), sleep, REML = TRUE),
         c("Subject: (Intercept)" = "Subject (Intercept)",
           "Subject: Days" = "Subject.1 Days",
           residual = "Residual NA")),
    list(tfit(tarnel(strength ~ 1, random = ~ batch + batch:cask, data = pastes)),
         lme4::lmer(strength ~ 1 + (1 | batch) + (1 | batch:cask), pastes, REML = TRUE),
         simple("batch", "batch:cask")),
    list(tfit(tarnel(score ~ Machine, random = ~ Worker + Worker:Machine, data = machines)),
         lme4::lmer(score ~ Machine + (1 | Worker) + (1 | Worker:Machine), machines, REML = TRUE),
         simple("Worker", "Worker:Machine")),
    list(tfit(tarnel(effort ~ Type, random = ~ Subject, data = ergo)),
         lme4::lmer(effort ~ Type + (1 | Subject), ergo, REML = TRUE), simple("Subject")),
    list(tfit(tarnel(angle ~ recipe * temperature, random = ~ recipe:replicate, data = cake)),
         lme4::lmer(angle ~ recipe * temperature + (1 | recipe:replicate), cake, REML = TRUE),
         simple("recipe:replicate")),
    list(tfit(tarnel(distance ~ age + Sex, random = ~ Subject, data = orth)),
         lme4::lmer(distance ~ age + Sex + (1 | Subject), orth, REML = TRUE), simple("Subject")),
    list(tfit(tarnel(travel ~ 1, random = ~ Rail, data = rail)),
         lme4::lmer(travel ~ 1 + (1 | Rail), rail, REML = TRUE), simple("Rail"))
  )
  for (k in seq_along(cases)) {
    fit <- cases[[k]][[1]]
    if (inherits(fit, "error")) { fail(paste("lme4 case", k, conditionMessage(fit))); next }
    lm4 <- cases[[k]][[2]]
    map <- cases[[k]][[3]]
    want <- lme4_vc(lm4)
    got <- fit$varcomp_all[names(map), "component"]
    w <- want[paste(map)]
    cov <- grepl(":\\(Intercept\\)$", names(map))
    expect_close(got[!cov], unname(w[!cov]), what = paste("lme4 case", k))
    if (any(cov)) {
      # the covariance through the correlation, to 0.005
      r_fit <- got[cov] / sqrt(got[1] * got[2])
      r_lme <- w[cov] / sqrt(w[1] * w[2])
      expect_lt(abs(r_fit - r_lme), 0.005)
    }
    expect_abs(as.numeric(logLik(fit)), as.numeric(logLik(lm4)), 0.05, info = paste("lme4 case", k))
  }
})

test_that("a variance estimated at zero is held at its boundary with a warning (lme4's Dyestuff2)", {
  skip_if_not_installed("lme4")
  expect_warning(fit <- quiet(tarnel(Yield ~ 1, random = ~ Batch, data = lme4::Dyestuff2)), "held at a boundary: Batch")
  expect_equal(fit$varcomp["Batch", "constraint"], "boundary")
  m <- suppressMessages(lme4::lmer(Yield ~ 1 + (1 | Batch), lme4::Dyestuff2, REML = TRUE))
  expect_close(fit$varcomp["residual", "component"], sigma(m)^2)
  expect_abs(as.numeric(logLik(fit)), as.numeric(logLik(m)), 0.05)
})

test_that("direct products in random terms: DIAG x I and AR1 x I against dense REML", {
  d <- transform(ref_data("oats"), nitro = factor(nitro))
  X <- model.matrix(~ nitro, d)
  Zs <- lapply(levels(d$Variety), function(l) tcrossprod(zmat(d$Block) * (d$Variety == l)))
  fit <- fit_or_fail(tarnel(yield ~ nitro, random = ~ cov_diag(Variety):Block, data = d), "DIAG x I")
  obj <- function(p) -dense_reml(Reduce(`+`, Map(`*`, exp(p[1:3]), Zs)) + exp(p[4]) * diag(nrow(d)), X, d$yield)$ll
  o <- optim(log(c(200, 200, 400, 160)), obj, method = "BFGS")
  if (!is.null(fit)) {
    expect_close(fit$varcomp$component, exp(o$par), what = "DIAG x I")
    expect_abs(as.numeric(logLik(fit)), -o$value, 0.05)
  }
  # AR1 along six times within 40 units, an overall variance, and the residual
  set.seed(5)
  nu <- 40; nt <- 6
  G <- 4 * ar1(nt, 0.6)
  u <- as.vector(t(chol(G)) %*% matrix(rnorm(nt * nu), nt))
  s <- data.frame(unit = factor(rep(seq_len(nu), each = nt)), time = factor(rep(seq_len(nt), nu)))
  s$y <- 10 + as.numeric(s$time) * 0.5 + u + rnorm(nrow(s))
  fit <- fit_or_fail(tarnel(y ~ time, random = ~ cov_ar1(time):unit, data = s), "AR1 x I")
  Z <- zmat(interaction(s$time, s$unit, lex.order = TRUE))  # time slowest
  X <- model.matrix(~ time, s)
  obj <- function(p) -dense_reml(exp(p[1]) * Z %*% kronecker(ar1(nt, tanh(p[2])), diag(nu)) %*% t(Z) +
                                    exp(p[3]) * diag(nrow(s)), X, s$y)$ll
  o <- optim(c(log(4), atanh(0.5), 0), obj, method = "BFGS")
  if (!is.null(fit)) {
    vc <- fit$varcomp
    expect_close(vc[c("cov_ar1(time):unit: variance", "residual"), "component"], exp(o$par[c(1, 3)]), what = "AR1 x I")
    expect_abs(vc["cov_ar1(time):unit: time ar1", "component"], tanh(o$par[2]), 0.005)
    expect_abs(as.numeric(logLik(fit)), -o$value, 0.05)
  }
})

test_that("an incomplete field grid is completed in column-major order, each record kept once", {
  d <- ref_data("field_ar1ar1")
  drop <- c(3, 100, 288)
  dd <- d[-drop, ][sample(nrow(d) - 3), ]  # shuffled, three plots missing
  ns <- asNamespace("tarnel")
  res <- ns$parse_residual(~ cov_ar1(col):cov_ar1(row), dd, globalenv())
  a <- ns$arrange_records(dd, res, "yield", drop_missing = TRUE)
  expect_equal(nrow(a$data), length(unique(d$col)) * length(unique(d$row)))
  expect_equal(a$data$col, rep(sort(unique(d$col)), each = length(unique(d$row))))
  expect_equal(a$data$row, rep(sort(unique(d$row)), length(unique(d$col))))
  kept <- !is.na(a$rows)
  expect_equal(sum(!kept), 3L)
  expect_true(all(is.na(a$data$yield[!kept])))
  expect_equal(a$data$yield[kept], dd$yield[a$rows[kept]])
  expect_equal(sort(a$rows[kept]), seq_len(nrow(dd)))
})

test_that("known matrices: a genomic-style dense matrix against dense REML, and its three forms agree", {
  set.seed(11)
  nid <- 60; nm <- 200
  M <- matrix(rbinom(nid * nm, 2, 0.3), nid) - 0.6
  G <- tcrossprod(M) / nm + diag(0.05, nid)
  ids <- sprintf("g%02d", seq_len(nid))
  dimnames(G) <- list(ids, ids)
  u <- drop(t(chol(G)) %*% rnorm(nid)) * 1.5
  rec <- sample(ids[1:50], 150, replace = TRUE)  # ten genotypes without records
  d <- data.frame(id = rec, env = factor(sample(c("a", "b", "c"), 150, TRUE)))
  d$y <- 5 + as.integer(d$env) + u[match(d$id, ids)] + rnorm(150)
  Z <- outer(match(d$id, ids), seq_len(nid), `==`) * 1
  X <- model.matrix(~ env, d)
  obj <- function(p) -dense_reml(exp(p[1]) * Z %*% G %*% t(Z) + exp(p[2]) * diag(nrow(d)), X, d$y)$ll
  o <- optim(c(0, 0), obj, method = "BFGS")
  Gi <- solve(G)
  forms <- list(matrix = quote(cov_known(id, G)), dense_inverse = quote(cov_known(id, Gi, inverse = TRUE)),
                sparse_inverse = quote(cov_known(id, Matrix::Matrix(Gi, sparse = TRUE), TRUE)))
  for (k in names(forms)) {
    rf <- eval(call("~", forms[[k]]))
    fit <- fit_or_fail(tarnel(y ~ env, random = rf, data = d), k)
    if (is.null(fit)) next
    vc <- fit$varcomp_all
    expect_close(vc[c(1, nrow(vc)), "component"], exp(o$par), what = k)
    expect_abs(as.numeric(logLik(fit)), -o$value, 0.05, info = k)
    # at the fit's own estimates: X b by GLS, and the effects of every
    # genotype, records or not, in the order of G: s G Z' V^-1 (y - X b)
    p <- vc[c(1, nrow(vc)), "component"]
    V <- p[1] * Z %*% G %*% t(Z) + p[2] * diag(nrow(d))
    xb <- dense_reml(V, X, d$y)$xb
    expect_lt(max(abs(fitted(fit, "fixed") - xb) / abs(xb)), 1e-4)
    blup <- drop(p[1] * G %*% t(Z) %*% solve(V, d$y - xb))
    expect_true(all(endsWith(names(fit$ranef), ids)), info = k)
    expect_lt(max(abs(fit$ranef - blup)), 1e-4 * max(abs(blup)))
  }
})

test_that("known matrices: levels matched by name, and clear errors for what cannot be used", {
  d <- ref_data("animal")
  sh <- d[sample(nrow(d)), ]  # record order does not matter: levels match by name
  f1 <- fit_or_fail(tarnel(y ~ sex, random = ~ cov_known(animal, animal_ainv), data = sh), "shuffled")
  if (!is.null(f1)) expect_abs(f1$varcomp$component[1], ref_expected("animal")$vp[["additive"]], 0.01)
  bad <- d; bad$animal[3] <- 99999
  expect_error(tarnel(y ~ sex, random = ~ cov_known(animal, animal_ainv), data = bad), "no row in the matrix.*99999")
  G <- diag(3)
  expect_error(tarnel(y ~ sex, random = ~ cov_known(animal, G), data = d), "row names")
  dimnames(G) <- list(1:3, 1:3); G[1, 2] <- 0.5
  expect_error(tarnel(y ~ sex, random = ~ cov_known(animal, G), data = d), "not symmetric")
  G <- matrix(1, 2, 2, dimnames = list(c("1", "2"), c("1", "2")))
  expect_error(tarnel(y ~ sex, random = ~ cov_known(animal, G), data = d), "not positive definite")
  expect_error(tarnel(y ~ sex, random = ~ cov_known(animal, animal_ainv, FALSE), data = d), "is an inverse")
  expect_error(tarnel(y ~ sex, residual = ~ cov_known(animal, animal_ainv), data = d), "random formula")
  # A damaged table of known matrices reaches the entry: an error, no crash.
  ns <- asNamespace("tarnel")
  res <- ns$parse_residual(NULL, d, environment())
  model <- ns$parse_model(y ~ sex, ~ cov_known(animal, animal_ainv), res, d, NULL, "drop", "fail", environment())
  table <- ns$build_term_table(model)
  struc <- ns$build_struc(model, table)
  damage <- list(function(a) { a$lcainv[3] <- 1000000L; a },              # values past the store
                 function(a) { a$llainv[2] <- 1000000L; a },              # a row start past the store
                 function(a) { a$lcainv[1] <- 7L; a },                # order differs from the term's
                 function(a) { a$lcainv[2] <- 5L; a },                # an unknown form
                 function(a) { n <- a$lcainv[1]; m <- a$llainv[n + 1L] - 1L
                   a$llainv[n + 2L + m] <- -2L; a },                       # an unknown mark of the transposed index
                 function(a) { a$llainv[length(a$llainv)] <- 1000000L; a }, # a transposed position past the store
                 function(a) { k <- length(a$llainv); a$llainv[k] <- a$llainv[k - 1L]; a })  # a value listed twice
  for (k in seq_along(damage)) {
    bad <- struc
    bad$ainv <- damage[[k]](bad$ainv)
    args <- ns$ctrn_args(model, table, bad, FALSE, tarnel_control(), 2e6)
    status <- quiet(.Call(ns$C_ctrn, args$datafr, args$iarg, args$dpmv, args$inter, args$struc, args$ainv,
                          args$glm, args$predict, args$constr, args$mbfList, args$control, args$aiopt,
                          args$trn, args$design))
    expect_true(status != 0L && nzchar(ns$engine_error_text(args$trn$errtxt)), info = paste("damage", k))
  }
  bad <- struc
  bad$ainv$nainv <- 2L
  args <- ns$ctrn_args(model, table, bad, FALSE, tarnel_control(), 2e6)
  expect_error(.Call(ns$C_ctrn, args$datafr, args$iarg, args$dpmv, args$inter, args$struc, args$ainv,
                     args$glm, args$predict, args$constr, args$mbfList, args$control, args$aiopt,
                     args$trn, args$design), "nainv")
})

test_that("an order kept in EQNORD.BIN serves a later fit of the same model", {
  old <- setwd(tempdir())
  on.exit({ unlink("EQNORD.BIN"); setwd(old) })
  unlink("EQNORD.BIN")
  set.seed(5)
  n <- 12000
  d <- data.frame(A = factor(sample(4000, n, TRUE)), B = factor(sample(1500, n, TRUE)))
  d$y <- rnorm(4000)[as.integer(d$A)] + rnorm(1500, sd = 0.5)[as.integer(d$B)] + rnorm(n)
  ctl <- tarnel_control(keep_order = TRUE, workspace = 2e7)
  f1 <- tarnel(y ~ 1, random = ~ A + B, data = d, control = ctl)
  expect_true(file.exists("EQNORD.BIN"))
  f2 <- tarnel(y ~ 1, random = ~ A + B, data = d, control = ctl)
  expect_equal(f2$loglik, f1$loglik, tolerance = 1e-8)
  expect_equal(f2$varcomp$component, f1$varcomp$component, tolerance = 1e-6)
})

test_that("weights: R = sigma2 W^-1 against dense REML", {
  set.seed(2); n <- 120
  d <- data.frame(b = factor(sample(8, n, TRUE)), x = rnorm(n), w = runif(n, 0.5, 3))
  d$y <- 1 + d$x + rnorm(8)[d$b] + rnorm(n) / sqrt(d$w)
  fit <- tarnel(y ~ x, random = ~ b, data = d, weights = "w")
  X <- model.matrix(~ x, d); Z <- model.matrix(~ b - 1, d)
  obj <- function(p) -dense_reml(exp(p[1]) * tcrossprod(Z) + exp(p[2]) * diag(1 / d$w), X, d$y)$ll
  o <- optim(c(0, 0), obj, method = "BFGS", control = list(reltol = 1e-12))
  expect_equal(unname(fit$varcomp[c("b", "residual"), "component"]), exp(o$par), tolerance = 1e-4)
  expect_equal(fit$loglik_standard, -o$value, tolerance = 1e-6)
})
