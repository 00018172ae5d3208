# Variance structures: the structure functions of the random and residual
# formulae, the parameter table and the engine's section table.
#
# Layout of the parameter vector `gammas` (1-based, ngamma + 1 values):
#   1 .. nfactp        one slot a model position: the scaled-identity ratio of
#                      a random term, 0 for every other position;
#   then               the parameters of the sections of structured random
#                      terms, term by term, each section's contiguous;
#   then               the parameters of the residual sections;
#   last               the residual scale (1.0): profiled when there is one
#                      residual section, fixed when there are several;
#   ngamma + 1         unused (0).

#' Variance structures in tarnel formulae
#'
#' These functions describe variance structures inside the \code{random} and
#' \code{residual} formulae of \code{\link{tarnel}}; they are never evaluated
#' by R.  Each wraps one factor and says how the effects (or residuals) at its
#' levels are correlated.  Written as an interaction, \code{cov_a(f):cov_b(g)}
#' is the direct product of the two structures, \code{f} running slowest; a
#' bare factor in such a product stands for an identity.
#'
#' \describe{
#'   \item{\code{cov_id(f)}}{identity.}
#'   \item{\code{cov_diag(f)}}{a variance for each level of \code{f}.}
#'   \item{\code{cov_us(f)}}{unstructured: every variance and covariance.}
#'   \item{\code{cov_ar1(f)}, \code{cov_ar2(f)}, \code{cov_ar3(f)}}{autoregressive
#'     correlations of order 1 to 3 along the levels of \code{f}.}
#'   \item{\code{cov_ma1(f)}, \code{cov_ma2(f)}, \code{cov_arma(f)}}{moving average
#'     of order 1 or 2, and ARMA(1,1).}
#'   \item{\code{cov_sar(f)}, \code{cov_sar2(f)}}{symmetric autoregressions.}
#'   \item{\code{cov_cor(f)}, \code{cov_corb(f)}, \code{cov_corg(f)}}{uniform,
#'     banded and general correlations.}
#'   \item{\code{cov_known(f, K, inverse = NA)}}{random formula only: a known
#'     covariance matrix between the levels of \code{f}, times a variance
#'     (the animal model with a relationship matrix, a genomic relationship
#'     matrix).  \code{K} is the matrix itself (\code{inverse = FALSE}) or
#'     its inverse (\code{inverse = TRUE}); the default \code{NA} takes the
#'     result of \code{\link{pedigree_inverse}} as the inverse and any other
#'     matrix as the matrix itself.  \code{K} is a symmetric numeric matrix
#'     or a Matrix object whose row names name the levels of \code{f}: every
#'     value of \code{f} must have a row, rows with no records are kept as
#'     effects without data, and the effects come in the order of \code{K}.
#'     A dense matrix given as the matrix is inverted in R and must be
#'     positive definite; a sparse inverse is used as it stands.  The term
#'     stands alone: it cannot yet be one factor of a direct product.}
#'   \item{\code{het(f)}}{residual formula only: a separate residual variance
#'     for each level of \code{f}.}
#'   \item{\code{coefs(f, terms, cov = "us")}}{random formula only: random
#'     coefficients of the one-sided formula \code{terms} (for example
#'     \code{~ age}, intercept included unless removed) for each level of
#'     \code{f}, with an unstructured (\code{"us"}) or diagonal
#'     (\code{"diag"}) covariance matrix between the coefficients.}
#' }
#' A correlation structure given \code{het = TRUE} gets a variance for each
#' level as well.  A random term whose structures hold no variance gets one
#' overall variance.
#'
#' @param f a factor column of the data (a numeric column is read as a factor).
#' @param het add a variance for each level to a correlation structure.
#' @param terms a one-sided formula of covariates.
#' @param cov \code{"us"} or \code{"diag"}.
#' @param K a known covariance matrix, or its inverse, with the levels of
#'   \code{f} as row names; or the result of \code{\link{pedigree_inverse}}.
#' @param inverse \code{TRUE} when \code{K} is the inverse, \code{FALSE}
#'   when it is the matrix itself, \code{NA} to decide by its class.
#' @return These functions signal an error when called outside a formula.
#' @name tarnel_structures
#' @aliases cov_id cov_diag cov_us cov_ar1 cov_ar2 cov_ar3 cov_ma1 cov_ma2 cov_arma cov_sar cov_sar2 cov_cor cov_corb cov_corg cov_known het coefs
NULL

#' @rdname tarnel_structures
cov_id <- function(f) term_only("cov_id")
#' @rdname tarnel_structures
cov_diag <- function(f) term_only("cov_diag")
#' @rdname tarnel_structures
cov_us <- function(f) term_only("cov_us")
#' @rdname tarnel_structures
cov_ar1 <- function(f, het = FALSE) term_only("cov_ar1")
#' @rdname tarnel_structures
cov_ar2 <- function(f, het = FALSE) term_only("cov_ar2")
#' @rdname tarnel_structures
cov_ar3 <- function(f, het = FALSE) term_only("cov_ar3")
#' @rdname tarnel_structures
cov_ma1 <- function(f, het = FALSE) term_only("cov_ma1")
#' @rdname tarnel_structures
cov_ma2 <- function(f, het = FALSE) term_only("cov_ma2")
#' @rdname tarnel_structures
cov_arma <- function(f, het = FALSE) term_only("cov_arma")
#' @rdname tarnel_structures
cov_sar <- function(f, het = FALSE) term_only("cov_sar")
#' @rdname tarnel_structures
cov_sar2 <- function(f, het = FALSE) term_only("cov_sar2")
#' @rdname tarnel_structures
cov_cor <- function(f, het = FALSE) term_only("cov_cor")
#' @rdname tarnel_structures
cov_corb <- function(f, het = FALSE) term_only("cov_corb")
#' @rdname tarnel_structures
cov_corg <- function(f, het = FALSE) term_only("cov_corg")
#' @rdname tarnel_structures
cov_known <- function(f, K, inverse = NA) term_only("cov_known")
#' @rdname tarnel_structures
het <- function(f) term_only("het")
#' @rdname tarnel_structures
coefs <- function(f, terms, cov = "us") term_only("coefs")

# The catalogue: engine model code, number of correlation parameters for
# order n, their names and start values, and the least order.
cov_catalogue <- list(
  cov_id   = list(model = 0L, ncor = function(n) 0L, least = 1L),
  cov_diag = list(model = 8L, ncor = function(n) 0L, least = 1L),
  cov_us   = list(model = 9L, ncor = function(n) 0L, least = 1L),
  cov_ar1  = list(model = 1L, ncor = function(n) 1L, least = 2L, names = "ar1", start = 0.1, band = 1L),
  cov_ar2  = list(model = 1L, ncor = function(n) 2L, least = 3L, names = c("ar1", "ar2"), start = c(0.1, 0.05), band = 1L),
  cov_ar3  = list(model = 1L, ncor = function(n) 3L, least = 4L, names = c("ar1", "ar2", "ar3"), start = c(0.1, 0.05, 0.02), band = 1L),
  cov_ma1  = list(model = 2L, ncor = function(n) 1L, least = 2L, names = "ma1", start = 0.1, band = 1L),
  cov_ma2  = list(model = 2L, ncor = function(n) 2L, least = 3L, names = c("ma1", "ma2"), start = c(0.1, 0.05), band = 1L),
  cov_arma = list(model = 3L, ncor = function(n) 2L, least = 3L, names = c("ar", "ma"), start = c(0.1, 0.05), band = 1L),
  cov_sar  = list(model = 14L, ncor = function(n) 1L, least = 3L, names = "sar", start = 0.1, band = 1L),
  cov_sar2 = list(model = 14L, ncor = function(n) 2L, least = 4L, names = c("sar_a", "sar_b"), start = c(0.1, 0.05), band = 1L),
  cov_cor  = list(model = 5L, ncor = function(n) 1L, least = 2L, names = "cor", start = 0.1),
  cov_corb = list(model = 5L, ncor = function(n) n - 1L, least = 2L, names = function(n) paste0("cor", seq_len(n - 1L)),
                  start = function(n) rep(0.1, n - 1L)),
  cov_corg = list(model = 5L, ncor = function(n) n * (n - 1L) / 2L, least = 2L)
)

# A structure call in a formula: its function name and factor.
is_cov_call <- function(e) is.call(e) && as.character(e[[1L]])[1] %in% c(names(cov_catalogue), "cov_known")
is_known_call <- function(e) is.call(e) && identical(as.character(e[[1L]])[1], "cov_known")

# A cov_known() call: the factor and the known matrix in the engine's form.
known_call_spec <- function(e, data, env) {
  key <- paste(deparse(e, width.cutoff = 500L), collapse = "")
  args <- call_args(e)
  nm <- names(args)
  if (any(!nm %in% c("", "f", "K", "inverse"))) tstop("%s: unknown argument '%s'", key, setdiff(nm, c("", "f", "K", "inverse"))[1])
  un <- which(nm == "")
  get <- function(name, pos) {
    if (name %in% nm) return(args[[name]])
    free <- setdiff(c("f", "K", "inverse"), nm)
    k <- match(name, free)
    if (k <= length(un)) args[[un[k]]] else NULL
  }
  if (length(un) > length(setdiff(c("f", "K", "inverse"), nm))) tstop("%s: too many arguments", key)
  f <- get("f", 1L)
  if (is.null(f) || !is.name(f)) tstop("%s: the structure must wrap a column name", key)
  kx <- get("K", 2L)
  if (is.null(kx)) tstop("%s needs the known matrix K", key)
  K <- eval_arg(kx, env, "the matrix of")
  ix <- get("inverse", 3L)
  inverse <- if (is.null(ix)) NA else eval_arg(ix, env, "'inverse' of")
  if (!is.logical(inverse) || length(inverse) != 1L) tstop("%s: 'inverse' must be TRUE, FALSE or NA", key)
  fname <- as.character(f)
  known <- known_matrix(K, inverse, key)
  x <- data_column(data, fname)
  ids <- if (is.factor(x) || is.character(x)) as.character(x)
         else if (is.numeric(x)) ifelse(is.finite(x) & x == round(x), sprintf("%.0f", x), as.character(x))
         else tstop("%s: column '%s' must be a factor, character or numeric", key, fname)
  miss <- unique(ids[!is.na(ids) & !ids %in% known$levels])
  if (length(miss))
    tstop("%s: %d level(s) of '%s' have no row in the matrix (matched by row name), e.g. '%s'", key,
          length(miss), fname, miss[1])
  list(fn = "cov_known", factor = fname, het = FALSE, key = key, known = known,
       fvalues = factor(ids, levels = known$levels), levels = known$levels)
}

# A known matrix or its inverse as one row of the engine's table of known
# matrices: a sparse inverse as its lower triangle by rows (type 7), a dense
# one packed (type 9); the real store starts with log det of the matrix
# itself (not its inverse).  `rank` counts the singularities of the
# inverse, the genetic groups of a pedigree.
known_matrix <- function(K, inverse, key) {
  rank <- 0L
  logdet <- NULL
  if (inherits(K, "tarnel_ainv")) {
    if (identical(inverse, FALSE)) tstop("%s: a pedigree_inverse() result is an inverse; leave 'inverse' at NA or TRUE", key)
    rank <- as.integer(K$groups)
    logdet <- K$logdet
    K <- K$ainv
    inverse <- TRUE
  }
  if (is.data.frame(K)) K <- as.matrix(K)
  sparse <- methods::is(K, "sparseMatrix")
  if (!sparse && methods::is(K, "Matrix")) K <- as.matrix(K)
  if (!sparse && !(is.matrix(K) && is.numeric(K)))
    tstop("%s: K must be a numeric matrix, a Matrix object or a pedigree_inverse() result", key)
  n <- nrow(K)
  if (n < 1L || ncol(K) != n) tstop("%s: K must be a square matrix", key)
  ids <- rownames(K)
  if (is.null(ids)) ids <- colnames(K)
  if (is.null(ids)) tstop("%s: K needs row names that name the levels of the factor", key)
  if (!is.null(colnames(K)) && !identical(colnames(K), ids)) tstop("%s: the row and column names of K differ", key)
  if (anyNA(ids) || anyDuplicated(ids)) tstop("%s: the row names of K must be unique and not missing", key)
  if (is.na(inverse)) inverse <- FALSE
  if (sparse) {
    if (!inverse) K <- as.matrix(K)  # inverted densely below
    else {
      Ks <- methods::as(Matrix::forceSymmetric(K, uplo = "U"), "CsparseMatrix")
      if (!isTRUE(Matrix::isSymmetric(K, tol = 1e-8))) tstop("%s: K is not symmetric", key)
      if (any(!is.finite(Ks@x))) tstop("%s: K holds missing or infinite values", key)
      if (is.null(logdet)) {
        ok <- tryCatch({ Matrix::Cholesky(Ks, LDL = FALSE); TRUE }, error = function(e) FALSE)
        if (!ok) tstop("%s: the inverse K is not positive definite", key)
        logdet <- -as.numeric(Matrix::determinant(Ks, logarithm = TRUE)$modulus)
      }
      # Upper triangle by columns = lower triangle by rows; a row without
      # its diagonal gets an explicit zero there.
      col <- rep(seq_len(n), diff(Ks@p))
      row <- Ks@i + 1L
      x <- Ks@x
      hasdiag <- logical(n)
      hasdiag[col[row == col]] <- TRUE
      if (!all(hasdiag)) {
        add <- which(!hasdiag)
        col <- c(col, add); row <- c(row, add); x <- c(x, rep(0, length(add)))
        o <- order(col, row)
        col <- col[o]; row <- row[o]; x <- x[o]
      }
      rowstart <- c(1L, 1L + cumsum(tabulate(col, n)))
      # The strict lower triangle indexed by columns, so that the engine
      # finds the part of a row right of its diagonal without scanning the
      # later rows: -1 in the first cursor word marks it; then the column
      # starts, the rows of each column ascending and the positions of the
      # values.
      low <- which(row < col)
      o <- low[order(row[low], col[low])]
      tstart <- c(1L, 1L + cumsum(tabulate(row[low], n)))
      return(list(levels = ids, size = n, type = 7L, rank = rank,
                  real = c(logdet, x),
                  integer = c(as.integer(rowstart), as.integer(row), -1L, integer(n - 1L),
                              as.integer(tstart), as.integer(col[o]), as.integer(o))))
    }
  }
  storage.mode(K) <- "double"
  if (any(!is.finite(K))) tstop("%s: K holds missing or infinite values", key)
  if (!isSymmetric(unname(K), tol = 1e-8)) tstop("%s: K is not symmetric", key)
  ch <- tryCatch(chol(K), error = function(e) NULL)
  if (is.null(ch)) tstop("%s: K is not positive definite%s", key,
                         if (inverse) "" else " (a singular relationship matrix needs a small value added to its diagonal)")
  ld <- 2 * sum(log(diag(ch)))
  Kinv <- if (inverse) K else chol2inv(ch)
  if (is.null(logdet)) logdet <- if (inverse) -ld else ld
  list(levels = ids, size = n, type = 9L, rank = rank, real = c(logdet, Kinv[upper.tri(Kinv, diag = TRUE)]),
       integer = 0L)
}

call_args <- function(e) {
  args <- as.list(e)[-1L]
  if (is.null(names(args))) names(args) <- rep("", length(args))
  args
}

cov_call_spec <- function(e, env) {
  fn <- as.character(e[[1L]])
  args <- call_args(e)
  key <- paste(deparse(e, width.cutoff = 500L), collapse = "")
  known <- c("f", "het")
  if (any(!names(args) %in% c("", known))) tstop("%s: unknown argument '%s'", key, setdiff(names(args), c("", known))[1])
  fpos <- which(names(args) == "f")
  if (!length(fpos)) fpos <- which(names(args) == "")[1]
  if (is.na(fpos[1])) tstop("%s needs a factor", key)
  f <- args[[fpos[1]]]
  if (!is.name(f)) tstop("%s: the structure must wrap a column name, not '%s'", key, deparse(f))
  het <- FALSE
  rest <- args[-fpos[1]]
  if (length(rest)) {
    if (length(rest) > 1L) tstop("%s: too many arguments", key)
    het <- eval_arg(rest[[1L]], env, "'het'")
    if (!is.logical(het) || length(het) != 1L || is.na(het)) tstop("%s: 'het' must be TRUE or FALSE", key)
    if (het && fn %in% c("cov_id", "cov_diag", "cov_us")) tstop("%s: 'het' applies to correlation structures only", key)
  }
  list(fn = fn, factor = as.character(f), het = het, key = key)
}

# Reads a factor for a structure: a numeric column becomes a factor of its
# sorted values.
structure_factor <- function(data, name) {
  x <- data_column(data, name)
  if (is.numeric(x)) x <- factor(x)
  as_model_factor(data.frame(setNames(list(x), name), check.names = FALSE), name)
}

# The sections of one structure over a factor of n levels: model code,
# order, parameter names, kinds, starts.  `scaled` says whether the term's
# variance parameters are ratios to the residual variance.
section_spec <- function(spec, levels, ratio_start, comp_start) {
  n <- length(levels)
  if (identical(spec$fn, "cov_known"))
    # The model code (minus the row of the table of known matrices) is set
    # when the table is built.
    return(list(fn = spec$fn, factor = spec$factor, model = 0L, order = n, band = 0L, names = "variance",
                kind = "variance", start = ratio_start, key = spec$key, known = spec$known))
  cat_ <- cov_catalogue[[spec$fn]]
  if (n < cat_$least) tstop("%s: '%s' has %d level(s); the structure needs at least %d", spec$key, spec$factor, n, cat_$least)
  ncor <- as.integer(cat_$ncor(n))
  v0 <- ratio_start
  names <- character(); kind <- character(); start <- double()
  if (spec$fn == "cov_diag") {
    names <- levels; kind <- rep("variance", n); start <- rep(v0, n)
  } else if (spec$fn == "cov_us") {
    for (i in seq_len(n)) for (j in seq_len(i)) {
      names <- c(names, if (i == j) levels[i] else paste0(levels[i], ":", levels[j]))
      kind <- c(kind, if (i == j) "variance" else "covariance")
      start <- c(start, if (i == j) v0 else 0)
    }
  } else if (spec$fn == "cov_corg") {
    for (i in seq_len(n)) for (j in seq_len(i - 1L)) names <- c(names, paste0("cor(", levels[i], ":", levels[j], ")"))
    kind <- rep("correlation", ncor); start <- rep(0.1, ncor)
  } else if (ncor > 0L) {
    names <- if (is.function(cat_$names)) cat_$names(n) else cat_$names
    start <- if (is.function(cat_$start)) cat_$start(n) else cat_$start
    kind <- rep("correlation", ncor)
  }
  if (isTRUE(spec$het)) {
    names <- c(names, levels); kind <- c(kind, rep("variance", n)); start <- c(start, rep(v0, n))
  }
  list(fn = spec$fn, factor = spec$factor, model = cat_$model, order = n, band = if (is.null(cat_$band)) 0L else cat_$band,
       names = names, kind = kind, start = start, key = spec$key)
}

# Reads the random formula.  Each random term becomes a group of one or more
# model positions (`terms`, as parse_rhs gives them) with its structure.
parse_random <- function(random, data, env, store) {
  if (length(random) != 2L) tstop("the random formula has no response")
  split_plus <- function(e) {
    if (is.call(e) && identical(e[[1L]], as.name("+")) && length(e) == 3L) return(c(split_plus(e[[2L]]), split_plus(e[[3L]])))
    if (is.call(e) && identical(e[[1L]], as.name("("))) return(split_plus(e[[2L]]))
    list(e)
  }
  split_colon <- function(e) {
    if (is.call(e) && identical(e[[1L]], as.name(":")) && length(e) == 3L) return(c(split_colon(e[[2L]]), split_colon(e[[3L]])))
    list(e)
  }
  plain <- function(e) !is.call(e) || !as.character(e[[1L]])[1] %in% c("*", "/", "-", "^", "%in%", "(")
  # Terms in the written order, each with its variables in the written
  # order (the first runs slowest); '*' and '/' expand as usual.
  term_list <- list()
  for (e in split_plus(random[[2L]])) {
    if (identical(e, 1) || identical(e, 0) || identical(e, 1L)) tstop("the random formula takes no intercept")
    parts <- split_colon(e)
    if (all(vapply(parts, plain, TRUE))) {
      term_list[[length(term_list) + 1L]] <- list(label = paste(deparse(e, width.cutoff = 500L), collapse = ""), exprs = parts)
      next
    }
    tf <- stats::terms(stats::as.formula(call("~", e)), keep.order = TRUE)
    v <- attr(tf, "variables")
    for (j in seq_along(attr(tf, "term.labels")))
      term_list[[length(term_list) + 1L]] <- list(label = attr(tf, "term.labels")[j],
                                                  exprs = lapply(which(attr(tf, "factors")[, j] > 0), function(i) v[[i + 1L]]))
  }
  labels <- vapply(term_list, `[[`, "", "label")
  if (anyDuplicated(labels)) tstop("the random term '%s' appears twice", labels[duplicated(labels)][1])
  terms <- list()
  groups <- list()
  for (j in seq_along(labels)) {
    exprs <- term_list[[j]]$exprs
    iscoef <- vapply(exprs, function(e) is.call(e) && identical(as.character(e[[1L]])[1], "coefs"), TRUE)
    if (any(iscoef)) {
      if (length(exprs) > 1L) tstop("coefs() must stand alone in its random term ('%s')", labels[j])
      g <- parse_coefs(exprs[[1L]], data, env, store)
      idx <- length(terms) + seq_along(g$terms)
      terms <- c(terms, g$terms)
      groups[[j]] <- list(label = labels[j], kind = "coefs", terms = idx, cov = g$cov, coef_names = g$coef_names,
                          factor = g$factor, levels = g$levels)
      next
    }
    if (any(vapply(exprs, is_known_call, TRUE))) {
      if (length(exprs) > 1L)
        tstop("'%s': cov_known() as one factor of a direct product is not available yet; it must stand alone", labels[j])
      sp <- known_call_spec(exprs[[1L]], data, env)
      b <- add_columns(store, paste0("known:", sp$key), as.integer(sp$fvalues))
      sp$fvalues <- NULL
      terms[[length(terms) + 1L]] <- list(label = labels[j], vars = list(leaf(sp$key, 0L, b, length(sp$levels), 1L,
                                                                                paste0(sp$factor, sp$levels))))
      groups[[j]] <- list(label = labels[j], kind = "product", terms = length(terms), specs = list(sp))
      next
    }
    iscov <- vapply(exprs, is_cov_call, TRUE)
    if (any(iscov)) {
      specs <- vector("list", length(exprs))
      leaves <- vector("list", length(exprs))
      for (k in seq_along(exprs)) {
        if (iscov[k]) {
          specs[[k]] <- cov_call_spec(exprs[[k]], env)
          f <- structure_factor(data, specs[[k]]$factor)
        } else {
          if (!is.name(exprs[[k]])) tstop("in the structured term '%s', '%s' must be a factor or a structure", labels[j], deparse(exprs[[k]]))
          specs[[k]] <- list(fn = "cov_id", factor = as.character(exprs[[k]]), het = FALSE, key = as.character(exprs[[k]]))
          f <- structure_factor(data, specs[[k]]$factor)
        }
        fname <- specs[[k]]$factor
        key <- if (is.numeric(data[[fname]])) sprintf("factor(%s)", fname) else fname
        b <- add_columns(store, paste0("factor:", key), as.integer(f))
        leaves[[k]] <- leaf(key, 0L, b, nlevels(f), 1L, paste0(fname, levels(f)))
        specs[[k]]$levels <- levels(f)
      }
      terms[[length(terms) + 1L]] <- list(label = labels[j], vars = leaves)
      groups[[j]] <- list(label = labels[j], kind = "product", terms = length(terms), specs = specs)
      next
    }
    terms[[length(terms) + 1L]] <- list(label = labels[j], vars = lapply(exprs, parse_variable, data = data, env = env, store = store))
    groups[[j]] <- list(label = labels[j], kind = "identity", terms = length(terms))
  }
  list(terms = terms, groups = groups, intercept = FALSE)
}

parse_coefs <- function(e, data, env, store) {
  args <- call_args(e)
  nm <- names(args)
  get <- function(name, pos) {
    if (name %in% nm) return(args[[name]])
    un <- which(nm == "")
    if (length(un) >= pos) return(args[[un[pos]]])
    NULL
  }
  if (any(!nm %in% c("", "f", "terms", "cov"))) tstop("coefs(): unknown argument '%s'", setdiff(nm, c("", "f", "terms", "cov"))[1])
  f <- get("f", 1L)
  if (is.null(f) || !is.name(f)) tstop("coefs() needs a factor column as its first argument")
  fname <- as.character(f)
  tm <- get("terms", 2L)
  tm <- if (is.null(tm)) tstop("coefs() needs a one-sided formula of covariates") else eval_arg(tm, env, "the terms of coefs()")
  if (!inherits(tm, "formula") || length(tm) != 2L) tstop("coefs(): 'terms' must be a one-sided formula such as ~ age")
  cv <- get("cov", 3L)
  cv <- if (is.null(cv)) "us" else eval_arg(cv, env, "'cov' of coefs()")
  if (!is.character(cv) || length(cv) != 1L || !cv %in% c("us", "diag")) tstop("coefs(): 'cov' must be \"us\" or \"diag\"")
  fl <- factor_leaf(data, fname, store)
  tt <- stats::terms(tm, keep.order = TRUE)
  ttv <- attr(tt, "variables")
  tfac <- attr(tt, "factors")
  out <- list()
  cn <- character()
  if (attr(tt, "intercept") == 1L) {
    out[[1L]] <- list(label = fname, vars = list(fl))
    cn <- "(Intercept)"
  }
  for (k in seq_along(attr(tt, "term.labels"))) {
    ex <- lapply(which(tfac[, k] > 0), function(i) ttv[[i + 1L]])
    lv <- lapply(ex, parse_variable, data = data, env = env, store = store)
    for (v in lv) if (!identical(v$kind, "leaf") || v$flev != 1L)
      tstop("coefs(): '%s' must be a covariate (one value a record)", attr(tt, "term.labels")[k])
    out[[length(out) + 1L]] <- list(label = paste(fname, attr(tt, "term.labels")[k], sep = ":"), vars = c(list(fl), lv))
    cn <- c(cn, attr(tt, "term.labels")[k])
  }
  if (!length(out)) tstop("coefs() needs at least one coefficient")
  list(terms = out, cov = cv, coef_names = cn, factor = fname, levels = nlevels(data_column_factor(data, fname)))
}

data_column_factor <- function(data, name) as_model_factor(data, name)

# Reads the residual formula: NULL or ~ 1 (identity), ~ het(f), or a
# product of structures on a grid of factors.
parse_residual <- function(residual, data, env) {
  if (is.null(residual)) return(list(kind = "identity"))
  if (!inherits(residual, "formula") || length(residual) != 2L) tstop("'residual' must be a one-sided formula")
  rhs <- residual[[2L]]
  if (identical(rhs, 1) || identical(rhs, 1L)) return(list(kind = "identity"))
  if (is.call(rhs) && identical(as.character(rhs[[1L]]), "het")) {
    args <- call_args(rhs)
    if (length(args) != 1L || !is.name(args[[1L]])) tstop("het() takes one factor column")
    name <- as.character(args[[1L]])
    f <- structure_factor(data, name)
    if (nlevels(f) < 2L) tstop("het(): '%s' needs at least two levels", name)
    return(list(kind = "het", factor = name, levels = levels(f)))
  }
  tf <- stats::terms(residual, keep.order = TRUE)
  labels <- attr(tf, "term.labels")
  if (length(labels) != 1L) tstop("the residual formula must be one term: ~ 1, ~ het(f), or a product such as ~ cov_ar1(col):cov_ar1(row)")
  vars <- attr(tf, "variables")
  exprs <- lapply(which(attr(tf, "factors")[, 1L] > 0), function(i) vars[[i + 1L]])
  specs <- lapply(exprs, function(e) {
    if (is_known_call(e)) tstop("cov_known() belongs in the random formula, not the residual formula")
    if (is_cov_call(e)) return(cov_call_spec(e, env))
    if (is.name(e)) return(list(fn = "cov_id", factor = as.character(e), het = FALSE, key = as.character(e)))
    tstop("the residual term '%s' is not a factor or a structure", deparse(e))
  })
  fs <- vapply(specs, `[[`, "", "factor")
  if (anyDuplicated(fs)) tstop("a factor appears twice in the residual formula")
  for (k in seq_along(specs)) {
    if (specs[[k]]$fn %in% c("cov_diag", "cov_us") || isTRUE(specs[[k]]$het))
      tstop("residual %s: variances go in het(), the residual structures carry correlations only", specs[[k]]$key)
    specs[[k]]$levels <- levels(structure_factor(data, specs[[k]]$factor))
  }
  list(kind = "grid", specs = specs)
}

# Arranges the records for the residual structure: sorted by section (het)
# or completed to the full grid of the residual factors, first factor
# slowest.  Returns the data and, for each record, its row in the user's
# data (NA for an added record).
arrange_records <- function(data, resid, yname, drop_missing) {
  rows <- seq_len(nrow(data))
  if (resid$kind != "grid") {
    if (drop_missing) {
      keep <- !is.na(data[[yname]])
      data <- data[keep, , drop = FALSE]
      rows <- rows[keep]
    }
    if (resid$kind == "het") {
      f <- structure_factor(data, resid$factor)
      if (nlevels(f) < length(resid$levels)) tstop("het(): a level of '%s' has no records with a response", resid$factor)
      o <- order(as.integer(f))
      data <- data[o, , drop = FALSE]
      rows <- rows[o]
    }
    return(list(data = data, rows = rows, added = 0L))
  }
  codes <- lapply(resid$specs, function(s) match(as.character(structure_factor(data, s$factor)), s$levels))
  for (k in seq_along(codes)) if (anyNA(codes[[k]]))
    tstop("the residual factor '%s' has missing values", resid$specs[[k]]$factor)
  dims <- vapply(resid$specs, function(s) length(s$levels), 1L)
  cell <- rep(0, nrow(data))
  for (k in seq_along(codes)) cell <- cell * dims[k] + (codes[[k]] - 1)
  cell <- cell + 1
  if (anyDuplicated(cell)) {
    d <- which(duplicated(cell))[1]
    tstop("two records share one cell of the residual grid (record %d and an earlier one); the grid needs one record a cell", d)
  }
  ncell <- prod(dims)
  if (ncell > 5e7) tstop("the residual grid has %.0f cells", ncell)
  full <- rep(NA_integer_, ncell)
  full[cell] <- seq_len(nrow(data))
  added <- sum(is.na(full))
  idx <- full
  idx[is.na(idx)] <- 1L
  out <- data[idx, , drop = FALSE]
  missing_cell <- is.na(full)
  if (added > 0L) {
    # Added records: a missing response and harmless design values (their
    # missing-value equations take them out of the likelihood).
    out[[yname]][missing_cell] <- NA
    grid <- arrayInd(seq_len(ncell), rev(dims))[, rev(seq_along(dims)), drop = FALSE]
    for (k in seq_along(resid$specs)) {
      col <- resid$specs[[k]]$factor
      lev <- resid$specs[[k]]$levels[grid[missing_cell, k]]
      x <- out[[col]]
      out[[col]][missing_cell] <- if (is.numeric(x)) as.numeric(lev) else lev
    }
  }
  rownames(out) <- NULL
  list(data = out, rows = full, added = added)
}

# Builds the parameter table and the engine's structure lists.
build_struc <- function(model, table) {
  nfactp <- length(table$inter$neword)
  resid <- model$resid
  profiled <- resid$kind != "het"
  y <- model$y
  vy <- stats::var(y, na.rm = TRUE)
  if (!is.finite(vy) || vy <= 0) vy <- 1
  v0 <- if (profiled) 0.1 else 0.1 * vy
  pars <- data.frame(name = character(), gamma = integer(), kind = character(), group = character(),
                     start = double(), code = integer(), stringsAsFactors = FALSE)
  add_par <- function(name, kind, group, start, code) {
    pars[nrow(pars) + 1L, ] <<- list(name, 0L, kind, group, start, code)
  }
  gam <- double(nfactp)
  code_of <- function(kind) if (kind %in% c("variance", "scale")) 1L else 3L
  tyfact <- integer(nfactp)
  secs <- list()
  known <- list()
  gpos <- nfactp
  new_section <- function(sp, gfirst, npar, g14) {
    secs[[length(secs) + 1L]] <<- c(sp$order, npar, sp$model, gfirst, 0L, sp$band, 0L, 0L, 0L, 0L, 0L, 0L, 0L, g14, 1L)
    length(secs)
  }
  # Random terms.
  groups <- if (is.null(model$random)) list() else model$random$groups
  rpos <- table$random_positions
  ident <- which(vapply(groups, function(g) g$kind == "identity", TRUE))
  starts <- rep(v0, length(rpos))
  if (length(ident)) {
    tt <- unlist(lapply(groups[ident], `[[`, "terms"))
    starts[tt] <- moment_starts(model, model$random$terms[tt], v0, profiled, vy)
  }
  for (g in groups) {
    pos <- unlist(rpos[g$terms])
    if (g$kind == "identity") {
      for (p in pos) {
        gam[p] <- starts[g$terms[1]]
        tyfact[p] <- p
        add_par(table$position_names[p], "variance", g$label, gam[p], 1L)
        pars$gamma[nrow(pars)] <- p
      }
      next
    }
    if (g$kind == "coefs") {
      k <- length(g$coef_names)
      sp <- list(fn = paste0("cov_", g$cov), levels = g$coef_names, het = FALSE, key = g$label, factor = g$factor)
      s1 <- section_spec(sp, g$coef_names, v0, v0)
      secs_specs <- list(s1, list(fn = "cov_id", model = 0L, order = g$levels, band = 0L, names = character(),
                                  kind = character(), start = double()))
      tyfact[pos[1]] <- 20000L + length(secs) + 1L
      if (length(pos) > 1L) tyfact[pos[-1]] <- -1L
    } else {
      secs_specs <- lapply(g$specs, function(s) section_spec(s, s$levels, v0, v0))
      for (k in seq_along(secs_specs)) if (!is.null(secs_specs[[k]]$known)) {
        known[[length(known) + 1L]] <- secs_specs[[k]]$known
        secs_specs[[k]]$model <- -length(known)
      }
      tyfact[pos] <- length(secs_specs) * 10000L + length(secs) + 1L
    }
    has_var <- any(vapply(secs_specs, function(s) any(s$kind == "variance"), TRUE))
    if (!has_var) {
      # The overall variance rides on the first correlation structure as its
      # scale; on an identity only when there is nothing else.
      cors <- which(vapply(secs_specs, function(s) s$model != 0L, TRUE))
      at <- if (length(cors)) cors[1] else 1L
      secs_specs[[at]]$names <- c(secs_specs[[at]]$names, "variance")
      secs_specs[[at]]$kind <- c(secs_specs[[at]]$kind, "variance")
      secs_specs[[at]]$start <- c(secs_specs[[at]]$start, v0)
      secs_specs[[at]]$scalepos <- secs_specs[[at]]$model != 0L
    }
    for (s in secs_specs) {
      npar <- length(s$names)
      r <- new_section(s, if (npar) gpos + 1L else 0L, npar, 1L)
      if (isTRUE(s$scalepos)) secs[[r]][13L] <- gpos + npar
      for (k in seq_len(npar)) {
        gpos <- gpos + 1L
        add_par(paste0(g$label, "!", if (!is.null(s$factor) && g$kind != "coefs") paste0(s$factor, ":") else "", s$names[k]),
                s$kind[k], g$label, s$start[k], code_of(s$kind[k]))
        pars$gamma[nrow(pars)] <- gpos
      }
    }
  }
  # Residual sections.
  nrec <- table$nrecords
  if (resid$kind == "identity" && model$weights_column > 0L) {
    # Weights: R = sigma2 W^-1, with W the diagonal of the weights held as
    # a known inverse (its log determinant found by the engine).
    w <- table$data[, model$weights_column]
    if (length(w) != nrec) tstop("the weights do not match the records")
    known[[length(known) + 1L]] <- list(size = nrec, type = 8L, rank = 0L, real = c(0, as.double(w)),
                                        integer = integer())
    r <- new_section(list(order = nrec, model = -length(known), band = 0L), 0L, 0L, 0L)
    nrsect <- matrix(c(nrec, 0L, r), 3L, 1L)
  } else if (resid$kind == "identity") {
    nrsect <- matrix(c(nrec, 0L, 0L), 3L, 1L)
  } else if (resid$kind == "het") {
    f <- as.integer(structure_factor(model$data, resid$factor))
    counts <- tabulate(f, length(resid$levels))
    nrsect <- matrix(0L, 3L, length(counts))
    for (s in seq_along(counts)) {
      sp <- list(order = counts[s], model = 0L, band = 0L)
      r <- new_section(sp, gpos + 1L, 1L, 0L)
      gpos <- gpos + 1L
      start <- stats::var(model$y[f == s], na.rm = TRUE) / 2
      if (!is.finite(start) || start <= 0) start <- vy / 2
      add_par(paste0("residual!", resid$factor, ":", resid$levels[s]), "variance", "residual", start, 1L)
      pars$gamma[nrow(pars)] <- gpos
      nrsect[, s] <- c(counts[s], 0L, r)
    }
  } else {
    first <- length(secs) + 1L
    for (sp in resid$specs) {
      s <- section_spec(sp, sp$levels, 1, 1)
      npar <- length(s$names)
      new_section(s, if (npar) gpos + 1L else 0L, npar, 0L)
      for (k in seq_len(npar)) {
        gpos <- gpos + 1L
        add_par(paste0("residual!", sp$factor, ":", s$names[k]), s$kind[k], "residual", s$start[k], code_of(s$kind[k]))
        pars$gamma[nrow(pars)] <- gpos
      }
    }
    n <- length(resid$specs)
    nrsect <- matrix(c(nrec, 0L, if (n == 1L) first else n * 10000L + first), 3L, 1L)
  }
  # The residual scale, last.
  gpos <- gpos + 1L
  nrsect[2L, ] <- gpos
  add_par("residual", "scale", "residual", 1, if (profiled) 1L else 4L)
  pars$gamma[nrow(pars)] <- gpos
  ngamma <- gpos
  gammas <- double(ngamma + 1L)
  gammas[seq_len(nfactp)] <- gam
  gammas[pars$gamma] <- pars$start
  struc <- if (length(secs)) matrix(as.integer(unlist(secs)), 15L) else matrix(0L, 15L, 0L)
  storage.mode(nrsect) <- "integer"
  tgamma <- rep(1L, ngamma)
  tgamma[pars$gamma[pars$kind %in% c("correlation", "covariance")]] <- 3L
  tgamma[pars$gamma[pars$kind == "covariance"]] <- 1L
  gmcstr <- integer(ngamma)
  gmcstr[pars$gamma] <- pars$code
  printg <- integer(ngamma)
  printg[seq_len(ngamma) > nfactp] <- 1L
  pars$profiled <- profiled
  out <- list(struc = struc, nspat = 0L, nrsect = nrsect, gammas = gammas, tgamma = tgamma,
              printGammas = printg, tyfact = if (nfactp) tyfact else 0L, gmcstr = gmcstr, nfrstg = 1L,
              params = pars, ngamma = ngamma, nfactp = nfactp, profiled = profiled, ainv = known_table(known))
  apply_constraints(out, NULL, NULL, NULL, NULL)
}

# A start for the variance of a random factor (or interaction of factors)
# from the spread of the response's means over its levels: the between-level
# variance less its share of the within-level variance.  Terms that are not
# plain factors start at the default.
moment_stats <- function(model, term) {
  leaves <- term$vars
  if (!all(vapply(leaves, function(v) identical(v$kind, "leaf") && v$code == 0L && v$nlev == 1L && v$flev > 1L, TRUE)))
    return(NULL)
  firsts <- vapply(model$store$values, function(m) attr(m, "first"), 1L)
  cols <- lapply(leaves, function(v) model$store$values[[match(v$b, firsts)]][, 1L])
  g <- do.call(interaction, c(lapply(cols, factor), drop = TRUE))
  y <- model$y
  ok <- !is.na(y) & !is.na(g)
  if (sum(ok) < 3L) return(NULL)
  y <- y[ok]; g <- droplevels(g[ok])
  n <- tabulate(g, nlevels(g))
  if (nlevels(g) < 2L || all(n < 2L)) return(NULL)
  m <- tapply(y, g, mean)
  vw <- sum((y - m[g])^2) / max(1, length(y) - nlevels(g))
  if (!is.finite(vw) || vw <= 0) return(NULL)
  list(vb = stats::var(as.vector(m)), vw = vw, inv_n = mean(1 / n))
}

# Starts of the random factors' variances: the between-level variance of
# the response's means less the share of the residual variance in it, the
# residual variance taken as the least within-level variance of the
# factors.  Terms that are not plain factors start at the default.
moment_starts <- function(model, terms, v0, profiled, vy) {
  st <- lapply(terms, moment_stats, model = model)
  have <- !vapply(st, is.null, TRUE)
  out <- rep(v0, length(terms))
  if (!any(have)) return(out)
  ve <- min(vapply(st[have], `[[`, 1, "vw"))
  for (k in which(have)) {
    ratio <- min(max((st[[k]]$vb - ve * st[[k]]$inv_n) / ve, 0.05), 50)
    out[k] <- if (profiled) ratio else ratio * ve
  }
  out
}

# Applies the user's starting values and constraints to the structures and
# gives the engine's constraint list.
apply_constraints <- function(struc, start, constrain, equal, lincon) {
  pars <- struc$params
  find <- function(nms, what) {
    if (!is.character(nms)) tstop("%s must name parameters", what)
    k <- match(nms, pars$name)
    if (anyNA(k)) tstop("%s: no parameter named %s; the parameters are: %s", what,
                        paste0("'", nms[is.na(k)][1], "'"), paste(pars$name, collapse = ", "))
    k
  }
  if (!is.null(start)) {
    if (!is.numeric(start) || is.null(names(start)) || anyNA(start)) tstop("'start' must be a named numeric vector of parameter values")
    k <- find(names(start), "'start'")
    struc$gammas[pars$gamma[k]] <- as.double(start)
  }
  if (!is.null(constrain)) {
    if (!is.character(constrain) || is.null(names(constrain))) tstop("'constrain' must be a named character vector such as c(name = \"fixed\")")
    k <- find(names(constrain), "'constrain'")
    codes <- c(fixed = 4L, positive = 1L, unconstrained = 3L)
    m <- codes[constrain]
    if (anyNA(m)) tstop("'constrain' values must be \"fixed\", \"positive\" or \"unconstrained\"")
    struc$gmcstr[pars$gamma[k]] <- unname(m)
  }
  ngamma <- struc$ngamma
  gequal <- 0L
  if (!is.null(equal)) {
    if (!is.list(equal)) equal <- list(equal)
    gequal <- integer(ngamma)
    for (i in seq_along(equal)) {
      k <- find(equal[[i]], "'equal'")
      if (length(k) < 2L) tstop("each set in 'equal' needs at least two parameters")
      if (any(gequal[pars$gamma[k]] != 0L)) tstop("a parameter is in two sets of 'equal'")
      gequal[pars$gamma[k]] <- i
      struc$gammas[pars$gamma[k]] <- mean(struc$gammas[pars$gamma[k]])
    }
  }
  ngmcon <- 0L
  gmcon <- 0
  if (!is.null(lincon)) {
    if (!is.matrix(lincon) || !is.numeric(lincon) || is.null(rownames(lincon)) || anyNA(lincon))
      tstop("'lincon' must be a numeric matrix with parameter names as row names, one column a constraint")
    k <- find(rownames(lincon), "'lincon'")
    gmcon <- matrix(0, ngamma, ncol(lincon))
    gmcon[pars$gamma[k], ] <- lincon
    ngmcon <- ncol(lincon)
  }
  fresh_int <- function(v) { out <- integer(length(v)); out[] <- as.integer(v); out }
  struc$gmcstr <- fresh_int(struc$gmcstr)
  gm <- double(length(struc$gammas)); gm[] <- struc$gammas; struc$gammas <- gm
  struc$tgamma <- fresh_int(struc$tgamma)
  struc$constr <- list(ngmcon = fresh_int(ngmcon), gequal = fresh_int(gequal), gmcon = as.double(gmcon))
  struc
}

# The engine's table of known matrices: five integers a row (size, type,
# start in the real store, index in the integer store, rank) and the two
# stores, one matrix after the other.
known_table <- function(known) {
  if (!length(known)) return(list(nainv = 0L, lcainv = 0L, llainv = 0L, ainv = 0))
  tab <- integer(); real <- double(); int <- integer()
  for (k in known) {
    tab <- c(tab, k$size, k$type, length(real) + 1L, length(int) + 1L, k$rank)
    real <- c(real, k$real)
    int <- c(int, k$integer)
  }
  if (length(real) > 2^31 - 1 || length(int) > 2^31 - 1) tstop("the known matrices are too large")
  list(nainv = length(known), lcainv = as.integer(tab), llainv = as.integer(int), ainv = as.double(real))
}
