# Methods for the broom.mixed generics (tidy, glance, augment), registered
# when the generics' package is loaded, so that broom.mixed stays optional.

tidy.tarnel <- function(x, effects = c("fixed", "ran_pars"), conf.int = FALSE, conf.level = 0.95, ...) {
  effects <- match.arg(effects, c("fixed", "ran_pars", "ran_vals"), several.ok = TRUE)
  out <- list()
  ci <- if (conf.int) stats::confint(x, level = conf.level) else NULL
  if ("fixed" %in% effects) {
    b <- stats::coef(x)
    se <- unname(fixed_se(x))
    d <- data.frame(effect = "fixed", group = NA_character_, term = names(b), estimate = unname(b),
                    std.error = se, statistic = unname(b) / se, stringsAsFactors = FALSE)
    if (conf.int) { d$conf.low <- ci[names(b), 1]; d$conf.high <- ci[names(b), 2] }
    out$fixed <- d
  }
  if ("ran_pars" %in% effects) {
    vc <- VarCorr(x)
    term <- ifelse(vc$kind %in% c("variance", "scale"),
                   paste0("sd__", ifelse(is.na(vc$var1), "Observation", vc$var1)),
                   paste0("cor__", vc$var1, ifelse(is.na(vc$var2), "", paste0(".", vc$var2))))
    d <- data.frame(effect = "ran_pars", group = vc$group, term = term, estimate = vc$sd_cor,
                    std.error = NA_real_, statistic = NA_real_, stringsAsFactors = FALSE)
    if (conf.int) {
      lo <- ci[rownames(vc), 1]; hi <- ci[rownames(vc), 2]
      sd <- vc$kind %in% c("variance", "scale")
      d$conf.low <- ifelse(sd, sqrt(pmax(lo, 0)), ifelse(vc$kind == "correlation", lo, NA))
      d$conf.high <- ifelse(sd, sqrt(pmax(hi, 0)), ifelse(vc$kind == "correlation", hi, NA))
    }
    out$ran_pars <- d
  }
  if ("ran_vals" %in% effects) {
    re <- ranef(x)
    out$ran_vals <- do.call(rbind, lapply(names(re), function(g) {
      e <- re[[g]]; s <- attr(e, "se")
      data.frame(effect = "ran_vals", group = g, level = rep(rownames(e), ncol(e)), term = rep(names(e), each = nrow(e)),
                 estimate = unlist(e, use.names = FALSE), std.error = unlist(s, use.names = FALSE),
                 stringsAsFactors = FALSE)
    }))
  }
  d <- do.call(rbind, lapply(out, function(d) { d[setdiff(unique(unlist(lapply(out, names))), names(d))] <- NA; d }))
  rownames(d) <- NULL
  as_tibble_if(d)
}

glance.tarnel <- function(x, ...) {
  ll <- stats::logLik(x)
  d <- data.frame(nobs = x$nobs, sigma = if (isTRUE(x$profiled)) sqrt(x$sigma2) else NA_real_,
                  logLik = as.numeric(ll), AIC = stats::AIC(ll), BIC = stats::BIC(ll),
                  REMLcrit = -2 * as.numeric(ll), df.residual = x$nobs - attr(ll, "df"))
  as_tibble_if(d)
}

augment.tarnel <- function(x, data = NULL, ...) {
  d <- if (is.null(data)) stats::model.frame(x) else data
  used <- !is.na(x$residuals)
  n <- if (is.null(data)) sum(used) else nrow(data)
  pick <- if (is.null(data)) used else rep(TRUE, length(x$residuals))
  if (length(x$residuals[pick]) != n) stop("tarnel: 'data' must have the rows of the data the model was fitted to", call. = FALSE)
  d$.fitted <- x$fitted[pick]
  d$.fixed <- x$fitted_fixed[pick]
  d$.resid <- x$residuals[pick]
  as_tibble_if(d)
}

as_tibble_if <- function(d) if (requireNamespace("tibble", quietly = TRUE)) tibble::as_tibble(d) else d

# Registers an S3 method for a generic of another package, now if that
# package is loaded and otherwise when it loads.
s3_register <- function(generic, class, method) {
  parts <- strsplit(generic, "::", fixed = TRUE)[[1L]]
  pkg <- parts[1L]
  name <- parts[2L]
  register <- function(...) {
    ns <- asNamespace(pkg)
    if (exists(name, envir = ns, inherits = FALSE))
      registerS3method(name, class, method, envir = ns)
  }
  if (isNamespaceLoaded(pkg)) register()
  setHook(packageEvent(pkg, "onLoad"), function(...) register())
  invisible()
}

.onLoad <- function(libname, pkgname) {
  s3_register("generics::tidy", "tarnel", tidy.tarnel)
  s3_register("generics::glance", "tarnel", glance.tarnel)
  s3_register("generics::augment", "tarnel", augment.tarnel)
  invisible()
}
