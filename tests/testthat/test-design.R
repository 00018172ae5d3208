# The kept design against R's own model matrices and direct computations.

quiet <- function(expr) { utils::capture.output(r <- expr); r }
unname_rows <- function(D) { rownames(D) <- NULL; D }

full_mm <- function(formula, data) {
  facs <- intersect(names(data)[vapply(data, is.factor, TRUE)], all.vars(formula))
  ca <- lapply(facs, function(f) stats::contrasts(data[[f]], contrasts = FALSE))
  names(ca) <- facs
  stats::model.matrix(formula, data, contrasts.arg = ca)
}

# Design columns matched by name to R's model matrix, column for column.
expect_same_design <- function(fit, mm) {
  d <- fit$design
  expect_setequal(colnames(d), colnames(mm))
  expect_equal(unname(d), unname(mm[, colnames(d), drop = FALSE]), tolerance = 1e-12)
  expect_equal(fit$neq, ncol(mm) + 1L)
  expect_equal(fit$records, nrow(mm))
}

sim <- function(n = 60, seed = 3) {
  set.seed(seed)
  data.frame(y = rnorm(n), A = factor(sample(c("a1", "a2", "a3"), n, TRUE)),
             B = factor(sample(c("b1", "b2"), n, TRUE)), C = factor(sample(c("c1", "c2", "c3", "c4"), n, TRUE)),
             x = runif(n, 0.5, 3), z = rnorm(n), w = runif(n))
}

test_that("factors, covariates, interactions and nesting match model.matrix", {
  d <- sim()
  models <- list(y ~ A + B, y ~ A * B, y ~ A + x, y ~ A / C, y ~ x:A, y ~ A:B:C, y ~ 0 + A + z + A:z,
                 y ~ B * C + x * z)
  for (m in models) {
    fit <- quiet(tarnel(m, data = d, keep_design = TRUE))
    expect_same_design(fit, full_mm(m, d))
  }
})

test_that("random terms add their indicator columns after the fixed ones", {
  d <- sim()
  fit <- suppressWarnings(quiet(tarnel(y ~ x, random = ~ A + A:B, data = d, keep_design = TRUE)))
  expect_equal(colnames(fit$design)[1:2], c("(Intercept)", "x"))
  expect_same_design(fit, full_mm(~ x + A + A:B, d))
})

test_that("weights leave the design alone and are read from their column", {
  d <- sim()
  fit <- quiet(tarnel(y ~ A + x, data = d, weights = "w", keep_design = TRUE))
  expect_same_design(fit, full_mm(~ A + x, d))
  expect_error(tarnel(y ~ A, data = transform(d, w = -w), weights = "w"), "negative")
})

test_that("missing responses: drop, keep and estimate", {
  d <- sim()
  d$y[c(4, 9, 30)] <- NA
  fit <- quiet(tarnel(y ~ A + x, data = d, keep_design = TRUE))
  expect_equal(fit$records, 57L)
  expect_same_design(fit, full_mm(~ A + x, d[!is.na(d$y), ]))
  fit <- quiet(tarnel(y ~ A + x, data = d))
  expect_null(fit$design)
  expect_equal(c(fit$records, fit$neq, fit$nonzero), c(57L, 6L, 57L * 4L))
  dropped <- fit
  # A kept record keeps its row; its missing response gets an equation of
  # its own, so it leaves the likelihood: the fit is that of the records
  # with a response, never one of the missing mark as data.
  kept <- quiet(tarnel(y ~ A + x, data = d, na_response = "keep", keep_design = TRUE))
  fit <- quiet(tarnel(y ~ A + x, data = d, na_response = "estimate", keep_design = TRUE))
  mv <- matrix(0, 60, 3, dimnames = list(NULL, paste0("(missing)", 1:3)))
  mv[cbind(c(4, 9, 30), 1:3)] <- -1
  for (f in list(kept, fit)) {
    expect_equal(f$records, 60L)
    expect_same_design(f, cbind(full_mm(~ A + x, d), mv))
    expect_equal(f$loglik, dropped$loglik, tolerance = 1e-8)
    expect_equal(f$coefficients, dropped$coefficients, tolerance = 1e-8)
  }
})

test_that("missing design values: a clear fault, or left out", {
  d <- sim()
  d$x[5] <- NA
  d$A[7] <- NA
  expect_error(quiet(tarnel(y ~ A + x, data = d)), "Missing values in design variables/factors")
  fit <- quiet(tarnel(y ~ A + x + A:x, data = d, na_design = "zero", keep_design = TRUE))
  d0 <- d
  d0$x[5] <- 0
  d0$A[7] <- "a1"
  mm <- full_mm(~ A + x + A:x, d0)
  a7 <- grepl("^A", colnames(mm))
  mm[7, a7] <- 0
  expect_same_design(fit, mm)
  # a missing response with a missing design value is simply dropped
  d$y[5] <- NA
  fit <- quiet(tarnel(y ~ x, data = d[-7, ], keep_design = TRUE))
  expect_equal(fit$records, 58L)
})

test_that("transformations and comparisons agree with R, including their missing cases", {
  d <- sim()
  d$x[3] <- NA
  d$z[1:2] <- c(-0.5, 0)
  ok <- !is.na(d$x)
  fit <- quiet(tarnel(y ~ 0 + tr_log(x) + tr_exp(x, 1) + tr_sqrt(x, -1) + tr_inv(z) + tr_sin(x, 4) +
                        tr_cos(x, 4) + tr_pow(x, 1.5, -1) + tr_pow(x, 2) + above(z, 0.2) + below(z, 0.2),
                      data = d, na_design = "zero", keep_design = TRUE))
  D <- unname_rows(fit$design)
  pi32 <- 3.1415927410125732
  x <- ifelse(ok, d$x, NA)
  z0 <- function(v) ifelse(is.na(v) | !is.finite(v), 0, v)
  expect_equal(D[, "tr_log(x)"], z0(log(x)))
  expect_equal(D[, "tr_exp(x, 1)"], z0(exp(x + 1)))
  expect_equal(D[, "tr_sqrt(x, -1)"], z0(suppressWarnings(sqrt(x - 1))))
  expect_equal(D[, "tr_inv(z)"], z0(1 / d$z))
  expect_equal(D[, "tr_sin(x, 4)"], z0(sin(2 * pi32 * x / 4)))
  expect_equal(D[, "tr_cos(x, 4)"], z0(cos(2 * pi32 * x / 4)))
  expect_equal(D[, "tr_pow(x, 1.5, -1)"], z0(ifelse(x - 1 < 1e-9, 0, (x - 1)^1.5)))
  expect_equal(D[, "tr_pow(x, 2)"], z0(x^2))
  expect_equal(D[, "above(z, 0.2)"], as.numeric(d$z > 0.2))
  expect_equal(D[, "below(z, 0.2)"], as.numeric(d$z < 0.2))
  # log of a value at or below 0 is a missing design value
  d$x[ok][1] <- -1
  expect_error(quiet(tarnel(y ~ tr_log(x), data = d[ok, ])), "Missing values in design")
})

test_that("conditional terms: at() alone and in interactions", {
  d <- sim()
  fit <- quiet(tarnel(y ~ A + at(A, c("a2", "a3")):x + at(B, "b2"), data = d, keep_design = TRUE))
  D <- unname_rows(fit$design)
  expect_equal(D[, "at(A, a2):x"], ifelse(d$A == "a2", d$x, 0))
  expect_equal(D[, "at(A, a3):x"], ifelse(d$A == "a3", d$x, 0))
  expect_equal(D[, "at(B, b2)"], as.numeric(d$B == "b2"))
  fit <- quiet(tarnel(y ~ at(A, "a1"):C, data = d, keep_design = TRUE))
  mm <- full_mm(~ 0 + C, d) * (d$A == "a1")
  expect_equal(as.vector(fit$design[, -1]), as.vector(mm))
  expect_equal(colnames(fit$design)[-1], paste0("at(A, a1):", colnames(mm)))
})

test_that("polynomials, Helmert contrasts, grouping, record index and markers", {
  d <- sim()
  d$x[6] <- NA
  fit <- quiet(tarnel(y ~ opoly(x, 3) + helmert(C) + grp(C, list(g1 = c("c1", "c3"), g2 = "c4")) + rec(),
                      data = d, na_design = "zero", keep_design = TRUE))
  D <- unname_rows(fit$design)
  ok <- !is.na(d$x)
  P <- stats::poly(d$x[ok], 3)
  for (k in 1:3) {
    col <- D[ok, paste0("opoly(x, 3)", k)]
    expect_equal(abs(sum(col * P[, k])), 1, tolerance = 1e-10)  # same column up to sign
  }
  expect_true(all(D[!ok, grep("opoly", colnames(D))] == 0))
  H <- stats::contr.helmert(4)[as.integer(d$C), ]
  expect_equal(unname(D[, paste0("helmert(C)", 1:3)]), unname(H))
  expect_equal(unname(D[, "grp(C, list(g1 = c(\"c1\", \"c3\"), g2 = \"c4\"))g1"]), as.numeric(d$C %in% c("c1", "c3")))
  expect_equal(unname(D[, "grp(C, list(g1 = c(\"c1\", \"c3\"), g2 = \"c4\"))g2"]), as.numeric(d$C == "c4"))
  expect_equal(unname(D[, "rec()"]), as.numeric(seq_len(nrow(d))))
  # one effect a record: as a random term, so that the fit keeps residual df
  fit <- suppressWarnings(quiet(tarnel(y ~ 1, random = ~ rec(factor = TRUE), data = d[1:10, ], keep_design = TRUE)))
  expect_equal(unname(fit$design[, -1]), diag(10))

  set.seed(9)
  M <- matrix(sample(0:2, 3 * 7, TRUE), 3, 7, dimnames = list(c("a3", "a1", "a2"), paste0("m", 1:7)))
  M[2, 6] <- 0.5
  fit <- quiet(tarnel(y ~ 0 + marker(A, M, 6) + marker(A, M, "m2"), data = d, keep_design = TRUE))
  expect_equal(unname(fit$design[, 1]), unname(M[as.character(d$A), 6]))
  expect_equal(unname(fit$design[, 2]), unname(M[as.character(d$A), 2]))
})

test_that("bad input gives clear R errors before the engine runs", {
  d <- sim()
  expect_error(tarnel(y ~ nothere, data = d), "column 'nothere' is not in the data")
  expect_error(tarnel(A ~ x, data = d), "must be numeric, not a factor")
  d2 <- d
  d2$A <- factor(d2$A, levels = c(levels(d2$A), "zz"))
  expect_error(tarnel(y ~ A, data = d2), "unused levels: zz")
  d2$s <- as.character(d2$x)
  expect_error(tarnel(y ~ tr_log(s), data = d2), "must be numeric")
  d2$na <- NA_real_
  expect_error(tarnel(y ~ na, data = d2), "only missing values")
  expect_error(tarnel(y ~ at(A, "q"), data = d), "not a level")
  expect_error(tarnel(y ~ foo(x), data = d), "cannot evaluate the model term .foo\\(x\\).: could not find function")
  expect_error(tr_log(1), "only be used inside a tarnel")
})

test_that("a short workspace is retried with more, up to the limit", {
  d <- sim(200)
  fit <- quiet(tarnel(y ~ A * C + x, data = d, keep_design = TRUE, control = tarnel_control(workspace = 600)))
  expect_gt(fit$workspace, 600)
  expect_same_design(fit, full_mm(~ A * C + x, d))
  expect_error(quiet(tarnel(y ~ A * C, data = d, control = tarnel_control(workspace = 600, max_workspace = 1000))),
               "limit of 1000 words")
})

test_that("the engine refuses a term table that points outside the data", {
  d <- sim(20)
  ns <- asNamespace("tarnel")
  model <- ns$parse_model(y ~ A + x, NULL, NULL, d, NULL, "drop", "fail", globalenv())
  table <- ns$build_term_table(model)
  call_ctrn <- function(table) {
    args <- ns$ctrn_args(model, table, ns$build_struc(model, table), TRUE, tarnel_control(), 1e5)
    out <- utils::capture.output(status <- .Call(ns$C_ctrn, args$datafr, args$iarg, args$dpmv, args$inter,
      args$struc, args$ainv, args$glm, args$predict, args$constr, args$mbfList, args$control, args$aiopt,
      args$trn, args$design))
    list(status = status, text = ns$engine_error_text(args$trn$errtxt), out = out)
  }
  expect_equal(call_ctrn(table)$status, 0L)
  bad <- table
  bad$inter$inter[3, 3] <- 99L  # factor A (term 3) reads column 99 of 3
  r <- call_ctrn(bad)
  expect_equal(r$status, 1L)
  expect_equal(r$text, "Invalid model factor")
  expect_true(any(grepl("reads a column outside the record", r$out)))
  bad <- table
  bad$inter$inter[, 3] <- c(3L, 4L, 0L, 0L)  # an interaction with itself: a loop
  bad$inter$nlev[3] <- 0L
  r <- call_ctrn(bad)
  expect_equal(r$status, 1L)
  expect_true(any(grepl("Term 3", r$out)))
})

test_that("the design alone matches sparse.model.matrix and the design a fit keeps", {
  d <- sim(80)
  d$y[c(5, 17)] <- NA
  tarnel_design <- asNamespace("tarnel")$tarnel_design
  facs <- c("A", "B", "C")
  ca <- lapply(d[facs], stats::contrasts, contrasts = FALSE)
  # Factors, covariates, factor by factor and covariate by factor
  # interactions, nesting, and random terms after the fixed ones.
  cases <- list(list(y ~ A + B + x + z + A:B + x:C, NULL), list(y ~ 0 + C + C:z, NULL), list(y ~ A / C, ~ B + B:x),
                list(y ~ x, ~ A:B:C))
  for (cs in cases) {
    X <- tarnel_design(cs[[1]], cs[[2]], data = d)
    expect_s4_class(X, "dgCMatrix")
    rhs <- if (is.null(cs[[2]])) cs[[1]] else stats::reformulate(c(labels(stats::terms(cs[[1]])), labels(stats::terms(cs[[2]]))),
                                                               response = quote(y), intercept = attr(stats::terms(cs[[1]]), "intercept") == 1)
    mm <- Matrix::sparse.model.matrix(rhs, stats::model.frame(rhs, d, na.action = stats::na.pass),
                                      contrasts.arg = ca[intersect(facs, all.vars(rhs))])
    expect_setequal(colnames(X), colnames(mm))
    ok <- !is.na(d$y)
    expect_equal(as.matrix(X[ok, ]), unname_rows(as.matrix(mm[ok, colnames(X)])), tolerance = 1e-15)
    # records dropped for their missing response keep an empty row
    expect_equal(Matrix::rowSums(X != 0)[!ok], c(0, 0))
    fit <- suppressWarnings(quiet(tarnel(cs[[1]], cs[[2]], data = d, keep_design = TRUE)))
    expect_equal(unname(as.matrix(X[ok, ])), unname(fit$design[order(fit$rows), ]))
  }
  # Transformations and conditional terms, and a missing design value.
  d$x[3] <- NA
  X <- tarnel_design(y ~ 0 + tr_log(x) + above(z, 0.2) + at(A, "a2"):x, data = d, na_design = "zero")
  expect_equal(X[, "tr_log(x)"], ifelse(is.na(d$x) | is.na(d$y), 0, log(d$x)))
  expect_equal(X[, "above(z, 0.2)"], ifelse(is.na(d$y), 0, as.numeric(d$z > 0.2)))
  expect_equal(X[, "at(A, a2):x"], ifelse(is.na(d$x) | is.na(d$y) | d$A != "a2", 0, d$x))
  expect_error(tarnel_design(y ~ x, data = d), "Missing values in design variables/factors")
})
