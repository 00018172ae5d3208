# The term table: every leaf and interaction of a parsed model as a column
# of (code, a, b, c), with its levels, data form, constant and name, and
# the fitted order of the model positions.

new_table <- function() {
  env <- new.env(parent = emptyenv())
  env$rows <- list()
  env$keys <- character()
  env$IBV <- integer()
  env$JBV <- double()
  env
}

# Adds a term (once for a given key) and returns its number.
table_add <- function(tab, key, code, a, b, c, flev, nlev, faconst, labels, maxent, levels = labels) {
  hit <- match(key, tab$keys)
  if (!is.na(hit)) return(hit)
  tab$rows[[length(tab$rows) + 1L]] <- list(code = as.integer(code), a = as.integer(a), b = as.integer(b),
                                            c = as.integer(c), flev = as.integer(flev), nlev = as.integer(nlev),
                                            faconst = as.double(faconst), name = key, labels = labels,
                                            levels = as.character(levels), maxent = as.integer(maxent))
  tab$keys <- c(tab$keys, key)
  length(tab$rows)
}

table_leaf <- function(tab, lf) {
  a <- lf$a
  hit <- match(lf$key, tab$keys)
  if (!is.na(hit)) return(hit)
  if (!is.null(lf$itable)) {
    a <- length(tab$IBV) + 1L
    tab$IBV <- c(tab$IBV, lf$itable)
  }
  c <- lf$c
  if (!is.null(lf$jtable)) {
    # A spline's knot list is found by its fourth value; the engine puts the
    # number of its table in the second.
    if (lf$code == -3L) c <- length(tab$JBV) + 1L else a <- length(tab$JBV) + 1L
    tab$JBV <- c(tab$JBV, lf$jtable)
  }
  table_add(tab, lf$key, lf$code, a, lf$b, c, lf$flev, lf$nlev, lf$faconst, lf$labels, lf$maxent,
            if (is.null(lf$levels)) lf$labels else lf$levels)
}

# An interaction of terms x and y: y's levels run fastest.
table_cross <- function(tab, x, y) {
  rx <- tab$rows[[x]]
  ry <- tab$rows[[y]]
  labels <- as.vector(outer(ry$labels, rx$labels, function(b, a) paste(a, b, sep = ":")))
  levels <- as.vector(outer(ry$levels, rx$levels, function(b, a) paste(a, b, sep = ":")))
  table_add(tab, paste(rx$name, ry$name, sep = ":"), x, y, 0L, 0L, rx$flev * ry$flev, 0L, 0,
            labels, rx$maxent * ry$maxent, levels)
}

# The model positions of one parsed term: usually one, one a level for a
# term conditioned by at().
term_positions <- function(tab, term) {
  isat <- vapply(term$vars, function(v) identical(v$kind, "at"), TRUE)
  if (sum(isat) > 1L) tstop("term '%s' uses at() more than once", term$label)
  rest <- NULL
  for (v in term$vars[!isat]) {
    t <- table_leaf(tab, v)
    rest <- if (is.null(rest)) t else table_cross(tab, rest, t)
  }
  if (!any(isat)) return(rest)
  at <- term$vars[[which(isat)]]
  ft <- table_leaf(tab, at$factor)
  vapply(seq_along(at$levels), function(k) {
    lev <- at$levels[k]
    if (is.null(rest)) {
      table_add(tab, at$labels[k], ft, 0L, -lev, 0L, 1L, 0L, 0, at$labels[k], 1L)
    } else {
      rr <- tab$rows[[rest]]
      table_add(tab, paste(at$labels[k], rr$name, sep = ":"), ft, rest, -lev, 0L, rr$flev, 0L, 0,
                paste(at$labels[k], rr$labels, sep = ":"), rr$maxent)
    }
  }, 1L)
}

# Whether the fixed term `term` may go into the sparse equations: a factor
# or an interaction of factors (one equation a level, each record in one
# level), so that its design columns are indicators of a level.
sparse_eligible <- function(term) {
  length(term$vars) > 0L && all(vapply(term$vars, function(v) {
    identical(v$kind, "leaf") && identical(v$code, 0L) && identical(v$nlev, 1L) &&
      is.null(v$itable) && is.null(v$jtable) && !(v$flev == 1L && identical(v$labels, v$key))
  }, TRUE))
}

#' @noRd
# `sparse_fixed`: the level count from which a fixed factor (or interaction
# of factors) is put among the sparse equations, with the random terms,
# instead of in the dense block; its equations are then ordered and
# absorbed like those of the random terms.
build_term_table <- function(model, sparse_fixed = Inf) {
  tab <- new_table()
  store <- model$store
  ycol <- 1L
  yt <- table_add(tab, model$response, 0L, 0L, ycol, 0L, 1L, 1L, 0, model$response, 1L)
  positions <- integer()
  if (model$fixed$intercept)
    positions <- c(positions, table_add(tab, "(Intercept)", -8L, 0L, 0L, 0L, 1L, 0L, 0, "(Intercept)", 1L))
  sparse <- list()
  for (term in model$fixed$terms) {
    p <- term_positions(tab, term)
    if (length(p) == 1L && tab$rows[[p]]$flev >= sparse_fixed && sparse_eligible(term)) {
      sparse[[length(sparse) + 1L]] <- list(position = p, label = term$label,
                                            cols = vapply(term$vars, `[[`, 1L, "b"),
                                            flev = vapply(term$vars, `[[`, 1L, "flev"))
    } else {
      positions <- c(positions, p)
    }
  }
  mvact <- 0L
  nmiss <- sum(is.na(model$y))
  if (model$na_response == "estimate" && nmiss > 0L) {
    mvact <- table_add(tab, "(missing)", -4L, 0L, 0L, 0L, nmiss, 0L, 0, paste0("(missing)", seq_len(nmiss)), 1L)
    positions <- c(positions, mvact)
  } else if (model$na_response == "keep") {
    mvact <- -1L
  }
  nfixed <- length(positions)
  random_positions <- list()
  if (!is.null(model$random))
    for (term in model$random$terms) {
      p <- term_positions(tab, term)
      random_positions[[length(random_positions) + 1L]] <- length(positions) + seq_along(p)
      positions <- c(positions, p)
    }
  # The sparse fixed terms come last, after the random terms: a record adds
  # to the row of the later of two crossed equations the column of the
  # earlier one, so the rows of a factor with many levels and few records
  # a level stay short while the SSP is formed.
  for (k in seq_along(sparse)) {
    positions <- c(positions, sparse[[k]]$position)
    sparse[[k]]$position <- length(positions)
  }
  if (anyDuplicated(positions)) tstop("a term appears twice in the model: %s", tab$keys[positions[duplicated(positions)][1]])

  rows <- tab$rows
  flev <- vapply(rows, `[[`, 1L, "flev")
  pflev <- flev[positions]
  neq <- 1 + sum(as.double(pflev))
  if (neq > .Machine$integer.max) tstop("the model has too many equations")
  labels <- unlist(lapply(rows[positions], `[[`, "labels"))
  inter <- matrix(unlist(lapply(rows, function(r) c(r$code, r$a, r$b, r$c))), nrow = 4L)
  storage.mode(inter) <- "integer"
  mk_int <- function(v) { out <- integer(length(v)); out[] <- as.integer(v); out }
  list(
    inter = list(
      inter = inter,
      flev = mk_int(flev),
      nlev = mk_int(vapply(rows, `[[`, 1L, "nlev")),
      IBV = if (length(tab$IBV)) mk_int(tab$IBV) else integer(1),
      JBV = if (length(tab$JBV)) as.double(tab$JBV) else double(1),
      neword = mk_int(positions),
      submds = integer(length(positions)),
      submod = integer(1),
      faconst = vapply(rows, `[[`, 1, "faconst"),
      points = double(1),
      neq = mk_int(neq),
      neqd = mk_int(1 + sum(pflev[seq_len(nfixed)])),
      facnam = vapply(rows, `[[`, "", "name")
    ),
    nycol = yt,
    mvact = mvact,
    labels = labels,
    # Model positions: the dense fixed terms first (their equations form
    # the dense block), then the random terms, then the sparse fixed terms.
    fixed_positions = c(seq_len(nfixed), vapply(sparse, `[[`, 1L, "position")),
    ndense_positions = nfixed,
    # The sparse fixed terms: model position, label, and the data columns
    # and level counts of their factors.
    sparse_fixed = sparse,
    random_positions = random_positions,
    position_names = tab$keys[positions],
    position_levels = pflev,
    # The level names of each model position (factor levels, "a:b" for
    # interactions), for the tables of random effects.
    level_names = lapply(rows[positions], `[[`, "levels"),
    missing_term = if (mvact > 0L) mvact else 0L,
    nrecords = model$nrow,
    maxent = vapply(rows, `[[`, 1L, "maxent")[positions],
    data = column_matrix(store)
  )
}
