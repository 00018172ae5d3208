# Wald tests of the fixed terms: the engine's table of incremental and
# conditional statistics, with denominator degrees of freedom by the
# Kenward-Roger method or by containment.

# The engine's table as a data frame in model order: one row a tested term
# (seven values a row, written from the last term to the first).
engine_wald_table <- function(trn, table) {
  empty <- data.frame(term = character(), position = integer(), df = integer(), F.inc = double(),
                      F.con = double(), code = integer(), stringsAsFactors = FALSE)
  aov <- trn$aovTbl
  if (length(aov) < 7L) return(empty)
  m <- matrix(aov[seq_len(7L * (length(aov) %/% 7L))], nrow = 7L)
  m <- m[, m[1L, ] > 0, drop = FALSE]
  if (!ncol(m)) return(empty)
  m[m >= 9.9e36] <- NA
  pos <- match(as.integer(m[1L, ]), table$inter$neword)
  out <- data.frame(term = table$position_names[pos], position = pos, df = as.integer(m[2L, ]),
                    F.inc = m[4L, ], F.con = m[5L, ], code = as.integer(m[6L, ]), stringsAsFactors = FALSE)
  out <- out[order(out$position), , drop = FALSE]
  out <- out[out$term != "(missing)", , drop = FALSE]
  rownames(out) <- NULL
  out
}

# The variables of each term of a formula's terms object (the intercept
# has none).
term_variables <- function(labels, fixed_formula) {
  tt <- stats::terms(fixed_formula, keep.order = TRUE)
  fac <- attr(tt, "factors")
  vapply(labels, function(l) {
    if (l == "(Intercept)" || !l %in% colnames(fac)) return(list(character()))
    list(rownames(fac)[fac[, l] > 0])
  }, list(character()))
}

# Term u contains term t when t's variables are a proper subset of u's.
term_contains <- function(vu, vt) all(vt %in% vu) && length(setdiff(vu, vt)) > 0L

# Hypothesis matrices of a term, in the basis of the model matrix X whose
# GLS information is M: the incremental hypothesis tests the term after
# the columns before it, the conditional one after the columns of every
# term that does not contain it.  Both come from the Cholesky factor of M
# with the conditioning columns first: the rows of the term's columns.
hypothesis_matrix <- function(M, cols, before) {
  p <- ncol(M)
  rest <- setdiff(seq_len(p), c(before, cols))
  perm <- c(before, cols, rest)
  U <- chol(M[perm, perm, drop = FALSE])
  L <- U[length(before) + seq_along(cols), , drop = FALSE]
  L[, order(perm), drop = FALSE]
}

# Design of one random term from its leaves (factors and covariates):
# the product of the leaves' columns record by record, the later leaf
# varying fastest.  NULL for a leaf this cannot form.
leaf_columns <- function(lf, data) {
  if (!identical(lf$kind, "leaf") || lf$code != 0L) return(NULL)
  v <- data[, lf$b]
  v[v >= 9.9e36] <- NA
  if (lf$flev == 1L && length(lf$labels) == 1L && lf$nlev == 1L && identical(lf$labels, lf$key)) return(matrix(v))
  if (lf$nlev != 1L) return(NULL)
  m <- outer(v, seq_len(lf$flev), `==`) * 1
  m[is.na(m)] <- 0
  m
}
term_design <- function(term, data) {
  Z <- NULL
  for (lf in term$vars) {
    m <- leaf_columns(lf, data)
    if (is.null(m)) return(NULL)
    Z <- if (is.null(Z)) m else do.call(cbind, lapply(seq_len(ncol(Z)), function(i) Z[, i] * m))
  }
  Z
}

# The variance model of a fit as V = sum theta_k D_k over the records with
# a response: D (matrices), theta (absolute components), estimated (not
# held fixed), and the grouping designs used by containment.  NULL with a
# reason when a structure is not one of: scaled identities of factors and
# covariates, random coefficients (coefs()), an identity residual (with
# weights) or residual variances by group.
variance_model <- function(fit) {
  model <- fit$model
  data <- fit$table$data
  present <- fit$fixed_engine$present
  data <- data[present, , drop = FALSE]
  n <- nrow(data)
  pars <- fit$params
  comp <- fit$varcomp_all[pars$name, "component"]
  codes <- fit$constraints[pars$name]
  D <- list(); theta <- double(); est <- logical(); groups <- list()
  add <- function(Dk, name) {
    k <- match(name, pars$name)
    D[[length(D) + 1L]] <<- Dk
    theta[length(theta) + 1L] <<- comp[k]
    est[length(est) + 1L] <<- codes[k] != 4L
  }
  fail <- function(why) list(reason = why)
  rgroups <- if (is.null(model$random)) list() else model$random$groups
  rterms <- if (is.null(model$random)) list() else model$random$terms
  rpos <- fit$table$random_positions
  for (g in rgroups) {
    if (g$kind == "identity") {
      for (j in g$terms) {
        Z <- term_design(rterms[[j]], data)
        if (is.null(Z)) return(fail(sprintf("the random term '%s' is not a factor or covariate term", g$label)))
        nm <- fit$table$position_names[rpos[[j]]]
        add(tcrossprod(Z), nm)
        groups[[length(groups) + 1L]] <- Z
      }
    } else if (g$kind == "coefs") {
      Zs <- lapply(rterms[g$terms], term_design, data = data)
      if (any(vapply(Zs, is.null, TRUE))) return(fail(sprintf("the random term '%s' cannot be formed", g$label)))
      gp <- pars[pars$group == g$label, , drop = FALSE]
      gp <- gp[order(gp$gamma), , drop = FALSE]
      k <- length(Zs)
      pairs <- if (g$cov == "us") do.call(rbind, lapply(seq_len(k), function(i) cbind(i, seq_len(i)))) else cbind(seq_len(k), seq_len(k))
      if (nrow(pairs) != nrow(gp)) return(fail(sprintf("the parameters of '%s' are not laid out as expected", g$label)))
      for (r in seq_len(nrow(pairs))) {
        i <- pairs[r, 1L]; j <- pairs[r, 2L]
        Dk <- if (i == j) tcrossprod(Zs[[i]]) else Zs[[i]] %*% t(Zs[[j]]) + Zs[[j]] %*% t(Zs[[i]])
        add(Dk, gp$name[r])
      }
      groups[[length(groups) + 1L]] <- term_design(list(vars = rterms[[g$terms[1L]]]$vars[1L]), data)
    } else {
      return(fail(sprintf("the structured random term '%s' is not covered", g$label)))
    }
  }
  resid <- model$resid
  if (resid$kind == "identity") {
    w <- if (model$weights_column > 0L) data[, model$weights_column] else rep(1, n)
    add(diag(1 / w, n), "residual")
  } else if (resid$kind == "het") {
    rp <- pars[pars$group == "residual" & pars$kind == "variance", , drop = FALSE]
    rp <- rp[order(rp$gamma), , drop = FALSE]
    f <- as.integer(structure_factor(model$data, resid$factor))[present]
    if (nrow(rp) != length(resid$levels)) return(fail("the residual variances are not laid out as expected"))
    for (s in seq_len(nrow(rp))) add(diag(as.numeric(f == s), n), rp$name[s])
  } else {
    return(fail("the residual structure is not covered"))
  }
  list(D = D, theta = theta, estimated = est, groups = groups)
}

# Kenward-Roger quantities at the fit's variance parameters: the GLS
# information M = X'V^-1X and its inverse Phi, P_k = -X'V^-1 D_k V^-1 X and
# W, twice the inverse of the matrix tr(P D_i P D_j) (the expected REML
# information), over the parameters that were estimated.
kr_setup <- function(X, vm) {
  V <- Reduce(`+`, Map(`*`, vm$theta, vm$D))
  Vi <- chol2inv(chol(V))
  ViX <- Vi %*% X
  M <- crossprod(X, ViX)
  Phi <- chol2inv(chol(M))
  D <- vm$D[vm$estimated]
  P <- Vi - ViX %*% Phi %*% t(ViX)
  PD <- lapply(D, function(Dk) P %*% Dk)
  K <- length(D)
  IE <- matrix(0, K, K)
  for (i in seq_len(K)) for (j in i:K) IE[i, j] <- IE[j, i] <- sum(PD[[i]] * t(PD[[j]]))
  W <- tryCatch(2 * solve(IE), error = function(e) 2 * MASS_ginv(IE))
  Pk <- lapply(D, function(Dk) -crossprod(ViX, Dk %*% ViX))
  list(M = M, Phi = Phi, P = Pk, W = W)
}

MASS_ginv <- function(A) {
  s <- svd(A)
  pos <- s$d > max(dim(A)) * max(s$d) * .Machine$double.eps
  s$v[, pos, drop = FALSE] %*% (t(s$u[, pos, drop = FALSE]) / s$d[pos])
}

# The Kenward-Roger denominator degrees of freedom of the hypothesis L b = 0.
kr_ddf <- function(L, kr) {
  q <- nrow(L)
  Phi <- kr$Phi
  Theta <- t(L) %*% solve(L %*% Phi %*% t(L), L)
  TP <- Theta %*% Phi
  K <- length(kr$P)
  u <- lapply(kr$P, function(Pk) TP %*% Pk %*% Phi)
  A1 <- A2 <- 0
  for (i in seq_len(K)) for (j in i:K) {
    e <- if (i == j) 1 else 2
    A1 <- A1 + e * kr$W[i, j] * sum(diag(u[[i]])) * sum(diag(u[[j]]))
    A2 <- A2 + e * kr$W[i, j] * sum(u[[i]] * t(u[[j]]))
  }
  B <- (A1 + 6 * A2) / (2 * q)
  g <- ((q + 1) * A1 - (q + 4) * A2) / ((q + 2) * A2)
  den <- 3 * q + 2 * (1 - g)
  c1 <- g / den; c2 <- (q - g) / den; c3 <- (q + 2 - g) / den
  V0 <- 1 + c1 * B; V1 <- 1 - c2 * B; V2 <- 1 - c3 * B
  if (abs(V0) < 1e-10) V0 <- 0
  ratio <- if (abs(1 - A2 / q) < 1e-14 && abs(V1) < 1e-14) 1 else (1 - A2 / q) / V1
  rho <- ratio^2 * V0 / (q * V2)
  4 + (q + 2) / (q * rho - 1)
}

# Containment denominator degrees of freedom, as nlme's for nested
# groupings: a term whose columns are constant within the groups of a
# random term takes the degrees of freedom that the coarsest such grouping
# adds to the rank of [X Z...] (random terms in model order); every other
# term, and the intercept, the residual degrees of freedom n - rank[X Z].
containment_ddf <- function(X, assign, labels, groups) {
  n <- nrow(X)
  rk <- function(A) qr(A, tol = 1e-7)$rank
  r0 <- rk(X)
  cum <- X
  contrib <- integer(length(groups))
  for (k in seq_along(groups)) {
    r1 <- rk(cbind(cum, groups[[k]]))
    contrib[k] <- r1 - if (k == 1L) r0 else rk(cum)
    cum <- cbind(cum, groups[[k]])
  }
  resid <- n - rk(cum)
  vapply(seq_along(labels), function(t) {
    if (labels[t] == "(Intercept)") return(as.double(resid))
    Xt <- X[, assign == t, drop = FALSE]
    best <- NA_real_; size <- Inf
    for (k in seq_along(groups)) {
      Z <- groups[[k]]
      fitted <- Z %*% qr.coef(qr(Z), Xt)
      fitted[is.na(fitted)] <- 0
      if (max(abs(fitted - Xt)) <= 1e-8 * max(1, abs(Xt)) && ncol(Z) < size) {
        size <- ncol(Z); best <- contrib[k]
      }
    }
    if (is.na(best)) resid else best
  }, 1)
}

#' Wald tests of the fixed terms
#'
#' See the Rd page.
#' @export
wald <- function(object, terms = NULL, ddf = c("Kenward-Roger", "containment", "none"), ...) {
  if (inherits(object, "tarnel_multi")) {
    # Fits of several responses: asymptotic df only, so far.
    ddf <- if (missing(ddf)) "asymptotic" else ddf
    if (!is.character(ddf) || length(ddf) != 1L || !ddf %in% c("asymptotic", "none"))
      tstop("'ddf' for a fit of several responses must be \"asymptotic\" or \"none\"; Kenward-Roger and containment df are not available yet for such fits")
    return(wald_multi(object, terms, ddf))
  }
  if (!inherits(object, "tarnel")) tstop("'object' must be a tarnel fit")
  ddf <- match.arg(ddf)
  tab <- object$wald_table
  sparse <- !is.null(object$sparse_fixed)
  dense_none <- !is.null(object$fixed_design) && !ncol(object$fixed_design)
  fr <- if ((is.null(object$fixed_design) || dense_none) && !sparse) NULL
        else tryCatch(fixed_effects_r(object), error = function(e) NULL)
  if (dense_none && !sparse) tstop("the model has no fixed terms to test")
  if (is.null(tab)) tstop("this fit holds no Wald table; refit it with this version of tarnel")
  if (!nrow(tab) && is.null(object$sparse_fixed))
    tstop("the engine formed no Wald table for this fit: the work array had no room to keep the fixed equations (raise tarnel_control(workspace =)), or the fit was aborted")
  if (is.null(fr) || !length(fr$coefficients)) tstop("the fixed effects of this fit could not be put in R's coding")
  if (!is.null(terms)) {
    if (!is.character(terms)) tstop("'terms' must be a character vector of fixed term labels")
    bad <- setdiff(terms, tab$term)
    sp <- intersect(bad, unique(object$sparse_fixed$term))
    if (length(sp))
      tstop("the fixed term '%s' is in the sparse equations, where terms get no Wald test; refit with tarnel_control(sparse_fixed = ) above its %d levels to test it",
            sp[1], sum(object$sparse_fixed$term == sp[1]))
    if (length(bad))
      tstop("not a fixed term of the model: %s (the terms are %s)", paste(bad, collapse = ", "),
            paste(tab$term, collapse = ", "))
  }
  none <- rep(NA_real_, nrow(tab))
  out <- data.frame(Df = tab$df, Wald.inc = tab$F.inc * tab$df, F.inc = tab$F.inc, denDF.inc = none,
                    Pr.inc = none, Wald.con = tab$F.con * tab$df, F.con = tab$F.con, denDF.con = none,
                    Pr.con = none, row.names = tab$term)
  note <- character()
  if (ddf != "none" && nrow(tab)) {
    d <- wald_ddf(object, tab, fr, ddf)
    out$denDF.inc <- d$inc
    out$denDF.con <- d$con
    note <- d$note
  }
  out$Pr.inc <- stats::pf(out$F.inc, out$Df, out$denDF.inc, lower.tail = FALSE)
  out$Pr.con <- stats::pf(out$F.con, out$Df, out$denDF.con, lower.tail = FALSE)
  if (!is.null(terms)) out <- out[terms, , drop = FALSE]
  if (!is.null(object$sparse_fixed)) {
    sp <- unique(object$sparse_fixed$term)
    note <- c(note, sprintf("%s: in the sparse equations, not tested; absorbed before the dense terms are tested",
                            paste(sp, collapse = ", ")))
    gone <- setdiff(fr$term_labels, c(sp, tab$term))
    if (length(gone))
      note <- c(note, sprintf("%s: no test, every column aliased with the terms in the sparse equations",
                              paste(gone, collapse = ", ")))
  }
  structure(out, class = c("tarnel_wald", "data.frame"), ddf = ddf, note = note,
            heading = "Wald tests of fixed terms")
}

# Denominator df of each tested term, incremental and conditional.
wald_ddf <- function(object, tab, fr, method) {
  nt <- nrow(tab)
  none <- list(inc = rep(NA_real_, nt), con = rep(NA_real_, nt))
  # Terms in the sparse equations are absorbed before any dense term is
  # tested: their columns condition every hypothesis.
  absorbed <- if (is.null(fr$absorbed)) integer() else fr$absorbed
  if (fr$basis != "R" && !length(absorbed)) return(c(none, note = "denominator df need a fixed formula of R model terms"))
  X <- fr$X
  labels <- fr$term_labels
  idx <- match(tab$term, labels)
  if (anyNA(idx)) return(c(none, note = "the engine's terms do not match the model matrix"))
  if (nrow(X) > 3000L) return(c(none, note = sprintf("denominator df not formed: %d records is too many for the dense computation (at most 3000)", nrow(X))))
  X <- as.matrix(X)
  vm <- variance_model(object)
  if (!is.null(vm$reason)) return(c(none, note = paste("denominator df not formed:", vm$reason)))
  if (method == "containment") {
    dd <- containment_ddf(X, fr$assign, labels, vm$groups)
    return(list(inc = dd[idx], con = dd[idx], note = character()))
  }
  if (!object$converged) return(c(none, note = "Kenward-Roger df not formed: the fit did not converge"))
  kr <- tryCatch(kr_setup(X, vm), error = function(e) NULL)
  if (is.null(kr)) return(c(none, note = "Kenward-Roger df not formed: the variance matrix is singular"))
  vars <- term_variables(labels, object$fixed_formula)
  res <- none
  for (r in seq_len(nt)) {
    t <- idx[r]
    cols <- which(fr$assign == t)
    if (!length(cols)) next
    before <- union(absorbed, which(fr$assign < t))
    cond <- which(vapply(seq_along(labels), function(u) u != t && !term_contains(vars[[u]], vars[[t]]), TRUE))
    cbefore <- union(absorbed, which(fr$assign %in% cond))
    res$inc[r] <- tryCatch(kr_ddf(hypothesis_matrix(kr$M, cols, before), kr), error = function(e) NA_real_)
    if (!is.na(tab$F.con[r]))
      res$con[r] <- tryCatch(kr_ddf(hypothesis_matrix(kr$M, cols, cbefore), kr), error = function(e) NA_real_)
  }
  res$note <- character()
  res
}

#' @export
print.tarnel_wald <- function(x, digits = max(4L, getOption("digits") - 3L), ...) {
  ddf <- attr(x, "ddf")
  cat(attr(x, "heading"), if (ddf != "none") sprintf(" (denominator df: %s)", ddf), "\n", sep = "")
  cat("inc: each term after the terms before it; con: after every term that does not contain it\n\n")
  v <- unclass(x)
  y <- data.frame(Df = v$Df, check.names = FALSE)
  same <- isTRUE(all.equal(v$denDF.inc, v$denDF.con)) || all(is.na(v$denDF.con) | v$denDF.con == v$denDF.inc, na.rm = TRUE)
  if (ddf != "none") y[[if (same) "denDF" else "denDF.inc"]] <- round(v$denDF.inc, 2)
  y$F.inc <- v$F.inc
  if (ddf != "none") y$"Pr(>F.inc)" <- format.pval(v$Pr.inc, digits = 3)
  if (ddf != "none" && !same) y$denDF.con <- round(v$denDF.con, 2)
  y$F.con <- v$F.con
  if (ddf != "none") y$"Pr(>F.con)" <- ifelse(is.na(v$Pr.con), "", format.pval(v$Pr.con, digits = 3))
  rownames(y) <- attr(x, "row.names")
  print(y, digits = digits, na.print = "")
  con_na <- is.na(v$F.con) & !is.na(v$F.inc)
  if (any(con_na))
    cat("No conditional test where it would change the numerator df:", paste(rownames(y)[con_na], collapse = ", "), "\n")
  for (n in attr(x, "note")) cat("Note:", n, "\n")
  invisible(x)
}

#' @export
anova.tarnel <- function(object, ..., ddf = c("Kenward-Roger", "containment", "none")) {
  if (length(list(...))) tstop("anova() of tarnel fits tests the fixed terms of one fit; comparing fits is not available")
  wald(object, ddf = match.arg(ddf))
}
