# Responses simulated from a fitted model: the fixed part X b plus random
# effects and residuals drawn from the estimated variances.  Available for
# random terms that are plain terms (a variance for their levels) or random
# coefficients, with independent residuals.

# The level (1-based) and multiplier of each record in one random term:
# factors give the level, levels of later factors running fastest;
# covariates multiply.
term_incidence <- function(model, term) {
  store <- model$store
  firsts <- vapply(store$values, function(m) attr(m, "first"), 1L)
  index <- rep(1, model$nrow)
  value <- rep(1, model$nrow)
  for (v in term$vars) {
    if (!identical(v$kind, "leaf") || v$code != 0L || v$b < 1L) return(NULL)
    x <- store$values[[match(v$b, firsts)]][, 1L]
    if (v$flev > 1L && v$nlev == 1L) index <- (index - 1) * v$flev + x
    else if (v$flev == 1L) value <- value * x
    else return(NULL)
  }
  list(index = index, value = value)
}

#' @export
simulate.tarnel <- function(object, nsim = 1, seed = NULL, ...) {
  if (!is.null(seed)) set.seed(seed)
  model <- object$model
  if (!identical(model$resid$kind, "identity"))
    stop("tarnel: simulate() is not available yet for models with a structured residual", call. = FALSE)
  vc <- VarCorr(object)
  groups <- if (is.null(model$random)) list() else model$random$groups
  parts <- list()
  for (g in groups) {
    if (!g$kind %in% c("identity", "coefs"))
      stop(sprintf("tarnel: simulate() is not available yet for the structured term '%s'", g$label), call. = FALSE)
    inc <- lapply(model$random$terms[g$terms], term_incidence, model = model)
    if (any(vapply(inc, is.null, TRUE)))
      stop(sprintf("tarnel: simulate() is not available yet for the term '%s'", g$label), call. = FALSE)
    if (g$kind == "identity") {
      # One variance a model position (more than one under at()).
      v <- vc[vc$group == g$label & vc$kind == "variance", "variance"]
      if (length(v) != length(inc))
        stop(sprintf("tarnel: simulate() is not available yet for the term '%s'", g$label), call. = FALSE)
      for (k in seq_along(inc)) parts[[length(parts) + 1L]] <- list(inc = inc[k], G = matrix(v[k], 1L, 1L))
    } else {
      rows <- vc[vc$group == g$factor, , drop = FALSE]
      k <- match(g$coef_names, rows$var1[is.na(rows$var2)])
      G <- diag(rows$variance[is.na(rows$var2)][k], length(k))
      for (r in which(!is.na(rows$var2))) {
        i <- match(rows$var1[r], g$coef_names); j <- match(rows$var2[r], g$coef_names)
        G[i, j] <- G[j, i] <- rows$variance[r]
      }
      parts[[length(parts) + 1L]] <- list(inc = inc, G = G)
    }
  }
  rows <- object$records_rows
  present <- !is.na(model$y)
  s2 <- object$sigma2
  w <- if (model$weights_column > 0L) object$table$data[, model$weights_column] else rep(1, model$nrow)
  base <- object$fitted_fixed
  out <- matrix(NA_real_, length(base), nsim)
  for (s in seq_len(nsim)) {
    y <- stats::rnorm(model$nrow, sd = sqrt(s2 / w))
    for (p in parts) {
      nlev <- max(vapply(p$inc, function(i) max(i$index), 1))
      R <- chol(p$G + diag(1e-12 * max(diag(p$G), 1), nrow(p$G)), pivot = TRUE)
      R <- R[, order(attr(R, "pivot")), drop = FALSE]
      u <- matrix(stats::rnorm(nlev * nrow(p$G)), nlev) %*% R
      for (k in seq_along(p$inc)) y <- y + p$inc[[k]]$value * u[p$inc[[k]]$index, k]
    }
    ok <- present & !is.na(rows)
    col <- rep(NA_real_, length(base))
    col[rows[ok]] <- y[ok]
    out[, s] <- base + col
  }
  out <- as.data.frame(out)
  names(out) <- paste0("sim_", seq_len(nsim))
  out
}
