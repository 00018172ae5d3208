# Distance-based variance structures: the correlation between units follows
# their distance in one or two coordinates.  A call such as
# cov_exp(x, y) in the residual formula correlates the records by their
# positions; in the random formula it makes one effect a location (the
# distinct positions, within blocks) with that correlation.

#' Distance-based (spatial) variance structures
#'
#' These functions describe a correlation that depends on the distance
#' between units, for the residuals (\code{residual = ~ cov_exp(x, y)}) or
#' for a random effect of location (\code{random = ~ cov_exp(x, y)}, one
#' effect a distinct position).  Like the other structure functions they are
#' read inside the formulae and never evaluated.  \code{x} and \code{y} name
#' numeric columns of coordinates; leave \code{y} out for distances along
#' one coordinate.  \code{block} names a factor whose levels are independent
#' fields (sites, trials): units in different blocks are uncorrelated and
#' each block gets its own matrix.  A nugget (an independent part of the
#' variance) comes from an independent term beside the structure: the
#' residual beside a spatial random term, or a random \code{units}-like
#' factor beside a spatial residual.
#'
#' \describe{
#'   \item{\code{cov_exp}}{exponential: \eqn{\rho^d}{rho^d}, \eqn{d} the
#'     Euclidean distance; \eqn{\rho}{rho} is the correlation at distance 1
#'     and the range \eqn{-1/\log\rho}{-1/log(rho)} the distance at which the
#'     correlation falls to \eqn{e^{-1}}{exp(-1)}.  \code{separable = TRUE}:
#'     \eqn{\rho_x^{|dx|}\rho_y^{|dy|}}{rho_x^|dx| rho_y^|dy|}, a parameter a
#'     direction.}
#'   \item{\code{cov_gauss}}{gaussian: \eqn{\rho^{d^2}}{rho^(d^2)}, or
#'     separable \eqn{\rho_x^{dx^2}\rho_y^{dy^2}}{rho_x^(dx^2) rho_y^(dy^2)}.}
#'   \item{\code{cov_powexp}}{power exponential \eqn{\rho^{d^p}}{rho^(d^p)},
#'     \code{power} \eqn{p} from 0.11 to 2 in steps of 0.01; separable:
#'     \eqn{\rho^{|dx|^p + |dy|^p}}{rho^(|dx|^p + |dy|^p)}.}
#'   \item{\code{cov_spher}, \code{cov_circ}, \code{cov_linear},
#'     \code{cov_linvar}}{spherical, circular, linear and linear-variance
#'     correlations that reach 0 at the \code{range} parameter.  The range
#'     must cover the largest distance between units of a block: a range that
#'     does not is replaced by three times the smallest distance.  The linear
#'     and linear-variance forms give the same correlation \eqn{1 - d/r}{1 -
#'     d/r}.}
#'   \item{\code{cov_matern}}{Matern: \eqn{C(d) = (d/\phi)^\nu K_\nu(d/\phi) /
#'     (2^{\nu-1}\Gamma(\nu))}{C(d) = (d/phi)^nu K_nu(d/phi) / (2^(nu-1)
#'     Gamma(nu))}, with the range \eqn{\phi}{phi} and the smoothness
#'     \eqn{\nu}{nu} (0.5 is the exponential, large values approach the
#'     gaussian).  \code{nu} is held at the value given unless \code{fit_nu
#'     = TRUE}.  \code{anisotropy = TRUE} estimates a geometric anisotropy:
#'     the differences are rotated by the angle \eqn{\theta}{theta} (radians)
#'     and \eqn{d = (\alpha|x'|^\lambda + |y'|^\lambda/\alpha)^{1/\lambda}}{d =
#'     (alpha |x'|^lambda + |y'|^lambda / alpha)^(1/lambda)} with the ratio
#'     \eqn{\alpha}{alpha}; \code{power} sets the metric power
#'     \eqn{\lambda}{lambda} (2 Euclidean, 1 city block), which is not
#'     estimated.}
#' }
#' The parameters are named after the structure, e.g.
#' \code{"residual!cov_exp(x, y):rho"}, and can be given starting values
#' and constraints through \code{start} and \code{constrain} of
#' \code{\link{tarnel}}.  \code{summary()} says what each range means.
#'
#' @param x,y numeric coordinate columns (\code{y} may be left out).
#' @param separable one parameter for each coordinate direction.
#' @param power the power of the distance (\code{cov_powexp}) or of the
#'   metric (\code{cov_matern}).
#' @param nu the smoothness of the Matern correlation (its start when
#'   \code{fit_nu = TRUE}).
#' @param fit_nu estimate the smoothness.
#' @param anisotropy estimate a geometric anisotropy (ratio and angle).
#' @param block a factor column: its levels are independent fields.
#' @return These functions signal an error when called outside a formula.
#' @seealso \code{\link{variogram}} for the sample variogram of the
#'   residuals.
#' @name tarnel_spatial
#' @aliases cov_exp cov_gauss cov_powexp cov_spher cov_circ cov_linear cov_linvar cov_matern
NULL

#' @rdname tarnel_spatial
cov_exp <- function(x, y, separable = FALSE, block = NULL) term_only("cov_exp")
#' @rdname tarnel_spatial
cov_gauss <- function(x, y, separable = FALSE, block = NULL) term_only("cov_gauss")
#' @rdname tarnel_spatial
cov_powexp <- function(x, y, power = 1, separable = FALSE, block = NULL) term_only("cov_powexp")
#' @rdname tarnel_spatial
cov_spher <- function(x, y, block = NULL) term_only("cov_spher")
#' @rdname tarnel_spatial
cov_circ <- function(x, y, block = NULL) term_only("cov_circ")
#' @rdname tarnel_spatial
cov_linear <- function(x, y, block = NULL) term_only("cov_linear")
#' @rdname tarnel_spatial
cov_linvar <- function(x, y, block = NULL) term_only("cov_linvar")
#' @rdname tarnel_spatial
cov_matern <- function(x, y, nu = 0.5, fit_nu = FALSE, anisotropy = FALSE, power = 2, block = NULL)
  term_only("cov_matern")

spatial_functions <- c("cov_exp", "cov_gauss", "cov_powexp", "cov_spher", "cov_circ", "cov_linear", "cov_linvar",
                       "cov_matern")
is_spatial_call <- function(e) is.call(e) && as.character(e[[1L]])[1] %in% spatial_functions

# Reads a spatial call: its coordinates (one value a record), the block of
# each record and the options, and the engine's metric code.
spatial_call_spec <- function(e, data, env) {
  fn <- as.character(e[[1L]])
  key <- paste(deparse(e, width.cutoff = 500L), collapse = "")
  mc <- tryCatch(match.call(get(fn, envir = asNamespace("tarnel")), e),
                 error = function(err) tstop("%s: %s", key, conditionMessage(err)))
  args <- as.list(mc)[-1L]
  col <- function(a, what) {
    if (!is.name(a)) tstop("%s: %s must be a column name, not '%s'", key, what, deparse(a))
    as.character(a)
  }
  if (is.null(args$x)) tstop("%s needs a coordinate column", key)
  cnames <- col(args$x, "'x'")
  if (!is.null(args$y)) cnames <- c(cnames, col(args$y, "'y'"))
  if (anyDuplicated(cnames)) tstop("%s: the two coordinates are the same column", key)
  coords <- vapply(cnames, function(v) {
    z <- as_model_numeric(data, v, "a coordinate")
    if (anyNA(z)) tstop("%s: the coordinate '%s' has missing values", key, v)
    z
  }, double(nrow(data)))
  coords <- matrix(coords, nrow(data))
  opt <- function(name, default, check) {
    if (is.null(args[[name]])) return(default)
    v <- eval_arg(args[[name]], env, sprintf("'%s' of", name))
    if (!check(v)) tstop("%s: '%s' has an unusable value", key, name)
    v
  }
  flag <- function(v) is.logical(v) && length(v) == 1L && !is.na(v)
  num <- function(lo, hi) function(v) is.numeric(v) && length(v) == 1L && is.finite(v) && v >= lo && v <= hi
  separable <- opt("separable", FALSE, flag)
  power <- opt("power", if (fn == "cov_matern") 2 else 1, num(if (fn == "cov_matern") 0.05 else 0.11, 2))
  nu <- opt("nu", 0.5, num(0.01, 100))
  fit_nu <- opt("fit_nu", FALSE, flag)
  anisotropy <- opt("anisotropy", FALSE, flag)
  dim <- ncol(coords)
  if ((separable || anisotropy) && dim < 2L) tstop("%s: separable and anisotropic forms need two coordinates", key)
  block <- rep(1L, nrow(data))
  bname <- NULL
  if (!is.null(args$block)) {
    bname <- col(args$block, "'block'")
    bf <- as_model_factor(data.frame(setNames(list(data_column(data, bname)), bname), check.names = FALSE), bname)
    if (anyNA(bf)) tstop("%s: the block factor '%s' has missing values", key, bname)
    block <- as.integer(bf)
  }
  metric <- switch(fn, cov_exp = if (separable) 1L else 3L, cov_gauss = 2L,
                   cov_powexp = {
                     m <- round(100 * power)
                     if (abs(100 * power - m) > 1e-8) tstop("%s: 'power' must be a multiple of 0.01", key)
                     as.integer(if (separable) m else -m)
                   },
                   cov_spher = 4L, cov_circ = 5L, cov_linear = 6L, cov_linvar = 7L, cov_matern = 9L)
  list(fn = fn, spatial = TRUE, call = e, env = env, key = key, factor = key, het = FALSE, coords = coords, coord_names = cnames,
       block = block, block_name = bname, metric = metric, dim = dim, separable = separable, power = power,
       nu = nu, fit_nu = fit_nu, anisotropy = anisotropy)
}

# The units of a spatial random term: the distinct positions within
# blocks.  Gives the unit of each record, and the coordinates and block of
# each unit, in the order of blocks, then y, then x.
spatial_units <- function(sp) {
  o <- do.call(order, c(list(sp$block), rev(lapply(seq_len(ncol(sp$coords)), function(k) sp$coords[, k]))))
  keys <- paste(sp$block, apply(sp$coords, 1L, function(r) paste(format(r, digits = 15), collapse = ":")), sep = "|")
  first <- o[!duplicated(keys[o])]
  unit <- match(keys, keys[first])
  lab <- apply(sp$coords[first, , drop = FALSE], 1L, function(r) paste(format(r, digits = 8, trim = TRUE), collapse = ","))
  if (!is.null(sp$block_name)) lab <- paste0(sp$block[first], ":", lab)
  sp$unit <- unit
  sp$coords <- sp$coords[first, , drop = FALSE]
  sp$block <- sp$block[first]
  sp$levels <- paste0("(", lab, ")")
  sp
}

# Distances of a sample of units to their nearest and farthest neighbours
# within their blocks, for start values and the range of the limited-range
# models.
spatial_distances <- function(coords, block) {
  n <- nrow(coords)
  take <- if (n > 600L) unique(round(seq(1, n, length.out = 600L))) else seq_len(n)
  near <- far <- numeric(0)
  for (b in unique(block)) {
    idx <- which(block == b)
    s <- intersect(take, idx)
    if (length(idx) < 2L || !length(s)) next
    for (i in s) {
      d <- sqrt(colSums((t(coords[idx, , drop = FALSE]) - coords[i, ])^2))
      d <- d[idx != i]
      if (any(d > 0)) near <- c(near, min(d[d > 0]))
      far <- c(far, max(d))
    }
  }
  if (!length(near)) tstop("a distance-based structure needs at least two distinct positions in a block")
  list(near = stats::median(near), far = max(far))
}

# The section of a spatial structure: model 6, its parameters with their
# names, kinds, starts and constraint codes, and the coordinates to be
# placed in the table of known matrices.
spatial_section_spec <- function(sp) {
  n <- nrow(sp$coords)
  if (n < 2L) tstop("%s: the structure needs at least two units", sp$key)
  dd <- spatial_distances(sp$coords, sp$block)
  dn <- dd$near
  two <- sp$separable && sp$metric %in% c(1L, 2L)
  rho0 <- function(d) min(0.95, max(0.05, 0.5^(1 / d)))
  if (sp$fn %in% c("cov_exp", "cov_powexp")) {
    e <- if (sp$fn == "cov_powexp") sp$power else 1
    names <- if (two) c("rho_x", "rho_y") else "rho"
    start <- rep(rho0(dn^e), length(names))
    kind <- rep("correlation", length(names))
  } else if (sp$fn == "cov_gauss") {
    names <- if (sp$separable) c("rho_x", "rho_y") else "rho"
    start <- rep(rho0(dn^2), length(names))
    kind <- rep("correlation", length(names))
  } else if (sp$fn == "cov_matern") {
    names <- c("range", "smoothness")
    start <- c(dn / log(2), sp$nu)
    kind <- c("range", "smoothness")
    if (sp$anisotropy || sp$power != 2) {
      names <- c(names, "anisotropy_ratio", "anisotropy_angle")
      start <- c(start, if (sp$anisotropy) c(1.5, 0.3) else c(1, 0))
      kind <- c(kind, "ratio", "angle")
    }
    if (sp$power != 2) {
      names <- c(names, "metric_power"); start <- c(start, sp$power); kind <- c(kind, "power")
    }
  } else {
    names <- "range"; start <- 1.05 * dd$far; kind <- "range"
  }
  code <- rep(3L, length(names))
  code[kind %in% c("range", "ratio", "correlation")] <- 1L
  if (sp$fn == "cov_matern") {
    if (!sp$fit_nu) code[2L] <- 4L
    if (!sp$anisotropy && length(code) > 2L) code[3:4] <- 4L
    if (length(code) > 4L) code[5L] <- 4L
  }
  nb <- length(unique(sp$block))
  blk <- as.integer(factor(sp$block))
  coords <- list(size = n, type = NA_integer_, rank = 0L, real = as.double(t(sp$coords)),
                 integer = c(sp$metric, sp$dim, 1L, if (nb > 1L) nb else 1L, as.integer(rbind(blk, 0L))))
  list(fn = sp$fn, model = 6L, order = n, band = 0L, names = names, kind = kind, start = start,
       code = code, key = sp$key, coords = coords, words = (4 + 2 * length(names)) * n * (n + 1) / 2 + n * n)
}

# A distance-based residual as the one structure of the residual sections,
# its coordinates read again from the records as arranged (the records
# without a response may have been left out).
spatial_residual_specs <- function(resid, model) list(spatial_call_spec(resid$spec$call, model$data, resid$spec$env))

# The table row of a section's coordinates: its type is 6000 plus the
# section number.
spatial_known <- function(s, section) {
  k <- s$coords
  k$type <- 6000L + as.integer(section)
  k$words <- s$words
  k
}

# The spatial structures of a fit with the name their parameters carry.
fit_spatial_specs <- function(object) {
  specs <- list()
  if (identical(object$model$resid$kind, "spatial")) specs <- list(list(spec = object$model$resid$spec, who = "residual"))
  for (g in object$model$random$groups)
    if (identical(g$kind, "product") && isTRUE(g$specs[[1L]]$spatial)) specs[[length(specs) + 1L]] <- list(spec = g$specs[[1L]], who = g$label)
  specs
}
spatial_value <- function(object, s, nm) {
  g <- object$gammas
  hit <- startsWith(names(g), paste0(s$who, ": ")) & endsWith(names(g), paste0(" ", nm))
  if (!any(hit)) return(NA_real_)
  unname(g[hit][1L])
}

# A limited-range correlation whose range fell short of the largest
# distance in a block was held at three times the smallest distance: the
# fit of such a model says so.
spatial_warnings <- function(object) {
  out <- character()
  for (s in fit_spatial_specs(object)) {
    sp <- s$spec
    if (!sp$fn %in% c("cov_spher", "cov_circ", "cov_linear", "cov_linvar")) next
    dd <- spatial_distances(sp$coords, sp$block)
    r <- spatial_value(object, s, "range")
    if (isTRUE(r < dd$far))
      out <- c(out, sprintf("tarnel: %s %s: the range %s is shorter than the largest distance between units (%s), which this correlation cannot fit; it was held at three times the smallest distance",
                            s$who, sp$key, format(signif(r, 4)), format(signif(dd$far, 4))))
  }
  out
}

# What the parameters of each spatial structure of a fit mean, in words,
# with the estimates.
spatial_notes <- function(object) {
  specs <- fit_spatial_specs(object)
  out <- character()
  for (s in specs) {
    sp <- s$spec
    v <- function(nm) spatial_value(object, s, nm)
    f <- function(x) format(signif(x, 4))
    txt <- switch(sp$fn,
      cov_exp = , cov_gauss = , cov_powexp = {
        d <- switch(sp$fn, cov_exp = "d", cov_gauss = "d^2", cov_powexp = sprintf("d^%s", f(sp$power)))
        r <- if (sp$separable) c(v("rho_x"), v("rho_y")) else v("rho")
        rng <- (-1 / log(r))^(1 / switch(sp$fn, cov_exp = 1, cov_gauss = 2, cov_powexp = sp$power))
        sprintf("correlation rho^(%s)%s; rho is the correlation at distance 1; range (distance where the correlation is exp(-1)) %s",
                d, if (sp$separable) " in each direction" else "", paste(f(rng), collapse = " and "))
      },
      cov_matern = sprintf("Matern correlation: range phi %s (with smoothness 0.5 the correlation at distance phi is exp(-1)), smoothness nu %s%s",
                           f(v("range")), f(v("smoothness")), if (sp$anisotropy) sprintf(", anisotropy ratio %s and angle %s radians",
                                                                                          f(v("anisotropy_ratio")), f(v("anisotropy_angle"))) else ""),
      sprintf("%s correlation, 0 from the range %s on", c(cov_spher = "spherical", cov_circ = "circular", cov_linear = "linear",
                                                           cov_linvar = "linear variance")[[sp$fn]], f(v("range"))))
    out <- c(out, sprintf("%s %s: %s", s$who, sp$key, txt))
  }
  out
}
