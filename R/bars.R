# lme4's random-effect terms in tarnel formulae.  A bar term, in the random
# formula or among the fixed terms, becomes the package's own term:
#
#   (1 | g)         g                            a variance for the levels of g
#   (1 | a/b)       a + a:b                      nested groupings
#   (1 | a:b)       a:b
#   (x | g)         coefs(g, ~ x)                intercept and slope, unstructured
#   (0 + x | g)     coefs(g, ~ 0 + x)            a slope alone
#   (x || g)        coefs(g, ~ x, cov = "diag")  intercept and slope, uncorrelated
#
# The grouping variables are factors: a numeric or character grouping
# column is turned into a factor of its values, and levels that do not
# occur are dropped, as lme4 does.

is_bar <- function(e) is.call(e) && as.character(e[[1L]])[1L] %in% c("|", "||")

# Splits an expression at its top-level '+' signs (through parentheses
# around a bar term).
split_sum <- function(e) {
  if (is.call(e) && identical(e[[1L]], as.name("+")) && length(e) == 3L) return(c(split_sum(e[[2L]]), split_sum(e[[3L]])))
  list(e)
}
unparen <- function(e) {
  while (is.call(e) && identical(e[[1L]], as.name("("))) e <- e[[2L]]
  e
}
join_sum <- function(parts) Reduce(function(a, b) call("+", a, b), parts)

# The grouping factors of a bar's right side: a, a:b, a/b (= a + a:b).
bar_groupings <- function(g, key) {
  g <- unparen(g)
  if (is.name(g)) return(list(g))
  if (is.call(g) && identical(g[[1L]], as.name("/")) && length(g) == 3L) {
    outer <- bar_groupings(g[[2L]], key)
    inner <- bar_groupings(g[[3L]], key)
    last <- outer[[length(outer)]]
    return(c(outer, lapply(inner, function(i) call(":", last, i))))
  }
  if (is.call(g) && identical(g[[1L]], as.name(":")) && length(g) == 3L) return(list(g))
  tstop("the random term '%s': the grouping must be a factor, a:b or a/b", key)
}

# One bar term as a list of the package's terms, and the grouping columns
# it names.
translate_bar <- function(e, env) {
  key <- paste(deparse(e, width.cutoff = 500L), collapse = "")
  diag <- identical(as.character(e[[1L]])[1L], "||")
  lhs <- e[[2L]]
  groups <- bar_groupings(e[[3L]], key)
  cols <- unique(unlist(lapply(groups, all.vars)))
  tf <- stats::terms(stats::as.formula(call("~", lhs), env = env))
  intercept_only <- length(attr(tf, "term.labels")) == 0L
  if (intercept_only) {
    if (attr(tf, "intercept") != 1L) tstop("the random term '%s' has neither an intercept nor a slope", key)
    return(list(terms = groups, columns = cols))
  }
  if (length(groups) > 1L || !is.name(groups[[1L]]))
    tstop("the random term '%s': random slopes need one grouping factor; make a column for the grouping (interaction(a, b)) and use (x | ab)", key)
  slope <- call("~", lhs)
  term <- if (diag) call("coefs", groups[[1L]], slope, cov = "diag") else call("coefs", groups[[1L]], slope)
  list(terms = list(term), columns = cols)
}

# Takes lme4's bar terms out of the fixed and random formulae and gives the
# formulae in the package's own terms, with the grouping columns made
# factors in the data.
translate_bars <- function(fixed, random, data, env) {
  bars <- list()
  rhs <- split_sum(fixed[[3L]])
  isbar <- vapply(rhs, function(e) is_bar(unparen(e)), TRUE)
  if (any(isbar)) {
    bars <- lapply(rhs[isbar], unparen)
    rest <- rhs[!isbar]
    fixed[[3L]] <- if (length(rest)) join_sum(rest) else 1
  }
  other <- list()
  if (!is.null(random)) {
    if (!inherits(random, "formula") || length(random) != 2L) tstop("'random' must be a one-sided formula")
    parts <- split_sum(random[[2L]])
    rb <- vapply(parts, function(e) is_bar(unparen(e)), TRUE)
    bars <- c(bars, lapply(parts[rb], unparen))
    other <- parts[!rb]
  }
  if (!length(bars)) return(list(fixed = fixed, random = random, data = data))
  terms <- other
  for (b in bars) {
    tr <- translate_bar(b, env)
    for (col in tr$columns) {
      # As lme4 does: the grouping is a factor of the levels that occur.
      data[[col]] <- droplevels(factor(data_column(data, col)))
    }
    terms <- c(terms, tr$terms)
  }
  labels <- vapply(terms, function(t) paste(deparse(t, width.cutoff = 500L), collapse = ""), "")
  terms <- terms[!duplicated(labels)]
  random <- stats::as.formula(call("~", join_sum(terms)), env = env)
  list(fixed = fixed, random = random, data = data)
}
