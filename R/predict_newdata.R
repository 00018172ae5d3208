# Linear predictors for new records: the fixed-effect design of new data in
# the coding of the fit's coefficients (R's model matrix, or the engine's
# own coding - an indicator column for every level of every factor and
# every interaction cell, in the order of the fixed equations - when the
# formula has terms R's model matrix cannot form), and the random-effect
# design of the fitted terms.

# The data column a leaf of the term table reads.
leaf_column <- function(lf) {
  e <- str2lang(lf$key)
  if (is.name(e)) return(as.character(e))
  args <- call_args(e)
  nm <- names(args)
  hit <- which(nm %in% c("f", "x", "id"))
  first <- if (length(hit)) args[[hit[1L]]] else if (any(nm == "")) args[[which(nm == "")[1L]]] else NULL
  if (!is.name(first)) tstop("cannot find the data column of the model term '%s'", lf$key)
  as.character(first)
}

# The values of a column of new data, with a clear error when it is absent.
newdata_column <- function(newdata, name) {
  if (!name %in% names(newdata)) tstop("'newdata' has no column '%s', which the model uses", name)
  newdata[[name]]
}

# A covariate of new data (a column of missing values only may be logical).
new_numeric <- function(x, name) {
  if (!is.numeric(x) && !(is.logical(x) && all(is.na(x)))) tstop("column '%s' of 'newdata' must be numeric", name)
  as.double(x)
}

# Level numbers of new values among the fit's levels: NA for a missing
# value, 0 for a value the fit never saw.
level_numbers <- function(x, levels, known = FALSE) {
  miss <- is.na(x)
  if (is.numeric(x)) {
    x <- if (known) ifelse(is.finite(x) & x == round(x), sprintf("%.0f", x), as.character(x)) else as.character(x)
  } else {
    x <- as.character(x)
  }
  k <- match(x, levels)
  k[is.na(k)] <- 0L
  k[miss] <- NA_integer_
  k
}

# An indicator matrix of level numbers (0 gives a row of zeros, NA a row of
# NA).
indicators <- function(k, nlev) {
  m <- matrix(0, length(k), nlev)
  ok <- !is.na(k) & k > 0L
  m[cbind(which(ok), k[ok])] <- 1
  m[is.na(k), ] <- NA
  m
}

# The fit's levels of a factor column, as the model read them.
fit_levels <- function(fit, name) levels(as_model_factor(fit$model$data, name))

# Orthonormal polynomial scores at new values: the fitted scores are
# polynomials of the stated degree in x, so they are an exact linear map of
# any other polynomial basis of that degree, found on the fitted records.
opoly_columns <- function(fit, lf, x) {
  name <- leaf_column(lf)
  x0 <- fit$model$data[[name]]
  S <- fit$model$store$values[[match(lf$key, fit$model$store$keys)]]
  ok <- !is.na(x0)
  S <- S[ok, , drop = FALSE]
  basis <- stats::poly(x0[ok], degree = lf$flev)
  A <- qr.solve(cbind(1, basis), S)
  out <- matrix(NA_real_, length(x), lf$flev)
  ok <- !is.na(x)
  out[ok, ] <- cbind(1, stats::predict(basis, x[ok])) %*% A
  out
}

# Spline columns at new values of the covariate: the engine's basis of the
# fitted covariate (its design points or the knots given, its scale), each
# new value between points on the natural cubic spline through Z at the
# points, linear beyond the end points.
spline_columns <- function(fit, lf, x) {
  store <- fit$model$store
  x0 <- as.double(store$values[[match(paste0("num:", lf$covariate), store$keys)]])
  knots <- if (is.null(lf$jtable)) double() else as.double(lf$jtable[-1L])
  out <- matrix(NA_real_, length(x), lf$flev)
  ok <- is.finite(x)
  if (any(ok)) out[ok, ] <- .Call(C_spline_basis, x0, knots, 0, x[ok])$at
  out
}

# Values of the term functions as the engine forms them (its sine and
# cosine take pi in single precision).
transform_values <- function(code, x, fc, power) {
  v <- x + fc
  pi32 <- 3.1415927410125732
  switch(as.character(code),
    "-21" = ifelse(v > 0, log(pmax(v, 1e-300)), NA_real_),
    "-19" = ifelse(abs(v) > 35, NA_real_, exp(pmin(v, 35))),
    "-18" = ifelse(v < 0, NA_real_, sqrt(pmax(v, 0))),
    "-20" = ifelse(v == 0, NA_real_, 1 / v),
    "-16" = sin(2 * pi32 * x / fc),
    "-17" = cos(2 * pi32 * x / fc),
    "-22" = as.numeric(x > fc),
    "-23" = as.numeric(x < fc),
    "-30" = if (power %in% c(1, 2, 3)) v^power else ifelse(v < 1e-9, 0, pmax(v, 1e-9)^power))
}

# The columns of one leaf for new data.  `new_levels` says what an unseen
# level of a factor gives: "error" or "zero".
leaf_matrix <- function(fit, lf, newdata, new_levels, what) {
  n <- nrow(newdata)
  code <- lf$code
  if (code == -9L) tstop("rec() terms cannot be formed for new data")
  if (code == -38L) tstop("predictions for new data with marker() terms are not available yet")
  if (code == 0L && is.call(str2lang(lf$key)) &&
      any(paste0(c("factor:", "num:"), lf$key) %in% fit$model$store$keys))
    return(evaluated_leaf(fit, lf, newdata, new_levels, what))
  name <- leaf_column(lf)
  x <- newdata_column(newdata, name)
  if (code %in% unlist(transform_codes)) {
    return(matrix(transform_values(code, new_numeric(x, name), lf$faconst, lf$c / 1000), n, 1L))
  }
  if (code == -37L) {
    k <- level_numbers(x, fit_levels(fit, name))
    unseen_levels(k, x, name, what, new_levels)
    g <- c(0, lf$jtable)[ifelse(is.na(k), NA, k + 1L)]
    return(indicators(as.integer(g), lf$flev))
  }
  if (code == -3L) return(spline_columns(fit, lf, new_numeric(x, name)))
  if (!is.null(lf$basis_matrix)) {
    if (is.null(basis_row_values(lf$basis_matrix)))
      tstop("predictions for new data from '%s' need a matrix whose rows are labelled by values of '%s' (row names or attribute \"values\")",
            lf$key, name)
    return(basis_columns(new_numeric(x, name), name, lf$basis_matrix, n))
  }
  if (isTRUE(lf$value_factor)) {
    k <- level_numbers(new_numeric(x, name), lf$levels)
    unseen_levels(k, x, name, what, new_levels)
    return(indicators(k, lf$flev))
  }
  if (startsWith(lf$key, "opoly(")) {
    return(opoly_columns(fit, lf, new_numeric(x, name)))
  }
  if (lf$c == -29L) {
    lev <- fit_levels(fit, name)
    k <- level_numbers(x, lev)
    unseen_levels(k, x, name, what, new_levels)
    H <- rbind(0, stats::contr.helmert(length(lev)))
    m <- H[ifelse(is.na(k), 1L, k + 1L), , drop = FALSE]
    m[is.na(k), ] <- NA
    return(unname(m))
  }
  if (lf$flev == 1L && identical(lf$labels, lf$key) && is.numeric(fit$model$data[[lf$key]])) {
    return(matrix(new_numeric(x, name), n, 1L))
  }
  # A factor: its levels are the leaf's labels less the column name.
  if (!all(startsWith(lf$labels, name))) tstop("cannot read the levels of the model term '%s'", lf$key)
  lev <- substring(lf$labels, nchar(name) + 1L)
  k <- level_numbers(x, lev, known = startsWith(lf$key, "cov_known("))
  unseen_levels(k, x, name, what, new_levels)
  indicators(k, lf$flev)
}

# A function of data columns (factor(x), log(x), poly(x, 2)) at new data,
# as R's predict() forms it: data-dependent bases as fitted.
evaluated_leaf <- function(fit, lf, newdata, new_levels, what) {
  env <- environment(fit$fixed_formula)
  tt <- stats::terms(stats::reformulate(lf$key, env = env))
  mf <- stats::model.frame(tt, fit$model$data, na.action = stats::na.pass)
  pv <- attr(attr(mf, "terms"), "predvars")[[2L]]
  for (v in intersect(all.vars(pv), names(fit$model$data))) newdata_column(newdata, v)
  x <- eval(pv, newdata, env)
  if (is.numeric(x)) return(matrix(as.double(x), nrow(newdata), lf$flev))
  k <- level_numbers(x, lf$levels)
  unseen_levels(k, x, lf$key, what, new_levels)
  indicators(k, lf$flev)
}

unseen_levels <- function(k, x, name, what, new_levels) {
  bad <- !is.na(k) & k == 0L
  if (any(bad) && new_levels == "error") {
    v <- unique(as.character(x[bad]))
    tstop("'newdata' has level(s) of '%s' that the fit did not see (%s)%s: %s", name, what,
          if (what == "random") "; allow.new.levels = TRUE predicts them at 0" else "",
          paste(utils::head(v, 5L), collapse = ", "))
  }
  invisible(bad)
}

# Row-wise direct product, the columns of b running fastest (the order of
# the engine's interaction equations).
row_kronecker <- function(a, b) {
  a[, rep(seq_len(ncol(a)), each = ncol(b)), drop = FALSE] * b[, rep(seq_len(ncol(b)), ncol(a)), drop = FALSE]
}

# The design columns of one parsed term for new data: a list of matrices,
# one a model position (a term with at() has one a level).
term_matrices <- function(fit, term, newdata, new_levels, what) {
  isat <- vapply(term$vars, function(v) identical(v$kind, "at"), TRUE)
  rest <- NULL
  for (v in term$vars[!isat]) {
    m <- leaf_matrix(fit, v, newdata, new_levels, what)
    rest <- if (is.null(rest)) m else row_kronecker(rest, m)
  }
  if (!any(isat)) return(list(rest))
  at <- term$vars[[which(isat)]]
  name <- leaf_column(at$factor)
  lev <- substring(at$factor$labels, nchar(name) + 1L)
  k <- level_numbers(newdata_column(newdata, name), lev)
  lapply(at$levels, function(l) {
    ind <- matrix(as.numeric(k == l), ncol = 1L)
    if (is.null(rest)) ind else row_kronecker(ind, rest)
  })
}

#' @noRd
# The fixed-effect design of new records in the engine's basis: one column
# a fixed equation except the missing-value ones, named and ordered as
# fit$fixed_engine.  Rows with a missing value in a column they need are NA.
engine_fixed_matrix <- function(fit, newdata) {
  if (!is.data.frame(newdata)) tstop("'newdata' must be a data frame")
  n <- nrow(newdata)
  cols <- list()
  if (fit$model$fixed$intercept) cols[[1L]] <- matrix(1, n, 1L)
  for (term in fit$model$fixed$terms)
    cols <- c(cols, term_matrices(fit, term, newdata, "error", "fixed"))
  X <- if (length(cols)) do.call(cbind, cols) else matrix(0, n, 0L)
  lab <- fit$table$labels
  nfe <- sum(fit$table$position_levels[fit$table$fixed_positions])
  fe <- lab[seq_len(nfe)]
  fe <- fe[!grepl("^\\(missing\\)", fe)]
  if (ncol(X) != length(fe)) tstop("internal: %d fixed-effect columns formed for new data where the fit has %d", ncol(X), length(fe))
  colnames(X) <- fe
  X
}

# The random-effect part Z u of new records, term by term.  Unseen levels
# give 0 when `new_levels` is "zero".
random_part <- function(fit, newdata, new_levels) {
  n <- nrow(newdata)
  zu <- numeric(n)
  if (is.null(fit$model$random)) return(zu)
  tab <- fit$table
  ends <- cumsum(tab$position_levels)
  nfe <- sum(tab$position_levels[seq_len(dense_fixed_positions(tab))])
  for (t in seq_along(fit$model$random$terms)) {
    mats <- term_matrices(fit, fit$model$random$terms[[t]], newdata, new_levels, "random")
    pos <- tab$random_positions[[t]]
    for (j in seq_along(mats)) {
      p <- pos[j]
      u <- fit$ranef[(ends[p] - tab$position_levels[p] + 1L):ends[p] - nfe]
      zu <- zu + drop(mats[[j]] %*% u)
    }
  }
  zu
}

# The fixed effects in the coding new rows are formed in: R's when the fit
# reports its coefficients in R's coding, else the engine's.  `full` is the
# design of the fit's records in every column of that coding; `bhat` holds
# a coefficient a column, NA for those left out as depending on others, and
# `V` the covariance matrix of the others.
fixed_basis <- function(fit) {
  if (!is.null(fit$sparse_fixed))
    tstop("predictions for new records (and emmeans) of a model with fixed terms in the sparse equations (%s) are not available yet; refit with tarnel_control(sparse_fixed = Inf) to keep them dense",
          paste(unique(fit$sparse_fixed$term), collapse = ", "))
  present <- fit$fixed_engine$present
  if (identical(fit$fixed_info$basis, "R")) {
    XR <- r_model_matrix(fit, length(present))
    full <- XR[present, , drop = FALSE]
    bhat <- stats::setNames(rep(NA_real_, ncol(full)), colnames(full))
    bhat[names(fit$coefficients)] <- fit$coefficients
    return(list(basis = "R", full = full, bhat = bhat, V = fit$vcov, terms = attr(XR, "terms"),
                xlev = attr(XR, "xlevels"), contrasts = attr(XR, "contrasts")))
  }
  fe <- fit$fixed_engine
  ok <- diag(fe$vcov) > 0
  bhat <- fe$coefficients
  bhat[!ok] <- NA
  list(basis = "engine", full = as.matrix(engine_fixed_design(fit))[present, , drop = FALSE], bhat = bhat,
       V = fe$vcov[ok, ok, drop = FALSE])
}

# The directions of the coding that the fitted design does not determine.
null_basis <- function(fb) {
  if (!anyNA(fb$bhat)) return(estimability::all.estble)
  estimability::nonest.basis(fb$full)
}

# The design of new records in the columns of `fb$full`; a record with a
# missing value in a variable it needs gets a row of NA.
fixed_rows <- function(fit, fb, newdata) {
  if (!is.data.frame(newdata)) tstop("'newdata' must be a data frame")
  if (fb$basis == "engine") return(engine_fixed_matrix(fit, newdata))
  tt <- fb$terms
  for (v in intersect(all.vars(tt), names(fit$model$data))) newdata_column(newdata, v)
  for (nm in names(fb$xlev)) {
    x <- eval(str2lang(nm), newdata, environment(tt))
    unseen_levels(level_numbers(x, fb$xlev[[nm]]), x, nm, "fixed", "error")
  }
  mf <- stats::model.frame(tt, newdata, na.action = stats::na.pass, xlev = fb$xlev)
  X <- stats::model.matrix(tt, mf, contrasts.arg = fb$contrasts)
  X[, colnames(fb$full), drop = FALSE]
}

# The offsets of the fixed formula at new records (0 without any).
new_offset <- function(fit, newdata) {
  f <- fit$fixed_formula
  tt <- stats::terms(f)
  off <- 0
  for (i in attr(tt, "offset")) off <- off + eval(attr(tt, "variables")[[i + 1L]][[2L]], newdata, environment(f))
  off
}

# The fixed part x' b of new records with their variances x' V_b x; rows
# that are not estimable are NA.
fixed_part <- function(fit, newdata, se) {
  fb <- fixed_basis(fit)
  X <- fixed_rows(fit, fb, newdata)
  ok <- !is.na(fb$bhat)
  est <- rep(TRUE, nrow(X))
  if (!all(ok)) {
    if (!requireNamespace("estimability", quietly = TRUE))
      tstop("the fit has aliased fixed effects; checking estimability needs the package 'estimability'")
    cc <- stats::complete.cases(X)
    est[cc] <- estimability::is.estble(X[cc, , drop = FALSE], null_basis(fb))
  }
  Xk <- X[, ok, drop = FALSE]
  fit_ <- drop(Xk %*% fb$bhat[ok]) + new_offset(fit, newdata)
  fit_[!est] <- NA
  out <- list(fit = fit_, est = est)
  if (se) {
    s <- sqrt(pmax(rowSums((Xk %*% fb$V) * Xk), 0))
    s[!est] <- NA
    out$se <- s
  }
  out
}

#' @noRd
predict_newdata <- function(object, newdata, re.form = NULL, se.fit = FALSE, allow.new.levels = FALSE, ...) {
  if (!inherits(object, "tarnel")) tstop("'object' must be a tarnel fit")
  if (!is.data.frame(newdata)) tstop("'newdata' must be a data frame")
  if (...length()) {
    nm <- names(list(...))
    tstop("unknown argument(s) for predictions from new data: %s",
          if (is.null(nm)) "unnamed" else paste(ifelse(nzchar(nm), nm, "unnamed"), collapse = ", "))
  }
  random <- if (is.null(re.form)) TRUE
            else if (identical(re.form, NA) || (inherits(re.form, "formula") && identical(re.form[[length(re.form)]], 0)))
              FALSE
            else tstop("'re.form' must be NULL (all random terms) or NA or ~0 (none); a subset of random terms is not available yet")
  if (!is.logical(allow.new.levels) || length(allow.new.levels) != 1L || is.na(allow.new.levels))
    tstop("'allow.new.levels' must be TRUE or FALSE")
  joint <- isTRUE(se.fit) && random && has_spline(object)
  fp <- fixed_part(object, newdata, isTRUE(se.fit) && !joint)
  if (any(!fp$est))
    warning(sprintf("tarnel: %d row(s) of 'newdata' ask for fixed effects the data do not estimate; their predictions are NA",
                    sum(!fp$est)), call. = FALSE)
  pred <- fp$fit
  if (random) pred <- pred + random_part(object, newdata, if (allow.new.levels) "zero" else "error")
  names(pred) <- rownames(newdata)
  if (!isTRUE(se.fit)) return(pred)
  se <- if (joint) joint_se(object, newdata, fp$est) else fp$se
  list(fit = pred, se.fit = setNames(se, rownames(newdata)))
}

has_spline <- function(fit) {
  any(vapply(fit$model$random$terms, function(t) any(vapply(t$vars, function(v) identical(v$code, -3L), TRUE)), TRUE))
}

# Standard errors of Xb + Zu at new records, from the joint prediction-error
# covariance of the fixed and random effects: sigma2 times the inverse of
# the mixed model equations [X'X, X'Z; Z'X, Z'Z + sigma2 G^-1], formed
# densely from the fitted records.  It holds for a fit whose residual is a
# plain scaled identity without weights and whose random terms each have a
# single variance, G = sigma_t I.
joint_se <- function(fit, newdata, est) {
  why <- joint_unavailable(fit)
  if (!is.null(why)) tstop("standard errors of a spline curve are not available yet for %s", why)
  fb <- fixed_basis(fit)
  ok <- !is.na(fb$bhat)
  present <- fit$fixed_engine$present
  recs <- fit$model$data[present, , drop = FALSE]
  vc <- fit$varcomp
  s2 <- vc[["component"]][match("residual", rownames(vc))]
  Zr <- Zn <- list()
  gdiag <- NULL
  for (t in fit$model$random$terms) {
    Zr <- c(Zr, term_matrices(fit, t, recs, "error", "random"))
    Zn <- c(Zn, term_matrices(fit, t, newdata, "zero", "random"))
    gdiag <- c(gdiag, rep(vc[["component"]][match(t$label, rownames(vc))], ncol(Zr[[length(Zr)]])))
  }
  W <- cbind(fb$full[, ok, drop = FALSE], do.call(cbind, Zr))
  C <- crossprod(W)
  q <- length(gdiag)
  ir <- ncol(W) - q + seq_len(q)
  C[cbind(ir, ir)] <- C[cbind(ir, ir)] + s2 / gdiag
  Wn <- cbind(fixed_rows(fit, fb, newdata)[, ok, drop = FALSE], do.call(cbind, Zn))
  out <- rep(NA_real_, nrow(Wn))
  cc <- stats::complete.cases(Wn) & est
  if (any(cc)) {
    A <- solve(C, t(Wn[cc, , drop = FALSE]))
    out[cc] <- sqrt(pmax(s2 * colSums(A * t(Wn[cc, , drop = FALSE])), 0))
  }
  out
}

# Why the joint covariance cannot be formed (NULL when it can).
joint_unavailable <- function(fit) {
  if (inherits(fit, "tarnel_glm")) return("generalised models")
  if (!identical(fit$model$residual$kind, "identity") || !identical(fit$model$weights_column, 0L))
    return("a residual with structure or weights")
  vc <- rownames(fit$varcomp)
  labs <- vapply(fit$model$random$terms, function(t) t$label, "")
  if (!setequal(vc, c(labs, "residual")) || length(vc) != length(labs) + 1L)
    return("random terms with more than one variance parameter")
  nre <- length(fit$ranef)
  if (nre > 5000L) return(sprintf("%d random effects (5000 at most)", nre))
  NULL
}
