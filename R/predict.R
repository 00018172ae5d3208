# Predicted values of a fitted model: tables over the cells of a classify
# set, with standard errors, SEDs and average SEDs.  The engine forms the
# tables in one further iteration from the fit's variance parameters (held
# fixed), so several tables cost one pass.

#' @export
predict.tarnel <- function(object, newdata = NULL, classify = NULL, average = NULL, present = NULL,
                           associate = NULL, weights = NULL, at = NULL, sed = FALSE, vcov = FALSE, ...) {
  if (!is.null(newdata)) {
    return(predict_newdata(object, newdata = newdata, ...))
  }
  if (is.null(classify)) pstop("give 'classify' (the factors of the table) or 'newdata'")
  if (!is.character(classify) || anyNA(classify) || !length(classify))
    pstop("'classify' must be a character vector, one table an element, such as \"A:B\"")
  for (a in list(average, present, associate))
    if (!is.null(a) && (!is.character(a) || anyNA(a))) pstop("'average', 'present' and 'associate' must name factors")
  if (!is.null(at) && (!is.list(at) || is.null(names(at)) || any(names(at) == "")))
    pstop("'at' must be a named list, such as list(x = c(1, 2))")
  if (!is.null(weights) && (!is.list(weights) || is.null(names(weights)) || any(names(weights) == "")))
    pstop("'weights' must be a named list of weights for averaged factors")
  pm <- pred_model(object)
  tabs <- lapply(classify, pred_table, pm = pm, average = average, present = present, associate = associate,
                 weights = weights, at = at, several = length(classify) > 1L)
  # An 'at' entry for a factor must belong to a classify set.
  for (nm in names(at)) {
    v <- pm$vars[[match(nm, pm$names)]]
    if (v$kind == 1L && !any(vapply(tabs, function(t) nm %in% t$cnames, TRUE)))
      pstop("'at' gives levels of factor '%s', which is not in the classify set", nm)
  }
  # A spline of a classified covariate would need its basis at the table's
  # points, which the tables cannot form yet: the curve comes from newdata.
  splines <- vapply(object$model$random$groups, function(g) as.character(g$label)[1L], "")
  splines <- splines[grepl("^cubic_spline\\(", splines)]
  for (t in tabs) for (nm in t$cnames)
    if (any(grepl(sprintf("^cubic_spline\\(%s[,)]", nm), splines)))
      pstop("tables along the spline of '%s' are not available yet; predict(fit, newdata = ) gives the curve with standard errors", nm)
  big <- vapply(tabs, `[[`, 1L, "n") > max_full_table
  if (any(big) && (isTRUE(sed) || isTRUE(vcov)))
    pstop("the table '%s' has %d cells: SED and variance matrices are formed for tables of at most %d cells",
          tabs[[which(big)[1L]]]$cls, tabs[[which(big)[1L]]]$n, max_full_table)
  out <- pred_run(object, pm, tabs)
  res <- lapply(seq_along(tabs), function(k) pred_result(out, pm, tabs[[k]], k, sed, vcov))
  if (inherits(object, "tarnel_glm")) res <- lapply(res, glm_table_response, fam = object$family)
  # A response the fit scaled for the engine: the tables back in its units.
  ys <- if (is.null(object$yscale)) 1 else object$yscale
  if (ys != 1) res <- lapply(res, rescale_prediction, s = ys)
  if (length(res) == 1L) return(res[[1L]])
  names(res) <- classify
  structure(res, class = "tarnel_predictions")
}

pstop <- function(...) stop(paste("tarnel: predict:", sprintf(...)), call. = FALSE)

# Tables of more cells get their variances only: no covariances, SEDs or
# average SEDs (the variance matrix would take n^2/2 words).
max_full_table <- 5000L

# The model's variables (factors and covariates that are leaves of the term
# table), the term of each, and the variables each model position crosses.
pred_model <- function(fit) {
  tab <- fit$table
  inter <- tab$inter$inter
  keys <- tab$inter$facnam
  data <- fit$model$data
  nf <- length(keys)
  termvar <- integer(nf)
  vars <- list()
  for (k in seq_len(nf)) {
    key <- keys[k]
    if (inter[1L, k] == 0L && inter[2L, k] == 0L && inter[3L, k] > 0L && k != tab$nycol && key %in% names(data)) {
      x <- data[[key]]
      isf <- is.factor(x) || is.character(x) || is.logical(x)
      lev <- if (isf) levels(as_model_factor(data, key)) else NULL
      vars[[length(vars) + 1L]] <- list(name = key, kind = if (isf) 1L else 2L, col = inter[3L, k],
                                        nlev = if (isf) length(lev) else 1L, levels = lev,
                                        mean = if (isf) NA_real_ else mean(x, na.rm = TRUE))
      termvar[k] <- length(vars)
    }
  }
  comps <- function(k) {
    code <- inter[1L, k]
    if (code > 0L) {
      if (inter[3L, k] != 0L || tab$inter$nlev[k] != 0L) return(NA_integer_)
      return(c(comps(code), comps(inter[2L, k])))
    }
    if (termvar[k] > 0L) return(termvar[k])
    if (code == -8L) return(integer())
    NA_integer_
  }
  pos <- tab$inter$neword
  positions <- lapply(seq_along(pos), function(i) {
    k <- pos[i]
    list(name = keys[k], random = !i %in% tab$fixed_positions, missing = inter[1L, k] == -4L, vars = comps(k))
  })
  list(vars = vars, names = vapply(vars, `[[`, "", "name"), termvar = termvar, positions = positions,
       data_names = names(data))
}

pred_var <- function(pm, nm, what) {
  k <- match(nm, pm$names)
  if (is.na(k)) {
    if (nm %in% pm$data_names) pstop("%s '%s' is not in the model", what, nm)
    pstop("%s '%s' is not in the model or the data", what, nm)
  }
  k
}

# One table's request: classify variables with their levels or values, and
# the role and weights of every variable.
pred_table <- function(cls, pm, average, present, associate, weights, at, several) {
  cnames <- if (cls %in% c("", "(Intercept)", "1")) character() else strsplit(cls, ":", fixed = TRUE)[[1L]]
  cnames <- trimws(cnames)
  if (anyDuplicated(cnames)) pstop("'%s' names a factor twice", cls)
  cv <- vapply(cnames, pred_var, 1L, pm = pm, what = "classify factor")
  nv <- length(pm$vars)
  role <- integer(nv)
  role[cv] <- 1L
  fixed_vars <- unique(unlist(lapply(pm$positions, function(p) if (!p$random) p$vars)))
  for (nm in names(at)) pred_var(pm, nm, "'at' variable")
  set_role <- function(names, code, what, factor_only = TRUE) {
    for (nm in names) {
      k <- pred_var(pm, nm, sprintf("%s factor", what))
      if (role[k] == 1L) {
        if (several) next
        pstop("'%s' is in the classify set and cannot also be in '%s'", nm, what)
      }
      if (role[k] != 0L) pstop("'%s' is named in more than one of 'average', 'present' and 'associate'", nm)
      if (factor_only && pm$vars[[k]]$kind != 1L) pstop("'%s' in '%s' must be a factor, not a covariate", nm, what)
      role[k] <<- code
    }
  }
  set_role(average, 2L, "average", factor_only = FALSE)
  set_role(present, 3L, "present")
  set_role(associate, 4L, "associate")
  # A PRESENT or associated factor is averaged within the cells of the
  # classify factors, over the levels found with them in the data: there
  # must be classify factors, and a term of the prediction that uses it
  # (fixed terms; random terms too for an associated factor).
  for (k in which(role %in% c(3L, 4L))) {
    used <- any(vapply(pm$positions, function(p) k %in% p$vars && (!p$random || role[k] == 4L), TRUE))
    if (!any(vapply(pm$vars[cv], `[[`, 1L, "kind") == 1L) || !used)
      pstop("the present set ('%s') does not cross the classify set ('%s'): %s", pm$names[k],
            if (length(cv)) cls else "empty",
            if (used) "the classify set has no factor" else "no term of the prediction uses it")
  }
  lists <- lapply(cv, function(k) {
    v <- pm$vars[[k]]
    a <- at[[v$name]]
    if (v$kind == 1L) {
      if (is.null(a)) return(seq_len(v$nlev))
      a <- as.character(a)
      bad <- setdiff(a, v$levels)
      if (length(bad)) pstop("'at': level(s) %s of '%s' do not exist", paste0("'", bad, "'", collapse = ", "), v$name)
      if (!length(a) || anyDuplicated(a)) pstop("'at' must give distinct levels of '%s'", v$name)
      return(match(a, v$levels))
    }
    if (is.null(a)) return(v$mean)
    if (!is.numeric(a) || !length(a) || any(!is.finite(a))) pstop("'at' values of covariate '%s' must be finite numbers", v$name)
    as.double(a)
  })
  valpos <- vector("list", nv)
  for (k in seq_len(nv)) {
    v <- pm$vars[[k]]
    if (role[k] == 1L) next
    if (v$kind == 2L && !is.null(at[[v$name]])) {
      a <- at[[v$name]]
      if (!is.numeric(a) || length(a) != 1L || !is.finite(a))
        pstop("'at' gives covariate '%s' one finite value when it is not in the classify set", v$name)
      valpos[[k]] <- as.double(a)
    }
    w <- weights[[v$name]]
    if (!is.null(w)) {
      if (v$kind != 1L || role[k] %in% c(3L, 4L)) pstop("'weights' are for averaged factors; '%s' is not one", v$name)
      if (!is.numeric(w) || length(w) != v$nlev || any(!is.finite(w)))
        pstop("'weights' for '%s' must be %d finite numbers, one a level", v$name, v$nlev)
      if (!is.null(names(w))) {
        if (!setequal(names(w), v$levels)) pstop("'weights' for '%s' must be named by its levels", v$name)
        w <- w[v$levels]
      }
      valpos[[k]] <- as.double(w)
    }
  }
  for (nm in names(weights)) {
    k <- pred_var(pm, nm, "'weights' factor")
    if (role[k] == 1L && !several) pstop("'weights' are for averaged factors; '%s' is in the classify set", nm)
  }
  # Terms of the fixed model the engine cannot expand.
  for (p in pm$positions)
    if (!p$random && !p$missing && anyNA(p$vars))
      pstop("predictions are not available yet for models with the fixed term '%s'", p$name)
  counts <- vapply(lists, length, 1L)
  list(cls = cls, cnames = cnames, cv = unname(cv), lists = lists, counts = counts, n = as.integer(prod(counts)),
       role = role, valpos = valpos)
}

# The predict argument of the model-fit entry for all tables.
pred_request <- function(pm, tabs) {
  nv <- length(pm$vars)
  ntab <- length(tabs)
  nr <- sum(vapply(tabs, `[[`, 1L, "n"))
  reals <- double()
  ivals <- integer()
  nptabl <- integer(16L * ntab)
  npos <- 0
  first <- 0L
  mats <- 0
  put_real <- function(v) {
    at <- 4 * nr + length(reals)
    reals <<- c(reals, v)
    as.integer(at)
  }
  for (t in seq_len(ntab)) {
    tb <- tabs[[t]]
    block <- length(ivals)
    vp <- vapply(seq_len(nv), function(k) if (is.null(tb$valpos[[k]])) -1L else put_real(tb$valpos[[k]]), 1L)
    cl <- integer()
    lists_i <- integer()
    for (j in seq_along(tb$cv)) {
      v <- pm$vars[[tb$cv[j]]]
      pos <- if (v$kind == 1L) {
        p <- block + 2L * nv + 3L * length(tb$cv) + length(lists_i)
        lists_i <- c(lists_i, as.integer(tb$lists[[j]]))
        p
      } else put_real(tb$lists[[j]])
      cl <- c(cl, tb$cv[j], tb$counts[j], as.integer(pos))
    }
    ivals <- c(ivals, tb$role, vp, cl, lists_i)
    keep <- tb$n <= max_full_table
    h <- c(length(tb$cv), tb$n, block, 0L, first, if (keep) as.integer(mats) else -1L, if (keep) 0L else 1L)
    nptabl[16L * (t - 1L) + seq_along(h)] <- h
    if (keep) mats <- mats + tb$n * (tb$n + 1)
    first <- first + tb$n
  }
  npfact <- c(nv, unlist(lapply(pm$vars, function(v) c(v$kind, v$col, v$nlev))), pm$termvar)
  if (mats > .Machine$integer.max) pstop("the tables are too large")
  fi <- function(v) { o <- integer(length(v)); o[] <- as.integer(v); o }
  pv <- double(4 * nr + max(1L, length(reals)))
  if (length(reals)) pv[4 * nr + seq_along(reals)] <- reals
  list(npred = fi(ntab), nfinmd = fi(0L), pvals = fresh_copy(pv), lpvals = fi(nr), lpwts = fi(length(reals)),
       prdvals = matrix(0, nr, 5L), nptabl = fi(nptabl), npfact = fi(npfact), ivals = fi(c(ivals, 0L)),
       vpvmat = double(max(1, mats)), avsed = double(10L * ntab), pvtext = raw(32768L * ntab))
}

# The refit from the fit's variance parameters, held fixed, with the tables
# asked for.  More work array after a shortage, as the fit itself does.
pred_run <- function(fit, pm, tabs) {
  model <- fit$model
  table <- fit$table
  struc <- build_struc(model, table)
  if (inherits(fit, "tarnel_glm")) {
    # Tables of a generalised model come from its working model.
    wm <- glm_working_model(fit)
    model <- wm$model
    table <- wm$table
    struc <- glm_working_struc(fit, wm)
  }
  pars <- struc$params
  free <- pars$kind == "scale" & fit$profiled
  con <- stats::setNames(rep("fixed", sum(!free)), pars$name[!free])
  struc <- apply_constraints(struc, fit$gammas, con, NULL, NULL)
  control <- tarnel_control(maxiter = 1L, workspace = fit$workspace)
  ws <- fit$workspace
  nr <- sum(vapply(tabs, `[[`, 1L, "n"))
  neq <- as.double(table$inter$neq)
  neqd <- as.double(table$inter$neqd)
  mats <- sum(vapply(tabs, function(t) if (t$n <= max_full_table) t$n * (t$n + 1) else 0, 1))
  pws <- ceiling(4 * (11 * neq + 3000) + 8 * nr + mats + 2 * nr * (neqd + 50) + 6 * neq + 1e4)
  repeat {
    args <- ctrn_args(model, table, struc, keep_design = FALSE, control = control, workspace = ws,
                      predict = list(request = pred_request(pm, tabs), pworkspace = pws))
    # The engine's text goes into a log, as in a fit: the run prints nothing.
    status <- with_engine_console(
      .Call(C_ctrn, args$datafr, args$iarg, args$dpmv, args$inter, args$struc, args$ainv,
            args$glm, args$predict, args$constr, args$mbfList, args$control, args$aiopt,
            args$trn, args$design),
      trace = FALSE, progress = FALSE, trn = args$trn, stride = length(args$struc$gammas) + 2L)
    attr(status, "log") <- NULL
    text <- engine_error_text(args$trn$errtxt)
    if (status != 0L && grepl("Insufficient predict workspace", text, fixed = TRUE)) {
      if (pws * 4 > control$max_workspace) pstop("the tables need more than %.0f words of prediction work array", pws)
      pws <- pws * 4
      next
    }
    if (status != 0L && shortage(status, text)) {
      if (ws * 4 > control$max_workspace) pstop("%s", text)
      ws <- ws * 4
      next
    }
    if (status != 0L) pstop("%s (engine status %d)", if (nzchar(text)) text else "the engine failed", status)
    break
  }
  p <- args$predict
  if (!length(p$pvtext) || p$pvtext[1L] == as.raw(0L))
    pstop("the engine did not form the tables (%s)", if (nzchar(text)) text else "no report")
  p
}

rescale_prediction <- function(x, s) {
  x$pvals$predicted.value <- x$pvals$predicted.value * s
  x$pvals$std.error <- x$pvals$std.error * s
  if (!is.null(x$sed)) x$sed <- x$sed * s
  if (!is.null(x$vcov)) x$vcov <- x$vcov * s^2
  x$avsed$overall <- x$avsed$overall * s
  x$avsed$mean <- x$avsed$mean * s
  x$avsed$groups[c("min", "mean", "max")] <- x$avsed$groups[c("min", "mean", "max")] * s
  x
}

unpack_marked <- function(v, n) {
  m <- unpack_lower(v, n)
  m[m >= 9.9e36] <- NA
  m
}

# One table of the result.
pred_result <- function(p, pm, tb, k, want_sed, want_vcov) {
  h <- p$nptabl[16L * (k - 1L) + 1:6]
  n <- h[2L]
  rows <- h[5L] + seq_len(n)
  grid <- lapply(seq_along(tb$cv), function(j) {
    v <- pm$vars[[tb$cv[j]]]
    if (v$kind == 1L) factor(v$levels[tb$lists[[j]]], levels = v$levels) else tb$lists[[j]]
  })
  names(grid) <- tb$cnames
  df <- if (length(grid)) rev(expand.grid(rev(grid), KEEP.OUT.ATTRS = FALSE, stringsAsFactors = FALSE)) else
    data.frame(row.names = 1L)
  st <- p$prdvals[rows, 3L]
  df$predicted.value <- p$prdvals[rows, 1L]
  df$std.error <- p$prdvals[rows, 2L]
  df$status <- factor(c("estimable", "aliased", "empty")[st + 1L], levels = c("estimable", "aliased", "empty"))
  rownames(df) <- NULL
  V <- S <- NULL
  if (h[6L] >= 0L) {
    np <- n * (n + 1) / 2
    V <- unpack_marked(p$vpvmat[h[6L] + seq_len(np)], n)
    S <- unpack_marked(p$vpvmat[h[6L] + np + seq_len(np)], n)
    bad <- st != 0
    S[bad, ] <- NA
    S[, bad] <- NA
    lab <- if (length(grid)) do.call(paste, c(unname(as.list(df[tb$cnames])), sep = ":")) else "(Intercept)"
    dimnames(V) <- dimnames(S) <- list(lab, lab)
  }
  av <- p$avsed[10L * (k - 1L) + 1:10]
  gnames <- if (length(tb$cv) == 2L)
    c(sprintf("same %s", tb$cnames[2L]), sprintf("same %s", tb$cnames[1L]), "both differ") else c("all pairs", "", "")
  groups <- data.frame(pairs = gnames, min = av[c(2, 5, 8)], mean = av[c(3, 6, 9)], max = av[c(4, 7, 10)])
  if (length(tb$cv) != 2L) groups <- groups[1L, , drop = FALSE]
  mean_sed <- if (!is.null(S) && n > 1L) mean(S[lower.tri(S)], na.rm = TRUE) else if (length(tb$cv) != 2L) av[3L] else NA_real_
  if (is.nan(mean_sed)) mean_sed <- NA_real_
  txt <- p$pvtext[32768L * (k - 1L) + seq_len(32768L)]
  txt <- rawToChar(txt[seq_len(max(0L, match(as.raw(0L), txt, nomatch = 32769L) - 1L))])
  report <- strsplit(txt, "\n", fixed = TRUE)[[1L]]
  structure(list(classify = tb$cls, pvals = df, sed = if (want_sed) S else NULL, vcov = if (want_vcov) V else NULL,
                 avsed = list(overall = av[1L], mean = mean_sed, groups = groups), report = report),
            class = "tarnel_prediction")
}

#' @export
print.tarnel_prediction <- function(x, digits = max(4L, getOption("digits") - 3L), ...) {
  for (l in x$report) cat(" ", trimws(l, "right"), "\n", sep = "")
  cat("\n")
  print(x$pvals, digits = digits, row.names = FALSE)
  if (!is.na(x$avsed$overall)) {
    cat(sprintf("\nAverage SED: %s (mean of SEDs %s)\n", format(x$avsed$overall, digits = digits),
                format(x$avsed$mean, digits = digits)))
    if (nrow(x$avsed$groups) > 1L) print(x$avsed$groups, digits = digits, row.names = FALSE)
  }
  invisible(x)
}

#' @export
print.tarnel_predictions <- function(x, ...) {
  for (k in seq_along(x)) {
    if (k > 1L) cat("\n")
    print(x[[k]], ...)
  }
  invisible(x)
}

#' @export
as.data.frame.tarnel_prediction <- function(x, row.names = NULL, optional = FALSE, ...) {
  df <- x$pvals
  if (!is.null(row.names)) rownames(df) <- row.names
  df
}

#' @export
plot.tarnel_prediction <- function(x, level = 0.95, xlab = NULL, ylab = "predicted value", main = NULL, ...) {
  df <- x$pvals
  cn <- setdiff(names(df), c("predicted.value", "std.error", "status", "response", "response.se"))
  n <- nrow(df)
  q <- stats::qnorm(1 - (1 - level) / 2)
  lo <- df$predicted.value - q * df$std.error
  hi <- df$predicted.value + q * df$std.error
  lab <- if (length(cn)) do.call(paste, c(unname(as.list(df[cn])), sep = ":")) else "overall"
  group <- if (length(cn) >= 2L) as.integer(factor(df[[cn[1L]]])) else rep(1L, n)
  yr <- range(c(lo, hi, df$predicted.value), na.rm = TRUE)
  if (!all(is.finite(yr))) yr <- c(0, 1)
  # Upright labels when there are many cells, with room below for them.
  upright <- n > 6L
  bottom <- if (upright) min(20, 1.5 + 0.36 * max(nchar(lab))) else 4
  old <- graphics::par(mar = c(bottom + 1, 4.1, 4.1, 2.1))
  on.exit(graphics::par(old))
  graphics::plot(seq_len(n), df$predicted.value, ylim = yr, xaxt = "n", pch = 19, col = group,
                 xlab = "", ylab = ylab, xlim = c(0.5, n + 0.5),
                 main = if (is.null(main)) sprintf("Predicted values with %g%% intervals", 100 * level) else main, ...)
  graphics::axis(1, at = seq_len(n), labels = lab, las = if (upright) 2L else 1L, cex.axis = 0.8)
  graphics::title(xlab = if (is.null(xlab)) paste(cn, collapse = ":") else xlab, line = bottom)
  ok <- is.finite(lo) & is.finite(hi) & hi > lo
  if (any(ok)) graphics::arrows(which(ok), lo[ok], which(ok), hi[ok], angle = 90, code = 3, length = 0.04, col = group[ok])
  if (any(df$status != "estimable"))
    graphics::mtext(sprintf("%d cells not estimable", sum(df$status != "estimable")), side = 3, line = 0.2, cex = 0.8)
  invisible(x)
}
