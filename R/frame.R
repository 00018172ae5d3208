# The data of a fit as lm() reads it: `subset` and `weights` evaluated in
# the data (weights = w, or the column's name as a string), a response that
# is a function of the data (log(y)), offsets in the fixed formula, and
# lme4's bar terms translated.  Records with zero weight are left out, as
# lm() leaves them out of the fit; their fitted values are NA.

# The names under which evaluated weights and a generalised model's offset
# join the data.
weights_name <- "(weights)"
offset_name <- "(offset)"

# Evaluates `subset` or `weights`: NULL stays NULL.
eval_in_data <- function(e, data, env, what) {
  if (is.null(e)) return(NULL)
  tryCatch(eval(e, data, env), error = function(err) tstop("cannot evaluate %s '%s': %s", what,
                                                           paste(deparse(e), collapse = ""), conditionMessage(err)))
}

#' @noRd
prepare_data <- function(fixed, random, data, wexpr, sexpr, env, subtract_offset = TRUE) {
  n <- nrow(data)
  w <- eval_in_data(wexpr, data, env, "the weights")
  if (is.character(w) && length(w) == 1L) w <- data_column(data, w)
  wlabel <- if (is.character(wexpr)) wexpr else paste(deparse(wexpr), collapse = "")
  if (!is.null(w)) {
    if (!is.numeric(w) || is.matrix(w)) tstop("the weights '%s' must be numeric, not %s", wlabel, class(w)[1])
    if (length(w) != n) tstop("the weights '%s' have %d values for %d records", wlabel, length(w), n)
  }
  r <- eval_in_data(sexpr, data, env, "the subset")
  subsetted <- !is.null(r)
  if (subsetted) {
    if (is.logical(r)) {
      if (length(r) != n) tstop("the subset has %d values for %d records", length(r), n)
      r <- which(r)
    } else if (!is.numeric(r)) tstop("the subset must be logical or record numbers")
    data <- data[r, , drop = FALSE]
    if (!is.null(w)) w <- w[r]
    if (nrow(data) < 1L) tstop("the subset leaves no records")
  }
  if (!is.null(w)) {
    bad <- which(is.na(w))
    if (length(bad)) tstop("the weights '%s' hold %d missing value(s), first in record %d", wlabel, length(bad), bad[1])
    bad <- which(!is.finite(w) | w < 0)
    if (length(bad)) tstop("the weights '%s' hold %d negative or infinite value(s), first in record %d (%g)",
                           wlabel, length(bad), bad[1], w[bad[1]])
  }
  n_user <- nrow(data)
  data_user <- data
  kept <- seq_len(n_user)
  if (!is.null(w) && any(w == 0)) {
    kept <- which(w > 0)
    if (!length(kept)) tstop("the weights '%s' are all zero", wlabel)
    data <- data[kept, , drop = FALSE]
    w <- w[kept]
    subsetted <- TRUE
  }
  if (subsetted) data[] <- lapply(data, function(x) if (is.factor(x)) droplevels(x) else x)
  tr <- translate_bars(fixed, random, data, env)
  fixed <- tr$fixed
  data <- tr$data
  # A response that is a function of the data becomes a column of its own.
  yexpr <- fixed[[2L]]
  if (is.call(yexpr)) {
    ylab <- paste(deparse(yexpr, width.cutoff = 500L), collapse = "")
    y <- eval_in_data(yexpr, data, env, "the response")
    if (!is.numeric(y) || length(y) != nrow(data)) tstop("the response '%s' must give one number a record", ylab)
    data[[ylab]] <- as.double(y)
    fixed[[2L]] <- as.name(ylab)
  }
  yname <- var_name(fixed[[2L]], "the response")
  # Offsets: the response less the offset is fitted; fitted values add it back.
  offset <- NULL
  tf <- stats::terms(fixed)
  if (!is.null(attr(tf, "offset"))) {
    vars <- attr(tf, "variables")
    offset <- 0
    for (i in attr(tf, "offset")) {
      o <- eval_in_data(vars[[i + 1L]][[2L]], data, env, "the offset")
      if (!is.numeric(o) || !(length(o) %in% c(1L, nrow(data))) || anyNA(o))
        tstop("the offset '%s' must give one number (not missing) a record", deparse(vars[[i + 1L]]))
      offset <- offset + o
    }
    offset <- rep_len(as.double(offset), nrow(data))
    if (subtract_offset) {
      y <- data_column(data, yname)
      if (!is.numeric(y)) tstop("the response '%s' must be numeric", yname)
      data[[yname]] <- y - offset
    } else {
      # A generalised model keeps the response and adds the offset to its
      # linear predictor.
      data[[offset_name]] <- offset
    }
  }
  if (!is.null(w)) data[[weights_name]] <- as.double(w)
  list(fixed = fixed, random = tr$random, data = data, weights = if (is.null(w)) NULL else weights_name,
       offset = offset, kept = kept, n_user = n_user, data_user = data_user)
}

# Refuses a missing value in a model term (unless na_design = "zero"),
# naming the column.  Records added to complete a grid don't count.
check_missing_design <- function(model, arranged, na_design) {
  if (na_design != "fail") return(invisible())
  store <- model$store
  real <- !is.na(arranged$rows)
  for (key in setdiff(names(store$missing), c("response", "weights"))) {
    miss <- store$missing[[key]]
    miss <- miss[real[miss]]
    if (!length(miss)) next
    col <- sub("^(factor|num|known):", "", key)
    tstop("Missing values in design variables/factors: the model term '%s' has %d missing value(s), first in record %d of the data; drop those records or use na_design = \"zero\"",
          col, length(miss), arranged$rows[miss[1]])
  }
  invisible()
}

# The fixed-effect design in the rows of the data, the model frame and the
# offsets, added to a fit.
finish_fit <- function(fit, out, arranged, prep, formulae) {
  data_used <- prep$data_user
  # The fixed columns (those of missing responses left out) as the fit
  # holds them sparse, in the rows of the user's data that have a response.
  ok <- which(!is.na(arranged$rows) & !is.na(fit$model$y))
  ok <- ok[order(arranged$rows[ok])]
  X <- fit$fixed_design
  if (!identical(ok, seq_len(nrow(X)))) X <- X[ok, , drop = FALSE]
  rownames(X) <- as.character(arranged$rows[ok])
  fit$X <- X
  if (!is.null(fit$sparse_fixed)) {
    XS <- sparse_fixed_design(fit, ok, all = TRUE)
    rownames(XS) <- rownames(X)
    fit$X <- cbind(fit$X, XS)
  }
  if (!is.null(prep$offset)) {
    off <- rep(NA_real_, prep$n_user)
    off[prep$kept] <- prep$offset
    fit$offset <- off
    fit$fitted <- fit$fitted + off
    fit$fitted_fixed <- fit$fitted_fixed + off
  }
  fit$formulae <- formulae
  fit$records_rows <- arranged$rows
  used <- !is.na(fit$residuals)
  vars <- unique(c(all.vars(formulae$fixed), all.vars(formulae$random), all.vars(formulae$residual)))
  vars <- intersect(vars, names(data_used))
  frame <- if (all(used)) data_used[vars] else data_used[used, vars, drop = FALSE]
  if (!is.null(prep$weights)) {
    w <- rep(NA_real_, prep$n_user)
    w[prep$kept] <- prep$data[[weights_name]]
    frame[[weights_name]] <- w[used]
    fit$weights <- w
  }
  fit$frame <- frame
  fit
}
