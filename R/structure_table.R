# The parameter table of the variance structures and the engine's section
# table built from it; start values, constraints and known matrices.
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

# Builds the parameter table and the engine's structure lists.
build_struc <- function(model, table) {
  nfactp <- length(table$inter$neword)
  resid <- model$resid
  # With several responses the residual covariance across traits carries
  # the scale, so nothing is profiled.
  profiled <- !resid$kind %in% c("het", "multi")
  y <- model$y
  vy <- stats::var(y, na.rm = TRUE)
  if (!is.finite(vy) || vy <= 0) vy <- 1
  v0 <- if (profiled) 0.1 else 0.1 * vy
  # vgroup, lev1 and lev2 place a parameter in the table of VarCorr():
  # the grouping it belongs to and the one or two levels (or random
  # coefficients) it joins.
  pars <- data.frame(name = character(), gamma = integer(), kind = character(), group = character(),
                     start = double(), code = integer(), vgroup = character(), lev1 = character(),
                     lev2 = character(), stringsAsFactors = FALSE)
  add_par <- function(name, kind, group, start, code, vgroup = group, lev1 = NA_character_, lev2 = NA_character_) {
    one <- function(v) if (length(v)) as.character(v[1L]) else NA_character_
    pars[nrow(pars) + 1L, ] <<- list(name, 0L, kind, group, start, code, vgroup, one(lev1), one(lev2))
  }
  gam <- double(nfactp)
  code_of <- function(kind) if (kind %in% c("variance", "scale")) 1L else 3L
  tyfact <- integer(nfactp)
  secs <- list()
  known <- list()
  gpos <- nfactp
  new_section <- function(sp, gfirst, npar, g14) {
    secs[[length(secs) + 1L]] <<- c(sp$order, npar, sp$model, gfirst, 0L, sp$band, 0L, 0L, 0L, 0L, 0L, 0L, 0L, g14, 1L)
    if (!is.null(sp$coords)) known[[length(known) + 1L]] <<- spatial_known(sp, length(secs))
    length(secs)
  }
  # Random terms.
  groups <- if (is.null(model$random)) list() else model$random$groups
  rpos <- table$random_positions
  ident <- which(vapply(groups, function(g) g$kind == "identity", TRUE))
  starts <- rep(v0, length(rpos))
  # (A generalised model starts every variance on the scale of the linear
  # predictor instead: see glm_struc().)
  if (length(ident) && !isTRUE(model$generalised)) {
    tt <- unlist(lapply(groups[ident], `[[`, "terms"))
    starts[tt] <- moment_starts(model, model$random$terms[tt], v0, profiled, vy)
  }
  for (g in groups) {
    pos <- unlist(rpos[g$terms])
    if (g$kind == "identity") {
      for (p in pos) {
        gam[p] <- starts[g$terms[1]]
        tyfact[p] <- p
        add_par(table$position_names[p], "variance", g$label, gam[p], 1L, lev1 = "(Intercept)")
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
      # The overall variance rides on the first correlation structure or
      # known matrix as its scale; on an identity only when there is nothing
      # else.  A known matrix takes it as its own single parameter.
      cors <- which(vapply(secs_specs, function(s) s$model != 0L, TRUE))
      at <- if (length(cors)) cors[1] else 1L
      secs_specs[[at]]$names <- c(secs_specs[[at]]$names, "variance")
      secs_specs[[at]]$kind <- c(secs_specs[[at]]$kind, "variance")
      secs_specs[[at]]$start <- c(secs_specs[[at]]$start, v0)
      secs_specs[[at]]$scalepos <- secs_specs[[at]]$model != 0L && is.null(secs_specs[[at]]$known)
    }
    for (s in secs_specs) {
      npar <- length(s$names)
      r <- new_section(s, if (npar) gpos + 1L else 0L, npar, 1L)
      if (isTRUE(s$scalepos)) secs[[r]][13L] <- gpos + npar
      for (k in seq_len(npar)) {
        gpos <- gpos + 1L
        nm <- structure_param_name(g, s, k)
        add_par(nm$name, s$kind[k], g$label, s$start[k], section_code(s, k, code_of(s$kind[k])), nm$vgroup, s$lev1[k], s$lev2[k])
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
      add_par(sprintf("residual: %s %s", resid$factor, resid$levels[s]), "variance", "residual", start, 1L,
              "Residual", resid$levels[s])
      pars$gamma[nrow(pars)] <- gpos
      nrsect[, s] <- c(counts[s], 0L, r)
    }
  } else {
    if (resid$kind == "spatial") resid$specs <- spatial_residual_specs(resid, model)
    # Several responses: records independent (an identity over them), the
    # traits of a record structured.
    if (resid$kind == "multi")
      resid$specs <- list(list(fn = "cov_id", factor = "units", het = FALSE, key = "units",
                               levels = as.character(seq_len(nrec %/% length(resid$trait$levels)))), resid$trait)
    first <- length(secs) + 1L
    for (sp in resid$specs) {
      s <- section_spec(sp, sp$levels, 1, 1)
      npar <- length(s$names)
      new_section(s, if (npar) gpos + 1L else 0L, npar, 0L)
      for (k in seq_len(npar)) {
        gpos <- gpos + 1L
        add_par(sprintf("residual: %s %s", sp$factor, s$names[k]), s$kind[k], "residual", s$start[k],
                section_code(s, k, code_of(s$kind[k])), "Residual", s$lev1[k], s$lev2[k])
        pars$gamma[nrow(pars)] <- gpos
      }
    }
    n <- length(resid$specs)
    nrsect <- matrix(c(nrec, 0L, if (n == 1L) first else n * 10000L + first), 3L, 1L)
  }
  # The residual scale, last.
  gpos <- gpos + 1L
  nrsect[2L, ] <- gpos
  add_par("residual", "scale", "residual", 1, if (profiled) 1L else 4L, "Residual")
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
  out <- list(nobs = sum(!is.na(model$y)), vy = if (profiled) 1 else vy, yscale = model$yscale,
              struc = struc, nspat = 0L, nrsect = nrsect, gammas = gammas, tgamma = tgamma,
              printGammas = printg, tyfact = if (nfactp) tyfact else 0L, gmcstr = gmcstr, nfrstg = 1L,
              params = pars, ngamma = ngamma, nfactp = nfactp, profiled = profiled, ainv = known_table(known))
  apply_constraints(out, NULL, NULL, NULL, NULL)
}

# The constraint code of parameter k of a section: its own when it gives
# one, else the default of its kind.
section_code <- function(s, k, default) if (k <= length(s$code)) s$code[k] else default

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
# gives the engine's constraint list.  Starts are on the scale of the
# parameter table (ratios when the residual variance is profiled,
# components otherwise, in the user's units of the response).
apply_constraints <- function(struc, start, constrain, equal, lincon) {
  pars <- struc$params
  find <- function(nms, what) {
    if (!is.character(nms)) tstop("%s must name parameters", what)
    k <- match(nms, pars$name)
    if (anyNA(k)) tstop("%s: no parameter named %s; the parameters are: %s", what,
                        paste0("'", nms[is.na(k)][1], "'"), paste(pars$name, collapse = ", "))
    if (anyDuplicated(k)) tstop("%s names the parameter '%s' twice", what, nms[duplicated(k)][1])
    k
  }
  codes <- c(fixed = 4L, positive = 1L, unconstrained = 3L)
  kc <- integer()
  if (!is.null(constrain)) {
    if (!is.character(constrain) || is.null(names(constrain))) tstop("'constrain' must be a named character vector such as c(name = \"fixed\")")
    kc <- find(names(constrain), "'constrain'")
    m <- codes[constrain]
    if (anyNA(m)) tstop("'constrain': the value of '%s' must be \"fixed\", \"positive\" or \"unconstrained\", not %s",
                        names(constrain)[is.na(m)][1], show_value(unname(constrain[is.na(m)][1])))
    struc$gmcstr[pars$gamma[kc]] <- unname(m)
  }
  code_now <- struc$gmcstr[pars$gamma]
  # Components (not ratios) are held in the units of the scaled response.
  ys <- if (is.null(struc$yscale)) 1 else struc$yscale
  comp <- !struc$profiled & pars$kind %in% c("variance", "covariance")
  unit <- ifelse(comp, ys^2, 1)
  if (!is.null(start)) {
    if (!is.numeric(start) || is.null(names(start))) tstop("'start' must be a named numeric vector of parameter values")
    k <- find(names(start), "'start'")
    v <- as.double(start)
    for (j in seq_along(k)) v[j] <- check_start(v[j], pars[k[j], ], code_now[k[j]], struc$vy * unit[k[j]], unit[k[j]])
    struc$gammas[pars$gamma[k]] <- v / unit[k]
  }
  ngamma <- struc$ngamma
  gequal <- 0L
  nequal <- 0L
  if (!is.null(equal)) {
    if (!is.list(equal)) equal <- list(equal)
    gequal <- integer(ngamma)
    for (i in seq_along(equal)) {
      k <- find(equal[[i]], "'equal'")
      if (length(k) < 2L) tstop("each set in 'equal' needs at least two parameters")
      if (any(gequal[pars$gamma[k]] != 0L)) tstop("'equal': the parameter '%s' is in two sets", pars$name[k[gequal[pars$gamma[k]] != 0L][1]])
      gequal[pars$gamma[k]] <- i
      struc$gammas[pars$gamma[k]] <- mean(struc$gammas[pars$gamma[k]])
      nequal <- nequal + length(k) - 1L
    }
  }
  ngmcon <- 0L
  gmcon <- 0
  if (!is.null(lincon)) {
    if (!is.matrix(lincon) || !is.numeric(lincon) || is.null(rownames(lincon)) || any(!is.finite(lincon)))
      tstop("'lincon' must be a numeric matrix of finite values with parameter names as row names, one column a constraint")
    k <- find(rownames(lincon), "'lincon'")
    zero <- which(colSums(lincon != 0) == 0)
    if (length(zero)) tstop("'lincon': column %d has no nonzero coefficient, so it constrains nothing", zero[1])
    gmcon <- matrix(0, ngamma, ncol(lincon))
    gmcon[pars$gamma[k], ] <- lincon
    ngmcon <- ncol(lincon)
  }
  if (!is.null(struc$nobs)) {
    free <- sum(struc$gmcstr[pars$gamma] != 4L) - nequal - ngmcon
    if (free > struc$nobs - 1L)
      tstop("the model has %d variance parameters to estimate but only %d records with a response; it needs more records than parameters",
            free, struc$nobs)
  }
  fresh_int <- function(v) { out <- integer(length(v)); out[] <- as.integer(v); out }
  struc$gmcstr <- fresh_int(struc$gmcstr)
  gm <- double(length(struc$gammas)); gm[] <- struc$gammas; struc$gammas <- gm
  struc$tgamma <- fresh_int(struc$tgamma)
  struc$constr <- list(ngmcon = fresh_int(ngmcon), gequal = fresh_int(gequal), gmcon = as.double(gmcon))
  struc
}

# One start value, checked against its parameter's kind and constraint
# code.  A zero start of a variance that is not held fixed becomes a small
# positive value: at exactly 0 the engine would leave it out of the update
# and hold it there (and read a random term's 0 as a fixed term).  `ref` is the size of a typical component (or 1 for a
# ratio); `unit` turns the table's start into the user's units.
check_start <- function(v, par, code, ref, unit) {
  nm <- par$name
  if (!is.finite(v)) tstop("'start': the value of '%s' must be a finite number, not %s", nm, show_value(v))
  if (par$kind == "correlation" && code != 4L && !(abs(v) < 1))
    tstop("'start': '%s' is a correlation and must lie strictly between -1 and 1, not %s", nm, show_value(v))
  if (par$kind %in% c("variance", "scale")) {
    if (v < 0 && code != 3L)
      tstop("'start': '%s' is a variance and must not be negative (%s); give constrain = c(\"%s\" = \"unconstrained\") to allow negative values",
            nm, show_value(v), nm)
    if (abs(v) > 1e10 * ref)
      tstop("'start': the value %s of '%s' is far beyond the scale of the data (a start of at most %.3g is sensible)",
            show_value(v), nm, 1e10 * ref)
    if (v == 0 && code != 4L) v <- 0.01 * abs(par$start) * unit
    # Held at 0 on purpose: a variance of exactly 0 would turn a random
    # term into a fixed one, so it is held at a value too small to matter.
    if (v == 0 && code == 4L && par$kind == "variance") v <- 1e-8 * ref
  }
  v
}

# The engine's table of known matrices: five integers a row (size, type,
# start in the real store, index in the integer store, rank) and the two
# stores, one matrix after the other.
known_table <- function(known) {
  if (!length(known)) return(list(nainv = 0L, lcainv = 0L, llainv = 0L, ainv = 0, words = 0))
  tab <- integer(); real <- double(); int <- integer()
  for (k in known) {
    tab <- c(tab, k$size, k$type, length(real) + 1L, length(int) + 1L, k$rank)
    real <- c(real, k$real)
    int <- c(int, k$integer)
  }
  if (length(real) > 2^31 - 1 || length(int) > 2^31 - 1) tstop("the known matrices are too large")
  # Work array words the distance-based sections take in the engine.
  words <- sum(vapply(known, function(k) if (is.null(k$words)) 0 else k$words, 0))
  list(nainv = length(known), lcainv = as.integer(tab), llainv = as.integer(int), ainv = as.double(real),
       words = words)
}
