# Reading a model: the formulae and the data become a parsed model, a list
# of terms whose variables are described as leaves (factors, covariates and
# term functions) with their data columns.  The term table is built from
# the parsed model by build_term_table(); variance structures will be built
# from it too.

# The engine's mark of a missing value.
tarnel_missing <- 1e37

tstop <- function(...) stop(sprintf(...), call. = FALSE)

# A store of data columns: each distinct variable gets one column (or a
# block of columns) of the record matrix.
new_columns <- function(nrow) {
  env <- new.env(parent = emptyenv())
  env$values <- list()
  env$keys <- character()
  env$missing <- list()
  env$nrow <- nrow
  env
}

add_columns <- function(store, key, values) {
  hit <- match(key, store$keys)
  if (!is.na(hit)) return(attr(store$values[[hit]], "first"))
  # A vector becomes a one-column matrix in place when R need not copy it.
  if (is.null(dim(values))) dim(values) <- c(length(values), 1L) else values <- as.matrix(values)
  first <- 1L + sum(vapply(store$values, ncol, 1L))
  # Records with a missing value, for an error that names the column.
  store$missing[[key]] <- if (anyNA(values)) which(rowSums(is.na(values)) > 0) else integer()
  if (length(store$missing[[key]])) values[is.na(values)] <- tarnel_missing
  attr(values, "first") <- first
  store$values[[length(store$values) + 1L]] <- values
  store$keys <- c(store$keys, key)
  first
}

column_matrix <- function(store) {
  if (!length(store$values)) return(matrix(0, store$nrow, 0))
  # cbind() copies each block once and drops their other attributes.
  m <- do.call(cbind, unname(store$values))
  if (storage.mode(m) != "double") storage.mode(m) <- "double"
  m
}

data_column <- function(data, name) {
  if (!name %in% names(data)) tstop("column '%s' is not in the data", name)
  x <- data[[name]]
  if (anyNA(x) && all(is.na(x))) tstop("column '%s' holds only missing values", name)
  x
}

# A factor from a data column, with a check for unused levels.
as_model_factor <- function(data, name) {
  x <- data_column(data, name)
  if (is.character(x) || is.logical(x)) x <- factor(x)
  if (!is.factor(x)) tstop("column '%s' must be a factor here, not %s", name, class(x)[1])
  used <- tabulate(as.integer(x), nlevels(x)) > 0L
  if (!all(used))
    tstop("factor '%s' has unused levels: %s (drop them with droplevels())", name,
          paste(levels(x)[!used], collapse = ", "))
  x
}

as_model_numeric <- function(data, name, what = "a covariate") {
  x <- data_column(data, name)
  if (!is.numeric(x)) tstop("column '%s' must be numeric to be used as %s, not %s", name, what, class(x)[1])
  if (any(is.infinite(x))) tstop("column '%s' holds infinite values", name)
  as.double(x)
}

var_name <- function(e, what) {
  if (!is.name(e)) tstop("%s must be a column name, not '%s'", what, deparse(e))
  as.character(e)
}

eval_arg <- function(e, env, what) {
  v <- tryCatch(eval(e, env), error = function(err) tstop("cannot evaluate %s '%s': %s", what, deparse(e), conditionMessage(err)))
  v
}

num_arg <- function(e, env, what) {
  v <- eval_arg(e, env, what)
  if (!is.numeric(v) || length(v) != 1L || !is.finite(v)) tstop("%s must be one finite number", what)
  as.double(v)
}

# One leaf: a term that reads the data directly.  Fields: key (unique),
# code, a, b (first data column), c, flev, nlev, faconst, labels (one a
# equation), maxent (most entries it adds to a row), and tables for the
# integer and real stores.
leaf <- function(key, code, b, flev, nlev, labels, a = 0L, c = 0L, faconst = 0,
                 maxent = 1L, itable = NULL, jtable = NULL, levels = labels) {
  list(kind = "leaf", key = key, code = as.integer(code), a = as.integer(a), b = as.integer(b),
       c = as.integer(c), flev = as.integer(flev), nlev = as.integer(nlev), faconst = as.double(faconst),
       labels = labels, levels = as.character(levels), maxent = as.integer(maxent), itable = itable,
       jtable = jtable)
}

factor_leaf <- function(data, name, store) {
  f <- as_model_factor(data, name)
  b <- add_columns(store, paste0("factor:", name), as.integer(f))
  leaf(name, 0L, b, nlevels(f), 1L, paste0(name, levels(f)), levels = levels(f))
}

# Parses one variable of a term: a column or a call of a term function.
parse_variable <- function(e, data, env, store) {
  key <- paste(deparse(e, width.cutoff = 500L), collapse = "")
  if (is.name(e)) {
    name <- as.character(e)
    if (is_trait(store, name)) return(trait_leaf(store))
    x <- data_column(data, name)
    if (is.factor(x) || is.character(x) || is.logical(x)) return(factor_leaf(data, name, store))
    x <- as_model_numeric(data, name)
    b <- add_columns(store, paste0("num:", name), x)
    return(leaf(name, 0L, b, 1L, 1L, name))
  }
  if (!is.call(e)) tstop("cannot read the model term '%s'", key)
  fn <- as.character(e[[1L]])[1L]
  args <- as.list(e)[-1L]
  arg <- function(name, pos, default = NULL) {
    nm <- names(args)
    if (!is.null(nm) && name %in% nm) return(args[[name]])
    unnamed <- if (is.null(nm)) seq_along(args) else which(nm == "")
    if (length(unnamed) >= pos) return(args[[unnamed[pos]]])
    if (is.null(default)) tstop("'%s' needs its argument '%s'", key, name)
    default
  }
  if (fn %in% names(transform_codes)) {
    name <- var_name(arg("x", 1L), sprintf("the first argument of %s()", fn))
    x <- as_model_numeric(data, name, sprintf("the argument of %s()", fn))
    b <- add_columns(store, paste0("num:", name), x)
    code <- transform_codes[[fn]]
    c <- 0L
    fc <- 0
    if (fn %in% c("tr_sin", "tr_cos")) {
      fc <- num_arg(arg("period", 2L), env, "'period'")
      if (fc == 0) tstop("the period of %s must not be 0", key)
    } else if (fn %in% c("above", "below")) {
      fc <- num_arg(arg("value", 2L), env, "'value'")
    } else if (fn == "tr_pow") {
      p <- num_arg(arg("power", 2L), env, "'power'")
      if (abs(p * 1000 - round(p * 1000)) > 1e-6 || abs(p) > 2e6)
        tstop("the power of %s must be a multiple of 0.001", key)
      c <- as.integer(round(p * 1000))
      fc <- num_arg(arg("offset", 3L, 0), env, "'offset'")
    } else {
      fc <- num_arg(arg("offset", 2L, 0), env, "'offset'")
    }
    return(leaf(key, code, b, 1L, 1L, key, c = c, faconst = fc))
  }
  switch(fn,
    at = {
      name <- var_name(arg("f", 1L), "the first argument of at()")
      f <- as_model_factor(data, name)
      lev <- as.character(eval_arg(arg("levels", 2L), env, "the levels of at()"))
      bad <- setdiff(lev, levels(f))
      if (length(bad)) tstop("at(): %s not a level of '%s'", paste(bad, collapse = ", "), name)
      if (!length(lev)) tstop("at() needs at least one level")
      list(kind = "at", factor = factor_leaf(data, name, store), levels = match(lev, levels(f)),
           labels = sprintf("at(%s, %s)", name, lev))
    },
    grp = {
      name <- var_name(arg("f", 1L), "the first argument of grp()")
      f <- as_model_factor(data, name)
      groups <- eval_arg(arg("groups", 2L), env, "the groups of grp()")
      if (!is.list(groups) || is.null(names(groups)) || any(names(groups) == ""))
        tstop("grp(): 'groups' must be a named list of vectors of levels")
      map <- numeric(nlevels(f))
      for (g in seq_along(groups)) {
        lev <- as.character(groups[[g]])
        bad <- setdiff(lev, levels(f))
        if (length(bad)) tstop("grp(): %s not a level of '%s'", paste(bad, collapse = ", "), name)
        if (any(map[match(lev, levels(f))] != 0)) tstop("grp(): a level of '%s' is in two groups", name)
        map[match(lev, levels(f))] <- g
      }
      b <- add_columns(store, paste0("factor:", name), as.integer(f))
      leaf(key, -37L, b, length(groups), 1L, paste0(key, names(groups)), c = nlevels(f), jtable = map)
    },
    opoly = {
      name <- var_name(arg("x", 1L), "the first argument of opoly()")
      x <- as_model_numeric(data, name, "the argument of opoly()")
      d <- num_arg(arg("degree", 2L), env, "'degree'")
      if (d < 1 || d != round(d)) tstop("opoly(): 'degree' must be a positive whole number")
      ok <- !is.na(x)
      if (length(unique(x[ok])) <= d) tstop("opoly(): '%s' has too few distinct values for degree %d", name, as.integer(d))
      scores <- matrix(NA_real_, length(x), d)
      scores[ok, ] <- .Call(C_orthpoly, x[ok], as.integer(d))
      b <- add_columns(store, key, scores)
      leaf(key, 0L, b, d, d, paste0(key, seq_len(d)), maxent = d)
    },
    cubic_spline = {
      name <- var_name(arg("x", 1L), "the first argument of cubic_spline()")
      kexpr <- arg("knots", 2L, FALSE)
      knots <- if (identical(kexpr, FALSE)) NULL else eval_arg(kexpr, env, "the knots of cubic_spline()")
      sp <- spline_leaf_basis(data, name, knots)
      b <- add_columns(store, paste0("num:", name), sp$x)
      n <- length(sp$points) - 2L
      lf <- leaf(key, -3L, b, n, 0L, paste0(key, seq_len(n)), maxent = n,
                 jtable = if (sp$given) c(length(sp$points), sp$points), levels = format(seq_len(n)))
      lf$covariate <- name
      lf
    },
    legendre = {
      name <- var_name(arg("x", 1L), "the first argument of legendre()")
      x <- as_model_numeric(data, name, "the argument of legendre()")
      k <- num_arg(arg("degree", 2L), env, "'degree'")
      if (k < 1 || k != round(k)) tstop("legendre(): 'degree' must be a positive whole number")
      ok <- !is.na(x)
      if (length(unique(x[ok])) <= k) tstop("legendre(): '%s' has too few distinct values for degree %d", name, as.integer(k))
      cols <- matrix(NA_real_, length(x), k + 1L)
      cols[ok, ] <- .Call(C_legendre_basis, as.double(x[ok]), as.integer(k))
      b <- add_columns(store, key, cols)
      leaf(key, 0L, b, k + 1L, k + 1L, paste0(key, 0:k), maxent = k + 1L)
    },
    basis = basis_leaf(e, key, arg, data, env, store),
    value_factor = value_factor_leaf(key, arg, data, store),
    helmert = {
      name <- var_name(arg("f", 1L), "the argument of helmert()")
      f <- as_model_factor(data, name)
      if (nlevels(f) < 2L) tstop("helmert(): '%s' needs at least two levels", name)
      b <- add_columns(store, paste0("factor:", name), as.integer(f))
      leaf(key, 0L, b, nlevels(f) - 1L, 1L, paste0(key, seq_len(nlevels(f) - 1L)), c = -29L,
           maxent = nlevels(f) - 1L)
    },
    rec = {
      fac <- isTRUE(eval_arg(arg("factor", 1L, FALSE), env, "'factor'"))
      n <- store$nrow
      if (fac) leaf("rec(factor = TRUE)", -9L, 0L, n, 0L, paste0("rec", seq_len(n)))
      else leaf("rec()", -9L, 0L, 1L, 0L, "rec()")
    },
    marker = {
      name <- var_name(arg("id", 1L), "the first argument of marker()")
      f <- as_model_factor(data, name)
      sexpr <- arg("scores", 2L)
      M <- eval_arg(sexpr, env, "the scores of marker()")
      if (!is.matrix(M) || !is.numeric(M)) tstop("marker(): 'scores' must be a numeric matrix")
      if (!is.null(rownames(M))) {
        miss <- setdiff(levels(f), rownames(M))
        if (length(miss)) tstop("marker(): no scores for individuals %s", paste(utils::head(miss, 5), collapse = ", "))
        M <- M[levels(f), , drop = FALSE]
      } else if (nrow(M) != nlevels(f)) {
        tstop("marker(): 'scores' needs one row for each level of '%s' (or row names)", name)
      }
      k <- eval_arg(arg("k", 3L), env, "the marker of marker()")
      if (is.character(k)) k <- match(k, colnames(M))
      if (length(k) != 1L || is.na(k) || k < 1 || k > ncol(M) || k != round(k))
        tstop("marker(): 'k' must name one column of 'scores'")
      byte <- round(80 + 80 * M)
      if (anyNA(M) || any(abs(byte - (80 + 80 * M)) > 1e-8) || any(byte < 0 | byte > 255))
        tstop("marker(): scores must be present and lie in steps of 1/80 from -1 to 2.1875")
      stride <- (ncol(M) + 3L) %/% 4L
      padded <- matrix(0, nrow(M), stride * 4L)
      padded[, seq_len(ncol(M))] <- byte
      words <- padded[, seq(1L, by = 4L, length.out = stride), drop = FALSE] +
        256 * padded[, seq(2L, by = 4L, length.out = stride), drop = FALSE] +
        65536 * padded[, seq(3L, by = 4L, length.out = stride), drop = FALSE] +
        16777216 * padded[, seq(4L, by = 4L, length.out = stride), drop = FALSE]
      words <- ifelse(words >= 2^31, words - 2^32, words)
      tab <- c(ncol(M), nrow(M), stride, as.integer(t(words)))
      b <- add_columns(store, paste0("factor:", name), as.integer(f))
      leaf(key, -38L, b, 1L, 1L, key, c = as.integer(k), itable = as.integer(tab))
    },
    evaluated_variable(e, key, fn, data, env, store)
  )
}

# Structure functions belong in the random and residual formulae only.
structure_function_names <- c("cov_id", "cov_diag", "cov_us", "cov_ar1", "cov_ar2", "cov_ar3", "cov_ma1", "cov_ma2",
                              "cov_arma", "cov_sar", "cov_sar2", "cov_cor", "cov_corb", "cov_corg", "cov_known",
                              "het", "coefs")

# Any other call is a function of the data, evaluated the way lm() does it
# (factor(x), I(x^2), log(x), poly(x, 2)): a factor, a numeric vector, or a
# numeric matrix whose columns become covariates of their own.
evaluated_variable <- function(e, key, fn, data, env, store) {
  if (fn %in% structure_function_names)
    tstop("'%s' describes a variance structure: it belongs in the random or residual formula", key)
  if (fn == "offset") tstop("'%s': an offset belongs in the fixed formula", key)
  x <- tryCatch(eval(e, data, env), error = function(err)
    tstop("cannot evaluate the model term '%s': %s", key, conditionMessage(err)))
  n <- store$nrow
  if (is.character(x) || is.logical(x)) x <- factor(x)
  if (is.factor(x)) {
    if (length(x) != n) tstop("the model term '%s' has %d values for %d records", key, length(x), n)
    x <- droplevels(x)
    if (nlevels(x) < 1L) tstop("the model term '%s' holds only missing values", key)
    b <- add_columns(store, paste0("factor:", key), as.integer(x))
    return(leaf(key, 0L, b, nlevels(x), 1L, paste0(key, levels(x)), levels = levels(x)))
  }
  if (!is.numeric(x)) tstop("the model term '%s' must give a factor or numeric values, not %s", key, class(x)[1])
  m <- as.matrix(x)
  if (nrow(m) != n) tstop("the model term '%s' has %d values for %d records", key, nrow(m), n)
  if (any(is.infinite(m))) tstop("the model term '%s' holds infinite values", key)
  if (all(is.na(m))) tstop("the model term '%s' holds only missing values", key)
  d <- ncol(m)
  b <- add_columns(store, paste0("num:", key), m)
  if (d == 1L) return(leaf(key, 0L, b, 1L, 1L, key))
  cn <- colnames(m)
  if (is.null(cn)) cn <- seq_len(d)
  leaf(key, 0L, b, d, d, paste0(key, cn), maxent = d)
}

# Parses the right-hand side of a formula into terms: each a list of
# variables.  `intercept` says whether the formula keeps the intercept.
parse_rhs <- function(formula, data, env, store, allow_intercept = TRUE) {
  tf <- stats::terms(formula, keep.order = TRUE)
  vars <- attr(tf, "variables")
  fac <- attr(tf, "factors")
  if (attr(tf, "response") != 0 && length(formula) == 3L && !allow_intercept)
    tstop("the random and residual formulae have no response")
  labels <- attr(tf, "term.labels")
  parsed <- list()
  for (j in seq_along(labels)) {
    rows <- which(fac[, j] > 0)
    exprs <- lapply(rows, function(i) vars[[i + 1L]])
    parsed[[j]] <- list(label = labels[j], vars = lapply(exprs, parse_variable, data = data, env = env, store = store))
  }
  list(terms = parsed, intercept = attr(tf, "intercept") == 1L)
}

#' @noRd
parse_model <- function(fixed, random, residual, data, weights, na_response, na_design, env) {
  if (!inherits(fixed, "formula") || length(fixed) != 3L) tstop("'fixed' must be a formula with a response")
  if (!is.data.frame(data)) tstop("'data' must be a data frame")
  if (nrow(data) < 1L) tstop("'data' has no records")
  store <- new_columns(nrow(data))
  yexpr <- fixed[[2L]]
  yname <- var_name(yexpr, "the response")
  y <- data_column(data, yname)
  if (is.factor(y) || is.character(y) || is.logical(y))
    tstop("the response '%s' must be numeric, not a factor", yname)
  y <- as_model_numeric(data, yname, "the response")
  add_columns(store, "response", y)
  wcol <- 0L
  if (!is.null(weights)) {
    if (!is.character(weights) || length(weights) != 1L) tstop("'weights' must be the name of a data column")
    w <- as_model_numeric(data, weights, "weights")
    if (any(w < 0, na.rm = TRUE)) tstop("the weights '%s' must not be negative", weights)
    wcol <- add_columns(store, "weights", w)
  }
  fx <- parse_rhs(stats::delete.response(stats::terms(fixed, keep.order = TRUE)), data, env, store)
  rx <- NULL
  if (!is.null(random)) {
    if (!inherits(random, "formula") || length(random) != 2L) tstop("'random' must be a one-sided formula")
    rx <- parse_random(random, data, env, store)
    check_spline_trends(fx, rx)
  }
  resid <- if (is.list(residual) && !inherits(residual, "formula")) residual else parse_residual(residual, data, env)
  structure(list(response = yname, y = y, fixed = fx, random = rx, residual = residual, resid = resid,
                 weights_column = wcol, store = store, nrow = nrow(data), data = data,
                 na_response = na_response, na_design = na_design),
            class = "tarnel_model")
}
