# Reading the random and residual formulae: the catalogue of structures,
# known matrices, the sections of each structure and the record order a
# residual structure needs.

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
  if (isTRUE(spec$spatial)) return(spatial_section_spec(spec))
  if (identical(spec$fn, "cov_known"))
    # The model code (minus the row of the table of known matrices) is set
    # when the table is built.
    # Inside a direct product the matrix carries no variance of its own when
    # another factor has variances (the term's table decides).
    return(list(fn = spec$fn, factor = spec$factor, model = 0L, order = n, band = 0L,
                names = if (isTRUE(spec$in_product)) character() else "variance",
                kind = if (isTRUE(spec$in_product)) character() else "variance",
                start = if (isTRUE(spec$in_product)) double() else ratio_start, key = spec$key, known = spec$known))
  cat_ <- cov_catalogue[[spec$fn]]
  if (n < cat_$least) tstop("%s: '%s' has %d level(s); the structure needs at least %d", spec$key, spec$factor, n, cat_$least)
  ncor <- as.integer(cat_$ncor(n))
  v0 <- ratio_start
  # lev1 and lev2 name the levels a parameter belongs to: one for a
  # variance, two for a covariance or correlation between levels.
  names <- character(); kind <- character(); start <- double(); lev1 <- character(); lev2 <- character()
  if (spec$fn == "cov_diag") {
    names <- levels; kind <- rep("variance", n); start <- rep(v0, n); lev1 <- levels; lev2 <- rep(NA, n)
  } else if (spec$fn == "cov_us") {
    for (i in seq_len(n)) for (j in seq_len(i)) {
      names <- c(names, if (i == j) levels[i] else sprintf("cov(%s, %s)", levels[j], levels[i]))
      kind <- c(kind, if (i == j) "variance" else "covariance")
      start <- c(start, if (i == j) v0 else 0)
      lev1 <- c(lev1, levels[j]); lev2 <- c(lev2, if (i == j) NA else levels[i])
    }
  } else if (spec$fn == "cov_corg") {
    for (i in seq_len(n)) for (j in seq_len(i - 1L)) {
      names <- c(names, sprintf("cor(%s, %s)", levels[j], levels[i]))
      lev1 <- c(lev1, levels[j]); lev2 <- c(lev2, levels[i])
    }
    kind <- rep("correlation", ncor); start <- rep(0.1, ncor)
  } else if (ncor > 0L) {
    names <- if (is.function(cat_$names)) cat_$names(n) else cat_$names
    start <- if (is.function(cat_$start)) cat_$start(n) else cat_$start
    kind <- rep("correlation", ncor); lev1 <- rep(NA, ncor); lev2 <- rep(NA, ncor)
  }
  if (isTRUE(spec$het)) {
    names <- c(names, levels); kind <- c(kind, rep("variance", n)); start <- c(start, rep(v0, n))
    lev1 <- c(lev1, levels); lev2 <- c(lev2, rep(NA, n))
  }
  list(fn = spec$fn, factor = spec$factor, model = cat_$model, order = n, band = if (is.null(cat_$band)) 0L else cat_$band,
       names = names, kind = kind, start = start, key = spec$key, lev1 = as.character(lev1), lev2 = as.character(lev2))
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
    if (length(exprs) == 1L && is_known_call(exprs[[1L]])) {
      sp <- known_call_spec(exprs[[1L]], data, env)
      b <- add_columns(store, paste0("known:", sp$key), as.integer(sp$fvalues))
      sp$fvalues <- NULL
      terms[[length(terms) + 1L]] <- list(label = labels[j], vars = list(leaf(sp$key, 0L, b, length(sp$levels), 1L,
                                                                                paste0(sp$factor, sp$levels), levels = sp$levels)))
      groups[[j]] <- list(label = labels[j], kind = "product", terms = length(terms), specs = list(sp))
      next
    }
    if (any(vapply(exprs, is_spatial_call, TRUE))) {
      if (length(exprs) > 1L)
        tstop("'%s': a distance-based structure stands alone in its term (independent fields come from its 'block' argument)", labels[j])
      sp <- spatial_units(spatial_call_spec(exprs[[1L]], data, env))
      b <- add_columns(store, paste0("spatial:", sp$key), sp$unit)
      terms[[length(terms) + 1L]] <- list(label = labels[j], vars = list(leaf(sp$key, 0L, b, length(sp$levels), 1L, sp$levels)))
      sp$unit <- NULL
      groups[[j]] <- list(label = labels[j], kind = "product", terms = length(terms), specs = list(sp))
      next
    }
    iscov <- vapply(exprs, is_cov_call, TRUE)
    if (any(iscov)) {
      specs <- vector("list", length(exprs))
      leaves <- vector("list", length(exprs))
      for (k in seq_along(exprs)) {
        if (is_known_call(exprs[[k]])) {
          # A known matrix as one factor: its levels are the matrix's rows,
          # whether or not every row has records.
          sp <- known_call_spec(exprs[[k]], data, env)
          b <- add_columns(store, paste0("known:", sp$key), as.integer(sp$fvalues))
          leaves[[k]] <- leaf(sp$key, 0L, b, length(sp$levels), 1L, paste0(sp$factor, sp$levels), levels = sp$levels)
          sp$fvalues <- NULL
          sp$in_product <- TRUE
          specs[[k]] <- sp
          next
        }
        if (iscov[k]) {
          specs[[k]] <- cov_call_spec(exprs[[k]], env)
          f <- structure_factor(data, specs[[k]]$factor)
        } else {
          if (!is.name(exprs[[k]])) tstop("in the structured term '%s', '%s' must be a factor or a structure", labels[j], deparse(exprs[[k]]))
          specs[[k]] <- list(fn = "cov_id", factor = as.character(exprs[[k]]), het = FALSE, key = as.character(exprs[[k]]))
          f <- structure_factor(data, specs[[k]]$factor)
        }
        if (is_trait(store, specs[[k]]$factor)) {
          leaves[[k]] <- trait_leaf(store)
          specs[[k]]$levels <- store$traits
          next
        }
        fname <- specs[[k]]$factor
        key <- if (is.numeric(data[[fname]])) sprintf("factor(%s)", fname) else fname
        b <- add_columns(store, paste0("factor:", key), as.integer(f))
        leaves[[k]] <- leaf(key, 0L, b, nlevels(f), 1L, paste0(fname, levels(f)), levels = levels(f))
        specs[[k]]$levels <- levels(f)
      }
      # The scores of a product of three take the outer two with an
      # identity between them.
      if (length(specs) > 3L || (length(specs) == 3L && specs[[2L]]$fn != "cov_id"))
        tstop("'%s': a direct product of more than two structures needs exactly three factors with a plain factor (an identity) in the middle; reorder the factors", labels[j])
      terms[[length(terms) + 1L]] <- list(label = labels[j], vars = leaves)
      groups[[j]] <- list(label = labels[j], kind = "product", terms = length(terms), specs = specs)
      next
    }
    if (length(exprs) == 1L && is.name(exprs[[1L]]) && is.numeric(data[[as.character(exprs[[1L]])]]))
      tstop("the random term '%s' is a numeric column: alone it would be one random covariate, not effects for its levels; write factor(%s) in the formula, or make the column a factor", labels[j], labels[j])
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
    # A basis of several columns (legendre(x, k), opoly(x, k)) alone gives
    # a coefficient for each of its columns.
    if (length(lv) == 1L && identical(lv[[1L]]$kind, "leaf") && lv[[1L]]$code == 0L &&
        lv[[1L]]$flev > 1L && lv[[1L]]$nlev == lv[[1L]]$flev) {
      v <- lv[[1L]]
      for (j in seq_len(v$flev)) {
        cj <- leaf(v$labels[j], 0L, v$b + j - 1L, 1L, 1L, v$labels[j])
        out[[length(out) + 1L]] <- list(label = paste(fname, v$labels[j], sep = ":"), vars = list(fl, cj))
        cn <- c(cn, v$labels[j])
      }
      next
    }
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
  if (is_spatial_call(rhs)) return(list(kind = "spatial", spec = spatial_call_spec(rhs, data, env)))
  tf <- stats::terms(residual, keep.order = TRUE)
  labels <- attr(tf, "term.labels")
  if (length(labels) != 1L) tstop("the residual formula must be one term: ~ 1, ~ het(f), or a product such as ~ cov_ar1(col):cov_ar1(row)")
  vars <- attr(tf, "variables")
  exprs <- lapply(which(attr(tf, "factors")[, 1L] > 0), function(i) vars[[i + 1L]])
  specs <- lapply(exprs, function(e) {
    if (is_known_call(e)) tstop("cov_known() belongs in the random formula, not the residual formula")
    if (is_spatial_call(e)) tstop("a distance-based residual structure stands alone in the residual formula (independent fields come from its 'block' argument)")
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
    if (drop_missing && anyNA(data[[yname]])) {
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
