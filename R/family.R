# Generalised linear mixed models: the family argument of tarnel(), the
# response as the engine takes it, the engine's `glm` list and the fit's
# deviance, dispersion, fitted values and residuals on either scale.

# The engine's family and link codes of the families it fits.  A family or
# link not here is refused with the list of what is.
glm_codes <- list(
  gaussian = list(id = 1L, links = c(identity = 1L, log = 5L, inverse = 7L)),
  binomial = list(id = 2L, links = c(logit = 2L, probit = 3L, cloglog = 4L)),
  poisson = list(id = 3L, links = c(log = 5L, sqrt = 6L, identity = 1L)),
  Gamma = list(id = 4L, links = c(inverse = 7L, log = 5L, identity = 1L)),
  negative_binomial = list(id = 5L, links = c(log = 5L, identity = 1L, inverse = 7L)),
  cumulative = list(id = 9L, links = c(logit = 2L, probit = 3L, cloglog = 4L))
)

allowed_families <- function() {
  paste(vapply(names(glm_codes), function(f) sprintf("%s (%s)", f, paste(names(glm_codes[[f]]$links), collapse = ", ")),
               ""), collapse = "; ")
}

#' Negative binomial family with a given shape
#'
#' @param theta the shape (size) parameter, positive.
#' @param link "log", "identity" or "inverse".
#' @return A family object for \code{tarnel(family = )}.
#' @export
negative_binomial <- function(theta, link = c("log", "identity", "inverse")) {
  link <- match.arg(link)
  if (!is.numeric(theta) || length(theta) != 1L || !(theta > 0) || !is.finite(theta))
    stop("'theta' must be one positive number", call. = FALSE)
  lk <- stats::make.link(link)
  fam <- list(family = "negative_binomial", link = link, linkfun = lk$linkfun, linkinv = lk$linkinv,
              mu.eta = lk$mu.eta, valideta = lk$valideta, theta = theta,
              variance = function(mu) mu + mu^2 / theta,
              dev.resids = function(y, mu, wt)
                2 * wt * (y * log(pmax(1, y) / mu) - (y + theta) * log((y + theta) / (mu + theta))))
  class(fam) <- "family"
  fam
}

# The family argument as a family object, and its codes.  NULL for the
# normal model with the identity link, which needs no generalised step.
glm_family <- function(family) {
  if (is.null(family)) return(NULL)
  if (is.character(family)) family <- get(family, mode = "function", envir = parent.frame(2))
  if (is.function(family)) family <- family()
  if (!inherits(family, "family"))
    tstop("'family' must be a family object such as binomial(link = \"probit\"); tarnel fits: %s", allowed_families())
  name <- family$family
  phi <- 1
  if (grepl("^Negative Binomial\\(", name)) {
    # MASS::negative.binomial(theta)
    phi <- as.numeric(sub("^Negative Binomial\\((.*)\\)$", "\\1", name))
    name <- "negative_binomial"
  } else if (name == "negative_binomial") {
    phi <- family$theta
  }
  codes <- glm_codes[[name]]
  if (is.null(codes))
    tstop("the family '%s' is not available; tarnel fits: %s", name, allowed_families())
  link <- codes$links[family$link]
  if (is.na(link))
    tstop("the %s family with the '%s' link is not available; the links allowed are: %s", name, family$link,
          paste(names(codes$links), collapse = ", "))
  if (codes$id == 1L && link == 1L) return(NULL)
  list(family = family, name = name, id = codes$id, link = unname(link), phi = phi,
       dispersion_fixed = codes$id %in% c(2L, 3L, 5L, 9L))
}

bad_record <- function(bad, what) {
  k <- which(bad)
  tstop("%s (record%s %s)", what, if (length(k) > 1L) "s" else "", paste(utils::head(k, 5L), collapse = ", "))
}

# The response of a generalised model as the engine takes it: binomial
# data as proportions with the group sizes as weights.  Returns the formula
# and data with the response (and the group sizes) in columns of their own.
glm_prepare <- function(family, fixed, data, weights, env, na_response = "drop") {
  g <- glm_family(family)
  if (is.null(g)) return(list(glm = NULL, fixed = fixed, data = data, weights = weights))
  if (na_response != "drop")
    tstop("a generalised model drops the records of a missing response: na_response = \"%s\" is not available", na_response)
  lhs <- fixed[[2L]]
  n <- NULL
  if (!is.null(weights)) {
    if (!is.character(weights) || length(weights) != 1L) tstop("'weights' must be the name of a data column")
    n <- as_model_numeric(data, weights, "weights")
    if (anyNA(n)) bad_record(is.na(n), sprintf("the weights '%s' have missing values", weights))
    if (any(n < 0)) bad_record(n < 0, sprintf("the weights '%s' must not be negative", weights))
  }
  if (g$id == 9L) {
    g <- ordinal_response(g, lhs, data, env)
    data[[".glm_y"]] <- g$code
    fixed[[2L]] <- as.name(".glm_y")
    g$n <- if (is.null(n)) rep(1, nrow(data)) else as.double(n)
    if (!is.null(n)) {
      data[[".glm_n"]] <- as.double(n)
      weights <- ".glm_n"
    }
    return(list(glm = g, fixed = fixed, data = data, weights = weights))
  }
  if (is.call(lhs) && identical(lhs[[1L]], as.name("cbind"))) {
    if (g$id != 2L || length(lhs) != 3L) tstop("a response cbind(successes, failures) needs the binomial family")
    s <- eval(lhs[[2L]], data, env)
    f <- eval(lhs[[3L]], data, env)
    if (!is.numeric(s) || !is.numeric(f) || length(s) != nrow(data) || length(f) != nrow(data))
      tstop("cbind(successes, failures) must be two numeric columns of the data")
    bad <- !is.na(s) & !is.na(f) & (s < 0 | f < 0 | abs(s - round(s)) > 1e-8 | abs(f - round(f)) > 1e-8)
    if (any(bad)) bad_record(bad, "successes and failures must be non-negative whole numbers")
    tot <- s + f
    if (any(tot == 0, na.rm = TRUE)) bad_record(!is.na(tot) & tot == 0, "a binomial total is 0")
    if (!is.null(n)) tstop("weights together with cbind(successes, failures) are not available")
    y <- s / tot
    n <- tot
  } else {
    y <- eval(lhs, data, env)
    if (g$id == 2L) {
      if (is.factor(y)) {
        if (nlevels(y) > 2L)
          tstop("a binomial response factor must have two levels; '%s' has %d (an ordered response takes family = cumulative())",
                deparse(lhs), nlevels(y))
        y <- as.numeric(y != levels(y)[1L])
      }
      if (is.logical(y)) y <- as.numeric(y)
    }
    if (!is.numeric(y) || length(y) != nrow(data)) tstop("the response must be a numeric column of the data")
    y <- as.double(y)
    ok <- !is.na(y)
    if (g$id == 2L) {
      if (any(ok & (y < 0 | y > 1)))
        bad_record(ok & (y < 0 | y > 1),
                   "binomial proportions must lie in [0, 1]; counts are given as cbind(successes, failures)")
      if (!is.null(n) && any(ok & n == 0)) bad_record(ok & n == 0, "a binomial total (weight) is 0")
    } else if (g$id %in% c(3L, 5L)) {
      bad <- ok & (y < 0 | abs(y - round(y)) > 1e-8)
      if (any(bad)) bad_record(bad, "counts must be non-negative whole numbers")
    } else if (g$id == 4L) {
      if (any(ok & y <= 0)) bad_record(ok & y <= 0, "Gamma data must be positive")
    }
  }
  data[[".glm_y"]] <- y
  fixed[[2L]] <- as.name(".glm_y")
  if (!is.null(n)) {
    data[[".glm_n"]] <- as.double(n)
    weights <- ".glm_n"
  }
  g$y <- y
  g$n <- if (is.null(n)) rep(1, length(y)) else as.double(n)
  list(glm = g, fixed = fixed, data = data, weights = weights)
}

# The variance structures of a generalised model: the residual is the
# dispersion times the inverse of the working weights, which the engine
# writes into a known diagonal matrix before each iteration; the dispersion
# is fixed at 1 for the binomial, Poisson and negative binomial families.
glm_struc <- function(g, model, table, struc) {
  if (is.null(g)) return(struc)
  if (model$resid$kind != "identity")
    tstop("a generalised model takes the plain residual: het() and grid residual structures are not available")
  nrec <- table$nrecords
  r <- struc$nrsect[3L, 1L]
  if (r == 0L) {
    # No prior weights: a known diagonal of ones to hold the working weights.
    kn <- struc$ainv
    k <- kn$nainv + 1L
    start <- if (kn$nainv == 0L) 1L else length(kn$ainv) + 1L
    old_real <- if (kn$nainv == 0L) double() else kn$ainv
    old_tab <- if (kn$nainv == 0L) integer() else kn$lcainv
    old_int <- if (kn$nainv == 0L) integer() else kn$llainv
    struc$ainv <- list(nainv = k, lcainv = as.integer(c(old_tab, nrec, 8L, start, length(old_int) + 1L, 0L)),
                       llainv = if (length(old_int)) as.integer(old_int) else 0L,
                       ainv = c(old_real, 0, rep(1, nrec)))
    sec <- c(nrec, 0L, -k, 0L, 0L, 0L, 0L, 0L, 0L, 0L, 0L, 0L, 0L, 0L, 1L)
    struc$struc <- cbind(struc$struc, as.integer(sec))
    storage.mode(struc$struc) <- "integer"
    r <- ncol(struc$struc)
    struc$nrsect[3L, 1L] <- r
  }
  k <- -struc$struc[3L, r]
  struc$glm_weights <- struc$ainv$lcainv[5L * (k - 1L) + 3L] + 1L
  pars <- struc$params
  # Starts on the scale of the linear predictor.
  vr <- pars$kind == "variance" & pars$group != "residual"
  struc$gammas[pars$gamma[vr]] <- 0.1
  nf <- struc$nfactp
  if (nf > 0L) struc$gammas[seq_len(nf)][struc$gammas[seq_len(nf)] != 0] <- 0.1
  if (g$dispersion_fixed) {
    sc <- pars$kind == "scale"
    struc$gmcstr[pars$gamma[sc]] <- 4L
    struc$gammas[pars$gamma[sc]] <- 1
    struc$profiled <- FALSE
    struc$params$profiled <- FALSE
  }
  # The AI step treats the weighted residual as one block of records.
  struc$extra_workspace <- 6 * nrec * (struc$ngamma + 1)
  if (isTRUE(g$ordinal)) {
    # The ordinal step keeps a copy of the design values.
    g$thrlevels <- ordinal_thrlevels(g, table)
    struc$extra_workspace <- struc$extra_workspace + nrec * (2 + sum(as.double(table$maxent))) + 7 * g$k + 10
  }
  struc$glm <- g
  struc
}

# The engine's `glm` list.
glm_list <- function(struc) {
  g <- struc$glm
  if (is.null(g)) return(list(id = 1L, link = 1L, glmphi = 1, thrlevels = 0L))
  list(id = g$id + 0L, link = g$link + 0L, glmphi = g$phi + 0,
       thrlevels = if (is.null(g$thrlevels)) 0L else as.integer(g$thrlevels))
}

# The generalised side of a fit: mean, deviance, dispersion and the
# iteration log's deviance; a warning when the predictor reached the
# bounds of its link.
glm_finish <- function(fit, g, out) {
  if (is.null(g)) return(fit)
  fam <- g$family
  eta <- fit$fitted  # with the offset, which finish_fit() added
  mu <- fam$linkinv(eta)
  ok <- !is.na(mu) & !is.na(g$y)
  # The ordinal family's deviance is found from its category probabilities.
  dev <- if (isTRUE(g$ordinal)) NA_real_ else sum(fam$dev.resids(g$y[ok], mu[ok], g$n[ok]))
  # The deviance of each iteration, those of a first run before a polish too.
  dev_it <- c(out$previous_deviance, -out$args$trn$deviance[-1L])
  if (nrow(fit$iterations)) fit$iterations$deviance <- 2 * dev_it[seq_len(nrow(fit$iterations))]
  fit$family <- fam
  fit$glm <- g[c("name", "id", "link", "phi", "dispersion_fixed")]
  fit$eta <- eta
  fit$mu <- mu
  fit$prior_weights <- g$n
  fit$y <- g$y
  fit$deviance <- dev
  fit$dispersion <- if (g$dispersion_fixed) 1 else fit$sigma2
  fit$note <- "The log-likelihood is that of the working model at the last iteration: it is not for comparing generalised models."
  fit$status_text <- out$text
  clip <- switch(paste(g$id, g$link),
                 "2 2" = abs(eta) >= 10 - 1e-9, "2 3" = abs(eta) >= 5 - 1e-9, "2 4" = eta >= 2.3 | eta <= -10,
                 "3 5" = abs(eta) >= 15, NULL)
  if (!is.null(clip) && any(clip, na.rm = TRUE)) {
    fit$bound_hits <- sum(clip, na.rm = TRUE)
    warning(sprintf("tarnel: the linear predictor reached the bounds of the %s link in %d record(s): fitted means of 0 or 1 (complete separation?)",
                    fam$link, fit$bound_hits), call. = FALSE)
  }
  if (out$status == 300005L)
    warning(sprintf("tarnel: %s", out$text), call. = FALSE)
  class(fit) <- c("tarnel_glm", class(fit))
  fit
}

#' @export
fitted.tarnel_glm <- function(object, type = c("response", "link"), ...) {
  type <- match.arg(type)
  if (type == "response") object$mu else object$eta
}

#' @export
residuals.tarnel_glm <- function(object, type = c("deviance", "pearson", "working", "response"), ...) {
  type <- match.arg(type)
  fam <- object$family
  y <- object$y
  mu <- object$mu
  w <- object$prior_weights
  switch(type,
         response = y - mu,
         working = (y - mu) / fam$mu.eta(object$eta),
         pearson = (y - mu) * sqrt(w) / sqrt(fam$variance(mu)),
         deviance = {
           d <- rep(NA_real_, length(y))
           ok <- !is.na(y) & !is.na(mu)
           d[ok] <- sign(y[ok] - mu[ok]) * sqrt(pmax(fam$dev.resids(y[ok], mu[ok], w[ok]), 0))
           d
         })
}

#' @export
deviance.tarnel_glm <- function(object, ...) object$deviance

#' @export
print.tarnel_glm <- function(x, ...) {
  NextMethod()
  cat(sprintf("Family: %s, link: %s\n", x$glm$name, x$family$link))
  cat(sprintf("Deviance: %.4f   dispersion: %.4g%s\n", x$deviance, x$dispersion,
              if (x$glm$dispersion_fixed) " (fixed)" else " (estimated)"))
  cat("Note:", x$note, "\n")
  invisible(x)
}

# Predictions of a generalised model from new data on the scale of the
# linear predictor or, through the inverse link, of the mean, with
# delta-method standard errors se(eta) * |dmu/deta|.
#' @export
predict.tarnel_glm <- function(object, newdata = NULL, ..., type = c("link", "response")) {
  type <- match.arg(type)
  if (is.null(newdata)) return(NextMethod())
  p <- predict_newdata(object, newdata = newdata, ...)
  if (type == "link") return(p)
  fam <- object$family
  if (!is.list(p)) return(glm_linkinv(fam, p))
  list(fit = glm_linkinv(fam, p$fit), se.fit = p$se.fit * abs(glm_mu_eta(fam, p$fit)))
}

# The inverse link and its derivative, NA kept where the predictor is NA.
glm_linkinv <- function(fam, eta) {
  out <- eta
  ok <- !is.na(eta)
  out[ok] <- fam$linkinv(eta[ok])
  out
}

glm_mu_eta <- function(fam, eta) {
  out <- eta
  ok <- !is.na(eta)
  out[ok] <- fam$mu.eta(eta[ok])
  out
}

# The weighted linear mixed model of a converged generalised fit: the
# working variate z = eta + (y - mu) / (dmu/deta) as the response and the
# working weights n (dmu/deta)^2 / V(mu) in the residual's known diagonal,
# both from the final linear predictor.  Solved with the fit's variance
# parameters held, it gives the fit's estimates again, so prediction tables
# formed from it are those of the fit on the scale of the linear predictor.
glm_working_model <- function(fit) {
  fam <- fit$family
  model <- fit$model
  table <- fit$table
  rows <- fit$record_rows
  eta <- rep(NA_real_, length(rows))
  eta[!is.na(rows)] <- fit$eta[rows[!is.na(rows)]]
  y <- model$data[[".glm_y"]]
  n <- if (is.null(model$data[[".glm_n"]])) rep(1, length(y)) else model$data[[".glm_n"]]
  ok <- !is.na(eta) & !is.na(y)
  z <- rep(NA_real_, length(y))
  w <- rep(1, length(y))
  mu <- fam$linkinv(eta[ok])
  dmu <- fam$mu.eta(eta[ok])
  off <- model$data[[offset_name]]
  if (is.null(off)) off <- 0
  z[ok] <- eta[ok] + (y[ok] - mu) / dmu - (if (length(off) > 1L) off[ok] else off)
  w[ok] <- n[ok] * dmu^2 / fam$variance(mu)
  table$data[, 1L] <- z
  # The prior weights are inside the working weights, the offset is taken
  # from the working variate.
  model$weights_column <- 0L
  model$offset_column <- NULL
  list(model = model, table = table, weights = w)
}

# The engine's structures of the working model: those of the fit, with the
# working weights written into the known diagonal and no generalised step.
glm_working_struc <- function(fit, wm) {
  g <- c(fit$glm, list(family = fit$family))
  struc <- glm_struc(g, wm$model, wm$table, build_struc(wm$model, wm$table))
  at <- struc$glm_weights
  struc$ainv$ainv[at - 1L + seq_along(wm$weights)] <- wm$weights
  struc$glm <- NULL
  struc$glm_weights <- NULL
  struc
}

# Prediction-table rows on the scale of the mean: the inverse link of the
# predicted value, with the delta-method standard error.
glm_table_response <- function(x, fam) {
  eta <- x$pvals$predicted.value
  x$pvals$response <- glm_linkinv(fam, eta)
  x$pvals$response.se <- x$pvals$std.error * abs(glm_mu_eta(fam, eta))
  x
}

# The scale of a generalised fit: the square root of its dispersion (1 for
# the binomial, Poisson and negative binomial families).
#' @export
sigma.tarnel_glm <- function(object, ...) sqrt(object$dispersion)
