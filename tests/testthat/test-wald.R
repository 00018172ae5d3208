# Wald tests of fixed terms and the fixed-effect table, against the
# reference cases and peer packages (nlme, car, lme4, lmerTest).

quiet <- function(expr) { utils::capture.output(r <- expr); r }
ref_file <- function(case, f) system.file("extdata", "reference", case, f, package = "tarnel")
ref_wald <- function(case) {
  txt <- paste(readLines(ref_file(case, "expected.json")), collapse = " ")
  w <- sub('.*"wald":\\s*\\[(.*?)\\]\\s*,\\s*"crosschecks".*', "\\1", txt)
  grab <- function(key) {
    v <- regmatches(w, gregexpr(sprintf('"%s":\\s*(null|[-0-9.eE+]+)', key), w))[[1]]
    suppressWarnings(as.numeric(sub('.*:\\s*', "", v)))
  }
  terms <- sub('"term":\\s*"([^"]*)"', "\\1", regmatches(w, gregexpr('"term":\\s*"[^"]*"', w))[[1]])
  vp <- sub('.*"variance_parameters":\\s*\\{([^}]*)\\}.*', "\\1", txt)
  pairs <- regmatches(vp, gregexpr('"[^"]+":\\s*[-0-9.eE+]+', vp))[[1]]
  list(terms = terms, df = grab("df"), inc = grab("incremental_F"), con = grab("conditional_F"),
       vp = setNames(as.numeric(sub('.*:\\s*', "", pairs)), sub('^"([^"]+)".*', "\\1", pairs)))
}
oats_data <- function() {
  d <- utils::read.csv(ref_file("oats_pw", "data.csv"), stringsAsFactors = TRUE)
  d$nitro <- factor(d$nitro)
  d
}
pen_data <- function() utils::read.csv(ref_file("penicillin_pw", "data.csv"), stringsAsFactors = TRUE)
orth_data <- function() utils::read.csv(system.file("extdata", "reference", "orthodont_rr", "data.csv", package = "tarnel"),
                                        stringsAsFactors = TRUE)
# A fit held at given absolute variances (the residual one profiled).
held <- function(fixed, random, data, vc, s2)
  quiet(tarnel(fixed, random = random, data = data, start = vc / s2,
               constrain = setNames(rep("fixed", length(vc)), names(vc))))
rel <- function(a, b) max(abs(a - b) / pmax(abs(b), 1e-8))

test_that("the reference Wald tables: incremental and conditional F, at the REML fit and at the reference parameters", {
  cases <- list(
    oats_pw = list(data = oats_data(), fixed = yield ~ Variety * nitro, random = ~ Block + Block:Variety),
    penicillin_pw = list(data = pen_data(), fixed = diameter ~ 1, random = ~ plate + sample))
  for (nm in names(cases)) {
    cs <- cases[[nm]]
    ref <- ref_wald(nm)
    fit <- quiet(tarnel(cs$fixed, random = cs$random, data = cs$data))
    w <- wald(fit, ddf = "none")
    expect_equal(rownames(w), ref$terms, info = nm)
    expect_equal(w$Df, ref$df, info = nm)
    expect_lt(rel(w$F.inc, ref$inc), 1e-3)
    expect_lt(rel(w$F.con, ref$con), 1e-3)
    vc <- ref$vp[names(ref$vp) != "residual"]
    h <- held(cs$fixed, cs$random, cs$data, vc, ref$vp[["residual"]])
    w <- wald(h, ddf = "none")
    expect_lt(rel(w$F.inc, ref$inc), 1e-5)
    expect_lt(rel(w$F.con, ref$con), 1e-5)
    expect_equal(w$Wald.inc, w$F.inc * w$Df)
  }
})

test_that("anova() agrees with nlme's sequential and marginal tests at nlme's parameters", {
  skip_if_not_installed("nlme")
  oats <- oats_data()
  orth <- orth_data()
  sp <- quiet({ e <- new.env(); utils::data("split_plot", package = "tarnel", envir = e); e$split_plot })
  vars <- function(m) vapply(nlme::pdMatrix(m$modelStruct$reStruct), function(p) p[1, 1], 1) * m$sigma^2
  models <- list(
    list(lme = nlme::lme(yield ~ Variety * nitro, random = ~ 1 | Block / Variety, data = oats, method = "REML"),
         fixed = yield ~ Variety * nitro, random = ~ Block + Block:Variety, names = c(Block = "Block", Variety = "Block:Variety"), data = oats),
    list(lme = nlme::lme(yield ~ Variety + nitro, random = ~ 1 | Block / Variety, data = oats),
         fixed = yield ~ Variety + nitro, random = ~ Block + Block:Variety, names = c(Block = "Block", Variety = "Block:Variety"), data = oats),
    list(lme = nlme::lme(distance ~ age + Sex, random = ~ 1 | Subject, data = orth),
         fixed = distance ~ age + Sex, random = ~ Subject, names = c(Subject = "Subject"), data = orth),
    list(lme = nlme::lme(yield ~ variety * nitrogen_level, random = ~ 1 | block / wholeplot, data = sp),
         fixed = yield ~ variety * nitrogen_level, random = ~ block + wholeplot, names = c(block = "block", wholeplot = "wholeplot"), data = sp))
  for (k in seq_along(models)) {
    md <- models[[k]]
    v <- vars(md$lme)
    vc <- setNames(v, md$names[names(v)])
    fit <- held(md$fixed, md$random, md$data, vc, md$lme$sigma^2)
    a <- stats::anova(md$lme)
    w <- wald(fit, ddf = "containment")
    expect_lt(rel(w$F.inc, a[["F-value"]]), 1e-5)
    expect_equal(w$denDF.inc, a$denDF, info = paste("model", k))
    if (k %in% 2:3) {  # no interactions: the marginal tests are the conditional ones
      am <- stats::anova(md$lme, type = "marginal")[-1, ]
      expect_lt(rel(w$F.con[-1], am[["F-value"]]), 1e-5)
    }
  }
})

test_that("the conditional statistics are car's type II Wald chi-squares, at lmer's parameters", {
  skip_if_not_installed("car")
  skip_if_not_installed("lme4")
  oats <- oats_data()
  oats$Variety2 <- oats$Variety
  for (f in list(yield ~ Variety * nitro, yield ~ nitro + Variety, yield ~ nitro * Variety)) {
    l <- lme4::lmer(stats::update(f, . ~ . + (1 | Block) + (1 | Block:Variety)), data = oats)
    v <- as.data.frame(lme4::VarCorr(l))
    vc <- c(Block = v$vcov[v$grp == "Block"], `Block:Variety` = v$vcov[v$grp == "Block:Variety"])
    fit <- held(f, ~ Block + Block:Variety, oats, vc, stats::sigma(l)^2)
    ca <- car::Anova(l, type = 2)
    w <- wald(fit, ddf = "none")
    expect_lt(rel(w[rownames(ca), "Wald.con"], ca$Chisq), 1e-5)
  }
})

test_that("Kenward-Roger denominator df agree with lmerTest's on four designs", {
  skip_if_not_installed("lmerTest")
  oats <- oats_data()
  unbal <- oats[-c(3, 17, 40, 41, 66), ]
  orth <- orth_data()
  pen <- pen_data()
  pen$half <- factor(pen$plate %in% letters[1:12])
  pen$x <- as.numeric(pen$sample) + sin(seq_len(nrow(pen)))
  cases <- list(
    balanced = list(yield ~ Variety * nitro, ~ Block + Block:Variety, yield ~ Variety * nitro + (1 | Block) + (1 | Block:Variety), oats),
    unbalanced = list(yield ~ Variety * nitro, ~ Block + Block:Variety, yield ~ Variety * nitro + (1 | Block) + (1 | Block:Variety), unbal),
    regression = list(distance ~ age + Sex, ~ coefs(Subject, ~ age), distance ~ age + Sex + (age | Subject), orth),
    crossed = list(diameter ~ half + x, ~ plate + sample, diameter ~ half + x + (1 | plate) + (1 | sample), pen))
  for (nm in names(cases)) {
    cs <- cases[[nm]]
    fit <- quiet(tarnel(cs[[1]], random = cs[[2]], data = cs[[4]]))
    l <- lmerTest::lmer(cs[[3]], data = cs[[4]])
    w <- wald(fit)[-1, ]
    a1 <- stats::anova(l, type = 1, ddf = "Kenward-Roger")
    a2 <- stats::anova(l, type = 2, ddf = "Kenward-Roger")
    expect_lt(rel(w$denDF.inc, a1$DenDF), 0.02)
    expect_lt(rel(w$denDF.con, a2$DenDF), 0.02)
    expect_equal(w$Pr.inc, stats::pf(w$F.inc, w$Df, w$denDF.inc, lower.tail = FALSE))
  }
})

test_that("coef(), vcov() and AIC/BIC follow lme4 in R's coding, contrasts included", {
  skip_if_not_installed("lme4")
  oats <- oats_data()
  orth <- orth_data()
  pen <- pen_data()
  pen$half <- factor(pen$plate %in% letters[1:12])
  sp <- quiet({ e <- new.env(); utils::data("split_plot", package = "tarnel", envir = e); e$split_plot })
  sums <- oats
  contrasts(sums$Variety) <- stats::contr.sum(3)
  cases <- list(
    list(yield ~ variety * nitrogen_level, ~ block + wholeplot, "(1 | block) + (1 | wholeplot)", sp),
    list(yield ~ Variety + nitro, ~ Block + Block:Variety, "(1 | Block) + (1 | Block:Variety)", oats),
    list(yield ~ nitro * Variety, ~ Block + Block:Variety, "(1 | Block) + (1 | Block:Variety)", oats),
    list(yield ~ Variety + nitro, ~ Block + Block:Variety, "(1 | Block) + (1 | Block:Variety)", sums),
    list(distance ~ age * Sex, ~ coefs(Subject, ~ age), "(age | Subject)", orth),
    list(diameter ~ half, ~ plate + sample, "(1 | plate) + (1 | sample)", pen))
  for (k in seq_along(cases)) {
    cs <- cases[[k]]
    fit <- quiet(tarnel(cs[[1]], random = cs[[2]], data = cs[[4]]))
    lf <- stats::as.formula(paste(deparse(cs[[1]]), "+", cs[[3]]))
    l <- lme4::lmer(lf, data = cs[[4]], control = lme4::lmerControl(optimizer = "bobyqa", optCtrl = list(rhoend = 1e-10)))
    expect_equal(names(coef(fit)), names(lme4::fixef(l)), info = paste("case", k))
    expect_lt(max(abs(coef(fit) - lme4::fixef(l)) / pmax(1, abs(lme4::fixef(l)))), 1e-5)
    expect_identical(fixef(fit), coef(fit))
    expect_lt(max(abs(vcov(fit) - as.matrix(stats::vcov(l)))) / max(abs(diag(vcov(fit)))), 1e-3)
    expect_equal(attr(logLik(fit), "df"), attr(stats::logLik(l), "df"))
    expect_lt(abs(stats::AIC(fit) - stats::AIC(l)), 2e-3)
    expect_lt(abs(stats::BIC(fit) - stats::BIC(l)), 2e-3)
  }
})

test_that("aliased columns are named, and bad requests get clear errors", {
  oats <- oats_data()
  # Variety within nitro: the main effect of Variety is aliased with the interaction
  fit <- quiet(tarnel(yield ~ nitro + nitro:Variety + Variety, random = ~ Block, data = oats))
  fr <- fixed_effects_r <- getFromNamespace("fixed_effects_r", "tarnel")(fit)
  expect_setequal(fr$aliased, c("VarietyMarvellous", "VarietyVictory"))
  expect_false(anyNA(coef(fit)))
  w <- wald(fit, ddf = "none")
  expect_equal(rownames(w), c("(Intercept)", "nitro", "nitro:Variety"))
  expect_equal(w$Df, c(1L, 3L, 8L))
  expect_output(print(summary(fit)), "Not estimable")
  expect_error(wald(fit, terms = "Block"), "not a fixed term of the model: Block")
  expect_error(wald(fit, terms = 3), "character vector")
  expect_error(wald(lm(yield ~ 1, oats)), "tarnel fit")
  f0 <- quiet(tarnel(diameter ~ 0, random = ~ plate, data = pen_data()))
  expect_error(wald(f0), "no fixed terms")
  expect_error(anova(fit, fit), "one fit")
  # records whose missing response is estimated take no part in the tests
  om <- oats
  om$yield[c(5, 30, 61)] <- NA
  wd <- wald(quiet(tarnel(yield ~ Variety * nitro, random = ~ Block + Block:Variety, data = om)), ddf = "none")
  we <- wald(quiet(tarnel(yield ~ Variety * nitro, random = ~ Block + Block:Variety, data = om,
                          na_response = "estimate")), ddf = "none")
  expect_equal(rownames(we), rownames(wd))
  expect_lt(rel(we$F.inc, wd$F.inc), 1e-4)
  expect_lt(rel(we$F.con, wd$F.con), 1e-4)
  # containment df of the split plot, and a table that prints
  fit <- quiet(tarnel(yield ~ Variety * nitro, random = ~ Block + Block:Variety, data = oats))
  expect_equal(wald(fit, ddf = "containment")$denDF.inc, c(45, 10, 45, 45))
  expect_output(print(anova(fit)), "Kenward-Roger")
})
