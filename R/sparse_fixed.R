# Fixed factors with many levels (contemporary groups and the like) are put
# among the sparse equations, with the random terms: their equations are
# ordered and absorbed there, and only the other fixed terms form the dense
# block.  The engine then gives their solutions and, from the sparse
# inverse, their variances, but no covariances with the dense fixed effects
# and no Wald test of their own: they are absorbed before the dense terms
# are tested.  This file turns what the engine leaves into the fit's table
# of these effects.

# The number of leading model positions that are fixed (the dense block).
dense_fixed_positions <- function(tab) {
  if (is.null(tab$ndense_positions)) length(tab$fixed_positions) else tab$ndense_positions
}

# The level of each record in a sparse fixed term (NA where a factor value
# is missing): the later factor of an interaction runs fastest.
sparse_level_index <- function(data, sp) {
  idx <- numeric(nrow(data))
  for (k in seq_along(sp$cols)) {
    v <- data[, sp$cols[k]]
    v[v >= 9.9e36 | v < 1 | v > sp$flev[k]] <- NA
    idx <- idx * sp$flev[k] + (v - 1)
  }
  as.integer(idx + 1)
}

#' @noRd
# The effects of the sparse fixed terms: one row a level with its term,
# estimate, standard error and number of records (with a response), and
# `status`: "estimated", "no records" (a level the records of the fit do not
# reach) or "aliased" (the level depends on other fixed effects: the engine
# found no pivot for it and solved it as 0).
sparse_fixed_table <- function(trn, table, present) {
  sf <- table$sparse_fixed
  if (!length(sf)) return(NULL)
  ends <- cumsum(table$position_levels)
  parts <- lapply(sf, function(sp) {
    p <- sp$position
    eq <- (ends[p] - table$position_levels[p] + 1L):ends[p]
    idx <- sparse_level_index(table$data, sp)
    n <- tabulate(idx[present & !is.na(idx)], nbins = length(eq))
    v <- trn$vsoln[1L + eq]
    status <- ifelse(n == 0L, "no records", ifelse(v > 0, "estimated", "aliased"))
    ok <- status == "estimated"
    data.frame(term = sp$label, level = table$labels[eq],
               estimate = ifelse(ok, trn$soln[1L + eq], NA_real_),
               std.error = ifelse(ok, sqrt(pmax(v, 0)), NA_real_),
               records = n, status = status, stringsAsFactors = FALSE)
  })
  out <- do.call(rbind, parts)
  rownames(out) <- NULL
  out
}

# X b of the sparse fixed terms, record by record (engine order).
sparse_fixed_xb <- function(table, sft) {
  xb <- numeric(nrow(table$data))
  for (sp in table$sparse_fixed) {
    b <- sft$estimate[sft$term == sp$label]
    b[is.na(b)] <- 0
    idx <- sparse_level_index(table$data, sp)
    ok <- !is.na(idx)
    xb[ok] <- xb[ok] + b[idx[ok]]
  }
  xb
}

# Indicator columns of the estimable levels (or of all levels) of the
# sparse fixed terms over the records `rows` (a sparse matrix), named by
# level.
sparse_fixed_design <- function(fit, rows, all = FALSE) {
  sft <- fit$sparse_fixed
  tab <- fit$table
  mats <- lapply(tab$sparse_fixed, function(sp) {
    lev <- sft[sft$term == sp$label, , drop = FALSE]
    keep <- if (all) seq_len(nrow(lev)) else which(lev$status == "estimated")
    idx <- sparse_level_index(tab$data, sp)[rows]
    j <- match(idx, keep)
    i <- which(!is.na(j))
    Matrix::sparseMatrix(i = i, j = j[i], x = 1, dims = c(length(rows), length(keep)),
                         dimnames = list(NULL, lev$level[keep]))
  })
  do.call(cbind, mats)
}

# The fixed effects of a fit with sparse fixed terms, in the engine's own
# coding (one column a level), as fixed_effects_r() lays them out: the
# dense terms' estimable columns with their covariance, then the estimable
# levels of the sparse terms.  `vcov` covers the dense columns only; `se`
# holds the standard errors of all.  `absorbed` lists the columns of X
# that belong to sparse terms: the engine tests every dense term after them.
fixed_effects_sparse <- function(fit) {
  fe <- fit$fixed_engine
  present <- fe$present
  CE <- fe$vcov
  ok <- diag(CE) > 0
  sft <- fit$sparse_fixed
  est <- sft$status == "estimated"
  XD <- engine_fixed_design(fit)[present, ok, drop = FALSE]
  XS <- sparse_fixed_design(fit, which(present))
  b <- c(fe$coefficients[ok], stats::setNames(sft$estimate[est], sft$level[est]))
  se <- c(sqrt(diag(CE)[ok]), stats::setNames(sft$std.error[est], sft$level[est]))
  labels <- fe$term_labels
  assign <- c(fe$assign[ok], match(sft$term[est], labels))
  V <- CE[ok, ok, drop = FALSE]
  list(coefficients = b, vcov = V, se = se, X = cbind(XD, XS), assign = assign, term_labels = labels,
       aliased = c(names(fe$coefficients)[!ok], sft$level[sft$status == "aliased"]),
       absorbed = ncol(XD) + seq_len(ncol(XS)), transform = NULL, basis = "engine", present = present,
       loglik_shift = 0)
}

# Standard errors of the coefficients of a fit: from vcov(), and for the
# levels of sparse fixed terms from their own table.
fixed_se <- function(object) {
  b <- object$coefficients
  se <- stats::setNames(rep(NA_real_, length(b)), names(b))
  V <- object$vcov
  hit <- intersect(names(b), rownames(V))
  se[hit] <- sqrt(diag(V)[hit])
  sft <- object$sparse_fixed
  if (!is.null(sft)) {
    k <- match(names(b), sft$level)
    se[!is.na(k)] <- sft$std.error[k[!is.na(k)]]
  }
  se
}

# One line a sparse fixed term for the printed summaries.
sparse_fixed_notes <- function(sft) {
  if (is.null(sft)) return(character())
  vapply(unique(sft$term), function(t) {
    s <- sft[sft$term == t, , drop = FALSE]
    sprintf("%s: %d levels in the sparse equations (%d estimated, %d aliased, %d without records); estimates by coef(), standard errors in $sparse_fixed; no Wald test",
            t, nrow(s), sum(s$status == "estimated"), sum(s$status == "aliased"), sum(s$status == "no records"))
  }, "")
}
