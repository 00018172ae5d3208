# Compares the fits of two builds of tarnel, to show that a change inside the
# engine leaves its results alone.
#
#   Rscript tools/compare_fits.R BEFORE AFTER [--tol 1e-12] [--ref DIR]
#
# BEFORE and AFTER are each a library that holds an installed tarnel, a source
# tree of the package, or a git revision of the repository this script sits
# in; a source tree or revision is installed into a temporary library first.
# Each library fits the reference cases (and forms a few pedigree inverses) in
# an R process of its own.  The script prints, case by case, the largest
# relative difference of the variance parameters, the log-likelihood, the fixed
# effects, the random effects and the pedigree results, and exits with status 1
# when any of them exceeds the tolerance, when a case fits in one build only, or
# when the number of iterations differs.
#
# The relative difference of two numbers a and b is |a - b| / max(|a|, |b|)
# (0 when both are 0); a missing value on one side only counts as infinite.

args <- commandArgs(trailingOnly = TRUE)
script <- sub("^--file=", "", grep("^--file=", commandArgs(FALSE), value = TRUE)[1])
opt <- function(name, default) {
  i <- match(name, args)
  if (is.na(i)) return(default)
  v <- args[i + 1L]
  args <<- args[-c(i, i + 1L)]
  v
}

# ---------------------------------------------------------------------------
# Child: fit every case with the tarnel found first on the library path and
# save the numbers that matter.

ref_cases <- function(ref) {
  rd <- function(case) utils::read.csv(file.path(ref, case, "data.csv"), stringsAsFactors = TRUE)
  ainv <- function() tarnel::pedigree_inverse(utils::read.csv(file.path(ref, "animal", "pedigree.csv")))
  list(
    dyestuff = function() tarnel::tarnel(Yield ~ 1, random = ~ Batch, data = rd("dyestuff")),
    penicillin = function() tarnel::tarnel(diameter ~ 1, random = ~ plate + sample,
                                           data = rd("penicillin")),
    oats = function() tarnel::tarnel(yield ~ nitro * Variety, random = ~ Block + Block:Variety,
                                     data = transform(rd("oats"), nitro = factor(nitro))),
    orthodont_rr = function() tarnel::tarnel(distance ~ age + Sex, random = ~ coefs(Subject, ~ age),
                                             data = rd("orthodont_rr")),
    hetres = function() tarnel::tarnel(y ~ group, random = ~ block, residual = ~ het(group),
                                       data = transform(rd("hetres"), block = factor(block))),
    field_ar1ar1 = function() tarnel::tarnel(yield ~ variety, random = ~ rep,
                                             residual = ~ cov_ar1(col):cov_ar1(row),
                                             data = transform(rd("field_ar1ar1"), variety = factor(variety),
                                                              rep = factor(rep))),
    animal = function() {
      d <- rd("animal")
      animal_ainv <- ainv()
      tarnel::tarnel(y ~ sex, random = ~ cov_known(animal, animal_ainv), data = d)
    },
    # Weights, a transformed covariate and missing responses estimated.
    oats_weighted_missing = function() {
      d <- transform(rd("oats"), nitro = factor(nitro), x = seq_along(yield) / 10,
                     wt = 1 + seq_along(yield) %% 3)
      d$yield[c(3, 17, 40)] <- NA
      tarnel::tarnel(yield ~ nitro + Variety + tr_log(x), random = ~ Block + Block:Variety,
                     data = d, weights = "wt", na_response = "estimate")
    },
    # The animal model from a small workspace: the store fills up, is
    # compacted, and the fit is retried with more room.
    animal_small_workspace = function() {
      d <- rd("animal")
      animal_ainv <- ainv()
      tarnel::tarnel(y ~ sex, random = ~ cov_known(animal, animal_ainv), data = d,
                     control = tarnel::tarnel_control(workspace = 8000))
    }
  )
}

# Pedigree inverses of the animal pedigree by each method, and a shuffled one.
ped_cases <- function(ref) {
  ped <- utils::read.csv(file.path(ref, "animal", "pedigree.csv"))
  shuffled <- ped[rev(seq_len(nrow(ped))), ]
  # For the X-linked method: sires male, dams female (a dam that is also a
  # sire, or the only parent, is dropped), the others alternately.
  xped <- ped
  xped$dam[xped$dam %in% xped$sire[xped$sire != 0] | xped$sire == 0] <- 0
  xped$sex <- ifelse(xped$id %in% xped$sire, "M", ifelse(xped$id %in% xped$dam, "F",
                     ifelse(seq_len(nrow(ped)) %% 2L == 0L, "F", "M")))
  fg <- ifelse(ped$sire == 0 | ped$dam == 0, 2, 0)
  # Genetic groups: three groups standing for the unknown parents, the last
  # of them without progeny.
  gped <- data.frame(id = c("g1", "g2", "g3", as.character(ped$id)),
                     sire = c(0, 0, 0, ifelse(ped$sire == 0, ifelse(ped$id %% 2 == 0, "g1", "g2"), ped$sire)),
                     dam = c(0, 0, 0, ifelse(ped$dam == 0, "g2", ped$dam)))
  list(
    ped_groups = function() tarnel::pedigree_inverse(gped, groups = 3, group_constraint = TRUE),
    ped_standard = function() tarnel::pedigree_inverse(ped),
    ped_shuffled_selfing = function() tarnel::pedigree_inverse(shuffled, selfing = 0.5),
    ped_fgen = function() tarnel::pedigree_inverse(cbind(ped, fg = fg), fgen = "fg"),
    ped_mgs = function() tarnel::pedigree_inverse(ped, method = "mgs"),
    ped_xlinked = function() tarnel::pedigree_inverse(xped, method = "xlinked", sex = "sex"),
    ped_inbred_lines = function() tarnel::pedigree_inverse(ped, method = "inbred_lines"),
    ped_sort = function() tarnel::pedigree_sort(shuffled)
  )
}

numbers <- function(x) {
  if (is.null(x)) return(numeric(0))
  if (is.data.frame(x)) x <- x[vapply(x, is.numeric, TRUE)]
  if (is.list(x)) return(unlist(lapply(x, numbers), use.names = FALSE))
  if (inherits(x, "Matrix")) x <- as.matrix(x)
  if (is.factor(x) || is.character(x)) return(numeric(0))
  as.numeric(x)
}

run_child <- function(out, ref) {
  res <- list()
  capture <- function(f) tryCatch({
    utils::capture.output(v <- suppressMessages(suppressWarnings(f())))
    v
  }, error = function(e) structure(conditionMessage(e), class = "failed"))
  for (nm in names(cases <- ref_cases(ref))) {
    fit <- capture(cases[[nm]])
    res[[nm]] <- if (inherits(fit, "failed")) fit else list(
      "variance parameters" = stats::setNames(fit$varcomp_all[, "component"], rownames(fit$varcomp_all)),
      "log-likelihood" = fit$loglik,
      "fixed effects" = fit$coefficients,
      "random effects" = numbers(fit$ranef),
      iterations = nrow(as.data.frame(fit$iterations)), converged = fit$converged)
  }
  for (nm in names(cases <- ped_cases(ref))) {
    p <- capture(cases[[nm]])
    res[[nm]] <- if (inherits(p, "failed")) p else if (is.data.frame(p)) list(
      "sorted pedigree" = numbers(lapply(p, function(x)
        as.numeric(factor(x, levels = unique(unlist(p[1:3])))))),
      identities = as.character(p[[1]])) else list(
      "inverse" = numbers(p$giv$ainv), "inbreeding" = p$inbreeding, "log-determinant" = p$logdet,
      identities = as.character(p$pedigree[[1]]))
  }
  res$version <- as.character(utils::packageVersion("tarnel"))
  res$path <- find.package("tarnel")
  saveRDS(res, out)
}

# ---------------------------------------------------------------------------
# Parent: prepare the two libraries, run the children, compare.

prepare_library <- function(what, label) {
  if (file.exists(file.path(what, "tarnel", "DESCRIPTION"))) return(normalizePath(what))
  lib <- file.path(tempdir(), paste0("lib_", label))
  dir.create(lib, showWarnings = FALSE)
  src <- what
  if (!file.exists(file.path(what, "DESCRIPTION"))) {
    repo <- dirname(dirname(normalizePath(script)))
    src <- file.path(tempdir(), paste0("src_", label))
    dir.create(src, showWarnings = FALSE)
    st <- system(sprintf("git -C %s archive %s | tar -x -C %s", shQuote(repo), shQuote(what), shQuote(src)))
    if (st != 0) stop(sprintf("'%s' is neither a library with tarnel, a source tree nor a git revision", what))
  }
  message(sprintf("installing %s (%s) into %s", label, what, lib))
  log <- file.path(tempdir(), paste0("install_", label, ".log"))
  st <- system2(file.path(R.home("bin"), "R"),
                c("CMD", "INSTALL", "--no-multiarch", "-l", shQuote(lib), shQuote(src)),
                stdout = log, stderr = log)
  if (st != 0) stop(sprintf("installing %s failed; see %s", label, log))
  lib
}

fit_in <- function(lib, label, ref) {
  out <- file.path(tempdir(), paste0("fits_", label, ".rds"))
  env <- paste0("R_LIBS=", paste(c(lib, Sys.getenv("R_LIBS")[nzchar(Sys.getenv("R_LIBS"))]), collapse = ":"))
  st <- system2(file.path(R.home("bin"), "Rscript"),
                c("--no-init-file", shQuote(script), "--child", shQuote(out), "--ref", shQuote(ref)),
                env = env)
  if (st != 0 || !file.exists(out)) stop(sprintf("the fits with %s failed (status %d)", label, st))
  r <- readRDS(out)
  if (!identical(normalizePath(dirname(r$path)), normalizePath(lib)))
    stop(sprintf("the %s run loaded tarnel from %s, not from %s", label, r$path, lib))
  r
}

reldiff <- function(a, b) {
  a <- as.numeric(a); b <- as.numeric(b)
  if (length(a) != length(b)) return(Inf)
  if (!length(a)) return(0)
  na <- is.na(a) | is.na(b)
  if (any(is.na(a) != is.na(b))) return(Inf)
  a <- a[!na]; b <- b[!na]
  den <- pmax(abs(a), abs(b))
  d <- ifelse(den == 0, 0, abs(a - b) / den)
  if (!length(d)) 0 else max(d)
}

compare <- function(before, after, tol) {
  cases <- setdiff(union(names(before), names(after)), c("version", "path"))
  worst <- 0
  bad <- character(0)
  rows <- list()
  for (nm in cases) {
    b <- before[[nm]]; a <- after[[nm]]
    fb <- inherits(b, "failed"); fa <- inherits(a, "failed")
    if (fb || fa) {
      if (fb && fa && identical(unclass(b), unclass(a))) {
        cat(sprintf("%-22s fails in both builds alike: %s\n", nm, unclass(b)))
      } else {
        cat(sprintf("%-22s before: %s\n%-22s after:  %s\n", nm, if (fb) unclass(b) else "fits",
                    "", if (fa) unclass(a) else "fits"))
        bad <- c(bad, nm)
      }
      next
    }
    if (!identical(b$identities, a$identities) || !identical(b$iterations, a$iterations) ||
        !identical(b$converged, a$converged)) {
      cat(sprintf("%-22s differs in identities, iterations or convergence\n", nm))
      bad <- c(bad, nm)
    }
    for (what in setdiff(names(b), c("identities", "iterations", "converged"))) {
      d <- reldiff(b[[what]], a[[what]])
      rows[[length(rows) + 1L]] <- data.frame(case = nm, quantity = what, n = length(b[[what]]), reldiff = d)
      worst <- max(worst, d)
      if (!(d <= tol)) bad <- c(bad, paste(nm, what))
    }
  }
  tab <- do.call(rbind, rows)
  tab$reldiff <- format(tab$reldiff, digits = 3)
  print(tab, row.names = FALSE)
  cat(sprintf("\nlargest relative difference: %.3g (tolerance %.3g)\n", worst, tol))
  if (length(bad)) {
    cat("beyond the tolerance or not alike:", paste(unique(bad), collapse = "; "), "\n")
    quit(status = 1)
  }
  cat("the two builds agree\n")
}

main <- function() {
  here <- dirname(dirname(normalizePath(script)))
  ref <- opt("--ref", if (dir.exists("/work/shared/reference")) "/work/shared/reference"
                      else file.path(here, "inst", "extdata", "reference"))
  child <- opt("--child", NULL)
  if (!is.null(child)) return(run_child(child, ref))
  tol <- as.numeric(opt("--tol", "1e-12"))
  if (length(args) != 2L) {
    cat("usage: Rscript tools/compare_fits.R BEFORE AFTER [--tol 1e-12] [--ref DIR]\n",
        "  BEFORE, AFTER: a library holding tarnel, a source tree, or a git revision\n", sep = "")
    quit(status = 2)
  }
  libs <- c(prepare_library(args[1], "before"), prepare_library(args[2], "after"))
  cat(sprintf("before: %s\nafter:  %s\nreference cases: %s\n\n", libs[1], libs[2], ref))
  compare(fit_in(libs[1], "before", ref), fit_in(libs[2], "after", ref), tol)
}

main()
