# Functions of the variance parameters of a fit (heritabilities, genetic
# correlations, ratios), with standard errors by the delta method from the
# covariance matrix of the components (the inverse AI matrix).

#' @export
vc_delta <- function(object, ...) {
  if (!inherits(object, c("tarnel", "tarnel_multi"))) tstop("vc_delta(): 'object' must be a tarnel fit")
  key <- vc_key(object)
  fs <- vc_args(as.list(substitute(list(...)))[-1L], parent.frame(), key)
  if (!length(fs)) return(structure(key, class = c("tarnel_vc_key", "data.frame")))
  labels <- vapply(fs, `[[`, "", "label")
  if (anyDuplicated(labels))
    tstop("vc_delta(): two functions have the name '%s'; name them with 'name ~ expression'", labels[duplicated(labels)][1])
  V <- tryCatch(stats::vcov(object, parameters = "variance"), error = function(e) NULL)
  if (is.null(V))
    warning("tarnel: vc_delta(): the average information matrix is not available or singular; standard errors are NA",
            call. = FALSE)
  np <- nrow(key)
  G <- matrix(0, length(fs), np, dimnames = list(labels, key$alias))
  value <- double(length(fs))
  named <- integer()
  for (i in seq_along(fs)) {
    at <- vc_parameters(fs[[i]], key)
    named <- c(named, at)
    v <- vc_gradient(fs[[i]], at, key)
    value[i] <- v$value
    G[i, at] <- v$gradient
  }
  # Parameters without a variance (held fixed, or not estimated) count as
  # known constants.
  Vf <- matrix(0, np, np)
  if (!is.null(V)) {
    k <- match(rownames(V), key$parameter)
    Vf[k[!is.na(k)], k[!is.na(k)]] <- V[!is.na(k), !is.na(k)]
  }
  C <- G %*% Vf %*% t(G)
  se <- sqrt(pmax(diag(C), 0))
  se[!is.finite(value) | is.null(V)] <- NA_real_
  out <- data.frame(estimate = value, std.error = se, row.names = labels)
  attr(out, "vcov") <- C
  attr(out, "gradient") <- G
  attr(out, "key") <- key[sort(unique(named)), c("alias", "parameter"), drop = FALSE]
  class(out) <- c("tarnel_vc_delta", "data.frame")
  out
}

# The parameters a fit reports, with their aliases V1, V2, ... by position.
vc_key <- function(object) {
  vp <- object$varcomp
  data.frame(alias = paste0("V", seq_len(nrow(vp))), parameter = rownames(vp), estimate = vp$component,
             std.error = vp$std.error, stringsAsFactors = FALSE)
}

# The functions as given, each as its expression, the environment its
# other functions come from, and its name.  A call of `~` is a formula
# (`h2 ~ V1 / (V1 + V2)`, named by its left side); a character string is
# parsed; a bare name that is not a parameter, or a call, that gives a
# formula or string stands for that; any other expression is taken as
# written.  Without a
# left side the argument's name, else the expression, names the function.
vc_args <- function(exprs, env, key) {
  nms <- names(exprs)
  if (is.null(nms)) nms <- rep("", length(exprs))
  text <- function(e) paste(deparse(e, width.cutoff = 500L), collapse = "")
  lapply(seq_along(exprs), function(i) {
    e <- exprs[[i]]
    held <- function(v) inherits(v, "formula") || (is.character(v) && length(v) == 1L)
    if (is.name(e) && !as.character(e) %in% c(key$alias, key$parameter)) {
      e <- tryCatch(eval(e, env), error = function(err) NULL)
      if (!held(e))
        tstop("vc_delta(): '%s' is neither a parameter of the fit nor a formula or string", as.character(exprs[[i]]))
    } else if (is.call(e) && !identical(e[[1L]], as.name("~"))) {
      # A call that gives a formula or string (as.formula(text)) is used
      # for what it gives; any other is the function itself.
      v <- tryCatch(eval(e, env), error = function(err) NULL)
      if (held(v)) e <- v
    }
    fenv <- env
    lhs <- NULL
    if (is.call(e) && identical(e[[1L]], as.name("~"))) e <- eval(e, env)
    if (inherits(e, "formula")) {
      fenv <- environment(e)
      if (length(e) == 3L) lhs <- e[[2L]]
      e <- e[[length(e)]]
    } else if (is.character(e)) {
      if (length(e) != 1L) tstop("vc_delta(): give each function as one string")
      s <- e
      e <- tryCatch(str2lang(s), error = function(err) tstop("vc_delta(): '%s' is not an R expression", s))
      if (!nzchar(nms[i])) nms[i] <- s
    } else if (!is.language(e) && !is.numeric(e)) {
      tstop("vc_delta(): each function must be a formula such as h2 ~ V1 / (V1 + V2), a string or an expression")
    }
    label <- if (!is.null(lhs)) { if (is.character(lhs)) lhs else text(lhs) } else if (nzchar(nms[i])) nms[i] else text(e)
    list(expr = e, env = fenv, label = label)
  })
}

# Positions in the key of the parameters a function names, by alias or by
# full name.
vc_parameters <- function(f, key) {
  vars <- all.vars(f$expr)
  if (!length(vars)) tstop("vc_delta(): the function '%s' names no parameter", f$label)
  k <- match(vars, key$alias)
  k[is.na(k)] <- match(vars[is.na(k)], key$parameter)
  if (anyNA(k))
    tstop("vc_delta(): '%s' in the function '%s' is not a parameter of the fit; use the aliases or the names in backticks: %s",
          vars[is.na(k)][1], f$label, paste(sprintf("%s = `%s`", key$alias, key$parameter), collapse = ", "))
  unique(k)
}

# Value and gradient of a function at the estimates.  Each parameter is
# renamed .p<k> (k its position in the key), then differentiated exactly by
# stats::deriv where it knows the functions used, else by central
# differences (stats::numericDeriv).
vc_gradient <- function(f, at, key) {
  map <- list()
  for (k in at) for (nm in c(key$alias[k], key$parameter[k])) map[[nm]] <- as.name(paste0(".p", k))
  expr <- do.call(substitute, list(f$expr, map))
  values <- stats::setNames(as.list(key$estimate[at]), paste0(".p", at))
  if (anyNA(unlist(values))) return(list(value = NA_real_, gradient = rep(NA_real_, length(at))))
  env <- list2env(values, parent = f$env)
  d <- tryCatch(stats::deriv(expr, names(values)), error = function(e) NULL)
  v <- if (!is.null(d)) tryCatch(eval(d, env), error = function(e) e)
       else tryCatch(stats::numericDeriv(expr, names(values), rho = env, central = TRUE), error = function(e) e)
  if (inherits(v, "error")) tstop("vc_delta(): the function '%s' cannot be evaluated: %s", f$label, conditionMessage(v))
  if (length(v) != 1L || !is.numeric(v)) tstop("vc_delta(): the function '%s' must give a single number", f$label)
  list(value = as.numeric(v), gradient = as.numeric(attr(v, "gradient")))
}

#' @export
print.tarnel_vc_delta <- function(x, digits = max(4L, getOption("digits") - 3L), ...) {
  cat("Functions of the variance parameters (delta-method standard errors):\n")
  print(data.frame(estimate = x$estimate, std.error = x$std.error, row.names = rownames(x)), digits = digits, ...)
  key <- attr(x, "key")
  if (!is.null(key) && nrow(key)) cat(sprintf("  %s = %s\n", key$alias, key$parameter), sep = "")
  invisible(x)
}

#' @export
print.tarnel_vc_key <- function(x, digits = max(4L, getOption("digits") - 3L), ...) {
  cat("Variance parameters and their names in vc_delta() formulas (alias, or the name in backticks):\n")
  print(data.frame(alias = x$alias, estimate = x$estimate, std.error = x$std.error, row.names = x$parameter),
        digits = digits, ...)
  invisible(x)
}
