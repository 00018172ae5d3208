# The fixed effects as R users read them: the coefficients of R's model
# matrix for the fixed formula (treatment contrasts unless the data's
# factors carry others), with the columns that depend on earlier ones
# dropped in model order, as lm() and lmer() do.
#
# The engine solves in its own basis, one column a level.  The fitted X b
# is the same in any basis, so with X_R the R model matrix (full column
# rank) and X_E the engine's, b_R = T b_E and Var(b_R) = T C_E T', where
# T = (X_R'X_R)^-1 X_R'X_E and C_E is the fixed block of the inverse of the
# mixed model equations.  Every row of T is an estimable function, so the
# result does not depend on which engine columns were found aliased.
# A fit with fixed factors among the sparse equations keeps the engine's
# coding instead (fixed_effects_sparse()): T would be as large as those
# factors' levels squared.

# The engine's fixed-effect columns of the design, over the records of the
# fit, without the equations of missing responses.
engine_fixed_design <- function(fit) {
  X <- fit$fixed_design
  if (is.null(X)) tstop("this fit does not keep its fixed-effect design; refit it with this version of tarnel")
  X
}

# R's model matrix for the fixed formula over the fit's records; NULL when
# the formula uses terms that R's model matrix cannot form.
r_model_matrix <- function(fit, nrec) {
  f <- fit$fixed_formula
  if (!inherits(f, "formula")) return(NULL)
  rhs <- stats::delete.response(stats::terms(f, keep.order = TRUE))
  mf <- tryCatch(stats::model.frame(rhs, data = fit$model$data, na.action = stats::na.pass,
                                    drop.unused.levels = FALSE),
                 error = function(e) NULL)
  if (is.null(mf)) return(NULL)
  X <- tryCatch(suppressWarnings(stats::model.matrix(rhs, mf)), error = function(e) NULL)
  if (is.null(X) || nrow(X) != nrec) return(NULL)
  # What new records need to be coded alike (data-dependent bases such as
  # poly() kept as fitted, the factors' levels).
  attr(X, "terms") <- attr(mf, "terms")
  attr(X, "xlevels") <- stats::.getXlevels(attr(mf, "terms"), mf)
  X
}

# Columns of X that do not depend on earlier ones, in order (a pivoted QR
# that moves only the dependent columns, as lm() uses).
independent_columns <- function(X, tol = 1e-7) {
  if (!ncol(X)) return(integer())
  q <- qr(X, tol = tol)
  sort(q$pivot[seq_len(q$rank)])
}

# The same columns found from the cross products G = X'X alone, so that no
# factorisation of the n rows is needed.  Any A with A'A = G has the column
# norms and the residuals of each column on the earlier ones of X, so the
# pivoted QR of A (p x p) moves the same columns as that of X.  The columns
# are first scaled to unit norm (the QR's test is relative to each column's
# norm) and A is formed from the eigen decomposition, which needs no
# positive definite G.
independent_columns_gram <- function(G, tol = 1e-7) {
  p <- ncol(G)
  if (!p) return(integer())
  d <- diag(G)
  s <- ifelse(d > 0, 1 / sqrt(d), 0)
  e <- eigen(G * tcrossprod(s), symmetric = TRUE)
  A <- sqrt(pmax(e$values, 0)) * t(e$vectors)
  q <- qr(A, tol = tol)
  sort(q$pivot[seq_len(q$rank)])
}

#' @noRd
# The fixed effects of a fit in R's convention: a list of `coefficients`,
# `vcov`, `X` (the model matrix, estimable columns only), `assign` (the term
# of each of its columns), `term_labels`, `aliased` (names of the columns
# left out), `transform` (T, estimable columns by engine columns) and
# `basis` ("R", or "engine" when the formula uses terms R's model matrix
# cannot form: then the engine's own columns, aliased ones dropped).
fixed_effects_r <- function(fit) {
  if (!is.null(fit$sparse_fixed)) return(fixed_effects_sparse(fit))
  XS <- engine_fixed_design(fit)
  bE <- fit$fixed_engine$coefficients
  CE <- fit$fixed_engine$vcov
  present <- fit$fixed_engine$present
  # Rows are taken only when some are left out: every copy of a design of
  # many records costs a garbage collection.
  rows <- function(M) if (all(present)) M else M[present, , drop = FALSE]
  XS <- rows(XS)
  XR <- r_model_matrix(fit, length(present))
  basis <- "R"
  XRp <- if (is.null(XR)) NULL else rows(XR)
  if (!is.null(XRp) && anyNA(XRp)) XR <- NULL
  if (!is.null(XR)) {
    # Everything below needs only cross products.  Mostly zero columns
    # (factors of many levels) are held sparse, so that their products cost
    # as many operations as nonzeros; the dense BLAS product is faster for
    # the few dense columns of covariates and small factors.
    # (the share of nonzeros judged from the first rows: it only picks
    # the faster product)
    head_rows <- XRp[seq_len(min(nrow(XRp), 10000L)), , drop = FALSE]
    if (mean(head_rows != 0) < 0.2) XRp <- methods::as(XRp, "CsparseMatrix")
    G <- as.matrix(Matrix::crossprod(XRp))
    keep <- independent_columns_gram(G)
    Xk <- if (length(keep) == ncol(XRp)) XRp else XRp[, keep, drop = FALSE]
    # The engine found the rank of its columns when it absorbed them.
    ok <- length(keep) == sum(diag(CE) > 0)
    if (ok && length(keep)) {
      # X_E must lie in the span of X_R: the squared residual of the least
      # squares fit of X_E on X_R, from the cross products alone (the
      # normal equations make it tr(X_E'X_E) - tr(T'X_R'X_E)).
      # (the engine's sparse columns first: the product then runs over
      # their nonzeros)
      XkE <- t(as.matrix(Matrix::crossprod(XS, Xk)))
      Tm <- solve(G[keep, keep, drop = FALSE], XkE)
      total <- if (methods::is(XS, "CsparseMatrix")) sum(XS@x^2) else sum(XS^2)
      ok <- total - sum(Tm * XkE) <= 1e-10 * max(1, total)
    }
    if (!ok) XR <- NULL
  }
  if (is.null(XR)) {
    # The engine's own columns, the dependent ones dropped in model order.
    basis <- "engine"
    XE <- as.matrix(XS)
    XRp <- XE
    keep <- independent_columns(XE)
    Xk <- XE[, keep, drop = FALSE]
    Tm <- solve(crossprod(Xk), crossprod(Xk, XE))
    assign <- fit$fixed_engine$assign
  } else {
    assign <- attr(XR, "assign")
  }
  nm <- colnames(XRp)
  b <- drop(Tm %*% bE)
  V <- Tm %*% CE %*% t(Tm)
  V <- (V + t(V)) / 2
  names(b) <- nm[keep]
  dimnames(V) <- list(nm[keep], nm[keep])
  dimnames(Tm) <- list(nm[keep], colnames(XS))
  a <- assign[keep]
  if (basis == "R") {
    tt <- stats::terms(fit$fixed_formula, keep.order = TRUE)
    int <- attr(tt, "intercept")
    labels <- c(if (int == 1L) "(Intercept)", attr(tt, "term.labels"))
    a <- a + int
  } else {
    labels <- fit$fixed_engine$term_labels
  }
  # The REML log-likelihood depends on the basis of X through
  # log|X'V^-1X|: in this basis it differs from the engine's by log|det T|
  # over the engine's estimable columns.
  ek <- which(diag(CE) > 0)
  shift <- if (length(ek) == nrow(Tm) && length(ek)) as.numeric(determinant(Tm[, ek, drop = FALSE])$modulus) else 0
  list(coefficients = b, vcov = V, X = Xk, assign = a, term_labels = labels,
       aliased = setdiff(nm, nm[keep]), transform = Tm, basis = basis, present = present, loglik_shift = shift)
}

#' @importFrom nlme fixef
#' @export
fixef.tarnel <- function(object, ...) object$coefficients

# Called once a fit is assembled: the fixed formula is kept, and the
# coefficients and their covariance are put in R's convention.  The model
# matrices are not kept: fixed_effects_r() forms them again when asked.
finish_fixed <- function(fit, fixed) {
  fit$fixed_formula <- fixed
  fr <- tryCatch(fixed_effects_r(fit), error = function(e) NULL)
  if (!is.null(fr)) {
    fit$coefficients <- fr$coefficients
    fit$vcov <- fr$vcov
    fit$fixed_info <- fr[c("aliased", "loglik_shift", "basis", "assign", "term_labels")]
    if (!is.null(fit$sparse_fixed)) fit$fixed_info$sparse <- TRUE
  }
  fit
}

#' @export
coef.tarnel <- function(object, which = c("fixed", "random", "all"), ...) {
  which <- match.arg(which)
  switch(which, fixed = object$coefficients, random = object$ranef,
         all = list(fixed = object$coefficients, random = object$ranef))
}
