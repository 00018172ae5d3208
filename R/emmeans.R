# Estimated marginal means of tarnel fits with the emmeans package: the two
# methods emmeans asks of a model class.  NAMESPACE registers them when
# emmeans is loaded, so emmeans stays optional.

# The fixed formula as the model read it (the call may hold only the name
# of a formula).  emmeans evaluates the terms on a few records to see which
# variables a term turns from factor to covariate or back; the formula's
# environment gives the term functions stand-ins for that: a factor for
# those of a factor, a number for those of a covariate.
fixed_formula <- function(fit) {
  labels <- vapply(fit$model$fixed$terms, `[[`, "", "label")
  f <- if (length(labels)) stats::reformulate(labels, response = fit$model$response, intercept = fit$model$fixed$intercept)
       else stats::as.formula(paste(fit$model$response, if (fit$model$fixed$intercept) "~ 1" else "~ 0"))
  environment(f) <- term_standins()
  f
}

term_standins <- function() {
  env <- new.env(parent = baseenv())
  as_factor <- function(f, ...) factor(f)
  as_number <- function(x, ...) as.numeric(x)
  for (fn in c("at", "grp", "helmert", "marker")) assign(fn, as_factor, envir = env)
  for (fn in c(names(transform_codes), "opoly")) assign(fn, as_number, envir = env)
  assign("rec", function(...) 1, envir = env)
  env
}

# The records the fit used, with the columns of the fixed formula.
recover_data.tarnel <- function(object, data = NULL, params = "pi", ...) {
  trms <- stats::delete.response(stats::terms(fixed_formula(object), keep.order = TRUE))
  if (is.null(data)) data <- object$model$data[!is.na(object$model$y), , drop = FALSE]
  # The model reads character and logical columns as factors; so must the grid.
  chr <- vapply(data, function(x) is.character(x) || is.logical(x), TRUE)
  data[chr] <- lapply(data[chr], factor)
  # Names in the formula that are not data columns (a vector of levels in
  # at(), a matrix of scores) are parameters, not predictors; so are quoted
  # levels, which emmeans reads as names.
  strs <- string_constants(attr(trms, "variables"))
  params <- union(params, c(setdiff(all.vars(trms), names(data)), paste0("\"", strs, "\""), paste0("'", strs, "'")))
  emmeans::recover_data(object$call, trms, na.action = NULL, data = data, params = params, ...)
}

string_constants <- function(e) {
  if (is.character(e)) return(e)
  if (is.call(e)) return(unlist(lapply(as.list(e)[-1L], string_constants)))
  character()
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
