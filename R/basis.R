# Terms built from a covariate on the R side: the columns of a basis matrix
# the user gives, and a factor of the distinct values of a covariate.  Both
# reach the engine as ordinary columns of the data (a basis as covariates, the
# grouping as a factor).

basis <- function(x, M) term_only("basis")

value_factor <- function(x) term_only("value_factor")

# The values of x that label the rows of a basis matrix: its attribute
# "values", else its row names read as numbers; NULL when it has neither.
basis_row_values <- function(M) {
  v <- attr(M, "values", exact = TRUE)
  if (is.null(v) && !is.null(rownames(M))) {
    v <- suppressWarnings(as.numeric(rownames(M)))
    if (anyNA(v)) tstop("basis(): the row names of the matrix must be the values of the covariate (numbers)")
  }
  if (is.null(v)) return(NULL)
  if (!is.numeric(v) || length(v) != nrow(M) || anyNA(v) || any(!is.finite(v)))
    tstop("basis(): the matrix needs one finite value of the covariate for each of its %d rows", nrow(M))
  as.double(v)
}

# The record-by-column values of basis(x, M): rows of M picked by the value
# of x (rows labelled by values) or taken in record order (one row a record).
basis_columns <- function(x, name, M, n) {
  if (is.data.frame(M)) M <- as.matrix(M)
  if (!is.matrix(M) || !is.numeric(M)) tstop("basis(): 'M' must be a numeric matrix")
  if (ncol(M) < 1L || nrow(M) < 1L) tstop("basis(): the matrix has no rows or no columns")
  if (anyNA(M)) tstop("basis(): the matrix holds %d missing values", sum(is.na(M)))
  if (any(!is.finite(M))) tstop("basis(): the matrix holds infinite values")
  vals <- basis_row_values(M)
  ok <- !is.na(x)
  # Rows labelled by each record's own value are one row a record.
  if (!is.null(vals) && anyDuplicated(vals)) {
    if (nrow(M) != n || any(abs(vals[ok] - x[ok]) > 1e-8 * pmax(1, abs(x[ok]))))
      tstop("basis(): the value %g labels two rows of the matrix", vals[anyDuplicated(vals)])
    vals <- NULL
  }
  out <- matrix(NA_real_, n, ncol(M))
  if (is.null(vals)) {
    if (nrow(M) != n)
      tstop("basis(): the matrix has %d rows; it needs one row a record (%d) or row names giving the values of '%s'",
            nrow(M), n, name)
    out[ok, ] <- M[ok, , drop = FALSE]
  } else {
    # Values match when they agree to a relative 1e-8, so that values written
    # out as text find their rows.
    o <- order(vals)
    sv <- vals[o]
    i <- findInterval(x[ok], sv, all.inside = length(sv) > 1L)
    if (length(sv) == 1L) i <- rep(1L, sum(ok))
    j <- ifelse(i < length(sv) & abs(sv[pmin(i + 1L, length(sv))] - x[ok]) < abs(sv[i] - x[ok]), i + 1L, i)
    miss <- abs(sv[j] - x[ok]) > 1e-8 * pmax(1, abs(x[ok]))
    if (any(miss))
      tstop("basis(): the matrix has no row for the value%s %s of '%s'", if (sum(miss) > 1L) "s" else "",
            paste(format(utils::head(sort(unique(x[ok][miss])), 5)), collapse = ", "), name)
    out[ok, ] <- M[o[j], , drop = FALSE]
  }
  out
}

basis_leaf <- function(e, key, arg, data, env, store) {
  name <- var_name(arg("x", 1L), "the first argument of basis()")
  x <- as_model_numeric(data, name, "the argument of basis()")
  M <- eval_arg(arg("M", 2L), env, "the matrix of basis()")
  cols <- basis_columns(x, name, M, store$nrow)
  d <- ncol(cols)
  cn <- colnames(M)
  if (is.null(cn)) cn <- seq_len(d)
  b <- add_columns(store, key, cols)
  lf <- leaf(key, 0L, b, d, d, paste0(key, cn), maxent = d)
  lf$basis_matrix <- if (is.data.frame(M)) as.matrix(M) else M
  lf
}

# The distinct values of x as a factor, levels in increasing order.
value_factor_leaf <- function(key, arg, data, store) {
  name <- var_name(arg("x", 1L), "the argument of value_factor()")
  raw <- data_column(data, name)
  if (is.factor(raw) || is.character(raw) || is.logical(raw))
    tstop("value_factor(): '%s' is already a factor; use it directly", name)
  x <- as_model_numeric(data, name, "the argument of value_factor()")
  if (all(is.na(x))) tstop("value_factor(): '%s' holds only missing values", name)
  v <- sort(unique(x[!is.na(x)]))
  lev <- as.character(v)
  f <- match(x, v)
  b <- add_columns(store, paste0("values:", key), f)
  lf <- leaf(key, 0L, b, length(v), 1L, paste0(key, lev), levels = lev)
  lf$value_factor <- TRUE
  lf
}
