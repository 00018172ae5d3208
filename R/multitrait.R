# Several responses in one fit: cbind(y1, y2, ...) on the left of the fixed
# formula.  The engine forms one design row for each record and trait
# (trait fastest) and reads the trait's response from consecutive data
# columns; the factor `trait` (one level a response) may appear in the
# fixed, random and residual formulae.  The residual is independent between
# records and structured across the traits of a record (unstructured
# unless the residual formula says otherwise); a record with some traits
# missing keeps the traits it has, with the residual covariance of those.

# The response names of cbind(y1, y2, ...), or NULL for any other response.
multi_response_names <- function(lhs) {
  if (!(is.call(lhs) && identical(lhs[[1L]], as.name("cbind")))) return(NULL)
  args <- as.list(lhs)[-1L]
  if (!is.null(names(args)) && any(names(args) != "")) tstop("cbind() of the responses takes column names, without argument names")
  vapply(args, function(e) var_name(e, "each response in cbind()"), "")
}

# `trait` used in a model of one response: there is nothing for it to
# stand for unless the data have a column of that name.
check_trait_use <- function(fixed, random, residual, data) {
  used <- unique(c(all.vars(fixed[[3L]]), if (!is.null(random)) all.vars(random), if (!is.null(residual)) all.vars(residual)))
  if ("trait" %in% used && !"trait" %in% names(data))
    tstop("'trait' stands for the responses of a model of several responses, cbind(y1, y2, ...) ~ trait + ...; the response '%s' is one column",
          paste(deparse(fixed[[2L]], width.cutoff = 500L), collapse = ""))
  invisible()
}

# The engine's trait factor: one level a response, the trait number of the
# design row as its level.
trait_leaf <- function(store) {
  tn <- store$traits
  leaf("trait", -8L, 0L, length(tn), 0L, paste0("trait", tn), levels = tn)
}

is_trait <- function(store, name) !is.null(store$traits) && identical(name, "trait")

# The residual formula of a model of several responses: a structure across
# the traits of a record, optionally written as a product with `units`.
parse_multi_residual <- function(residual, tn, env) {
  T <- length(tn)
  spec <- if (is.null(residual)) list(fn = "cov_us", factor = "trait", het = FALSE, key = "cov_us(trait)") else {
    if (!inherits(residual, "formula") || length(residual) != 2L) tstop("'residual' must be a one-sided formula")
    split_colon <- function(e) {
      if (is.call(e) && identical(e[[1L]], as.name(":")) && length(e) == 3L) return(c(split_colon(e[[2L]]), split_colon(e[[3L]])))
      list(e)
    }
    parts <- split_colon(residual[[2L]])
    units <- vapply(parts, function(e) identical(e, as.name("units")), TRUE)
    if (sum(!units) != 1L || sum(units) > 1L)
      tstop("with several responses the residual formula is one structure across the traits, such as ~ cov_us(trait) or ~ units:cov_us(trait)")
    e <- parts[[which(!units)]]
    sp <- if (identical(e, as.name("trait"))) list(fn = "cov_id", factor = "trait", het = FALSE, key = "trait")
          else if (is_cov_call(e) && !is_known_call(e)) cov_call_spec(e, env)
          else tstop("the residual term '%s' is not a structure across the traits", paste(deparse(e), collapse = ""))
    if (!identical(sp$factor, "trait"))
      tstop("the residual structure %s is across '%s'; with %d responses it must be across 'trait' (one level a response)",
            sp$key, sp$factor, T)
    if (identical(sp$fn, "cov_id"))
      tstop("the residual %s would give every trait the same variance and no covariance; use cov_diag(trait) or cov_us(trait)", sp$key)
    sp
  }
  spec$levels <- tn
  list(kind = "multi", trait = spec)
}

# The order of each structure across `trait` in the random formula must be
# the number of responses; a structure on another factor of the same name
# cannot occur, since `trait` is reserved.
check_multi_names <- function(data, tn) {
  if ("trait" %in% names(data)) tstop("the data have a column 'trait'; with several responses 'trait' names the responses: rename the column")
  if ("units" %in% names(data)) tstop("the data have a column 'units'; in a residual formula 'units' names the records: rename the column")
  if (anyDuplicated(tn)) tstop("a response appears twice in cbind(): %s", tn[duplicated(tn)][1])
}

# Fits a model of several responses; called by tarnel().
tarnel_multi <- function(cl, fixed, random, residual, data, subset, start, constrain, equal, lincon, control, env,
                         na_design = "fail") {
  tn <- multi_response_names(fixed[[2L]])
  if (length(tn) < 2L)
    tstop("cbind() on the left holds %d response; a model of several responses needs at least two", length(tn))
  check_multi_names(data, tn)
  control <- check_control(control)
  if (!is.null(subset)) {
    keep <- eval(subset, data, env)
    if (!is.logical(keep) || length(keep) != nrow(data)) tstop("'subset' must give TRUE or FALSE for each record")
    data <- data[!is.na(keep) & keep, , drop = FALSE]
  }
  Y <- vapply(tn, function(nm) {
    if (!nm %in% names(data)) tstop("column '%s' is not in the data", nm)
    y <- data[[nm]]
    if (!is.numeric(y)) tstop("the response '%s' must be numeric, not %s", nm, class(y)[1])
    if (any(is.infinite(y))) tstop("the response '%s' holds infinite values", nm)
    as.double(y)
  }, double(nrow(data)))
  if (!is.matrix(Y)) Y <- matrix(Y, ncol = length(tn))
  colnames(Y) <- tn
  none <- rowSums(!is.na(Y)) == 0L
  if (all(none)) tstop("no record has any of the responses %s observed", paste(tn, collapse = ", "))
  if (any(none))
    message(sprintf("tarnel: %d record(s) with none of the responses observed are left out", sum(none)))
  rows <- which(!none)
  data <- data[rows, , drop = FALSE]
  Y <- Y[rows, , drop = FALSE]
  for (k in seq_along(tn)) {
    yk <- Y[!is.na(Y[, k]), k]
    if (length(yk) < 2L) tstop("the response '%s' has %d observed value(s); each trait needs at least 2", tn[k], length(yk))
    if (all(yk == yk[1])) tstop("the response '%s' is constant: there is no variation to fit", tn[k])
  }
  n <- nrow(data)
  T <- length(tn)
  data$trait <- factor(rep_len(tn, n), levels = tn)
  # One scale for all traits keeps the covariances across traits in step;
  # a power of two near their spread, so that the inverses of the traits'
  # blocks stay far from the engine's tolerances.
  sdv <- stats::sd(as.vector(Y[!is.na(Y)]))
  s <- if (is.finite(sdv) && sdv > 0) 2^round(log2(sdv)) else 1
  store <- new_columns(n)
  store$traits <- tn
  add_columns(store, "response", Y / s)
  fx <- parse_rhs(stats::delete.response(stats::terms(fixed, keep.order = TRUE)), data, env, store)
  main <- vapply(fx$terms, function(t) length(t$vars) == 1L && identical(t$vars[[1L]]$key, "trait"), TRUE)
  if (!any(main))
    tstop("with several responses the fixed formula needs 'trait' as a term of its own (a mean for each trait): cbind(%s) ~ trait + ...",
          paste(tn, collapse = ", "))
  fx$intercept <- FALSE
  rx <- NULL
  if (!is.null(random)) {
    if (!inherits(random, "formula") || length(random) != 2L) tstop("'random' must be a one-sided formula")
    rx <- parse_random(random, data, env, store)
  }
  resid <- parse_multi_residual(residual, tn, env)
  stacked <- as.vector(t(Y))
  model <- structure(list(response = sprintf("cbind(%s)", paste(tn, collapse = ", ")), y = Y[, 1L] / s, fixed = fx, random = rx, residual = residual,
                          resid = resid, weights_column = 0L, store = store, nrow = n, data = data,
                          na_response = "keep", na_design = na_design, ntrt = T, traits = tn, yscale = s),
                     class = "tarnel_model")
  check_term_sizes(model, sum(!is.na(Y)))
  table <- build_term_table(model)
  # The response: the trait's column, read from the first response column
  # on; the columns are also listed in the table of integers.
  yt <- table$nycol
  ibv <- table$inter$IBV
  table$inter$IBV <- c(ibv, seq_len(T))
  table$inter$inter[, yt] <- c(-27L, length(ibv) + 1L, 1L, T)
  table$inter$nlev[yt] <- T
  table$nrecords <- n * T
  struc <- build_struc(model, table)
  struc <- multi_starts(struc, Y / s, tn)
  struc$nobs <- sum(!is.na(Y))
  struc <- apply_constraints(struc, start, constrain, equal, lincon)
  check_multi_start(struc, tn)
  out <- run_ctrn(model, table, struc, keep_design = FALSE, control = control)
  fit <- assemble_multi(out, model, table, struc, control, stacked, rows)
  # What a further run at the final variance parameters needs (the Wald
  # tests and predictions are formed there).
  fit$engine_input <- list(model = model, struc = struc, control = control, stacked = stacked)
  fit$call <- cl
  fit$log <- out$log
  fit$formulae <- list(fixed = fixed, random = random, residual = residual)
  warn_engine_notices(out$log)
  warn_fit(fit)
  fit
}

# Starts of the variances across traits: half of each trait's variance to
# the residual, the other half shared by the random terms across traits;
# covariances start at 0.
multi_starts <- function(struc, Y, tn) {
  pars <- struc$params
  vy <- apply(Y, 2L, stats::var, na.rm = TRUE)
  across <- grepl(": trait ", pars$name, fixed = TRUE) & pars$lev1 %in% tn
  resid <- across & pars$group == "residual"
  rand <- across & !resid
  ng <- length(unique(pars$group[rand]))
  v <- pars$kind == "variance"
  pars$start[resid & v] <- 0.5 * vy[match(pars$lev1[resid & v], tn)]
  if (ng) pars$start[rand & v] <- 0.2 / ng * vy[match(pars$lev1[rand & v], tn)]
  pars$start[across & pars$kind == "covariance"] <- 0
  struc$gammas[pars$gamma] <- pars$start
  struc$params <- pars
  struc
}

# The unstructured matrices across traits as the parameters give them.
trait_matrices <- function(pars, value, tn) {
  across <- grepl(": trait ", pars$name, fixed = TRUE) & pars$lev1 %in% tn
  out <- list()
  for (g in unique(pars$group[across])) {
    k <- which(across & pars$group == g)
    m <- matrix(0, length(tn), length(tn), dimnames = list(tn, tn))
    i <- match(pars$lev1[k], tn)
    j <- ifelse(is.na(pars$lev2[k]), i, match(pars$lev2[k], tn))
    m[cbind(i, j)] <- value[k]
    m[cbind(j, i)] <- value[k]
    out[[g]] <- list(matrix = m, params = pars$name[k], i = i, j = j,
                     us = any(pars$kind[k] == "covariance"))
  }
  out
}

check_multi_start <- function(struc, tn) {
  pars <- struc$params
  mats <- trait_matrices(pars, struc$gammas[pars$gamma], tn)
  ys <- if (is.null(struc$yscale)) 1 else struc$yscale
  for (g in names(mats)) {
    m <- mats[[g]]$matrix
    ok <- tryCatch({ chol(m); TRUE }, error = function(e) FALSE)
    if (!ok)
      tstop("'start': the covariance matrix across traits of '%s' is not positive definite (%s)", g,
            paste(sprintf("%s = %s", mats[[g]]$params, format(mats[[g]]$matrix[cbind(mats[[g]]$i, mats[[g]]$j)] * ys^2, digits = 4)),
                  collapse = ", "))
  }
  invisible()
}

# The fit object of a model of several responses.
assemble_multi <- function(out, model, table, struc, control, stacked, rows) {
  a <- out$args
  trn <- a$trn
  pars <- struc$params
  s <- model$yscale
  q <- s^2
  gam <- a$struc$gammas
  codes <- a$struc$gmcstr
  value <- gam[pars$gamma]
  comp <- pars$kind %in% c("variance", "covariance")
  unit <- ifelse(comp, q, 1)
  vp <- data.frame(component = value * unit, row.names = pars$name)
  vp$std.error <- NA_real_
  vp$constraint <- constraint_label(codes[pars$gamma], value)
  nwv <- trn$nwv[1]
  ngamma <- struc$ngamma
  upd <- which(gam[seq_len(ngamma)] < 9.9e36 & !(seq_len(ngamma) <= struc$nfactp & gam[seq_len(ngamma)] == 0))
  cv <- NULL
  if (nwv > 0L && length(upd) == nwv) {
    ai <- unpack_lower(trn$ai, nwv)
    cv <- component_vcov(ai, upd, codes, pars, value, 1, FALSE)
    if (!is.null(cv)) {
      k <- match(rownames(cv), pars$name)
      cv <- cv * outer(unit[k], unit[k])
      vp[rownames(cv), "std.error"] <- sqrt(pmax(diag(cv), 0))
    }
  }
  hidden <- pars$kind == "scale"
  vp <- vp[!hidden, , drop = FALSE]
  neqd <- table$inter$neqd[1]
  nfe <- neqd - 1L
  lab <- table$labels
  C <- unpack_lower(trn$Cfixed, neqd)[-1L, -1L, drop = FALSE]
  b <- trn$soln[1L + seq_len(nfe)] * s
  aliased <- diag(C) <= 0
  b[aliased] <- NA
  names(b) <- lab[seq_len(nfe)]
  vc <- C[!aliased, !aliased, drop = FALSE] * q
  dimnames(vc) <- list(names(b)[!aliased], names(b)[!aliased])
  neq <- out$neq
  re_eq <- if (neq - 1L > nfe) (nfe + 1L):(neq - 1L) else integer()
  ranef <- setNames(trn$soln[1L + re_eq] * s, lab[re_eq])
  res <- trn$resid
  res[abs(res) >= 9.9e36] <- NA
  T <- model$ntrt
  R <- matrix(res * s, ncol = T, byrow = TRUE, dimnames = list(rows, model$traits))
  R[is.na(matrix(stacked, ncol = T, byrow = TRUE))] <- NA
  Y <- matrix(stacked, ncol = T, byrow = TRUE, dimnames = list(rows, model$traits))
  nobs <- sum(!is.na(Y))
  ll <- trn$loglik[1] - (nobs - sum(!aliased)) * log(s)
  nedf <- trn$nedf[1]
  fit <- list(converged = trn$converge[1] == 1L, message = out$text, loglik = ll,
              loglik_standard = ll - 0.5 * nedf * log(2 * pi), nedf = nedf,
              varcomp = vp, vcov_varcomp = cv, coefficients = b, vcov = vc, ranef = ranef,
              residuals = R, fitted = Y - R, response = Y, traits = model$traits, nobs = nobs,
              params = pars, gammas = setNames(value * unit, pars$name),
              iterations = iteration_log(trn$trArray, control$maxiter, ngamma, struc$nfactp, pars),
              records = out$records, record_rows = rows, neq = neq, workspace = out$workspace, table = table)
  fit$covariances <- multi_covariances(fit)
  class(fit) <- "tarnel_multi"
  fit
}

# Each matrix across traits with its correlations; standard errors of the
# correlations by the delta method from the covariance of the components.
multi_covariances <- function(fit) {
  pars <- fit$params
  mats <- trait_matrices(pars, fit$gammas, fit$traits)
  cv <- fit$vcov_varcomp
  lapply(mats, function(m) {
    S <- m$matrix
    sd <- sqrt(pmax(diag(S), 0))
    Rm <- S / outer(sd, sd)
    diag(Rm) <- 1
    T <- nrow(S)
    se <- matrix(NA_real_, T, T, dimnames = dimnames(S))
    rse <- se
    nm <- m$params
    have <- !is.null(cv) && all(nm %in% rownames(cv))
    for (k in seq_along(nm)) {
      i <- m$i[k]; j <- m$j[k]
      if (nm[k] %in% rownames(fit$varcomp)) se[i, j] <- se[j, i] <- fit$varcomp[nm[k], "std.error"]
      if (i == j || !have) next
      # r = s_ij / sqrt(s_ii s_jj): gradient in (s_ij, s_ii, s_jj).
      ki <- nm[m$i == i & m$j == i]; kj <- nm[m$i == j & m$j == j]
      g <- c(1 / (sd[i] * sd[j]), -0.5 * Rm[i, j] / S[i, i], -0.5 * Rm[i, j] / S[j, j])
      V <- cv[c(nm[k], ki, kj), c(nm[k], ki, kj)]
      rse[i, j] <- rse[j, i] <- sqrt(max(0, drop(t(g) %*% V %*% g)))
    }
    list(covariance = S, std.error = se, correlation = Rm, correlation.se = rse, unstructured = m$us)
  })
}

#' @export
print.tarnel_multi <- function(x, ...) {
  cat(sprintf("tarnel fit of %d responses (%s): %d observed values on %d records\n", length(x$traits),
              paste(x$traits, collapse = ", "), x$nobs, nrow(x$response)))
  cat(sprintf("REML log-likelihood %.4f%s\n\n", x$loglik_standard, if (x$converged) "" else " (not converged)"))
  print(x$varcomp[, c("component", "std.error", "constraint")])
  invisible(x)
}

#' @export
summary.tarnel_multi <- function(object, ...) {
  fe <- data.frame(estimate = object$coefficients)
  fe$std.error <- NA_real_
  ok <- names(object$coefficients) %in% rownames(object$vcov)
  fe$std.error[ok] <- sqrt(diag(object$vcov))[names(object$coefficients)[ok]]
  fe$z.ratio <- fe$estimate / fe$std.error
  structure(list(varcomp = object$varcomp, covariances = object$covariances, coefficients = fe,
                 loglik = object$loglik_standard, converged = object$converged, traits = object$traits,
                 nobs = object$nobs),
            class = "summary.tarnel_multi")
}

#' @export
print.summary.tarnel_multi <- function(x, digits = max(3L, getOption("digits") - 3L), ...) {
  cat(sprintf("tarnel fit of %d responses (%s), %d observed values\n", length(x$traits), paste(x$traits, collapse = ", "), x$nobs))
  cat(sprintf("REML log-likelihood %.4f%s\n", x$loglik, if (x$converged) "" else " (not converged)"))
  cat("\nVariance parameters:\n")
  print(x$varcomp, digits = digits)
  for (g in names(x$covariances)) {
    m <- x$covariances[[g]]
    cat(sprintf("\n%s: covariance across traits (standard errors)\n", g))
    show <- matrix(sprintf("%s (%s)", format(signif(m$covariance, digits)), format(signif(m$std.error, digits))),
                   nrow(m$covariance), dimnames = dimnames(m$covariance))
    show[upper.tri(show)] <- ""
    print(noquote(show))
    if (m$unstructured) {
      cat("correlations (standard errors):\n")
      rs <- matrix(sprintf("%.3f (%.3f)", m$correlation, m$correlation.se), nrow(m$correlation),
                   dimnames = dimnames(m$correlation))
      rs[upper.tri(rs, diag = TRUE)] <- ""
      print(noquote(rs))
    }
  }
  cat("\nFixed effects:\n")
  print(x$coefficients, digits = digits)
  invisible(x)
}

#' @export
coef.tarnel_multi <- function(object, ...) object$coefficients

#' @export
vcov.tarnel_multi <- function(object, parameters = c("fixed", "variance"), ...) {
  parameters <- match.arg(parameters)
  if (parameters == "fixed") return(object$vcov)
  # The components' covariance from the inverse AI matrix.
  if (is.null(object$vcov_varcomp)) tstop("the average information matrix of this fit is not available or singular")
  object$vcov_varcomp
}

#' @export
logLik.tarnel_multi <- function(object, ...)
  structure(object$loglik_standard, df = nrow(object$varcomp), nobs = object$nobs, class = "logLik")

#' @export
residuals.tarnel_multi <- function(object, ...) object$residuals

#' @export
fitted.tarnel_multi <- function(object, ...) object$fitted

#' @export
VarCorr.tarnel_multi <- function(x, sigma = 1, ...) lapply(x$covariances, `[[`, "covariance")

#' @export
ranef.tarnel_multi <- function(object, ...) {
  tab <- object$table
  pos <- unlist(tab$random_positions)
  if (!length(pos)) return(list())
  ends <- cumsum(tab$position_levels[pos])
  starts <- ends - tab$position_levels[pos] + 1L
  out <- list()
  for (k in seq_along(pos)) {
    p <- pos[k]
    u <- unname(object$ranef[starts[k]:ends[k]])
    name <- tab$position_names[p]
    lev <- tab$level_names[[p]]
    if (startsWith(name, "trait:")) {
      # Effects of a term across traits: one row a level, one column a trait.
      T <- length(object$traits)
      m <- matrix(u, ncol = T, dimnames = list(sub("^[^:]*:", "", lev[seq_len(length(u) / T)]), object$traits))
      out[[sub("^trait:", "", name)]] <- m
    } else {
      out[[name]] <- setNames(u, lev)
    }
  }
  out
}
