# Random effects and variance components in the layout users of lme4 and
# nlme expect: ranef() a list of data frames by grouping, VarCorr() the
# variances, standard deviations and correlations.

# The random groups of a fit: for each, its name, its model positions and
# the names of its coefficients.
random_groups <- function(fit) {
  groups <- fit$model$random$groups
  if (is.null(groups)) return(list())
  tab <- fit$table
  nfixed <- dense_fixed_positions(tab)
  # First equation of each position among the random effects.
  lev <- tab$position_levels
  rstart <- cumsum(c(0, lev))[seq_along(lev)] - sum(lev[seq_len(nfixed)])
  out <- lapply(groups, function(g) {
    pos <- unlist(tab$random_positions[g$terms])
    name <- if (identical(g$kind, "coefs")) g$factor else g$label
    coefs <- if (identical(g$kind, "coefs")) g$coef_names else "(Intercept)"
    # A structure over one factor crossed with another (cov_us(site):genotype)
    # is shown as a table: a row for each level of the second factor, a
    # column for each level of the first.
    grid <- NULL
    if (identical(g$kind, "product") && length(g$specs) == 2L && length(pos) == 1L)
      grid <- list(cols = g$specs[[1L]]$levels, rows = g$specs[[2L]]$levels)
    list(name = name, positions = pos, coefs = coefs, start = rstart[pos], levels = lev[pos],
         level_names = tab$level_names[pos], kind = g$kind, grid = grid)
  })
  nm <- make.unique(vapply(out, `[[`, "", "name"))
  for (k in seq_along(out)) out[[k]]$name <- nm[k]
  names(out) <- nm
  out
}

#' @importFrom nlme ranef
#' @export
ranef.tarnel <- function(object, condVar = TRUE, ...) {
  u <- unname(object$ranef)
  pev <- unname(object$ranef_pev)
  out <- lapply(random_groups(object), function(g) {
    if (identical(g$kind, "coefs")) {
      # One column a coefficient, one row a level of the grouping factor.
      n <- g$levels[1]
      idx <- vapply(seq_along(g$positions), function(k) g$start[k] + seq_len(n), numeric(n))
      idx <- matrix(idx, n)
      rn <- g$level_names[[1]]
    } else if (!is.null(g$grid) && length(g$grid$rows) * length(g$grid$cols) == g$levels[1]) {
      idx <- matrix(g$start[1] + seq_len(g$levels[1]), length(g$grid$rows))
      rn <- g$grid$rows
      g$coefs <- g$grid$cols
    } else {
      idx <- matrix(unlist(lapply(seq_along(g$positions), function(k) g$start[k] + seq_len(g$levels[k]))), ncol = 1L)
      rn <- unlist(g$level_names)
    }
    est <- as.data.frame(matrix(u[idx], nrow(idx), dimnames = list(rn, g$coefs)), check.names = FALSE)
    if (isTRUE(condVar)) {
      se <- matrix(sqrt(pmax(pev[idx], 0)), nrow(idx), dimnames = list(rn, g$coefs))
      attr(est, "se") <- as.data.frame(se, check.names = FALSE)
    }
    est
  })
  structure(out, class = c("ranef.tarnel", "list"))
}

#' @export
print.ranef.tarnel <- function(x, ...) {
  if (!length(x)) cat("No random terms in the model\n")
  for (g in names(x)) {
    cat("$", g, "\n", sep = "")
    d <- x[[g]]
    print(data.frame(unclass(d), check.names = FALSE, row.names = rownames(d)), ...)
    cat("\n")
  }
  if (length(x)) cat("(conditional standard errors: attr(, \"se\") of each table)\n")
  invisible(x)
}

#' @importFrom nlme VarCorr
#' @export
VarCorr.tarnel <- function(x, sigma = 1, ...) {
  p <- x$params
  vc <- x$varcomp
  keep <- p$name %in% rownames(vc)
  p <- p[keep, , drop = FALSE]
  comp <- vc[p$name, "component"]
  var1 <- ifelse(is.na(p$lev1) & p$kind != "scale", sub("^.*: ", "", p$name), p$lev1)
  na <- rep(NA_real_, nrow(p))  # a fit may have no variance parameter shown (a GLM without random terms)
  out <- data.frame(group = p$vgroup, var1 = as.character(var1), var2 = p$lev2, variance = na, sd_cor = na,
                    kind = p$kind, row.names = p$name, stringsAsFactors = FALSE, check.names = FALSE)
  isvar <- p$kind %in% c("variance", "scale")
  out$variance[isvar] <- comp[isvar]
  out$sd_cor[isvar] <- sqrt(pmax(comp[isvar], 0))
  cv <- which(p$kind == "covariance")
  for (k in cv) {
    # The correlation from the covariance and the two variances beside it.
    v <- function(lev) comp[p$vgroup == p$vgroup[k] & p$kind == "variance" & p$lev1 %in% lev & is.na(p$lev2)][1]
    out$variance[k] <- comp[k]
    out$sd_cor[k] <- comp[k] / sqrt(v(p$lev1[k]) * v(p$lev2[k]))
  }
  cr <- which(p$kind == "correlation")
  out$sd_cor[cr] <- comp[cr]
  out$var1[p$kind == "scale"] <- NA
  class(out) <- c("VarCorr.tarnel", "data.frame")
  out
}

#' @export
print.VarCorr.tarnel <- function(x, digits = max(3L, getOption("digits") - 3L), ...) {
  d <- as.data.frame(unclass(x), stringsAsFactors = FALSE)
  d <- data.frame(row.names = NULL, check.names = FALSE,
                  Group = ifelse(duplicated(x$group), "", x$group),
                  Name = ifelse(is.na(d$var2), ifelse(is.na(d$var1), "", d$var1), paste0(d$var1, ", ", d$var2)),
                  Variance = ifelse(is.na(d$variance), "", format(d$variance, digits = digits)),
                  `Std.Dev.` = ifelse(d$kind %in% c("variance", "scale"), format(d$sd_cor, digits = digits), ""),
                  Corr = ifelse(d$kind %in% c("covariance", "correlation"), format(round(d$sd_cor, 3), nsmall = 3), ""))
  print(d, right = FALSE, row.names = FALSE)
  invisible(x)
}

# The correlations that the covariance parameters imply, named as the
# covariances with cor() for cov(): "Subject: cor((Intercept), Days)".
covariance_correlations <- function(fit) {
  vc <- VarCorr(fit)
  k <- vc$kind == "covariance"
  if (!any(k)) return(NULL)
  stats::setNames(vc$sd_cor[k], sub("cov(", "cor(", rownames(vc)[k], fixed = TRUE))
}
