# The sample variogram against plain R computations over all pairs.

quiet <- function(expr) { utils::capture.output(r <- expr); r }

pairs_of <- function(x, y, z) {
  p <- which(upper.tri(diag(length(x))), arr.ind = TRUE)
  data.frame(i = p[, 1], j = p[, 2], dx = x[p[, 2]] - x[p[, 1]], dy = y[p[, 2]] - y[p[, 1]],
             d = sqrt((x[p[, 2]] - x[p[, 1]])^2 + (y[p[, 2]] - y[p[, 1]])^2), sq = (z[p[, 2]] - z[p[, 1]])^2)
}

test_that("scattered points: classes of distance, directions and missing values", {
  set.seed(2)
  n <- 60
  x <- runif(n, 0, 10); y <- runif(n, 0, 6); z <- rnorm(n) + x / 3
  z[c(4, 17)] <- NA
  v <- variogram(z, x, y, nlag = 8, max_dist = 6)
  P <- pairs_of(x, y, z)
  P <- P[!is.na(P$sq), ]
  b <- floor(P$d / 0.75) + 1
  keep <- b <= 8
  want <- aggregate(cbind(sq = P$sq[keep], d = P$d[keep], one = 1), list(b = b[keep]), sum)
  expect_equal(v$np, as.integer(want$one))
  expect_equal(v$gamma, want$sq / want$one / 2)
  expect_equal(v$distance, want$d / want$one)
  # Along x within 20 degrees either way round.
  v0 <- variogram(z, x, y, nlag = 8, max_dist = 6, angles = c(0, 90), angle_tol = 40)
  bear <- (atan2(P$dy, P$dx) * 180 / pi) %% 180
  along <- keep & (bear <= 20 | bear >= 160)
  w0 <- aggregate(cbind(sq = P$sq[along], one = 1), list(b = b[along]), sum)
  s0 <- v0[v0$direction == 0, ]
  expect_equal(s0$np, as.integer(w0$one))
  expect_equal(s0$gamma, w0$sq / w0$one / 2)
  expect_true(all(v0$direction %in% c(0, 90)))
})

test_that("grid lags, absolute and signed, with a position left out", {
  g <- expand.grid(x = seq(2, 16, by = 2), y = seq(1, 4, by = 0.5))
  set.seed(3)
  g$z <- rnorm(nrow(g))
  g <- g[-5, ]
  P <- pairs_of(g$x, g$y, g$z)
  ax <- abs(P$dx) / 2; ay <- abs(P$dy) / 0.5
  va <- variogram(g$z, g$x, g$y, grid = "absolute")
  want <- aggregate(cbind(sq = P$sq, one = 1), list(ax = ax, ay = ay), sum)
  m <- match(paste(va$dx, va$dy), paste(want$ax * 2, want$ay * 0.5))
  expect_false(anyNA(m))
  expect_equal(nrow(va), nrow(want))
  expect_equal(va$np, as.integer(want$one[m]))
  expect_equal(va$gamma, want$sq[m] / want$one[m] / 2)
  vs <- variogram(g$z, g$x, g$y, grid = "signed")
  # Lag (1, -1) in steps: the second point one column on and one row back.
  s <- vs[vs$dx == 2 & vs$dy == -0.5, ]
  sel <- (P$dx == 2 & P$dy == -0.5) | (P$dx == -2 & P$dy == 0.5)
  expect_equal(s$np, sum(sel))
  expect_equal(s$gamma, mean(P$sq[sel]) / 2)
  expect_error(variogram(g$z, g$x + rep_len(c(0, 0.3), nrow(g)), g$y, grid = "signed"), "evenly spaced")
})

test_that("a fit's variogram uses its residuals and coordinates, and plots", {
  d <- utils::read.csv(system.file("extdata", "reference", "spatial_exp", "data.csv", package = "tarnel"),
                       stringsAsFactors = TRUE)
  f <- quiet(tarnel(yield ~ variety, residual = ~ cov_exp(latitude, longitude), data = d))
  v <- variogram(f, nlag = 10)
  w <- variogram(residuals(f), d$latitude, d$longitude, nlag = 10)
  expect_equal(v, w)
  expect_s3_class(v, "tarnel_variogram")
  png_file <- tempfile(fileext = ".png")
  grDevices::png(png_file)
  plot(v)
  grDevices::dev.off()
  expect_gt(file.size(png_file), 1000)
  grDevices::png(png_file)
  m <- residual_map(f)
  grDevices::dev.off()
  expect_equal(dim(m), c(length(unique(d$latitude)), length(unique(d$longitude))))
  expect_equal(m[cbind(match(d$latitude, sort(unique(d$latitude))), match(d$longitude, sort(unique(d$longitude))))],
               residuals(f))
  f0 <- quiet(tarnel(yield ~ variety, data = d))
  expect_error(residual_map(f0), "no two-coordinate")
  expect_error(variogram(f0), "no distance-based structure")
  expect_equal(variogram(f0, "latitude", "longitude", nlag = 10)$np, v$np)
  expect_error(variogram(1:3, c(1, 2, NA)), "finite")
})
