# A corpus of bad input, grouped by family.  Each case states the one outcome
# a user should get: a clear error whose message names the cause, a fit with
# a warning that names the problem, or a correct fit (checked against a
# fit of the same model on good input).  Cases that could exhaust memory if
# their check failed run in a fresh R process with a time limit.

quiet <- function(expr) { utils::capture.output(r <- expr); r }
ft <- field_trial
base_fit <- function(data = ft, ...) tarnel(yield ~ variety, random = ~ block, data = data, ...)
ref <- quiet(base_fit())
with_col <- function(name, value, data = ft) { data[[name]] <- value; data }
ped4 <- function(s, d) data.frame(id = c("a", "b", "c", "d"), sire = s, dam = d, stringsAsFactors = FALSE)
ped_ok <- quiet(pedigree_inverse(ped4(c("0", "0", "a", "a"), c("0", "0", "b", "b"))))
ped_records_ainv <- quiet(pedigree_inverse(pedigree_records[, 1:3]))
same_ainv <- function(r) isTRUE(all.equal(as.matrix(r$ainv), as.matrix(ped_ok$ainv)))
same_fit <- function(f, scale = 1) {
  isTRUE(all.equal(f$varcomp$gamma, ref$varcomp$gamma, tolerance = 1e-5)) &&
    isTRUE(all.equal(f$varcomp$component, ref$varcomp$component * scale^2, tolerance = 1e-5)) &&
    isTRUE(all.equal(unname(f$coefficients), unname(ref$coefficients) * scale, tolerance = 1e-5)) &&
    isTRUE(all.equal(f$loglik + f$nedf * log(scale), ref$loglik, tolerance = 1e-6))
}

# Each case: family, label, expression, outcome ("error", "warning" or
# "fit"), the pattern its message must match, and for fits a check.
case <- function(family, label, expr, outcome, pattern = NULL, check = NULL, fresh = FALSE)
  list(family = family, label = label, expr = substitute(expr), outcome = outcome, pattern = pattern,
       check = check, fresh = fresh)

corpus <- list(
  case("control", "control = \"x\"", base_fit(control = "x"), "error", "'control' must be a list.*\"x\""),
  case("control", "maxiter = NA", base_fit(control = tarnel_control(maxiter = NA)), "error", "'maxiter' must be a whole number.*not NA"),
  case("control", "maxiter = 1e9", base_fit(control = tarnel_control(maxiter = 1e9)), "error", "'maxiter' must be .*10,000, not 1e\\+09"),
  case("control", "maxiter = \"a\"", base_fit(control = tarnel_control(maxiter = "a")), "error", "'maxiter'.*not \"a\""),
  case("control", "maxiter = 2.5", base_fit(control = tarnel_control(maxiter = 2.5)), "error", "'maxiter' must be a whole number"),
  case("control", "workspace = NA", base_fit(control = tarnel_control(workspace = NA)), "error", "'workspace' must be a number.*not NA"),
  case("control", "workspace = Inf", base_fit(control = tarnel_control(workspace = Inf)), "error", "'workspace'.*not Inf"),
  case("control", "trace = NA", base_fit(control = tarnel_control(trace = NA)), "error", "'trace' must be TRUE or FALSE"),
  case("control", "unknown option", base_fit(control = list(maxit = 5)), "error", "unknown option 'maxit'"),
  case("control", "plain list", base_fit(control = list(maxiter = 30)), "fit", check = same_fit),

  case("start", "start = c(block = 0)", base_fit(start = c(block = 0)), "fit", check = same_fit),
  case("start", "start = 1e300", base_fit(start = c(block = 1e300)), "error", "1e\\+300 of 'block' is far beyond"),
  case("start", "start = Inf", base_fit(start = c(block = Inf)), "error", "'start': the value of 'block' must be a finite number, not Inf"),
  case("start", "start = NA", base_fit(start = c(block = NA)), "error", "'start'.*not NA"),
  case("start", "negative variance", base_fit(start = c(block = -1)), "error", "'block' is a variance and must not be negative.*unconstrained"),
  case("start", "negative, unconstrained, not positive definite",
       base_fit(start = c(block = -0.1), constrain = c(block = "unconstrained")), "error", "negative start of 'block'.*not positive definite"),
  case("start", "small negative, unconstrained", base_fit(start = c(block = -0.01), constrain = c(block = "unconstrained")), "fit",
       check = same_fit),
  case("start", "name twice", base_fit(start = c(block = 1, block = 2)), "error", "'start' names the parameter 'block' twice"),
  case("start", "unknown name", base_fit(start = c(blk = 1)), "error", "no parameter named 'blk'; the parameters are: block, residual"),
  case("start", "correlation 1", tarnel(yield ~ variety, residual = ~ cov_ar1(row):cov_ar1(col), data = ft,
                                        start = c("residual: row ar1" = 1)), "error", "correlation and must lie strictly between -1 and 1, not 1"),
  case("start", "correlation 1.5", tarnel(yield ~ variety, residual = ~ cov_ar1(row):cov_ar1(col), data = ft,
                                          start = c("residual: col ar1" = 1.5)), "error", "strictly between -1 and 1, not 1.5"),
  case("constraints", "constrain \"fix\"", base_fit(constrain = c(block = "fix")), "error", "must be \"fixed\", \"positive\" or \"unconstrained\", not \"fix\""),
  case("constraints", "fixed at 0 on purpose", base_fit(start = c(block = 0), constrain = c(block = "fixed")), "fit",
       check = function(f) f$varcomp["block", "component"] < 1e-6 * f$sigma2 && f$varcomp["block", "constraint"] == "fixed" &&
         isTRUE(all.equal(f$loglik, quiet(tarnel(yield ~ variety, data = ft))$loglik, tolerance = 1e-6))),
  case("constraints", "equal: a name twice", base_fit(equal = list(c("block", "block"))), "error", "'equal' names the parameter 'block' twice"),
  case("constraints", "equal: in two sets", base_fit(equal = list(c("block", "residual"), c("block", "residual"))), "error", "'block' is in two sets"),
  case("constraints", "lincon: duplicated row", base_fit(lincon = matrix(1, 2, 1, dimnames = list(c("block", "block"), NULL)))
       , "error", "'lincon' names the parameter 'block' in two rows"),
  case("constraints", "lincon: zero column", base_fit(lincon = matrix(0, 1, 1, dimnames = list("block", NULL))), "error", "column 1 has no nonzero coefficient"),
  case("constraints", "lincon: Inf", base_fit(lincon = matrix(Inf, 1, 1, dimnames = list("block", NULL))), "error", "coefficient of 'block' in column 1 must be a finite number, not Inf"),

  case("data columns", "matrix column", tarnel(yield ~ m, data = with_col("m", matrix(1:72, 36))), "error", "column 'm' of 'data' is a matrix \\(36 x 2\\)"),
  case("data columns", "list column", tarnel(yield ~ l, data = with_col("l", I(as.list(1:36)))), "error", "column 'l' of 'data' is a list"),
  case("data columns", "column named residual as a random term", tarnel(yield ~ variety, random = ~ residual, data = with_col("residual", ft$block)),
       "error", "the column 'residual' cannot be a random term"),
  case("data columns", "covariate at the missing mark", tarnel(yield ~ nitrogen, data = with_col("nitrogen", replace(ft$nitrogen, 3, 1e37))),
       "error", "column 'nitrogen' holds 1e\\+37 in record 3.*rescale"),
  case("data columns", "missing covariate value", tarnel(yield ~ nitrogen, data = with_col("nitrogen", replace(ft$nitrogen, 5, NA))),
       "error", "the model term 'nitrogen' has 1 missing value.*first in record 5.*na_design"),
  case("data columns", "levels only on missing responses", base_fit(data = with_col("yield", replace(ft$yield, ft$variety == "V01", NA))),
       "fit", "level V01 of 'variety' occurs only on records with a missing response",
       check = function(f) {
         d <- droplevels(ft[ft$variety != "V01", ])
         g <- quiet(tarnel(yield ~ variety, random = ~ block, data = d))
         isTRUE(all.equal(f$varcomp, g$varcomp)) && f$nobs == g$nobs
       }),

  case("response", "one record", tarnel(yield ~ 1, data = ft[1, ]), "error", "has 1 record with a value; a REML fit needs at least 2"),
  case("response", "constant", tarnel(yield ~ variety, random = ~ block, data = with_col("yield", 5)), "error", "'yield' is constant"),
  case("response", "exact fit", tarnel(yield ~ variety, data = with_col("yield", as.numeric(ft$variety))), "error",
       "fixed terms fit the response 'yield' exactly"),
  case("response", "no residual df", tarnel(yield ~ id, data = with_col("id", factor(seq_len(36)))), "error",
       "no residual degrees of freedom: 34 records with a response and the fixed terms have rank 34"),
  case("response", "more parameters than records",
       tarnel(yield ~ 1, random = ~ block + variety, residual = ~ het(block), data = droplevels(ft[c(1, 2, 13, 25), ])),
       "error", "5 variance parameters to estimate but only 4 records"),
  case("response", "a value near 1e300", base_fit(data = with_col("yield", replace(ft$yield, 3, 1e300))), "error",
       "spread .* beyond double precision"),
  case("response", "scaled by 1e150", base_fit(data = with_col("yield", ft$yield * 1e150)), "fit", check = function(f) same_fit(f, 1e150)),
  case("response", "scaled by 1e-8", base_fit(data = with_col("yield", ft$yield * 1e-8)), "fit", check = function(f) same_fit(f, 1e-8)),
  # The unit fit holds block B3's variance at its boundary too.
  case("response", "scaled by 1e150, het residual",
       tarnel(yield ~ variety, residual = ~ het(block), data = with_col("yield", ft$yield * 1e150)), "warning",
       "held at a boundary: residual: block B3",
       check = function(f) {
         g <- suppressWarnings(quiet(tarnel(yield ~ variety, residual = ~ het(block), data = ft)))
         isTRUE(all.equal(f$varcomp$component / 1e300, g$varcomp$component, tolerance = 1e-5)) &&
           isTRUE(all.equal(f$loglik + f$nedf * log(1e150), g$loglik, tolerance = 1e-6))
       }),
  case("response", "na_response = \"keep\"", base_fit(na_response = "keep"), "fit", check = same_fit),
  case("response", "all missing", tarnel(yield ~ 1, data = with_col("yield", NA_real_)), "error", "'yield' holds only missing values"),

  case("reporting", "parameter without information", tarnel(yield ~ variety, random = ~ block + b2, data = with_col("b2", ft$block)),
       "warning", "no information on parameter\\(s\\) b2.*NA",
       check = function(f) is.na(f$varcomp["b2", "component"])),
  case("reporting", "variance at a boundary (the shipped pedigree example)",
       tarnel(weight ~ sex + herd, random = ~ cov_known(animal, ped_records_ainv), data = pedigree_records), "warning",
       "held at a boundary: cov_known\\(animal, ped_records_ainv\\): variance",
       check = function(f) all(f$varcomp$constraint %in% c("boundary", "positive"))),

  case("runaway", "300 records on a 300 x 300 grid",
       { set.seed(1); tarnel(y ~ 1, residual = ~ cov_ar1(r):cov_ar1(c), data = data.frame(y = rnorm(300), r = sample(300), c = sample(300))) },
       "error", "residual grid r x c is 300 x 300 = 90000 cells for 300 records", fresh = TRUE),
  case("runaway", "50,000 x 50,000 interaction",
       { set.seed(1); tarnel(y ~ 1, random = ~ a:b, data = data.frame(y = rnorm(5e4), a = factor(sample(5e4)), b = factor(sample(5e4)))) },
       "error", "'a:b' has 50000 x 50000 = 2.5e\\+09 level combinations", fresh = TRUE),

  case("pedigree", "parent \"NA\"", pedigree_inverse(ped4(c("NA", "NA", "a", "a"), c("NA", "NA", "b", "b"))), "fit", check = same_ainv),
  case("pedigree", "parent \"\" and NA", pedigree_inverse(ped4(c("", NA, "a", "a"), c(" ", NA, "b", "b"))), "fit", check = same_ainv),
  case("pedigree", "parent 0", pedigree_inverse(data.frame(id = 1:4, s = c(0, NA, 1, 1), d = c(0, 0, 2, 2))), "fit",
       check = function(r) isTRUE(all.equal(unname(as.matrix(r$ainv)), unname(as.matrix(ped_ok$ainv))))),
  case("pedigree", "parent -1", pedigree_inverse(data.frame(id = 1:4, s = c(-1, -1, 1, 1), d = c(-1, -1, 2, 2))), "error",
       "the sire of row 1 is -1; negative identities are not allowed"),
  case("pedigree", "parent \"-1\"", pedigree_inverse(ped4(c("-1", "-1", "a", "a"), c("0", "0", "b", "b"))), "error",
       "negative identities are not allowed"),
  case("pedigree", "negative fgen", pedigree_inverse(data.frame(id = 1:4, s = c(0, 0, 1, 1), d = c(0, 0, 2, 2)), fgen = c(-1, 0, 0, 0)),
       "error", "'fgen' must be 0 or more .*not -1 \\(row 1\\)"),
  case("pedigree", "cycle", pedigree_sort(data.frame(id = 1:3, s = c(3, 1, 2), d = 0)), "error", "cycle: individual \"1\" is its own ancestor"),
  case("pedigree", "300 generations listed youngest first",
       pedigree_sort(data.frame(id = 300:1, s = c(299:1, 0), d = 0)), "fit",
       check = function(s) identical(s$individual, 1:300) && nrow(attr(s, "moves")) < 3 * 300),
  case("pedigree", "unsorted, quiet with its moves", pedigree_sort(ped4(c("c", "0", "0", "0"), c("0", "0", "0", "b"))), "fit",
       check = function(s) identical(attr(s, "moves")$individual, "c") && identical(attr(s, "moves")$action, "moved (sire)") &&
         identical(s$individual[1], "c"))
)

# Runs one case: the class of outcome and the message that goes with it.
run_case <- function(cs) {
  if (cs$fresh) {
    code <- c("suppressMessages(library(tarnel)); ft <- field_trial",
              sprintf("r <- tryCatch({ invisible(capture.output(%s)); 'fit' }, error = function(e) paste('error:', conditionMessage(e)))",
                      paste(deparse(cs$expr, width.cutoff = 500L), collapse = "\n")),
              "cat(r)")
    f <- tempfile(fileext = ".R")
    writeLines(code, f)
    out <- suppressWarnings(system2(file.path(R.home("bin"), "Rscript"), c("--vanilla", f), stdout = TRUE, stderr = TRUE,
                                    timeout = 120, env = paste0("R_LIBS=", paste(.libPaths(), collapse = ":"))))
    out <- paste(out, collapse = "\n")
    if (!is.null(attr(out, "status")) && attr(out, "status") == 124L) return(list(outcome = "hung", text = ""))
    if (grepl("error:", out)) return(list(outcome = "error", text = sub(".*error: ", "", out)))
    return(list(outcome = if (grepl("fit$", out)) "fit" else "aborted", text = out))
  }
  warns <- character()
  msgs <- character()
  res <- tryCatch(withCallingHandlers(quiet(eval(cs$expr)),
                                      warning = function(w) { warns <<- c(warns, conditionMessage(w)); invokeRestart("muffleWarning") },
                                      message = function(m) { msgs <<- c(msgs, conditionMessage(m)); invokeRestart("muffleMessage") }),
                  error = function(e) structure(list(conditionMessage(e)), class = "failed"))
  if (inherits(res, "failed")) return(list(outcome = "error", text = res[[1]]))
  list(outcome = if (length(warns)) "warning" else "fit", text = paste(c(warns, msgs), collapse = "\n"), value = res)
}

results <- lapply(corpus, function(cs) c(cs[c("family", "label", "outcome")], got = list(run_case(cs))))

for (i in seq_along(corpus)) {
  cs <- corpus[[i]]
  got <- results[[i]]$got
  test_that(sprintf("%s: %s gives a %s", cs$family, cs$label, cs$outcome), {
    expect_identical(got$outcome, cs$outcome, info = got$text)
    if (!is.null(cs$pattern)) expect_match(got$text, cs$pattern, info = cs$label)
    if (!is.null(cs$check) && !is.null(got$value)) expect_true(cs$check(got$value), info = cs$label)
  })
}

# The corpus by family, written out on request for the record of a run.
table_file <- Sys.getenv("TARNEL_CORPUS_TABLE")
if (nzchar(table_file)) {
  fam <- vapply(corpus, `[[`, "", "family")
  got <- vapply(results, function(r) r$got$outcome, "")
  ok <- mapply(function(cs, r) identical(r$got$outcome, cs$outcome) &&
                 (is.null(cs$pattern) || grepl(cs$pattern, r$got$text)) &&
                 (is.null(cs$check) || is.null(r$got$value) || isTRUE(cs$check(r$got$value))), corpus, results)
  tab <- do.call(rbind, lapply(split(seq_along(fam), factor(fam, unique(fam))), function(k)
    data.frame(family = fam[k[1]], cases = length(k), clear_errors = sum(got[k] == "error" & ok[k]),
               warnings = sum(got[k] == "warning" & ok[k]), correct_fits = sum(got[k] == "fit" & ok[k]),
               other = sum(!ok[k]))))
  utils::write.csv(tab, table_file, row.names = FALSE)
}
