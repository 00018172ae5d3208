# Estimated marginal means of tarnel fits with the emmeans package: the two
# methods emmeans asks of a model class.  NAMESPACE registers them when
# emmeans is loaded, so emmeans stays optional.

# The fixed terms emmeans builds the reference grid from.  In R's coding
# they are the terms of the fit's model frame, which keep data-dependent
# bases (poly(), ns()) as fitted.  In the engine's coding, emmeans still
# evaluates the terms on a few records to see which variables a term turns
# from factor to covariate or back; stand-ins for the term functions serve
# for that: a factor for those of a factor, a number for those of a
# covariate.
grid_terms <- function(fit, fb) {
  if (fb$basis == "R") return(fb$terms)
  f <- fit$fixed_formula
  environment(f) <- term_standins(environment(f))
  tt <- stats::delete.response(stats::terms(f, keep.order = TRUE))
  # Through a model frame of the records, bases such as poly() keep their fit.
  mf <- tryCatch(stats::model.frame(tt, fit$model$data, na.action = stats::na.pass), error = function(e) NULL)
  if (is.null(mf)) tt else attr(mf, "terms")
}

term_standins <- function(parent) {
  env <- new.env(parent = if (is.null(parent)) baseenv() else parent)
  as_factor <- function(f, ...) factor(f)
  as_number <- function(x, ...) as.numeric(x)
  for (fn in c("at", "grp", "helmert", "marker", "value_factor")) assign(fn, as_factor, envir = env)
  for (fn in c(names(transform_codes), "opoly")) assign(fn, as_number, envir = env)
  assign("rec", function(...) 1, envir = env)
  env
}

# The records the fit used, with the columns of the fixed formula.
recover_data.tarnel <- function(object, data = NULL, params = "pi", ...) {
  if (inherits(object, "tarnel_ordinal")) not_for_ordinal("marginal means")
  trms <- grid_terms(object, fixed_basis(object))
  if (is.null(data)) data <- object$model$data[object$fixed_engine$present, , drop = FALSE]
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

# The reference grid in the coding of the fit's coefficients (R's, or the
# engine's for terms R's model matrix cannot form), with the null space of
# the fitted design for the estimability of each row.
emm_basis.tarnel <- function(object, trms, xlev, grid, ...) {
  fb <- fixed_basis(object)
  dffun <- function(k, dfargs) Inf
  attr(dffun, "mesg") <- "asymptotic"
  list(X = fixed_rows(object, fb, grid), bhat = unname(fb$bhat), nbasis = null_basis(fb), V = fb$V,
       dffun = dffun, dfargs = list(), misc = emm_misc(object))
}

# A generalised fit's link, so that emmeans(..., type = "response") and
# regrid() back-transform as they do for glm().
emm_misc <- function(object) {
  if (!inherits(object, "tarnel_glm")) return(list())
  emmeans::.std.link.labels(object$family, list())
}
