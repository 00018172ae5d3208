# Predicted values: the reference cases, emmeans on lmer fits at lmer's own
# variance parameters, bad requests and the plot.

quiet <- function(expr) { utils::capture.output(r <- expr); r }
pref_dir <- function(case) system.file("extdata", "reference", case, package = "tarnel")

# A fit whose variance ratios are held at given absolute values (the
# residual variance profiled).
fit_at <- function(fixed, random, data, vp, resid) {
  start <- vp / resid
  quiet(tarnel(fixed, random = random, data = data, start = start,
               constrain = setNames(rep("fixed", length(start)), names(start))))
}

# One reference table against a prediction: values, SEs, SEDs, average SEDs.
check_table <- function(p, r, tol) {
  tab <- r$table
  pv <- vapply(tab, function(x) if (is.null(x$predicted_value)) NA_real_ else x$predicted_value, 1)
  se <- vapply(tab, function(x) if (is.null(x$standard_error)) NA_real_ else x$standard_error, 1)
  st <- vapply(tab, `[[`, "", "status")
  expect_equal(as.character(p$pvals$status), st)
  expect_equal(p$pvals$predicted.value, pv, tolerance = tol)
  expect_equal(p$pvals$std.error, se, tolerance = tol)
  if (!is.null(r$sed_matrix)) {
    S <- do.call(rbind, lapply(r$sed_matrix, unlist))
    expect_equal(unname(p$sed), S, tolerance = tol)
  }
  a <- r$avsed
  if (is.null(a$overall_sed)) {
    expect_true(is.na(p$avsed$overall))
  } else {
    expect_equal(p$avsed$overall, a$overall_sed, tolerance = tol)
    expect_equal(p$avsed$mean, a$mean_sed, tolerance = tol)
    g <- p$avsed$groups
    for (k in seq_len(nrow(g))) {
      ref <- a[[paste0("group", k)]]
      expect_equal(unlist(g[k, c("min", "mean", "max")], use.names = FALSE),
                   c(ref$min, ref$mean, ref$max), tolerance = tol)
    }
  }
}

test_that("oats_pw: tables, SEDs and average SEDs at the reference parameters and at the fit's own", {
  skip_if_not_installed("jsonlite")
  ref <- jsonlite::fromJSON(file.path(pref_dir("oats_pw"), "expected.json"), simplifyVector = FALSE)
  d <- utils::read.csv(file.path(pref_dir("oats_pw"), "data.csv"), stringsAsFactors = TRUE)
  d$nitro <- factor(d$nitro)
  vp <- unlist(ref$variance_parameters)
  classify <- vapply(ref$predictions, `[[`, "", "classify")
  fits <- list(list(fit_at(yield ~ Variety * nitro, ~ Block + Block:Variety, d,
                           vp[c("Block", "Block:Variety")], vp[["residual"]]), 1e-4),
               list(quiet(tarnel(yield ~ Variety * nitro, random = ~ Block + Block:Variety, data = d)), 1e-3))
  for (f in fits) {
    before <- f[[1]]
    p <- quiet(predict(f[[1]], classify = classify, sed = TRUE))
    expect_identical(f[[1]], before)
    expect_s3_class(p, "tarnel_predictions")
    for (k in seq_along(classify)) check_table(p[[k]], ref$predictions[[k]], f[[2]])
  }
  # The two-way table's groups are named by the factors they share.
  expect_equal(p[[3]]$avsed$groups$pairs, c("same nitro", "same Variety", "both differ"))
  expect_true(any(grepl("The SIMPLE averaging set: nitro", p[[1]]$report, fixed = TRUE)))
})

test_that("penicillin_pw: random terms in the classify and averaging sets, and the grand mean", {
  skip_if_not_installed("jsonlite")
  ref <- jsonlite::fromJSON(file.path(pref_dir("penicillin_pw"), "expected.json"), simplifyVector = FALSE)
  d <- utils::read.csv(file.path(pref_dir("penicillin_pw"), "data.csv"), stringsAsFactors = TRUE)
  vp <- unlist(ref$variance_parameters)
  fits <- list(list(fit_at(diameter ~ 1, ~ plate + sample, d, vp[c("plate", "sample")], vp[["residual"]]), 1e-4),
               list(quiet(tarnel(diameter ~ 1, random = ~ plate + sample, data = d)), 1e-3))
  for (f in fits) {
    p <- quiet(predict(f[[1]], classify = c("sample", "plate", ""), sed = TRUE))
    p3 <- quiet(predict(f[[1]], classify = "sample", average = "plate", sed = TRUE))
    check_table(p[[1]], ref$predictions[[1]], f[[2]])
    check_table(p[[2]], ref$predictions[[2]], f[[2]])
    check_table(p3, ref$predictions[[3]], f[[2]])
    check_table(p[[3]], ref$predictions[[4]], f[[2]])
  }
  expect_true(any(grepl("sample is included in this prediction", p[[1]]$report, fixed = TRUE)))
  expect_true(any(grepl("plate is ignored in this prediction", p[[1]]$report, fixed = TRUE)))
})

test_that("predictions agree with emmeans on lmer fits at lmer's variance parameters", {
  skip_if_not_installed("lme4")
  skip_if_not_installed("emmeans")
  skip_if_not_installed("nlme")
  at_lmer <- function(fixed, random, data, lf) {
    vc <- as.data.frame(lme4::VarCorr(lf))
    r <- vc[is.na(vc$var2) & vc$grp != "Residual", ]
    fit_at(fixed, random, data, setNames(r$vcov, r$grp), stats::sigma(lf)^2)
  }
  # Cells emmeans leaves out (combinations a nesting rules out) must be
  # empty here.
  agree <- function(p, e, by) {
    e <- as.data.frame(e)
    m <- merge(as.data.frame(p), e, by = by)
    key <- function(d) do.call(paste, c(lapply(by, function(b) as.character(d[[b]])), sep = "\r"))
    expect_true(all(p$pvals$status[!key(p$pvals) %in% key(e)] == "empty"))
    expect_gt(nrow(m), 0)
    expect_equal(is.na(m$predicted.value), is.na(m$emmean))
    est <- !is.na(m$emmean)
    expect_equal(m$predicted.value[est], m$emmean[est], tolerance = 1e-5)
    expect_equal(m$std.error[est], m$SE[est], tolerance = 1e-5)
  }
  lmer <- function(...) suppressMessages(lme4::lmer(...))
  emm <- function(...) suppressMessages(emmeans::emmeans(..., lmer.df = "asymptotic"))
  oats <- as.data.frame(nlme::Oats)
  oats$nitro <- factor(oats$nitro)
  oats$Block <- factor(oats$Block, ordered = FALSE)
  oats$Variety <- factor(oats$Variety)

  # One-way table of an additive model.
  lf <- lmer(yield ~ Variety + nitro + (1 | Block), data = oats)
  agree(quiet(predict(at_lmer(yield ~ Variety + nitro, ~ Block, oats, lf), classify = "Variety")),
        emm(lf, ~ Variety), "Variety")

  # Unbalanced two-way table with an empty cell: the cell and the margin it
  # enters are not estimable.
  set.seed(1)
  ou <- oats[-sample(nrow(oats), 15), ]
  ou <- ou[!(ou$Variety == "Victory" & ou$nitro == "0.6"), ]
  lf <- suppressMessages(lmer(yield ~ Variety * nitro + (1 | Block) + (1 | Block:Variety), data = ou))
  tf <- at_lmer(yield ~ Variety * nitro, ~ Block + Block:Variety, ou, lf)
  p <- quiet(predict(tf, classify = c("Variety:nitro", "Variety", "nitro"), sed = TRUE))
  agree(p[[1]], emm(lf, ~ Variety * nitro), c("Variety", "nitro"))
  agree(p[[2]], emm(lf, ~ Variety), "Variety")
  agree(p[[3]], emm(lf, ~ nitro), "nitro")
  expect_equal(as.character(p[[1]]$pvals$status[12]), "empty")
  expect_equal(as.character(p[[2]]$pvals$status), c("estimable", "estimable", "aliased"))
  expect_true(all(is.na(p[[1]]$sed[12, ])))
  expect_true(any(grepl("Empty cells:  12", p[[1]]$report, fixed = TRUE)))

  # Nested factor: B within A, averaged over the levels present in each A.
  set.seed(2)
  nd <- expand.grid(rep = 1:4, B = 1:2, A = c("a1", "a2", "a3"), blk = paste0("k", 1:5))
  nd$B <- factor(paste0(nd$A, "b", nd$B))
  nd$A <- factor(nd$A)
  nd$blk <- factor(nd$blk)
  nd$y <- stats::rnorm(nrow(nd), 10 + as.integer(nd$A) + as.integer(nd$B) / 3) + stats::rnorm(5)[nd$blk]
  nd <- nd[-sample(nrow(nd), 20), ]
  lf <- lmer(y ~ A / B + (1 | blk), data = nd)
  tf <- at_lmer(y ~ A / B, ~ blk, nd, lf)
  agree(quiet(predict(tf, classify = "A", present = "B")), emm(lf, ~ A), "A")
  pn <- quiet(predict(tf, classify = "A:B"))
  agree(pn, emm(lf, ~ B | A), c("A", "B"))
  expect_equal(sum(pn$pvals$status == "empty"), 12L)

  # A covariate at its mean, at a value, and classified at two values.
  set.seed(3)
  cd <- data.frame(A = factor(rep(c("u", "v", "w"), 30)), blk = factor(rep(1:6, each = 15)), x = stats::runif(90, 0, 4))
  cd$y <- 2 + as.integer(cd$A) + 0.7 * cd$x + stats::rnorm(6)[cd$blk] + stats::rnorm(90)
  lf <- lmer(y ~ A * x + (1 | blk), data = cd)
  tf <- at_lmer(y ~ A * x, ~ blk, cd, lf)
  agree(quiet(predict(tf, classify = "A")), emm(lf, ~ A), "A")
  agree(quiet(predict(tf, classify = "A", at = list(x = 3))), emm(lf, ~ A, at = list(x = 3)), "A")
  agree(quiet(predict(tf, classify = "A:x", at = list(x = c(1, 3)))), emm(lf, ~ A * x, at = list(x = c(1, 3))), c("A", "x"))
})

test_that("an associated factor takes the level that goes with each classify level", {
  # Varieties nested in groups: group fixed, variety and block random.
  set.seed(4)
  d <- expand.grid(variety = sprintf("v%02d", 1:12), block = sprintf("k%d", 1:4), KEEP.OUT.ATTRS = FALSE)
  d$group <- factor(c("g1", "g2", "g3")[(as.integer(factor(d$variety)) - 1) %/% 4 + 1])
  d$variety <- factor(d$variety)
  d$block <- factor(d$block)
  d$y <- 10 + as.integer(d$group) + stats::rnorm(12)[d$variety] + stats::rnorm(4)[d$block] + stats::rnorm(nrow(d))
  fit <- quiet(tarnel(y ~ group, random = ~ variety + block, data = d))
  pa <- quiet(predict(fit, classify = "variety", associate = "group"))
  pc <- quiet(predict(fit, classify = "group:variety"))
  # Cells of the two-way table without records are estimable here (variety
  # is random): keep the combinations of the data.
  pc2 <- merge(pc$pvals, unique(d[c("group", "variety")]), by = c("group", "variety"))
  m <- merge(pa$pvals, pc2, by = "variety")
  expect_equal(nrow(m), 12L)
  expect_equal(m$predicted.value.x, m$predicted.value.y, tolerance = 1e-10)
  expect_equal(m$std.error.x, m$std.error.y, tolerance = 1e-10)
  expect_true(any(grepl("Associated factors: group", pa$report, fixed = TRUE)))
  # Averaged over all groups instead, each variety's row mixes the groups
  # and is not what the association gives.
  pv <- quiet(predict(fit, classify = "variety"))
  expect_false(isTRUE(all.equal(pv$pvals$predicted.value, pa$pvals$predicted.value)))
})

test_that("bad requests give clear errors and leave the fit as it was", {
  skip_if_not_installed("nlme")
  oats <- as.data.frame(nlme::Oats)
  oats$nitro <- factor(oats$nitro)
  oats$Block <- factor(oats$Block, ordered = FALSE)
  oats$Variety <- factor(oats$Variety)
  oats$spare <- factor(rep(c("p", "q"), 36))
  fit <- quiet(tarnel(yield ~ Variety * nitro, random = ~ Block, data = oats))
  before <- fit
  expect_error(predict(fit, classify = "Varety"), "'Varety' is not in the model or the data")
  expect_error(predict(fit, classify = "spare"), "'spare' is not in the model")
  expect_error(predict(fit, classify = "Variety", average = "nosuch"), "'nosuch' is not in the model")
  expect_error(predict(fit, classify = "Variety", at = list(nitro = "0.2")), "which is not in the classify set")
  expect_error(predict(fit, classify = "Variety", at = list(Variety = "Gold")), "'Gold' of 'Variety' do not exist")
  expect_error(predict(fit, classify = "Variety", present = "Block"), "does not cross the classify set")
  expect_error(predict(fit, classify = "Variety", average = "Variety"), "in the classify set")
  expect_error(predict(fit, classify = "Variety", weights = list(nitro = c(1, 2))), "4 finite numbers")
  expect_error(predict(fit), "give 'classify'")
  expect_equal(unname(predict(fit, newdata = oats, re.form = NA)), unname(fitted(fit, type = "fixed")), tolerance = 1e-8)
  expect_identical(fit, before)
  # Given weights average the cells of the two-way table; weights that do
  # not sum to one are used as given, and said so.
  w <- c(1, 1, 1, 2) / 5
  p <- quiet(predict(fit, classify = "Variety", weights = list(nitro = w)))
  eq <- quiet(predict(fit, classify = "Variety:nitro"))$pvals$predicted.value
  expect_equal(p$pvals$predicted.value, drop(matrix(eq, 3, byrow = TRUE) %*% w))
  p <- quiet(predict(fit, classify = "Variety", weights = list(nitro = c(1, 1, 1, 2))))
  expect_true(any(grepl("Notice: The weights do not sum to 1 but to 5", p$report, fixed = TRUE)))
})

test_that("the plot draws means with intervals", {
  skip_if_not_installed("nlme")
  oats <- as.data.frame(nlme::Oats)
  oats$nitro <- factor(oats$nitro)
  oats$Block <- factor(oats$Block, ordered = FALSE)
  fit <- quiet(tarnel(yield ~ Variety * nitro, random = ~ Block, data = oats))
  p <- quiet(predict(fit, classify = "Variety:nitro"))
  f <- tempfile(fileext = ".png")
  grDevices::png(f, width = 700, height = 500)
  plot(p)
  grDevices::dev.off()
  expect_gt(file.size(f), 1000)
  expect_equal(dim(as.data.frame(p)), c(12L, 5L))
})
