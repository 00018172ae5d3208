# The sample variogram of residuals (or any values) at their positions,
# from the engine's variogram entry, and its plot.

#' Sample variogram
#'
#' The sample semivariogram \eqn{\gamma = \frac{1}{2}\,\mathrm{mean}(z_i -
#' z_j)^2}{gamma = mean((z_i - z_j)^2) / 2} of values at positions: by
#' distance class (and direction) for scattered points, or by lag on a
#' regular grid.  For a fit, the values are its residuals and the positions
#' those of its distance-based structure, unless \code{x} and \code{y} name
#' other columns of the data.
#'
#' @param object a \code{tarnel} fit, or a numeric vector of values.
#' @param x,y coordinates: numeric vectors (the default method) or column
#'   names of the data (for a fit).  \code{y} may be left out.
#' @param nlag number of distance classes.
#' @param max_dist the largest distance shown; by default half the largest
#'   distance between points.
#' @param angles directions in degrees (0 along \code{x}, 90 along
#'   \code{y}); each pair counts in a direction when its bearing lies within
#'   \code{angle_tol / 2} of it, either way round.
#' @param angle_tol the width of each direction's band in degrees; 180 takes
#'   every pair.
#' @param grid \code{"none"} for scattered points; \code{"absolute"} or
#'   \code{"signed"} for a grid of evenly spaced \code{x} and \code{y},
#'   where the lags are counted in steps of the grid (signed lags tell
#'   lag \eqn{(a, b)} from \eqn{(a, -b)}).  Positions missing from the grid
#'   count as missing values.
#' @param ... passed on.
#' @return A data frame of class \code{"tarnel_variogram"}: for scattered
#'   points \code{distance} (the mean distance of the class), \code{gamma},
#'   \code{np} (pairs) and \code{direction}; on a grid \code{dx},
#'   \code{dy}, \code{gamma} and \code{np}.  Its \code{plot} method draws the
#'   variogram (a perspective plot on a grid).
#' @export
variogram <- function(object, ...) UseMethod("variogram")

#' @rdname variogram
#' @export
variogram.default <- function(object, x, y = NULL, nlag = 15L, max_dist = NULL, angles = 0, angle_tol = 180,
                              grid = c("none", "absolute", "signed"), ...) {
  grid <- match.arg(grid)
  z <- object
  if (!is.numeric(z)) tstop("variogram(): the values must be numeric")
  n <- length(z)
  if (missing(x) || !is.numeric(x) || length(x) != n) tstop("variogram(): 'x' must be numeric, one value a point")
  if (is.null(y)) y <- rep(0, n)
  if (!is.numeric(y) || length(y) != n) tstop("variogram(): 'y' must be numeric, one value a point")
  if (anyNA(x) || anyNA(y) || any(!is.finite(c(x, y)))) tstop("variogram(): the coordinates must be finite")
  z <- as.double(z); z[!is.finite(z)] <- NA_real_
  if (sum(!is.na(z)) < 2L) tstop("variogram(): fewer than two values are not missing")
  if (grid != "none") return(grid_variogram(z, as.double(x), as.double(y), grid))
  if (n > 10000L) tstop("variogram(): %d points are more than the 10000 that scattered points allow; use a grid or a sample", n)
  if (!is.numeric(nlag) || length(nlag) != 1L || !is.finite(nlag) || nlag < 1) tstop("variogram(): 'nlag' must be a positive number")
  nlag <- as.integer(nlag)
  nang <- max(length(angles), length(angle_tol))
  if (!is.numeric(angles) || !is.numeric(angle_tol) || anyNA(c(angles, angle_tol)) || any(angle_tol <= 0))
    tstop("variogram(): 'angles' must be numbers and 'angle_tol' positive numbers")
  angles <- rep_len(as.double(angles) %% 360, nang)
  angle_tol <- rep_len(as.double(angle_tol), nang)
  # Distances of the pairs i <= j, row by row of the upper triangle.
  u <- double(n * (n + 1) / 2)
  i <- seq_len(n) - 1
  u[-(i * n - i * (i - 1) / 2 + 1)] <- as.vector(stats::dist(cbind(x, y)))
  if (is.null(max_dist)) max_dist <- max(u) / 2
  if (!is.numeric(max_dist) || length(max_dist) != 1L || !(max_dist > 0)) tstop("variogram(): 'max_dist' must be a positive distance")
  xlag <- max_dist / nlag
  rows <- nlag * nang
  out <- list(gam = double(rows), np = integer(rows), dist = double(rows), direction = double(rows), nout = integer(1))
  .Call(C_variogram, as.integer(n), as.double(x), as.double(y), z, double(1), double(1), out$gam, u, out$dist,
        out$np, 0L, as.integer(nang), angles, angle_tol, out$direction, as.double(max_dist), nlag, as.double(xlag),
        as.double(xlag / 2), out$nout)
  k <- seq_len(out$nout)
  structure(data.frame(distance = out$dist[k], gamma = out$gam[k], np = out$np[k], direction = out$direction[k]),
            class = c("tarnel_variogram", "data.frame"), grid = "none")
}

# The grid modes: the points completed to the full grid of the distinct x
# and y, in row order (x fastest), with missing values where no point is.
grid_variogram <- function(z, x, y, grid) {
  ux <- sort(unique(x)); uy <- sort(unique(y))
  even <- function(u) length(u) < 3L || diff(range(diff(u))) <= 1e-6 * diff(range(u))
  if (!even(ux) || !even(uy)) tstop("variogram(): grid = \"%s\" needs evenly spaced x and y", grid)
  cell <- (match(y, uy) - 1L) * length(ux) + match(x, ux)
  if (anyDuplicated(cell)) tstop("variogram(): two points share a position of the grid")
  n <- length(ux) * length(uy)
  if (n > 1e6) tstop("variogram(): the grid has %d positions", n)
  zz <- rep(NA_real_, n); zz[cell] <- z
  gx <- rep(ux, length(uy)); gy <- rep(uy, each = length(ux))
  rows <- if (grid == "signed") 2L * n else n
  out <- list(dx = double(rows), dy = double(rows), gam = double(rows), np = integer(rows), nout = integer(1))
  .Call(C_variogram, as.integer(n), gx, gy, zz, out$dx, out$dy, out$gam, double(1), double(1), out$np,
        if (grid == "signed") 2L else 1L, 0L, double(1), double(1), double(1), 0, 0L, 0, 0, out$nout)
  keep <- out$np > 0L
  res <- data.frame(dx = out$dx, dy = out$dy, gamma = out$gam, np = out$np)[keep, ]
  res <- res[!duplicated(res[, c("dx", "dy")]), ]
  rownames(res) <- NULL
  structure(res, class = c("tarnel_variogram", "data.frame"), grid = grid)
}

#' @rdname variogram
#' @export
variogram.tarnel <- function(object, x = NULL, y = NULL, ...) {
  data <- object$model$data
  if (is.null(x)) {
    sp <- fit_spatial_spec(object)
    if (is.null(sp)) tstop("variogram(): the fit has no distance-based structure; name the coordinate columns in 'x' and 'y'")
    x <- sp$coord_names[1L]
    y <- if (length(sp$coord_names) > 1L) sp$coord_names[2L] else NULL
  }
  coordinate <- function(v) {
    if (!is.character(v) || length(v) != 1L) tstop("variogram(): 'x' and 'y' must name columns of the data")
    as_model_numeric(data, v, "a coordinate")
  }
  rows <- object$record_rows
  r <- ifelse(is.na(rows), NA_real_, object$residuals[ifelse(is.na(rows), 1L, rows)])
  variogram.default(r, coordinate(x), if (is.null(y)) NULL else coordinate(y), ...)
}

#' @rdname variogram
#' @param main a title.
#' @export
plot.tarnel_variogram <- function(x, main = "Sample variogram", ...) {
  if (identical(attr(x, "grid"), "none")) {
    dirs <- unique(x$direction)
    plot(x$distance, x$gamma, type = "n", xlab = "distance", ylab = "semivariance", main = main,
         xlim = c(0, max(x$distance)), ylim = c(0, max(x$gamma)), ...)
    for (k in seq_along(dirs)) {
      s <- x[x$direction == dirs[k], ]
      graphics::lines(s$distance, s$gamma, col = k, lty = k)
      graphics::points(s$distance, s$gamma, col = k, pch = 19, cex = 0.6 + 0.8 * sqrt(s$np / max(x$np)))
    }
    if (length(dirs) > 1L)
      graphics::legend("bottomright", legend = paste0(dirs, "\u00b0"), col = seq_along(dirs), lty = seq_along(dirs),
                       title = "direction", bty = "n")
    return(invisible(x))
  }
  ux <- sort(unique(x$dx)); uy <- sort(unique(x$dy))
  m <- matrix(NA_real_, length(ux), length(uy))
  m[cbind(match(x$dx, ux), match(x$dy, uy))] <- x$gamma
  if (length(ux) < 2L || length(uy) < 2L) {
    lag <- if (length(ux) >= 2L) ux else uy
    plot(lag, m[!is.na(m)][seq_along(lag)], type = "b", xlab = "lag", ylab = "semivariance", main = main, ...)
    return(invisible(x))
  }
  graphics::persp(ux, uy, m, theta = 30, phi = 30, xlab = "x lag", ylab = "y lag", zlab = "semivariance",
                  ticktype = "detailed", col = "lightsteelblue", main = main, ...)
  invisible(x)
}

#' Map of residuals on a grid
#'
#' Draws the residuals of a fit at their positions on a regular grid (field
#' plots in rows and columns), with a colour key: blue below 0, red above.
#' Positions without a residual are left blank.
#'
#' @param object a \code{tarnel} fit.
#' @param x,y column names of the data with the grid coordinates; by default
#'   those of the fit's distance-based structure.
#' @param main a title.
#' @return The matrix of residuals drawn (rows the distinct \code{x},
#'   columns the distinct \code{y}), invisibly.
#' @export
residual_map <- function(object, x = NULL, y = NULL, main = "Residuals") {
  if (!inherits(object, "tarnel")) tstop("residual_map(): 'object' must be a tarnel fit")
  if (is.null(x)) {
    sp <- fit_spatial_spec(object)
    if (is.null(sp) || length(sp$coord_names) < 2L)
      tstop("residual_map(): the fit has no two-coordinate distance-based structure; name the columns in 'x' and 'y'")
    x <- sp$coord_names[1L]; y <- sp$coord_names[2L]
  }
  if (is.null(y)) tstop("residual_map(): 'y' is needed")
  data <- object$model$data
  xv <- as_model_numeric(data, x, "a coordinate"); yv <- as_model_numeric(data, y, "a coordinate")
  rows <- object$record_rows
  r <- ifelse(is.na(rows), NA_real_, object$residuals[ifelse(is.na(rows), 1L, rows)])
  ux <- sort(unique(xv)); uy <- sort(unique(yv))
  if (length(ux) * length(uy) > 1e6) tstop("residual_map(): the grid has too many positions")
  m <- matrix(NA_real_, length(ux), length(uy), dimnames = list(format(ux), format(uy)))
  m[cbind(match(xv, ux), match(yv, uy))] <- r
  lim <- max(abs(m), na.rm = TRUE)
  if (!is.finite(lim) || lim == 0) lim <- 1
  cols <- grDevices::hcl.colors(21, "Blue-Red 3")
  op <- graphics::par(no.readonly = TRUE)
  on.exit(graphics::par(op))
  graphics::layout(matrix(1:2, 1), widths = c(5, 1))
  graphics::par(mar = c(4.5, 4.5, 3, 1))
  graphics::image(ux, uy, m, col = cols, zlim = c(-lim, lim), xlab = x, ylab = y, main = main)
  graphics::box()
  graphics::par(mar = c(4.5, 1, 3, 3.5))
  key <- seq(-lim, lim, length.out = length(cols) + 1L)
  graphics::image(1, (key[-1] + key[-length(key)]) / 2, matrix(key[-1], 1), col = cols, axes = FALSE, xlab = "", ylab = "")
  graphics::axis(4, las = 1)
  graphics::box()
  invisible(m)
}

# The distance-based structure of a fit: its residual one, else that of its
# first spatial random term; NULL when there is none.
fit_spatial_spec <- function(object) {
  s <- fit_spatial_specs(object)
  if (length(s)) s[[1L]]$spec else NULL
}
