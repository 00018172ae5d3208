# Estimated marginal means of tarnel fits with the emmeans package: the two
# methods emmeans asks of a model class.  NAMESPACE registers them when
# emmeans is loaded, so emmeans stays optional.

# The fixed formula as the model read it (the call may hold only the name
# of a formula).
fixed_formula <- function(fit) {
  labels <- vapply(fit$model$fixed$terms, `[[`, "", "label")
  f <- if (length(labels)) stats::reformulate(labels, response = fit$model$response, intercept = fit$model$fixed$intercept)
       else stats::as.formula(paste(fit$model$response, if (fit$model$fixed$intercept) "~ 1" else "~ 0"))
  environment(f) <- baseenv()
  f
}

# The records the fit used, with the columns of the fixed formula.
recover_data.tarnel <- function(object, data = NULL, params = "pi", ...) {
  trms <- stats::delete.response(stats::terms(fixed_formula(object), keep.order = TRUE))
  if (is.null(data)) data <- object$model$data[!is.na(object$model$y), , drop = FALSE]
  # Names in the formula that are not data columns (a vector of levels in
  # at(), a matrix of scores) are parameters, not predictors.
  params <- union(params, setdiff(all.vars(trms), names(data)))
  emmeans::recover_data(object$call, trms, na.action = NULL, data = data, params = params, ...)
}

# The reference grid in the engine's coding of the fixed effects, with the
# null space of the fitted design for the estimability of each row.
emm_basis.tarnel <- function(object, trms, xlev, grid, ...) {
  X <- engine_fixed_matrix(object, grid)
  bhat <- object$coefficients
  ok <- !is.na(bhat)
  V <- object$vcov[names(bhat)[ok], names(bhat)[ok], drop = FALSE]
  nbasis <- fixed_null_basis(object)
  dffun <- function(k, dfargs) Inf
  attr(dffun, "mesg") <- "asymptotic"
  list(X = X, bhat = bhat, nbasis = nbasis, V = V, dffun = dffun, dfargs = list(), misc = list())
}
