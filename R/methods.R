# The generics a user of lm(), lme4 and nlme reaches for after a fit.

#' @export
sigma.tarnel <- function(object, ...) {
  if (!isTRUE(object$profiled)) {
    warning("tarnel: the residual variance is not one number in this model; see VarCorr()", call. = FALSE)
    return(NA_real_)
  }
  sqrt(object$sigma2)
}

# -2 times the REML log-likelihood: the REML criterion.
#' @export
deviance.tarnel <- function(object, ...) -2 * as.numeric(stats::logLik(object))

# Records less every parameter estimated (fixed effects and variance
# parameters), as lme4 counts.
#' @export
df.residual.tarnel <- function(object, ...) object$nobs - attr(stats::logLik(object), "df")

#' @export
formula.tarnel <- function(x, which = c("fixed", "random", "residual"), ...) {
  which <- match.arg(which)
  x$formulae[[which]]
}

#' @export
terms.tarnel <- function(x, ...) stats::terms(x$formulae$fixed)

#' @export
model.frame.tarnel <- function(formula, ...) formula$frame

#' @export
model.matrix.tarnel <- function(object, ...) {
  # With fixed terms in the sparse equations the matrix stays sparse.
  if (!is.null(object$sparse_fixed)) return(object$X)
  X <- as.matrix(object$X)
  rownames(X) <- rownames(object$frame)
  X
}

# Wald intervals.  Fixed effects: estimate +- z standard error, from coef()
# and vcov(), so that the intervals follow the fixed-effect table.
# Variances: on the log scale, exp(log v +- z se / v), which keeps them
# positive; correlations on the scale of atanh; covariances as they are.
#' @export
confint.tarnel <- function(object, parm, level = 0.95, ...) {
  z <- stats::qnorm(1 - (1 - level) / 2)
  b <- stats::coef(object)
  se <- fixed_se(object)
  fe <- cbind(b - z * se, b + z * se)
  vc <- object$varcomp
  kind <- object$params$kind[match(rownames(vc), object$params$name)]
  v <- vc$component
  s <- vc$std.error
  ci <- cbind(v - z * s, v + z * s)
  isvar <- kind %in% c("variance", "scale") & v > 0
  ci[isvar, ] <- cbind(v[isvar] * exp(-z * s[isvar] / v[isvar]), v[isvar] * exp(z * s[isvar] / v[isvar]))
  iscor <- kind == "correlation" & abs(v) < 1
  ci[iscor, ] <- cbind(tanh(atanh(v[iscor]) - z * s[iscor] / (1 - v[iscor]^2)),
                       tanh(atanh(v[iscor]) + z * s[iscor] / (1 - v[iscor]^2)))
  out <- rbind(fe, ci)
  rownames(out) <- c(names(b), rownames(vc))
  pct <- paste(format(100 * c((1 - level) / 2, 1 - (1 - level) / 2), trim = TRUE, scientific = FALSE, digits = 3), "%")
  colnames(out) <- pct
  if (!missing(parm)) {
    if (is.numeric(parm)) parm <- rownames(out)[parm]
    bad <- setdiff(parm, rownames(out))
    if (length(bad)) stop(sprintf("tarnel: no parameter named '%s'", bad[1]), call. = FALSE)
    out <- out[parm, , drop = FALSE]
  }
  out
}

# Refits with changed arguments.  A formula given first (or as `fixed`,
# `random`, `residual`) is combined with the fit's own as update.formula()
# does: update(fit, . ~ . + x).  The estimates are the starting values when
# the model itself is the same.
#' @export
update.tarnel <- function(object, ..., evaluate = TRUE) {
  call <- object$call
  extras <- match.call(expand.dots = FALSE)$...
  nm <- names(extras)
  if (is.null(nm)) nm <- rep("", length(extras))
  if (any(nm == "")) {
    if (sum(nm == "") > 1L) stop("tarnel: update() takes one unnamed argument, the new fixed formula", call. = FALSE)
    nm[nm == ""] <- "fixed"
    names(extras) <- nm
  }
  for (n in intersect(nm, c("fixed", "random", "residual"))) {
    new <- eval(extras[[n]], parent.frame())
    old <- object$formulae[[n]]
    if (!is.null(new) && !is.null(old) && inherits(new, "formula")) new <- stats::update.formula(old, new)
    extras[[n]] <- new
  }
  same_model <- !any(nm %in% c("fixed", "random", "residual", "data", "subset", "weights"))
  for (n in nm) call[[n]] <- extras[[n]]
  if (same_model && is.null(extras$start)) {
    g <- object$gammas
    call$start <- g[!names(g) %in% names(which(object$constraints == 4L))]
  }
  if (evaluate) eval(call, parent.frame()) else call
}

# Residuals against fitted values, and a normal quantile plot of the
# residuals.
#' @export
plot.tarnel <- function(x, which = 1:2, ask = FALSE, curve = NULL, by = NULL, at = NULL, level = 0.95, ...) {
  if (!is.null(curve)) return(plot_fitted_curve(x, curve, by = by, at = at, level = level, ...))
  r <- x$residuals
  f <- x$fitted
  ok <- !is.na(r) & !is.na(f)
  if (!any(ok)) stop("tarnel: the fit has no residuals to plot", call. = FALSE)
  which <- intersect(which, 1:2)
  if (length(which) > 1L && !ask) {
    op <- graphics::par(mfrow = c(1L, length(which)))
    on.exit(graphics::par(op))
  } else if (ask) {
    op <- grDevices::devAskNewPage(TRUE)
    on.exit(grDevices::devAskNewPage(op))
  }
  if (1L %in% which) {
    graphics::plot(f[ok], r[ok], xlab = "Fitted values", ylab = "Residuals", main = "Residuals vs fitted", ...)
    graphics::abline(h = 0, lty = 2, col = "grey50")
    graphics::lines(stats::lowess(f[ok], r[ok]), col = "red")
  }
  if (2L %in% which) {
    stats::qqnorm(r[ok], main = "Normal Q-Q of residuals", ...)
    stats::qqline(r[ok], lty = 2, col = "grey50")
  }
  invisible(x)
}
