# The cumulative (ordinal) family: an ordered response of K categories with
# P(Y <= j) = F(zeta_j - eta), eta = x'beta + z'u + offset, as MASS::polr
# and ordinal::clm write it.  The engine takes each record as k = K - 1
# rows, one a threshold, with the cumulative indicator [Y <= j] as response
# and linear predictor theta_j + x'b: so beta = -b and zeta = theta.  The
# thresholds are the intercept (theta_1) and covariates .thr2 ... .thrK-1
# (theta_j - theta_1); row j carries the covariate of threshold j and that
# of j + 1, whose value the engine sets in each pass.

#' Cumulative link family for an ordered response
#'
#' @param link "logit", "probit" or "cloglog".
#' @return A family object for \code{tarnel(family = )}.
#' @export
cumulative <- function(link = c("logit", "probit", "cloglog")) {
  link <- match.arg(link)
  lk <- stats::make.link(link)
  fam <- list(family = "cumulative", link = link, linkfun = lk$linkfun, linkinv = lk$linkinv,
              mu.eta = lk$mu.eta, valideta = lk$valideta)
  class(fam) <- "family"
  fam
}

# The response of a cumulative model: an ordered factor (a plain factor is
# taken in the order of its levels), kept as its codes.
ordinal_response <- function(g, lhs, data, env) {
  y <- eval(lhs, data, env)
  if (!is.factor(y))
    tstop("the cumulative family needs an ordered factor response; '%s' is %s", deparse(lhs), class(y)[1L])
  if (length(y) != nrow(data)) tstop("the response '%s' must give one value a record", deparse(lhs))
  if (nlevels(y) < 2L) tstop("the ordered response '%s' needs at least two levels", deparse(lhs))
  g$levels <- levels(y)
  g$k <- nlevels(y) - 1L
  g$ordinal <- TRUE
  g$code <- as.integer(y)
  g
}

# The records of a cumulative model as the engine takes them: each record
# repeated once a threshold, the cumulative indicator as response and the
# threshold covariates; the subset, evaluated on the records, goes with
# them as a column.  Refuses a level of the response that no record kept
# has, naming it.
ordinal_expand <- function(g, fixed, data, sexpr, env) {
  k <- g$k
  n <- nrow(data)
  keep <- rep(TRUE, n)
  if (!is.null(sexpr)) {
    r <- eval_in_data(sexpr, data, env, "the subset")
    if (is.logical(r)) {
      if (length(r) != n) tstop("the subset has %d values for %d records", length(r), n)
      keep <- !is.na(r) & r
    } else if (is.numeric(r)) {
      keep <- if (length(r) && all(r < 0)) !(seq_len(n) %in% -r) else seq_len(n) %in% r
    } else tstop("the subset must be logical or record numbers")
  }
  code <- g$code
  seen <- tabulate(code[keep & !is.na(code)], nbins = k + 1L)
  if (any(seen == 0L)) {
    miss <- g$levels[seen == 0L]
    tstop("the ordered response '%s' has no record at level%s %s: drop the level%s (droplevels()) or merge categories",
          deparse(fixed[[2L]]), if (length(miss) > 1L) "s" else "", paste0("'", miss, "'", collapse = ", "),
          if (length(miss) > 1L) "s" else "")
  }
  tt <- stats::terms(fixed)
  if (attr(tt, "intercept") != 1L)
    tstop("the cumulative family has thresholds in place of an intercept: leave out '- 1' and '+ 0'")
  idx <- rep(seq_len(n), each = k)
  j <- rep(seq_len(k), n)
  dx <- data[idx, , drop = FALSE]
  dx[[".glm_y"]] <- as.double(code[idx] <= j)
  dx[[".ord_code"]] <- code[idx]
  dx[[".ord_j"]] <- j
  thr <- if (k > 1L) paste0(".thr", 2:k) else character()
  for (m in seq_along(thr)) dx[[thr[m]]] <- as.double(j == m + 1L | j == m)
  dx[[".ord_subset"]] <- keep[idx]
  rownames(dx) <- NULL
  rhs <- fixed[[3L]]
  for (m in rev(thr)) rhs <- call("+", as.name(m), rhs)
  f <- fixed
  f[[2L]] <- as.name(".glm_y")
  f[[3L]] <- rhs
  environment(f) <- environment(fixed)
  list(fixed = f, data = dx, subset = if (is.null(sexpr)) NULL else as.name(".ord_subset"))
}

# The engine's threshold table: the number of thresholds and the equation
# of the second one (the later ones follow it).
ordinal_thrlevels <- function(g, table) {
  if (g$k < 2L) return(c(1L, 0L))
  eq <- match(".thr2", table$labels) + 1L
  if (is.na(eq) || !identical(table$labels[eq - 2L + seq_len(g$k - 1L)], paste0(".thr", 2:g$k)))
    tstop("the thresholds of the cumulative model could not be placed in its equations")
  c(g$k, eq)
}

# The threshold covariates as the equations had them at the end: 1 on the
# row of their threshold and 0 elsewhere (the engine sets the value on the
# row before), in the fit's data and fixed-effect design, from which the
# coefficients in R's coding are formed.
ordinal_design <- function(fit, g) {
  if (g$k < 2L) return(fit)
  j <- fit$model$data[[".ord_j"]]
  X <- fit$fixed_design
  for (m in 2:g$k) {
    v <- as.double(j == m)
    nm <- paste0(".thr", m)
    fit$model$data[[nm]] <- v
    if (!is.null(X) && nm %in% colnames(X)) X[, nm] <- v
  }
  fit$fixed_design <- X
  fit
}

# The fit in the convention of polr and clm: coefficients beta = -b and
# thresholds zeta with their joint covariance, random effects with the
# sign of beta, and per record the linear predictor, the probabilities of
# the categories and the deviance.
ordinal_finish <- function(fit, g) {
  k <- g$k
  b <- fit$coefficients
  thr <- c("(Intercept)", if (k > 1L) paste0(".thr", 2:k))
  if (!all(thr %in% names(b))) tstop("the thresholds of the cumulative model are not estimable")
  rest <- setdiff(names(b), thr)
  zn <- paste(g$levels[-(k + 1L)], g$levels[-1L], sep = "|")
  M <- matrix(0, length(rest) + k, length(b), dimnames = list(c(rest, zn), names(b)))
  M[cbind(seq_along(rest), match(rest, names(b)))] <- -1
  M[length(rest) + seq_len(k), "(Intercept)"] <- 1
  for (m in seq_len(k)[-1L]) M[length(rest) + m, thr[m]] <- 1
  bv <- b
  V <- fit$vcov[names(b), names(b), drop = FALSE]
  est <- drop(M %*% bv)
  fit$coefficients <- est[seq_along(rest)]
  fit$zeta <- est[length(rest) + seq_len(k)]
  fit$vcov <- M %*% V %*% t(M)
  fit$ranef <- -fit$ranef
  fit$wald_table <- fit$wald_table[!fit$wald_table$term %in% thr, , drop = FALSE]
  # Per record: the rows of threshold k hold theta_k + x'b + z'u - offset.
  nrec <- length(fit$fitted) %/% k
  last <- seq_len(nrec) * k
  zk <- fit$zeta[k]
  lp <- unname(zk - fit$fitted[last])
  lp_fixed <- unname(zk - fit$fitted_fixed[last])
  code <- g$code_user[last]
  w <- g$n[last]
  cum <- outer(lp, fit$zeta, function(e, z) fit$family$linkinv(z - e))
  P <- cbind(cum, 1) - cbind(0, cum)
  dimnames(P) <- list(NULL, g$levels)
  ok <- !is.na(lp) & !is.na(code)
  fit$deviance <- -2 * sum(w[ok] * log(P[cbind(which(ok), code[ok])]))
  fit$eta <- lp
  fit$fitted <- lp
  fit$fitted_fixed <- lp_fixed
  fit$mu <- P
  fit$y <- factor(g$levels[code], levels = g$levels, ordered = TRUE)
  fit$prior_weights <- w
  fit$residuals <- rep(NA_real_, nrec)
  fit$nobs <- sum(ok)
  fit$records <- nrec
  if (!is.null(fit$offset)) fit$offset <- -fit$offset[last]
  if (!is.null(fit$frame)) fit$frame <- fit$frame[seq(1L, nrow(fit$frame), by = k), , drop = FALSE]
  fit$glm$k <- k
  fit$glm$levels <- g$levels
  class(fit) <- c("tarnel_ordinal", class(fit))
  fit
}

not_for_ordinal <- function(what)
  tstop("%s of the cumulative (ordinal) family are not available yet", what)

#' @export
residuals.tarnel_ordinal <- function(object, ...) not_for_ordinal("residuals")

#' @export
predict.tarnel_ordinal <- function(object, ...) not_for_ordinal("predictions")

#' @export
print.tarnel_ordinal <- function(x, ...) {
  NextMethod()
  cat("Thresholds (zeta, P(Y <= j) = F(zeta_j - eta)):\n")
  print(x$zeta, ...)
  invisible(x)
}
