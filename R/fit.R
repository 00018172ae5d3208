# The fitted model: the engine's results turned into a "tarnel" object, and
# its methods.

unpack_lower <- function(v, n) {
  m <- matrix(0, n, n)
  if (n < 1L) return(m)
  m[upper.tri(m, diag = TRUE)] <- v[seq_len(n * (n + 1) / 2)]  # by rows of the lower = by columns of the upper
  m[lower.tri(m)] <- t(m)[lower.tri(m)]
  m
}

constraint_label <- function(code, value) {
  lab <- c("1" = "positive", "3" = "unconstrained", "4" = "fixed", "5" = "limit", "6" = "no information",
           "7" = "boundary", "77" = "near boundary")[as.character(code)]
  lab[is.na(lab)] <- paste0("code ", code[is.na(lab)])
  lab[code == 1L & abs(value) < 1e-8] <- "boundary"
  unname(lab)
}

# A dense matrix as a general sparse one (dgCMatrix).  Matrix::Matrix()
# would first test the matrix for symmetry and triangles, which on a design
# of many records costs a hundred times the conversion itself.
sparse_general <- function(X) methods::as(methods::as(X, "CsparseMatrix"), "generalMatrix")

#' @noRd
assemble_fit <- function(out, model, table, struc, arranged, control) {
  a <- out$args
  trn <- a$trn
  pars <- struc$params
  ngamma <- struc$ngamma
  nfactp <- struc$nfactp
  gam <- a$struc$gammas
  codes <- a$struc$gmcstr
  converged <- trn$converge[1] == 1L
  sigma2 <- trn$sigma2[1]
  scale <- if (struc$profiled) sigma2 else 1
  # Components: ratios times the residual variance for every variance-type
  # parameter when the residual variance is profiled.
  varkind <- pars$kind %in% c("variance", "covariance", "scale")
  mult <- ifelse(varkind, scale, 1)
  value <- gam[pars$gamma]
  vp <- data.frame(component = value * mult, gamma = value, row.names = pars$name)
  vp$std.error <- NA_real_
  vp$constraint <- constraint_label(codes[pars$gamma], value)

  # The AI matrix over the update list, and the standard errors from its
  # inverse (over the parameters still free to move).
  nwv <- trn$nwv[1]
  upd <- which(gam[seq_len(ngamma)] < 9.9e36 & !(seq_len(ngamma) <= nfactp & gam[seq_len(ngamma)] == 0))
  if (length(upd) != nwv) {
    pv <- trn$prvgam
    upd <- which(pv[seq_len(ngamma)] < 9.9e36 & !(seq_len(ngamma) <= nfactp & pv[seq_len(ngamma)] == 0))
  }
  ai <- NULL
  score <- NULL
  if (nwv > 0L && length(upd) == nwv) {
    nm <- pars$name[match(upd, pars$gamma)]
    ai <- unpack_lower(trn$ai, nwv)
    dimnames(ai) <- list(nm, nm)
    score <- setNames(trn$score[upd], nm)
    cv <- component_vcov(ai, upd, codes, pars, value, scale, struc$profiled)
    if (!is.null(cv)) vp[rownames(cv), "std.error"] <- sqrt(pmax(diag(cv), 0))
  }
  # A parameter the data say nothing about has no estimate: its value is
  # still the start.
  vp[vp$constraint == "no information", c("component", "gamma", "std.error")] <- NA_real_
  vp$z.ratio <- vp$component / vp$std.error
  hidden <- !struc$profiled & pars$kind == "scale"

  # Fixed effects: the dense block of the inverse holds their covariance.
  neq <- out$neq
  neqd <- table$inter$neqd[1]
  soln <- trn$soln
  nfe <- neqd - 1L
  fe_eq <- seq_len(nfe)
  lab <- table$labels
  miss_eq <- grepl("^\\(missing\\)", lab[fe_eq])
  C <- unpack_lower(trn$Cfixed, neqd)[-1L, -1L, drop = FALSE]
  b <- soln[1L + fe_eq]
  aliased <- diag(C) <= 0
  b[aliased] <- NA
  names(b) <- lab[fe_eq]
  dimnames(C) <- list(lab[fe_eq], lab[fe_eq])
  keep_fe <- !miss_eq
  fixef <- b[keep_fe]
  vc <- C[keep_fe & !aliased, keep_fe & !aliased, drop = FALSE]
  # The solution in the engine's basis (aliased columns at 0) with the fixed
  # block of the inverse: R's convention is formed from these (fixed.R).
  bE <- b
  bE[aliased] <- 0
  fpos <- table$fixed_positions[table$position_names[table$fixed_positions] != "(missing)"]
  fixed_engine <- list(coefficients = bE[keep_fe], vcov = C[keep_fe, keep_fe, drop = FALSE],
                       assign = rep(seq_along(table$fixed_positions), table$position_levels[table$fixed_positions])[fe_eq][keep_fe],
                       term_labels = table$position_names[fpos])

  # Fixed terms in the sparse equations come after the random ones.
  sparse_fixed <- sparse_fixed_table(trn, table, !is.na(model$y))
  nsf <- sum(table$position_levels[vapply(table$sparse_fixed, `[[`, 1L, "position")])

  # Random effects, with their prediction error variances.
  re_eq <- if (neq - 1L - nsf > nfe) (nfe + 1L):(neq - 1L - nsf) else integer()
  ranef <- setNames(soln[1L + re_eq], lab[re_eq])
  ranef_pev <- setNames(trn$vsoln[1L + re_eq], lab[re_eq])

  # Per record, back in the order and rows of the user's data.
  rows <- arranged$rows
  n0 <- if (is.null(arranged$n0)) max(c(0L, rows), na.rm = TRUE) else arranged$n0
  y <- model$y
  present <- !is.na(y)
  lp <- trn$linearPredictors
  res <- trn$resid
  lp[!present | lp >= 9.9e36] <- NA
  res[!present | abs(res) >= 9.9e36] <- NA
  # The fixed columns of the design, sparse.  A design kept whole is dense,
  # a row a record, and its fixed columns are read once into a sparse
  # matrix; otherwise a pass of the design alone gives them sparse.
  design <- a$design
  X <- if (ncol(design) >= nfe) {
    sparse_general(if (ncol(design) == nfe) design else design[, seq_len(nfe), drop = FALSE])
  } else {
    design_rows(model, table, struc, control, ncol = nfe)
  }
  bx <- b
  bx[is.na(bx) | miss_eq] <- 0
  xb <- as.vector(X %*% bx)
  if (!is.null(sparse_fixed)) xb <- xb + sparse_fixed_xb(table, sparse_fixed)
  fixed_engine$present <- present
  fixed_design <- if (all(keep_fe)) X else X[, keep_fe, drop = FALSE]
  dimnames(fixed_design) <- list(NULL, lab[fe_eq][keep_fe])
  back <- function(v) {
    o <- rep(NA_real_, n0)
    ok <- !is.na(rows)
    o[rows[ok]] <- v[ok]
    o
  }
  nedf <- trn$nedf[1]
  ll <- trn$loglik[1]
  iters <- iteration_log(trn$trArray, control$maxiter, ngamma, nfactp, pars)
  fit <- list(
    converged = converged, message = out$text, loglik = ll,
    loglik_standard = ll - 0.5 * nedf * log(2 * pi), nedf = nedf, sigma2 = sigma2,
    profiled = struc$profiled, varcomp = vp[!hidden, , drop = FALSE], varcomp_all = vp,
    coefficients = fixef, vcov = vc, ranef = ranef, ranef_pev = ranef_pev,
    fitted = back(lp), fitted_fixed = back(xb), residuals = back(res),
    ai = ai, score = score, iterations = iters, gammas = setNames(value, pars$name),
    constraints = setNames(codes[pars$gamma], pars$name),
    nobs = sum(present), records = out$records, record_rows = rows, neq = neq, nonzero = out$nonzero,
    workspace = out$workspace, status = out$status, model = model, table = table, params = pars,
    fixed_engine = fixed_engine, fixed_design = fixed_design, sparse_fixed = sparse_fixed,
    wald_table = engine_wald_table(trn, table))
  fit <- unscale_fit(fit, model$yscale)
  if (isTRUE(getOption("tarnel.keep_args"))) fit$args <- a
  if (isTRUE(out$keep_design)) {
    d <- design
    attr(d, "xcol") <- NULL
    dimnames(d) <- list(NULL, lab[seq_len(ncol(d))])
    fit$design <- d
    fit$rows <- rows
  }
  class(fit) <- "tarnel"
  fit
}

# The log-likelihood was still moving when the engine's test stopped it.
needs_polish <- function(fit) {
  ll <- fit$iterations$loglik
  fit$converged && length(ll) >= 2L && abs(ll[length(ll)] - ll[length(ll) - 1L]) > 1e-3
}

warn_fit <- function(fit) {
  converged <- fit$converged
  out <- list(text = fit$message)
  if (!converged)
    warning(sprintf("tarnel: %s", if (nzchar(out$text)) out$text else "the REML iteration did not converge"), call. = FALSE)
  con <- fit$varcomp$constraint
  held <- function(what) rownames(fit$varcomp)[con %in% what]
  say <- function(nm, text) if (length(nm)) warning(sprintf(text, paste(nm, collapse = ", ")), call. = FALSE)
  say(held("boundary"), "tarnel: parameter(s) held at a boundary: %s")
  say(held("no information"),
      "tarnel: the data hold no information on parameter(s) %s (or each repeats another parameter): no estimate, shown as NA; the fit held it at its start value, so leave the term out or fix it")
  say(held("near boundary"),
      "tarnel: parameter(s) %s were still moving towards their boundary when the fit stopped, and the engine held them there; their estimates are not reliable")
  say(held("limit"), "tarnel: parameter(s) held at a limit of their range: %s")
  say(held(unique(grep("^code ", con, value = TRUE))),
      "tarnel: parameter(s) %s were held by the engine in a state it did not resolve; their estimates are not reliable")
  for (w in spatial_warnings(fit)) warning(w, call. = FALSE)
  invisible(fit)
}

# The covariance matrix of the variance components from the inverse AI
# matrix over the parameters free to move.  With the residual variance
# profiled the engine's parameters are ratios g and a scale s that
# multiplies the whole variance (V = s sigma2 H(g), s = 1), so a component
# is s sigma2 g and the residual variance s sigma2: the delta method with
# that Jacobian turns one covariance matrix into the other.
component_vcov <- function(ai, upd, codes, pars, value, sigma2, profiled) {
  free <- which(!codes[upd] %in% c(4L, 6L, 7L) & diag(ai) > 0)
  if (!length(free)) return(NULL)
  inv <- tryCatch(solve(ai[free, free, drop = FALSE]), error = function(e) NULL)
  if (is.null(inv)) return(NULL)
  k <- match(upd[free], pars$gamma)
  J <- diag(1, length(k))
  if (profiled) {
    varkind <- pars$kind[k] %in% c("variance", "covariance", "scale")
    diag(J)[varkind] <- sigma2
    sc <- which(pars$kind[k] == "scale")
    if (length(sc)) J[varkind, sc] <- sigma2 * value[k][varkind]
  }
  out <- J %*% inv %*% t(J)
  dimnames(out) <- list(pars$name[k], pars$name[k])
  out
}

# The iteration record: one row an iteration, log-likelihood, residual
# variance, degrees of freedom and the parameters above the positions.
iteration_log <- function(tr, maxiter, ngamma, nfactp, pars) {
  m <- matrix(tr, nrow = ngamma + 3L)
  shown <- pars$name[order(pars$gamma)][sort(pars$gamma) > nfactp]
  used <- which(m[1L, ] != 0)
  if (!length(used)) return(data.frame(iteration = integer(), loglik = double(), sigma2 = double(), nedf = integer()))
  # The last row repeats the last iteration with the final parameters.
  m <- m[, seq_len(max(1L, max(used) - 1L)), drop = FALSE]
  out <- data.frame(iteration = seq_len(ncol(m)), loglik = m[1L, ], sigma2 = m[2L, ], nedf = as.integer(m[3L, ]))
  np <- min(length(shown), nrow(m) - 3L)
  if (np > 0L) {
    p <- t(m[3L + seq_len(np), , drop = FALSE])
    colnames(p) <- shown[seq_len(np)]
    out <- cbind(out, p)
  }
  out
}

#' @export
print.tarnel <- function(x, ...) {
  cat("tarnel REML fit:", paste(deparse(x$call$fixed), collapse = " "), "\n")
  cat(sprintf("  %d records, %d equations; log-likelihood %.4f (%s), %d residual df\n", x$records, x$neq,
              x$loglik_standard, "standard REML", x$nedf))
  cat(sprintf("  %s\n", if (x$converged) "converged" else paste("not converged:", x$message)))
  cat("Variance parameters:\n")
  print(x$varcomp[, c("component", "constraint")], ...)
  invisible(x)
}

#' @export
summary.tarnel <- function(object, ...) {
  vp <- object$varcomp
  cols <- c("component", "std.error", "z.ratio", "constraint")
  if (object$profiled) {
    vp$ratio <- vp$gamma
    vp$ratio[!object$params$kind[match(rownames(vp), object$params$name)] %in% c("variance", "covariance", "scale")] <- NA
    cols <- c("ratio", cols)
  }
  b <- c(object$coefficients, object$zeta)  # an ordinal fit's thresholds too
  se <- c(fixed_se(object), sqrt(diag(object$vcov))[names(object$zeta)])
  # The levels of sparse fixed terms are listed in $sparse_fixed, not here.
  dense <- !names(b) %in% object$sparse_fixed$level
  fe <- data.frame(estimate = b[dense], std.error = se[names(b)][dense], row.names = names(b)[dense])
  fe$z.ratio <- fe$estimate / fe$std.error
  aliased <- if (is.null(object$fixed_info)) character() else object$fixed_info$aliased
  structure(list(call = object$call, varcomp = vp[, cols, drop = FALSE], correlations = covariance_correlations(object),
                 fixed = fe, aliased = aliased,
                 loglik = object$loglik_standard, loglik_engine = object$loglik, nedf = object$nedf,
                 iterations = nrow(object$iterations), converged = object$converged,
                 message = object$message, sigma2 = object$sigma2, profiled = object$profiled,
                 notes = spatial_notes(object), sparse_notes = sparse_fixed_notes(object$sparse_fixed),
                 sparse_fixed = object$sparse_fixed),
            class = "summary.tarnel")
}

#' @export
print.summary.tarnel <- function(x, digits = max(4L, getOption("digits") - 3L), ...) {
  cat("tarnel REML fit\nCall: ", paste(deparse(x$call), collapse = "\n"), "\n\n", sep = "")
  cat("Variance parameters", if (x$profiled) " (ratios to the residual variance, which is profiled)" else "", ":\n", sep = "")
  print(x$varcomp, digits = digits)
  if (length(x$notes)) cat(paste0("  ", x$notes, "\n"), sep = "")
  if (length(x$correlations)) {
    cat("\nCorrelations from the covariances:\n")
    print(x$correlations, digits = digits)
  }
  cat("\nFixed effects:\n")
  print(x$fixed, digits = digits)
  if (length(x$sparse_notes)) cat(paste0(x$sparse_notes, "\n"), sep = "")
  if (length(x$aliased)) {
    al <- x$aliased
    more <- if (length(al) > 20L) sprintf(" and %d more", length(al) - 20L) else ""
    cat(sprintf("Not estimable (aliased with earlier columns): %s%s\n", paste(utils::head(al, 20L), collapse = ", "), more))
  }
  cat(sprintf("\nREML log-likelihood %.4f (standard; %.4f leaving out the 2 pi term), %d residual df\n",
              x$loglik, x$loglik_engine, x$nedf))
  cat(sprintf("%d iterations: %s\n", x$iterations, if (nzchar(x$message)) x$message else if (x$converged) "converged" else "not converged"))
  invisible(x)
}

#' @export
fitted.tarnel <- function(object, type = c("full", "fixed"), ...) {
  type <- match.arg(type)
  if (type == "full") object$fitted else object$fitted_fixed
}

#' @export
residuals.tarnel <- function(object, ...) object$residuals

#' @export
vcov.tarnel <- function(object, parameters = c("fixed", "variance"), ...) {
  parameters <- match.arg(parameters)
  if (parameters == "fixed") return(object$vcov)
  if (is.null(object$ai)) stop("tarnel: the average information matrix is not available for this fit", call. = FALSE)
  p <- object$params
  upd <- p$gamma[match(rownames(object$ai), p$name)]
  codes <- integer(max(p$gamma)); codes[p$gamma] <- object$constraints
  cv <- component_vcov(object$ai, upd, codes, p, unname(object$gammas), object$sigma2, object$profiled)
  if (is.null(cv)) stop("tarnel: the average information matrix is singular", call. = FALSE)
  cv
}

#' @export
logLik.tarnel <- function(object, convention = c("standard", "engine"), ...) {
  convention <- match.arg(convention)
  # The standard value is the one for R's model matrix of the fixed formula.
  shift <- if (is.null(object$fixed_info$loglik_shift)) 0 else object$fixed_info$loglik_shift
  v <- if (convention == "standard") object$loglik_standard + shift else object$loglik
  # Parameters: the estimable fixed effects, and the variance parameters
  # not held fixed (one at a boundary was still estimated).
  est <- sum(object$constraints != 4L)
  structure(v, df = length(object$coefficients) + est, nobs = object$nobs, class = "logLik")
}

#' @export
nobs.tarnel <- function(object, ...) object$nobs
