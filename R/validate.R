# Checks of the user's input before the engine runs, diagnoses of models
# the engine cannot fit, and the explanation of an engine fault in terms of
# the data.  Every message names the argument, the value found and what is
# allowed, so that a careless call ends in an error that says what to fix.

# Values of this size or more are the engine's mark of a missing datum.
engine_big <- 9.9e36

# A short description of a value for a message.
show_value <- function(x) {
  if (is.null(x)) return("NULL")
  if (is.function(x)) return("a function")
  if (is.list(x) && !is.data.frame(x)) return(sprintf("a list of length %d", length(x)))
  if (length(x) != 1L) return(sprintf("a %s of length %d", class(x)[1], length(x)))
  if (is.character(x)) return(sprintf("\"%s\"", x))
  if (is.factor(x)) return(sprintf("the factor level \"%s\"", as.character(x)))
  format(x, digits = 7)
}

# One setting of tarnel_control(): a single finite number, whole when asked,
# inside [lo, hi].
check_number <- function(x, name, lo, hi, whole = FALSE) {
  what <- sprintf("%s from %s to %s", if (whole) "a whole number" else "a number",
                  format(lo, big.mark = ","), format(hi, big.mark = ","))
  ok <- is.numeric(x) && length(x) == 1L && !is.na(x) && is.finite(x) && x >= lo && x <= hi &&
    (!whole || x == round(x))
  if (!ok) tstop("tarnel_control(): '%s' must be %s, not %s", name, what, show_value(x))
  x
}

check_flag <- function(x, name) {
  if (!is.logical(x) || length(x) != 1L || is.na(x))
    tstop("tarnel_control(): '%s' must be TRUE or FALSE, not %s", name, show_value(x))
  x
}

# The control list as tarnel() takes it: any list whose names are options of
# tarnel_control(), checked and completed with the defaults.
check_control <- function(control) {
  if (!is.list(control) || is.data.frame(control))
    tstop("'control' must be a list made by tarnel_control(), not %s", show_value(control))
  known <- names(formals(tarnel_control))
  nm <- names(control)
  if (length(control) && (is.null(nm) || any(nm == "")))
    tstop("'control' must be a named list of options of tarnel_control(): %s", paste(known, collapse = ", "))
  bad <- setdiff(nm, known)
  if (length(bad))
    tstop("'control': unknown option%s %s; the options are: %s", if (length(bad) > 1L) "s" else "",
          paste0("'", bad, "'", collapse = ", "), paste(known, collapse = ", "))
  do.call(tarnel_control, control)
}

# The variables a formula reads from the data.
formula_vars <- function(f) if (inherits(f, "formula")) all.vars(f) else character()

#' @noRd
# Checks the arguments of tarnel() that can be judged before the model is
# read, and returns the data to fit: levels of factors that occur only on
# records whose response is missing (records that are left out) are dropped
# with a message.
validate_args <- function(fixed, random, residual, data, weights, start, constrain, equal, lincon,
                          na_response) {
  if (!inherits(fixed, "formula") || length(fixed) != 3L)
    tstop("'fixed' must be a formula with a response, such as y ~ x, not %s", show_value(fixed))
  if (!is.null(random) && (!inherits(random, "formula") || length(random) != 2L))
    tstop("'random' must be a one-sided formula such as ~ block, not %s", show_value(random))
  if (!is.null(residual) && (!inherits(residual, "formula") || length(residual) != 2L))
    tstop("'residual' must be a one-sided formula such as ~ het(site), not %s", show_value(residual))
  if (!is.data.frame(data)) tstop("'data' must be a data frame, not %s", show_value(data))
  if (nrow(data) < 1L) tstop("'data' has no records")
  check_named_values(start, "start", numeric = TRUE)
  check_named_values(constrain, "constrain", numeric = FALSE)
  check_equal(equal)
  check_lincon(lincon)
  used <- unique(c(formula_vars(fixed), formula_vars(random), formula_vars(residual),
                   if (is.character(weights)) weights))
  used <- intersect(used, names(data))
  yname <- if (is.name(fixed[[2L]])) as.character(fixed[[2L]]) else ""
  # The response may be of any finite size: it is scaled for the engine.
  for (v in used) check_column(data[[v]], v, size = v != yname)
  if ("residual" %in% formula_vars(random))
    tstop("the column 'residual' cannot be a random term: 'residual' names the residual variance; rename the column")
  if (na_response == "drop" && yname %in% names(data) && is.null(grid_factors(residual)))
    data <- drop_missing_only_levels(data, yname, setdiff(used, c(yname, known_factors(random))))
  check_grid_size(residual, data)
  data
}

# A data column the model reads: one value a record, of a type the model
# can use.
check_column <- function(x, name, size = TRUE) {
  if (is.list(x) && !is.data.frame(x))
    tstop("column '%s' of 'data' is a list; tarnel() needs one number or level a record", name)
  if (!is.null(dim(x)) && (length(dim(x)) != 2L || ncol(x) != 1L))
    tstop("column '%s' of 'data' is a matrix (%s); tarnel() needs one value a record: split it into columns",
          name, paste(dim(x), collapse = " x "))
  if (size && is.numeric(x)) {
    big <- which(!is.na(x) & is.finite(x) & abs(x) >= engine_big)
    if (length(big))
      tstop("column '%s' holds %s in record %d; values of 9.9e36 and more in size are beyond what the engine holds (it reads them as missing): rescale the column",
            name, format(x[big[1]], digits = 4), big[1])
  }
  invisible(TRUE)
}

# Named values for parameters: `start` (finite numbers) or `constrain`.
check_named_values <- function(x, arg, numeric) {
  if (is.null(x)) return(invisible(TRUE))
  if (is.list(x)) x <- unlist(x)
  nm <- names(x)
  if (numeric && (!is.numeric(x) || is.null(nm) || any(nm == "")))
    tstop("'%s' must be a named numeric vector such as c(block = 0.5), not %s", arg, show_value(x))
  if (!numeric && (!is.character(x) || is.null(nm) || any(nm == "")))
    tstop("'%s' must be a named character vector such as c(block = \"fixed\"), not %s", arg, show_value(x))
  if (anyDuplicated(nm))
    tstop("'%s' names the parameter '%s' twice", arg, nm[duplicated(nm)][1])
  if (numeric) {
    bad <- which(!is.finite(x))
    if (length(bad))
      tstop("'%s': the value of '%s' must be a finite number, not %s", arg, nm[bad[1]], show_value(unname(x[bad[1]])))
  }
  invisible(TRUE)
}

check_equal <- function(equal) {
  if (is.null(equal)) return(invisible(TRUE))
  sets <- if (is.list(equal)) equal else list(equal)
  for (s in sets) {
    if (!is.character(s) || anyNA(s))
      tstop("'equal' must be a list of character vectors of parameter names, not %s", show_value(s))
    if (anyDuplicated(s)) tstop("'equal' names the parameter '%s' twice in one set", s[duplicated(s)][1])
  }
  all <- unlist(sets)
  if (anyDuplicated(all)) tstop("'equal': the parameter '%s' is in two sets", all[duplicated(all)][1])
  invisible(TRUE)
}

check_lincon <- function(lincon) {
  if (is.null(lincon)) return(invisible(TRUE))
  if (!is.matrix(lincon) || !is.numeric(lincon) || is.null(rownames(lincon)))
    tstop("'lincon' must be a numeric matrix with parameter names as row names, one column a constraint, not %s",
          show_value(lincon))
  if (anyDuplicated(rownames(lincon)))
    tstop("'lincon' names the parameter '%s' in two rows", rownames(lincon)[duplicated(rownames(lincon))][1])
  bad <- which(!is.finite(lincon), arr.ind = TRUE)
  if (nrow(bad))
    tstop("'lincon': the coefficient of '%s' in column %d must be a finite number, not %s",
          rownames(lincon)[bad[1, 1]], bad[1, 2], show_value(lincon[bad[1, 1], bad[1, 2]]))
  zero <- which(colSums(lincon != 0) == 0)
  if (length(zero)) tstop("'lincon': column %d has no nonzero coefficient, so it constrains nothing", zero[1])
  invisible(TRUE)
}

# The factors of a residual grid, or NULL when the residual formula is not a
# grid.
grid_factors <- function(residual) {
  if (!inherits(residual, "formula") || length(residual) != 2L) return(NULL)
  rhs <- residual[[2L]]
  # het() and the distance-based structures keep the records as they are.
  if (!is.call(rhs) || identical(as.character(rhs[[1L]]), "het") || is_spatial_call(rhs)) return(NULL)
  v <- all.vars(residual)
  if (length(v)) v else NULL
}

# A grid residual completes the records to every cell of the grid; refuse a
# grid far larger than the records, whose empty cells would each become an
# equation.
check_grid_size <- function(residual, data) {
  fs <- intersect(grid_factors(residual), names(data))
  if (length(fs) < 1L) return(invisible(TRUE))
  dims <- vapply(fs, function(f) {
    x <- data[[f]]
    if (is.factor(x)) nlevels(x) else length(unique(x[!is.na(x)]))
  }, 1)
  cells <- prod(dims)
  n <- nrow(data)
  if (cells > max(4 * n, 5000))
    tstop("the residual grid %s is %s = %.0f cells for %d records: every empty cell would become an equation. A grid residual needs the records to fill most of the grid (at most 4 cells a record); fit a sparser layout without it",
          paste(fs, collapse = " x "), paste(dims, collapse = " x "), cells, n)
  invisible(TRUE)
}

# The factors of cov_known() terms: their levels come from the known matrix,
# and levels without records are effects without data.
known_factors <- function(e) {
  if (inherits(e, "formula")) e <- e[[length(e)]]
  if (!is.call(e)) return(character())
  if (identical(as.character(e[[1L]])[1], "cov_known") && length(e) >= 2L) return(all.vars(e[[2L]]))
  unlist(lapply(as.list(e)[-1L], known_factors))
}

# Drops the levels of the factors the model reads that occur only on
# records whose response is missing: those records are left out, so the
# levels would be empty.
drop_missing_only_levels <- function(data, yname, cols) {
  miss <- is.na(data[[yname]])
  if (!any(miss)) return(data)
  for (v in cols) {
    x <- data[[v]]
    if (!(is.factor(x) || is.character(x) || is.logical(x))) next
    f <- if (is.factor(x)) x else factor(x)
    # Levels by their codes: those seen with a response, and those seen
    # only without one.
    code <- as.integer(f)
    with_y <- tabulate(code[!miss], nlevels(f)) > 0L
    only <- levels(f)[!with_y & tabulate(code[miss], nlevels(f)) > 0L]
    if (!length(only)) next
    shown <- paste(utils::head(only, 5L), collapse = ", ")
    if (length(only) > 5L) shown <- sprintf("%s, ... (%d levels)", shown, length(only))
    message(sprintf("tarnel: level%s %s of '%s' occur%s only on records with a missing response; %s left out",
                    if (length(only) > 1L) "s" else "", shown, v,
                    if (length(only) > 1L) "" else "s", if (length(only) > 1L) "they are" else "it is"))
    # The codes renumbered over the levels kept; the others become NA.
    keep <- !levels(f) %in% only
    recode <- cumsum(keep)
    recode[!keep] <- NA_integer_
    data[[v]] <- structure(recode[code], levels = levels(f)[keep], class = "factor")
  }
  data
}

#' @noRd
# Diagnoses, once the model is read and before the term table is built, what
# R can see: too few records, a constant response, level counts that
# explode; scales a response far from unit size by a power of two (undone
# exactly in the results) so that the fit does not depend on the units.
diagnose_model <- function(model, scale = TRUE) {
  if (identical(model$na_response, "keep")) {
    # A kept record's missing response gets an equation of its own: the row
    # stays, and the missing value leaves the likelihood.
    model$na_response <- "estimate"
  }
  y <- model$y
  yp <- y[!is.na(y)]
  n <- length(yp)
  if (n < 2L)
    tstop("the response '%s' has %d record%s with a value; a REML fit needs at least 2", model$response, n,
          if (n == 1L) "" else "s")
  if (all(yp == yp[1]))
    tstop("the response '%s' is constant (every value is %s): there is no variation to fit", model$response,
          format(yp[1], digits = 7))
  check_term_sizes(model, n)
  sdv <- stats::sd(yp)
  if (!is.finite(sdv) || sdv > 1e150 || sdv < 1e-150)
    tstop("the response '%s' has a spread (standard deviation %s) whose square, a variance, is beyond double precision: rescale the response",
          model$response, if (is.finite(sdv)) format(sdv, digits = 3) else "beyond 1e308")
  # A generalised response keeps its own scale: counts and proportions are not rescaled.
  s <- if (scale) response_scale(yp) else 1
  model$yscale <- s
  if (s != 1) {
    model$y <- y / s
    st <- model$store
    k <- match("response", st$keys)
    v <- st$values[[k]]
    keep <- !is.na(y)
    v[keep] <- v[keep] / s
    st$values[[k]] <- v
  }
  model
}

# A power of two near the spread of the response when that spread is far
# from 1; 1 otherwise.  Dividing by a power of two is exact.
response_scale <- function(y) {
  sdv <- stats::sd(y)
  if (!is.finite(sdv)) sdv <- max(abs(y)) / 2
  if (!(sdv > 0)) return(1)
  k <- round(log2(sdv))
  if (k >= -10 && k <= 30) 1 else 2^k
}

# The level count of a term is the product of its variables' counts; a
# product far above the records would allocate every combination.
check_term_sizes <- function(model, n) {
  terms <- c(model$fixed$terms, if (!is.null(model$random)) model$random$terms)
  for (t in terms) {
    fl <- vapply(t$vars, function(v) if (identical(v$kind, "leaf")) as.double(v$flev) else 1, 1)
    if (length(fl) < 2L) next
    total <- prod(fl)
    if (total > max(2e6, 50 * n))
      tstop("the interaction '%s' has %s = %.4g level combinations for %d records; most of them cannot occur. Form the combinations present as one factor, e.g. interaction(%s, drop = TRUE), and use that in the model",
            t$label, paste(fl, collapse = " x "), total, n,
            paste(vapply(t$vars, function(v) if (is.null(v$key)) "?" else v$key, ""), collapse = ", "))
  }
  invisible(TRUE)
}

#' @noRd
# An engine fault, explained from the data where R can see the cause: no
# residual degrees of freedom, an exact fit.  Stops with the explanation,
# or with the engine's text when there is none.
# `notes` are the engine's own notices of the run, added word for word.
engine_failure <- function(status, text, args, model, struc = NULL, notes = character()) {
  if (grepl("Interrupted", text, fixed = TRUE)) stop(sprintf("tarnel: %s", text), call. = FALSE)
  why <- tryCatch(explain_fault(args, model), error = function(e) NULL)
  if (is.null(why)) why <- tryCatch(explain_start(args, struc), error = function(e) NULL)
  tail <- if (length(notes)) paste0("\n", paste(notes, collapse = "\n")) else ""
  base <- sprintf("tarnel: %s (engine status %d)", if (nzchar(text)) text else "the engine failed", status)
  if (is.null(why)) stop(base, tail, call. = FALSE)
  stop(sprintf("tarnel: %s [engine: %s]", why, if (nzchar(text)) text else paste("status", status)), tail, call. = FALSE)
}

explain_fault <- function(args, model) {
  if (grepl("Missing values in design", engine_error_text(args$trn$errtxt), fixed = TRUE))
    return(explain_missing_design(model))
  y <- model$y
  present <- !is.na(y)
  neqd <- args$inter$neqd[1]
  p <- neqd - 1L
  n <- sum(present)
  if (as.double(n) * p > 5e7) return(NULL)
  # The fixed columns: kept by the run, or formed by a pass of the design.
  X <- args$design
  if (is.null(X) || ncol(X) < p) {
    table <- build_term_table(model)
    X <- as.matrix(design_rows(model, table, build_struc(model, table), tarnel_control(), ncol = p))
  }
  if (nrow(X) != length(y)) return(NULL)
  X <- X[present, seq_len(p), drop = FALSE]
  X <- X[, colSums(X != 0) > 0, drop = FALSE]
  yy <- y[present]
  rank <- if (ncol(X)) qr(X)$rank else 0L
  if (n - rank <= 0L)
    return(sprintf("no residual degrees of freedom: %d record%s with a response and the fixed terms have rank %d",
                   n, if (n == 1L) "" else "s", rank))
  rss <- if (ncol(X)) sum(stats::lm.fit(X, yy)$residuals^2) else sum(yy^2)
  tss <- sum((yy - mean(yy))^2)
  if (rss <= 1e-20 * max(tss, sum(yy^2)))
    return(sprintf("the fixed terms fit the response '%s' exactly (residual sum of squares %.3g on %d degrees of freedom): there is no variation left for the variance parameters",
                   model$response, rss, n - rank))
  NULL
}

#' @noRd
# Undoes the scaling of the response in a fit: effects, fitted values and
# residuals by s, variances by s^2, the log-likelihood by the Jacobian of
# the change of units.  s is a power of two, so the products are exact.
unscale_fit <- function(fit, s) {
  if (is.null(s) || s == 1) return(fit)
  q <- s^2
  pars <- fit$params
  comp <- if (fit$profiled) pars$kind %in% c("variance", "covariance", "scale")
          else pars$kind %in% c("variance", "covariance")
  held <- !fit$profiled & pars$kind %in% c("variance", "covariance")  # gamma is a component
  fix_vp <- function(vp) {
    k <- match(rownames(vp), pars$name)
    vp$component[comp[k]] <- vp$component[comp[k]] * q
    vp$std.error[comp[k]] <- vp$std.error[comp[k]] * q
    vp$gamma[held[k]] <- vp$gamma[held[k]] * q
    vp
  }
  fit$varcomp <- fix_vp(fit$varcomp)
  fit$varcomp_all <- fix_vp(fit$varcomp_all)
  fit$gammas[held] <- fit$gammas[held] * q
  shift <- fit$nedf * log(s)
  fit$loglik <- fit$loglik - shift
  fit$loglik_standard <- fit$loglik_standard - shift
  if (fit$profiled) fit$sigma2 <- fit$sigma2 * q
  fit$coefficients <- fit$coefficients * s
  fit$vcov <- fit$vcov * q
  fit$ranef <- fit$ranef * s
  fit$ranef_pev <- fit$ranef_pev * q
  fit$fitted <- fit$fitted * s
  fit$fitted_fixed <- fit$fitted_fixed * s
  fit$residuals <- fit$residuals * s
  if (!is.null(fit$ai)) {
    d <- ifelse(held[match(rownames(fit$ai), pars$name)], q, 1)
    fit$ai <- fit$ai / outer(d, d)
    fit$score <- fit$score / d
  }
  it <- fit$iterations
  if (nrow(it)) {
    it$loglik <- it$loglik - it$nedf * log(s)
    if (fit$profiled) it$sigma2 <- it$sigma2 * q
    for (nm in intersect(names(it), pars$name[held])) it[[nm]] <- it[[nm]] * q
    fit$iterations <- it
  }
  if (!is.null(fit$sparse_fixed)) {
    fit$sparse_fixed$estimate <- fit$sparse_fixed$estimate * s
    fit$sparse_fixed$std.error <- fit$sparse_fixed$std.error * s
  }
  if (!is.null(fit$fixed_engine)) {
    fit$fixed_engine$coefficients <- fit$fixed_engine$coefficients * s
    fit$fixed_engine$vcov <- fit$fixed_engine$vcov * q
  }
  fit$model$y <- fit$model$y * s
  fit$yscale <- s
  fit
}

# A fit that fails at once from negative starts (allowed only for
# unconstrained parameters) has most likely started from a variance matrix
# that is not positive definite.
explain_start <- function(args, struc) {
  if (is.null(struc)) return(NULL)
  pars <- struc$params
  g <- struc$gammas[pars$gamma]
  neg <- which(pars$kind == "variance" & g < 0)
  if (!length(neg)) return(NULL)
  sprintf("the fit failed at its start: the negative start%s of %s may make the variance matrix not positive definite; start from a positive value (the parameter may still go below 0)",
          if (length(neg) > 1L) "s" else "", paste0("'", pars$name[neg], "' (", format(g[neg], digits = 4), ")", collapse = ", "))
}

# The columns of the model with missing values, named with their count and
# first record.
explain_missing_design <- function(model) {
  keys <- model$store$keys
  cols <- unique(sub("^(num|factor):", "", keys[grepl("^(num|factor):", keys)]))
  cols <- intersect(cols, names(model$data))
  y <- model$y
  bits <- character()
  for (v in cols) {
    miss <- which(is.na(model$data[[v]]) & !is.na(y))
    if (!length(miss)) next
    bits <- c(bits, sprintf("'%s' (%d, first in row %s of the data)", v, length(miss), rownames(model$data)[miss[1]]))
  }
  if (!length(bits)) return(NULL)
  sprintf("missing values in the model's column%s %s: give na_design = \"zero\" to leave the term out of those records' rows, or remove the records",
          if (length(bits) > 1L) "s" else "", paste(bits, collapse = ", "))
}
