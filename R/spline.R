# Cubic smoothing splines: the checks of a spline term's covariate and knots,
# and the knot points and Z matrix of a covariate for the user.

# The covariate of a spline term and its design points; a clear error for
# each covariate that cannot carry a spline.
spline_leaf_basis <- function(data, name, knots) {
  raw <- data_column(data, name)
  if (is.factor(raw) || is.character(raw) || is.logical(raw))
    tstop("cubic_spline(): '%s' is a factor; a spline needs a numeric covariate", name)
  x <- as_model_numeric(data, name, "the argument of cubic_spline()")
  check_spline_covariate(x, name, knots)
}

# A spline term's curve has no linear part of its own: warns when the fixed
# terms lack the trend (x for cubic_spline(x), x:f for cubic_spline(x):f).
check_spline_trends <- function(fx, rx) {
  fixed_sets <- lapply(fx$terms, function(t) unname(sort(vapply(t$vars, function(v) if (is.null(v$key)) "" else v$key, ""))))
  for (t in rx$terms) {
    isspl <- vapply(t$vars, function(v) identical(v$code, -3L), TRUE)
    if (!any(isspl)) next
    want <- unname(sort(c(t$vars[[which(isspl)[1L]]]$covariate, vapply(t$vars[!isspl], function(v) if (is.null(v$key)) "" else v$key, ""))))
    if (!any(vapply(fixed_sets, identical, TRUE, want)))
      warning(sprintf("tarnel: the fixed terms have no linear trend '%s' for the random term '%s'; its curve then has no linear part",
                      paste(want, collapse = ":"), t$label), call. = FALSE)
  }
}

check_spline_covariate <- function(x, name, knots) {
  if (!is.numeric(x)) tstop("cubic_spline(): '%s' must be numeric", name)
  if (anyNA(x)) tstop("cubic_spline(): '%s' has %d missing values; a spline covariate must be complete",
                      name, sum(is.na(x)))
  if (any(!is.finite(x))) tstop("cubic_spline(): '%s' has infinite values", name)
  if (length(unique(x)) < 3L) tstop("cubic_spline(): '%s' has fewer than three distinct values", name)
  given <- !is.null(knots)
  if (given) {
    if (!is.numeric(knots) || anyNA(knots) || any(!is.finite(knots)))
      tstop("cubic_spline(): 'knots' must be finite numbers")
    knots <- sort(unique(as.double(knots)))
    if (length(knots) < 3L) tstop("cubic_spline(): 'knots' needs at least three distinct points")
    r <- range(x)
    out <- knots[knots < r[1L] | knots > r[2L]]
    if (length(out))
      tstop("cubic_spline(): knot points %s lie outside the data (%s from %g to %g)",
            paste(format(utils::head(out, 5)), collapse = ", "), name, r[1L], r[2L])
    points <- knots
  } else {
    points <- sort(unique(as.double(x)))
  }
  # Each record carries a dense row of the spline's columns.
  if (as.double(length(x)) * (length(points) - 2) > 1e8)
    tstop("cubic_spline(): %d records with %d design points of '%s' make a design of %.3g values; give fewer knot points (knots =)",
          length(x), length(points), name, as.double(length(x)) * (length(points) - 2))
  list(x = as.double(x), points = points, given = given)
}

# Knot points and Z matrix of a cubic smoothing spline
# 
# A cubic smoothing spline term \code{cubic_spline(x)} in the random formula
# of \code{\link{tarnel}} fits random spline deviations \code{Z u}, \code{u}
# with a variance estimated by REML, about the fixed linear trend in
# \code{x}, which must be among the fixed terms (\code{y ~ x}, random
# \code{~ cubic_spline(x)}).  The fitted curve is the natural cubic
# smoothing spline with knots at the design points whose smoothing parameter
# is the ratio of the residual variance to the spline variance, in units of
# \code{x} times \code{scale}.  \code{cubic_spline(x):f} fits one curve for
# each level of factor \code{f} (with \code{x:f} among the fixed terms).
# 
# The design points are the distinct values of \code{x}, or the knot points
# given.  With gaps \code{h} between them scaled by \code{scale}, \code{Q}
# the matrix of second differences and \code{R} the tridiagonal matrix of the
# penalty, \code{R = L L'}, the columns are \code{Z = Q (Q'Q)^-1 L}.  With
# knot points given, a value between knots takes the natural cubic spline
# through the columns at the knots, linear beyond the end knots.
# 
# @param x a numeric covariate: complete, at least three distinct values.
# @param knots optional knot points, within the range of \code{x}; by default
#   the distinct values of \code{x}.
# @param scale the scale of the gaps; by default \code{9 / diff(range(x))}.
# @return \code{splinek}: the knot points, sorted.  \code{splinez}: the
#   matrix with a row for each element of \code{x} and a column for each
#   knot point less two, with attributes \code{"knots"}, \code{"Zknots"}
#   (Z at the knot points) and \code{"scale"}.
# @seealso \code{\link{tarnel}}, \code{\link{term_functions}}.
# @examples
# data(mcycle, package = "MASS")
# length(splinek(mcycle$times))
# dim(splinez(mcycle$times))
# fit <- tarnel(accel ~ times, random = ~ cubic_spline(times), data = mcycle)
# @export
splinek <- function(x, knots = NULL) {
  sp <- check_spline_covariate(x, deparse(substitute(x)), knots)
  sp$points
}

# @rdname splinek
# @export
splinez <- function(x, knots = NULL, scale = NULL) {
  sp <- check_spline_covariate(x, deparse(substitute(x)), knots)
  if (!is.null(scale) && (!is.numeric(scale) || length(scale) != 1L || !is.finite(scale) || scale <= 0))
    tstop("splinez(): 'scale' must be one positive number")
  basis <- .Call(C_spline_basis, sp$x, if (sp$given) sp$points else double(),
                 if (is.null(scale)) 0 else as.double(scale), sp$x)
  z <- basis$at
  attr(z, "knots") <- basis$points
  attr(z, "Zknots") <- basis$z
  attr(z, "scale") <- basis$scale
  z
}

cubic_spline <- function(x, knots = NULL) term_only("cubic_spline")

legendre <- function(x, degree) term_only("legendre")

# The fitted curve along a covariate with its pointwise confidence band, over
# the data: predictions for new records on a grid of the covariate (one
# curve for each level of `by`), other variables of the model held at the
# values in `at`.
plot_fitted_curve <- function(fit, curve, by = NULL, at = NULL, level = 0.95, n = 200L, ...) {
  data <- fit$model$data
  if (!is.character(curve) || length(curve) != 1L || is.na(curve)) tstop("'curve' must name one covariate of the model")
  if (!curve %in% names(data) || !is.numeric(data[[curve]])) tstop("'curve': '%s' is not a numeric column of the fit's data", curve)
  if (!is.numeric(level) || length(level) != 1L || !(level > 0 && level < 1)) tstop("'level' must be one number between 0 and 1")
  if (!is.null(at) && (!is.list(at) || is.null(names(at)) || any(names(at) == "")))
    tstop("'at' must be a named list of single values, such as list(x = 1)")
  used <- unique(c(all.vars(fit$formulae$fixed[[3L]]), all.vars(fit$formulae$random)))
  used <- intersect(used, names(data))
  others <- setdiff(used, c(curve, by, names(at)))
  if (length(others)) tstop("give values of %s in 'at' to draw the curve along '%s'", paste0("'", others, "'", collapse = ", "), curve)
  xs <- seq(min(data[[curve]], na.rm = TRUE), max(data[[curve]], na.rm = TRUE), length.out = n)
  groups <- if (is.null(by)) list(NULL) else {
    if (!is.character(by) || length(by) != 1L || !by %in% names(data)) tstop("'by' must name one factor of the fit's data")
    as.list(levels(as_model_factor(data, by)))
  }
  y <- data[[fit$model$response]]
  cols <- if (length(groups) > 1L) grDevices::hcl.colors(length(groups), "Dark 3") else "black"
  pcol <- if (is.null(by)) "grey40" else grDevices::adjustcolor(cols, alpha.f = 0.7)[as.integer(as_model_factor(data, by))]
  graphics::plot(data[[curve]], y, xlab = curve, ylab = fit$model$response, col = pcol, ...)
  z <- stats::qnorm(1 - (1 - level) / 2)
  for (g in seq_along(groups)) {
    nd <- data.frame(xs)
    names(nd) <- curve
    for (a in names(at)) nd[[a]] <- at[[a]]
    if (!is.null(by)) nd[[by]] <- groups[[g]]
    p <- predict_newdata(fit, nd, se.fit = TRUE)
    lo <- p$fit - z * p$se.fit
    hi <- p$fit + z * p$se.fit
    ok <- !is.na(lo) & !is.na(hi)
    graphics::polygon(c(xs[ok], rev(xs[ok])), c(lo[ok], rev(hi[ok])), border = NA,
                      col = grDevices::adjustcolor(cols[g], alpha.f = 0.2))
    graphics::lines(xs, p$fit, col = cols[g], lwd = 2)
  }
  if (length(groups) > 1L)
    graphics::legend("topleft", legend = unlist(groups), col = cols, lwd = 2, bty = "n", title = by)
  invisible(fit)
}
