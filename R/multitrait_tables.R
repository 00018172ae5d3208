# Wald tests and predicted means of a fit of several responses, formed in R
# from the fixed effects and their covariance C = (X'V^-1X)^-1 over the
# columns the engine kept.  The fixed design is rebuilt here, one row for
# each observed value of a trait, to express the aliased columns through
# the kept ones: every estimable function and every test of a term is then
# the same whichever columns the engine chose to alias.

# The fixed design of a fit of several responses: X (observed values by all
# fixed columns, in the engine's order), the term of each column, and for
# each term its variables.  Terms must be products of `trait`, factors and
# numeric columns of the data.
multi_fixed_design <- function(fit) {
  tab <- fit$table
  if (is.null(fit$engine_input)) tstop("this fit of several responses holds no engine input; refit it with this version of tarnel")
  data <- fit$engine_input$model$data
  tn <- fit$traits
  Y <- fit$response
  obs <- as.vector(t(!is.na(Y)))
  n <- nrow(Y)
  trait <- factor(rep(tn, n), levels = tn)[obs]
  rec <- rep(seq_len(n), each = length(tn))[obs]
  cols <- list(); assign <- integer(); vars <- list()
  for (k in seq_along(tab$fixed_positions)) {
    p <- tab$fixed_positions[k]
    name <- tab$position_names[p]
    vn <- strsplit(name, ":", fixed = TRUE)[[1L]]
    lev <- list(); val <- list()
    for (v in vn) {
      if (v == "trait") { lev[[v]] <- tn; val[[v]] <- trait; next }
      x <- if (v %in% names(data)) data[[v]] else NULL
      if (is.null(x) || !(is.numeric(x) || is.factor(x) || is.character(x) || is.logical(x)))
        tstop("Wald tests and predictions of a fit of several responses are not available yet for the fixed term '%s'", name)
      if (is.numeric(x)) { lev[[v]] <- v; val[[v]] <- x[rec] }
      else { f <- factor(x); lev[[v]] <- levels(f); val[[v]] <- f[rec] }
    }
    # The engine's columns: the later variable varies fastest.
    grid <- rev(expand.grid(rev(lev), KEEP.OUT.ATTRS = FALSE, stringsAsFactors = FALSE))
    labels <- do.call(paste, c(unname(as.list(grid)), sep = ":"))
    if (!identical(labels, tab$level_names[[p]]))
      tstop("Wald tests and predictions of a fit of several responses are not available yet for the fixed term '%s' (its columns are not laid out as its variables)", name)
    for (j in seq_len(nrow(grid))) {
      col <- rep(1, length(rec))
      for (v in vn) {
        col <- col * if (is.numeric(val[[v]])) val[[v]] else as.numeric(as.character(val[[v]]) == grid[j, v])
      }
      cols[[length(cols) + 1L]] <- col
    }
    assign <- c(assign, rep(k, nrow(grid)))
    vars[[k]] <- vn
  }
  X <- do.call(cbind, cols)
  colnames(X) <- names(fit$coefficients)
  names(vars) <- tab$position_names[tab$fixed_positions]
  list(X = X, assign = assign, vars = vars, levels = NULL)
}

# The fixed effects over all columns: b with 0 for aliased columns, G the
# generalised inverse of the information with C at the kept columns and 0
# elsewhere, the information M = T'C^-1T and the right-hand side r = M b,
# where the kept columns give every column as X_all = X_kept T.
multi_fixed_algebra <- function(fit) {
  des <- multi_fixed_design(fit)
  fit <- multi_final_run(fit)
  b <- fit$coefficients
  kept <- !is.na(b)
  X <- des$X
  Xk <- X[, kept, drop = FALSE]
  qk <- qr(Xk)
  Tm <- qr.coef(qk, X)
  Tm[is.na(Tm)] <- 0
  if (max(abs(Xk %*% Tm - X)) > 1e-8 * max(1, abs(X)))
    tstop("the aliased fixed columns of this fit are not combinations of the kept ones; Wald tests and predictions cannot be formed")
  C <- fit$vcov[names(b)[kept], names(b)[kept], drop = FALSE]
  Mk <- chol2inv(chol(C))
  M <- crossprod(Tm, Mk %*% Tm)
  bf <- ifelse(kept, b, 0)
  G <- matrix(0, length(b), length(b), dimnames = list(names(b), names(b)))
  G[kept, kept] <- C
  c(des, list(b = bf, kept = kept, Tm = Tm, M = M, r = drop(M %*% bf), G = G))
}

# The fixed effects and their covariance at the fit's final variance
# parameters: the fit's own come from the equations of its last iteration,
# formed before that iteration's update.  One run with every parameter held
# at its final value.
multi_final_run <- function(fit) {
  ei <- fit$engine_input
  if (is.null(ei)) tstop("this fit of several responses holds no engine input; refit it with this version of tarnel")
  g <- fit$gammas
  struc <- apply_constraints(ei$struc, g, stats::setNames(rep("fixed", length(g)), names(g)), NULL, NULL)
  control <- ei$control
  control$maxiter <- 1L
  control$workspace <- fit$workspace
  control$trace <- FALSE
  control$progress <- FALSE
  out <- run_ctrn(ei$model, fit$table, struc, keep_design = FALSE, control = control)
  again <- assemble_multi(out, ei$model, fit$table, struc, control, ei$stacked, fit$record_rows)
  fit$coefficients <- again$coefficients
  fit$vcov <- again$vcov
  fit
}

# r_S' M_SS^- r_S and the rank of M_SS over the columns S.
explained <- function(alg, S) {
  if (!length(S)) return(c(q = 0, rank = 0))
  e <- eigen(alg$M[S, S, drop = FALSE], symmetric = TRUE)
  keep <- e$values > max(e$values) * 1e-10
  z <- crossprod(e$vectors[, keep, drop = FALSE], alg$r[S])
  c(q = sum(z^2 / e$values[keep]), rank = sum(keep))
}

# Incremental tests (each term after the terms before it) and conditional
# tests (after every term that does not contain it, where that leaves the
# numerator df unchanged); p-values from the F distribution with infinite
# denominator df, the asymptotic chi-square of the Wald statistic over Df.
wald_multi <- function(object, terms, ddf) {
  alg <- multi_fixed_algebra(object)
  labels <- names(alg$vars)
  nt <- length(labels)
  if (!is.null(terms)) {
    if (!is.character(terms)) tstop("'terms' must be a character vector of fixed term labels")
    bad <- setdiff(terms, labels)
    if (length(bad)) tstop("not a fixed term of the model: %s (the terms are %s)", paste(bad, collapse = ", "),
                           paste(labels, collapse = ", "))
  }
  cols <- function(ts) which(alg$assign %in% ts)
  df <- W.inc <- W.con <- double(nt)
  for (t in seq_len(nt)) {
    a <- explained(alg, cols(seq_len(t))) - explained(alg, cols(seq_len(t - 1L)))
    df[t] <- a[["rank"]]
    W.inc[t] <- a[["q"]]
    cond <- which(vapply(seq_len(nt), function(u) u != t && !(all(alg$vars[[t]] %in% alg$vars[[u]]) &&
                                                              length(setdiff(alg$vars[[u]], alg$vars[[t]]))), TRUE))
    cc <- explained(alg, cols(c(cond, t))) - explained(alg, cols(cond))
    W.con[t] <- if (cc[["rank"]] == a[["rank"]]) cc[["q"]] else NA_real_
  }
  tested <- df > 0
  out <- data.frame(Df = as.integer(df), Wald.inc = W.inc, F.inc = W.inc / df, denDF.inc = Inf, Pr.inc = NA_real_,
                    Wald.con = W.con, F.con = W.con / df, denDF.con = Inf, Pr.con = NA_real_,
                    row.names = labels)[tested, , drop = FALSE]
  note <- "denominator df: asymptotic (infinite; the Wald statistic as chi-square on Df); Kenward-Roger and containment df are not available yet for fits of several responses"
  if (ddf == "none") {
    out$denDF.inc <- out$denDF.con <- NA_real_
    note <- character()
  } else {
    out$Pr.inc <- stats::pchisq(out$Wald.inc, out$Df, lower.tail = FALSE)
    out$Pr.con <- stats::pchisq(out$Wald.con, out$Df, lower.tail = FALSE)
  }
  if (any(!tested)) note <- c(note, sprintf("%s: no test, every column aliased with the terms before it",
                                            paste(labels[!tested], collapse = ", ")))
  if (!is.null(terms)) out <- out[intersect(terms, rownames(out)), , drop = FALSE]
  structure(out, class = c("tarnel_wald", "data.frame"), ddf = ddf, note = note,
            heading = sprintf("Wald tests of fixed terms, %d responses", length(object$traits)))
}

#' @export
anova.tarnel_multi <- function(object, ..., ddf = "asymptotic") {
  if (length(list(...))) tstop("anova() of tarnel fits tests the fixed terms of one fit; comparing fits is not available")
  wald(object, ddf = ddf)
}

# Predicted means of a fit of several responses from its fixed terms: each
# cell of the classify set (which must hold `trait`) averages the fixed
# design over the levels of the other factors of the fixed model, equal
# weights, with covariates at their means over the fit's records.  Random
# terms are left out; a classify factor that only random terms use is
# refused, since its effects would be predicted random effects.
#' @export
predict.tarnel_multi <- function(object, newdata = NULL, classify = NULL, sed = FALSE, vcov = FALSE, ...) {
  extra <- c(if (!is.null(newdata)) "newdata", names(list(...)))
  if (length(extra))
    pstop("a fit of several responses takes 'classify', 'sed' and 'vcov'; %s %s not available yet",
          paste0("'", extra, "'", collapse = ", "), if (length(extra) > 1L) "are" else "is")
  if (is.null(classify)) pstop("give 'classify', the factors of the table, such as \"trait\" or \"trait:block\"")
  if (!is.character(classify) || anyNA(classify) || !length(classify))
    pstop("'classify' must be a character vector, one table an element, such as \"trait:block\"")
  if (!is.logical(sed) || length(sed) != 1L || is.na(sed) || !is.logical(vcov) || length(vcov) != 1L || is.na(vcov))
    pstop("'sed' and 'vcov' must be TRUE or FALSE")
  alg <- multi_fixed_algebra(object)
  res <- lapply(classify, multi_table, fit = object, alg = alg, want_sed = sed, want_vcov = vcov)
  if (length(res) == 1L) return(res[[1L]])
  names(res) <- classify
  structure(res, class = "tarnel_predictions")
}

multi_table <- function(cls, fit, alg, want_sed, want_vcov) {
  cn <- trimws(strsplit(cls, ":", fixed = TRUE)[[1L]])
  if (anyDuplicated(cn)) pstop("'%s' names a factor twice", cls)
  if (!"trait" %in% cn) pstop("the classify set '%s' of a fit of several responses must include 'trait', such as \"trait:%s\"", cls, cls)
  data <- fit$engine_input$model$data
  fvars <- unique(unlist(alg$vars))
  rvars <- setdiff(unique(unlist(strsplit(fit$table$position_names[unlist(fit$table$random_positions)], ":", fixed = TRUE))), "trait")
  for (v in setdiff(cn, fvars)) {
    if (v %in% rvars) pstop("'%s' is in random terms only; predictions of a fit of several responses classified by a random factor are not available yet", v)
    pstop("classify factor '%s' is not in the fixed model", v)
  }
  levs <- lapply(stats::setNames(fvars, fvars), function(v) {
    if (v == "trait") return(fit$traits)
    x <- data[[v]]
    if (is.numeric(x)) NULL else levels(factor(x))
  })
  for (v in cn) if (is.null(levs[[v]])) pstop("'%s' is a covariate; tables classified by a covariate are not available yet for fits of several responses", v)
  means <- vapply(fvars, function(v) if (is.null(levs[[v]])) mean(data[[v]]) else NA_real_, 1)
  avg <- setdiff(fvars[!vapply(levs, is.null, TRUE)], cn)
  cells <- rev(expand.grid(rev(levs[cn]), KEEP.OUT.ATTRS = FALSE, stringsAsFactors = FALSE))
  hyper <- if (length(avg)) expand.grid(levs[avg], KEEP.OUT.ATTRS = FALSE, stringsAsFactors = FALSE) else data.frame(row.names = 1L)
  # Coefficient rows: each fixed column is a product over its term's
  # variables of a level indicator (averaged over the averaging set) or a
  # covariate mean.
  colterm <- alg$assign
  collev <- unlist(lapply(seq_along(alg$vars), function(k)
    lapply(strsplit(fit$table$level_names[[fit$table$fixed_positions[k]]], ":", fixed = TRUE), function(s) s)), recursive = FALSE)
  L <- matrix(0, nrow(cells), length(colterm), dimnames = list(NULL, names(alg$b)))
  for (j in seq_along(colterm)) {
    vn <- alg$vars[[colterm[j]]]
    lv <- collev[[j]]
    # Each of the term's averaged factors contributes the share of the
    # hypertable at the column's level; classify factors an indicator.
    w <- rep(1, nrow(cells))
    for (i in seq_along(vn)) {
      v <- vn[i]
      if (is.null(levs[[v]])) w <- w * means[[v]]
      else if (v %in% cn) w <- w * (cells[[v]] == lv[i])
      else w <- w / length(levs[[v]])
    }
    L[, j] <- w
  }
  # A row is estimable when it lies in the row space of the design.
  Tm <- alg$Tm
  proj <- L %*% MASS_ginv(Tm) %*% Tm
  est <- apply(abs(proj - L), 1L, max) <= 1e-8 * pmax(1, apply(abs(L), 1L, max))
  V <- L %*% alg$G %*% t(L)
  pv <- cells
  for (v in cn) if (v != "trait") pv[[v]] <- factor(pv[[v]], levels = levs[[v]])
  pv$trait <- factor(pv$trait, levels = fit$traits)
  pv$predicted.value <- ifelse(est, drop(L %*% alg$b), NA_real_)
  pv$std.error <- ifelse(est, sqrt(pmax(diag(V), 0)), NA_real_)
  pv$status <- factor(ifelse(est, "estimable", "aliased"), levels = c("estimable", "aliased", "empty"))
  lab <- do.call(paste, c(unname(as.list(cells)), sep = ":"))
  V[!est, ] <- NA; V[, !est] <- NA
  dimnames(V) <- list(lab, lab)
  d <- diag(V)
  S <- sqrt(pmax(outer(d, d, `+`) - 2 * V, 0))
  n <- nrow(cells)
  lower <- S[lower.tri(S)]
  overall <- if (n > 1L) sqrt(mean(lower^2, na.rm = TRUE)) else NA_real_
  groups <- multi_sed_groups(S, cells, cn)
  report <- c(sprintf(" Predicted values of %s", cls),
              "Predicted from the fixed terms; random terms are ignored",
              if (length(avg)) sprintf("The SIMPLE averaging set: %s", paste(avg, collapse = ", ")),
              if (any(!is.na(means))) sprintf("%s evaluated at covariate means over the records",
                                              paste(fvars[!is.na(means)], collapse = ", ")))
  structure(list(classify = cls, pvals = pv, sed = if (want_sed) S else NULL, vcov = if (want_vcov) V else NULL,
                 avsed = list(overall = if (is.nan(overall)) NA_real_ else overall,
                              mean = if (n > 1L) mean(lower, na.rm = TRUE) else NA_real_, groups = groups),
                 report = report),
            class = "tarnel_prediction")
}

# Minimum, mean and maximum SED of all pairs, or for two classify factors
# of the pairs within the same level of the second, of the first, and of
# neither.
multi_sed_groups <- function(S, cells, cn) {
  n <- nrow(cells)
  lt <- lower.tri(S)
  summ <- function(name, keep) {
    x <- S[lt & keep]
    x <- x[!is.na(x)]
    data.frame(pairs = name, min = if (length(x)) min(x) else NA_real_, mean = if (length(x)) mean(x) else NA_real_,
               max = if (length(x)) max(x) else NA_real_)
  }
  if (length(cn) != 2L) return(summ("all pairs", matrix(TRUE, n, n)))
  same <- function(v) outer(cells[[v]], cells[[v]], `==`)
  rbind(summ(sprintf("same %s", cn[2L]), same(cn[2L])), summ(sprintf("same %s", cn[1L]), same(cn[1L])),
        summ("both differ", !same(cn[1L]) & !same(cn[2L])))
}
