# The front end: tarnel() reads the model, builds the term table and the
# variance structures, and calls the engine's model-fit entry.

#' Options of a tarnel run
#'
#' @param workspace size of the engine's main work array in 8-byte words;
#'   \code{NULL} sizes it from the data.
#' @param max_workspace the largest work array that a retry after a shortage
#'   may ask for, in 8-byte words.
#' @param maxiter iteration limit of the fit.
#' @param trace print the engine's start and finish lines.
#' @return A list of options.
#' @export
tarnel_control <- function(workspace = NULL, max_workspace = 1e9, maxiter = 20L, trace = FALSE) {
  if (!is.null(workspace) && (!is.numeric(workspace) || length(workspace) != 1L || !(workspace > 0)))
    stop("'workspace' must be a positive number of words", call. = FALSE)
  if (!is.numeric(max_workspace) || length(max_workspace) != 1L || !(max_workspace > 0))
    stop("'max_workspace' must be a positive number of words", call. = FALSE)
  list(workspace = workspace, max_workspace = max_workspace, maxiter = as.integer(maxiter),
       trace = isTRUE(trace))
}

#' Linear mixed model terms and design with tarnel
#'
#' Reads a model given by a fixed formula with the response, a random
#' formula and a residual formula, builds the engine's term table and forms
#' the design rows.  Random terms are written in the same language as fixed
#' terms; for now each is a scaled identity and the residual an identity.
#' The estimation of variance parameters is not available yet: the result
#' holds the design (when asked) and its counts.
#'
#' @param fixed a formula \code{response ~ terms}; see \code{\link{tarnel_terms}}
#'   for the term functions.
#' @param random a one-sided formula of random terms, or \code{NULL}.
#' @param residual \code{NULL} or \code{~ 1}: an identity residual.
#' @param data a data frame.
#' @param na_response what a missing response does: \code{"drop"} leaves the
#'   record out, \code{"keep"} keeps its row, \code{"estimate"} gives each
#'   missing response an equation of its own.
#' @param na_design what a missing value in a model term does: \code{"fail"}
#'   stops with an error, \code{"zero"} leaves the term's entry out of the row.
#' @param weights the name of a column of non-negative weights, or \code{NULL}.
#' @param keep_design return the design matrix.
#' @param control options from \code{\link{tarnel_control}}.
#' @return An object of class \code{"tarnel"}: \code{design} (records by
#'   equations, without the response, when kept), \code{records},
#'   \code{neq} (equations, the response's included), \code{nonzero},
#'   \code{workspace} and the parsed model.
#' @examples
#' fit <- tarnel(yield ~ variety + nitrogen, random = ~ block, data = field_trial,
#'               keep_design = TRUE)
#' dim(fit$design)
#' @export
tarnel <- function(fixed, random = NULL, residual = NULL, data, na_response = c("drop", "keep", "estimate"),
                   na_design = c("fail", "zero"), weights = NULL, keep_design = FALSE,
                   control = tarnel_control()) {
  na_response <- match.arg(na_response)
  na_design <- match.arg(na_design)
  env <- environment(fixed)
  if (is.null(env)) env <- parent.frame()
  model <- parse_model(fixed, random, residual, data, weights, na_response, na_design, env)
  table <- build_term_table(model)
  struc <- build_struc(model, table)
  out <- run_ctrn(model, table, struc, keep_design = keep_design, control = control)
  out$call <- match.call()
  out$model <- model
  out$table <- table
  class(out) <- "tarnel"
  out
}

#' @noRd
# Variance structures of the model.  For now: a scaled identity for each
# random term and an identity residual, with parameters as ratios to the
# residual variance; the structure table proper comes with the variance
# subsystem.
build_struc <- function(model, table) {
  nrand <- length(table$inter$neword) - length(table$fixed_positions)
  ngamma <- nrand + 1L
  list(struc = matrix(0L, 15L, 0L), nspat = 0L, nrsect = matrix(0L, 2L, 0L),
       gammas = c(rep(0.1, nrand), 1, 0), tgamma = rep(1L, ngamma),
       printGammas = rep(1L, ngamma), tyfact = integer(max(1L, length(table$inter$flev))),
       gmcstr = integer(ngamma), nfrstg = 1L)
}

# Words of work array the design needs, with a margin.
design_workspace <- function(nrow, table) {
  nnz <- nrow * (1 + sum(as.double(table$maxent)))
  lbin <- ncol(table$data)
  neq <- as.double(table$inter$neq)
  neqd <- as.double(table$inter$neqd)
  rows <- 2 * (2 * nrow + 2 + nnz) + 2 * lbin + 4 * length(table$inter$flev) + 1000
  step12 <- lbin * neq + neqd * (neqd + 1) + 2 * nrow + 2 + 1.5 * nnz
  ceiling(1.5 * max(rows, step12) + 1e5)
}

shortage <- function(status, text) {
  (status == -1L && grepl("Insufficient workspace", text, fixed = TRUE)) ||
    grepl("Out of memory: forming design", text, fixed = TRUE) ||
    grepl("Not enough space", text, fixed = TRUE) || status == 6L
}

#' @noRd
# Calls the model-fit entry, with more workspace after a shortage.
run_ctrn <- function(model, table, struc, keep_design, control) {
  nrow <- model$nrow
  lbin <- ncol(table$data)
  ws <- if (is.null(control$workspace)) design_workspace(nrow, table) else control$workspace
  neq <- table$inter$neq[1]
  repeat {
    args <- ctrn_args(model, table, struc, keep_design, control, ws)
    status <- .Call(C_ctrn, args$datafr, args$iarg, args$dpmv, args$inter, args$struc, args$ainv,
                    args$glm, args$predict, args$constr, args$mbfList, args$control, args$aiopt,
                    args$trn, args$design)
    text <- engine_error_text(args$trn$errtxt)
    if (status != 0L && shortage(status, text)) {
      if (ws * 4 > control$max_workspace)
        stop(sprintf("tarnel: a work array of %.0f words was not enough, and 4 times that exceeds the limit of %.0f words (tarnel_control(max_workspace =))",
                     ws, control$max_workspace), call. = FALSE)
      ws <- ws * 4
      next
    }
    if (status != 0L)
      stop(sprintf("tarnel: %s (engine status %d)", if (nzchar(text)) text else "the engine failed", status),
           call. = FALSE)
    break
  }
  records <- args$aiopt[63L]
  out <- list(records = records, neq = args$inter$neq[1], nonzero = args$aiopt[64L], workspace = ws,
              status = status)
  if (isTRUE(keep_design)) {
    y <- model$y
    formed <- if (model$na_response == "drop") !is.na(y) else rep(TRUE, nrow)
    if (sum(formed) != records)
      stop(sprintf("tarnel: the engine formed %d rows where %d were expected", records, sum(formed)), call. = FALSE)
    # Take the matrix out of the argument list first, so that setting its
    # attributes does not copy it.
    d <- args$design
    args <- NULL
    attr(d, "xcol") <- NULL
    if (!all(formed)) d <- d[formed, , drop = FALSE]
    dimnames(d) <- list(NULL, table$labels)
    out$design <- d
    out$rows <- which(formed)
  }
  out
}

# The fourteen objects of the model-fit entry.
ctrn_args <- function(model, table, struc, keep_design, control, workspace) {
  data <- table$data
  nrow <- model$nrow
  lbin <- ncol(data)
  neq <- table$inter$neq[1]
  ngamma <- length(struc$gammas) - 1L
  nfactp <- length(table$inter$neword)
  fresh_int <- function(n) integer(n)
  iarg <- fresh_int(16L)
  iarg[1:16] <- c(lbin, nrow, 1L, 1L, table$nycol, model$weights_column, 0L, 0L, 0L, 0L, 0L, 0L, 0L, 0L, 0L, 0L)
  aiopt <- fresh_int(100L)
  aiopt[61L] <- table$mvact                                   # missing response action
  aiopt[62L] <- if (model$na_design == "zero") 1L else 0L      # missing design values
  inter <- table$inter
  inter$neq <- fresh_int(1L)
  inter$neq[1] <- neq
  inter$submod <- fresh_int(1L)
  maxiter <- fresh_int(1L)
  maxiter[1] <- control$maxiter
  design <- 0
  if (isTRUE(keep_design)) {
    design <- matrix(0, nrow, neq - 1L)
    attr(design, "xcol") <- seq_len(neq - 1L)
  }
  list(
    datafr = as.double(t(data)),
    iarg = iarg,
    dpmv = c(tarnel_missing, 0),
    inter = inter,
    struc = struc,
    ainv = list(nainv = 0L, lcainv = 0L, llainv = 0L, ainv = 0),
    glm = list(id = 1L, link = 1L, glmphi = 1, thrlevels = 0L),
    predict = list(npred = fresh_int(1L), nfinmd = 0L, pvals = 0, lpvals = 0L, lpwts = 0L,
                   prdvals = matrix(0, 1, 5), nptabl = integer(16), npfact = 0L, ivals = 0L,
                   vpvmat = 0, avsed = double(10), pvtext = raw(80)),
    constr = list(ngmcon = 0L, gequal = 0L, gmcon = 0),
    mbfList = list(mbfAddr = 0L, mbfX = 0),
    control = list(workspace = as.double(workspace), pworkspace = 0, maxiter = maxiter, knots = 0L,
                   nsppoints = 0L, stepsize = 1e-4 + 0, splstp = 0, splinescale = 1,
                   trace = as.integer(control$trace), Ftest = 0L, design = as.integer(isTRUE(keep_design))),
    aiopt = aiopt,
    trn = list(prvgam = double(ngamma + 1L), score = double(ngamma), loglik = double(1),
               soln = double(neq), vsoln = double(neq), resid = double(nrow),
               linearPredictors = double(nrow), hat = double(nrow), sigma2 = double(1),
               deviance = double(1), nedf = fresh_int(1L), nwv = fresh_int(1L), noeff = fresh_int(nfactp),
               nsing = fresh_int(1L), ai = double(max(1L, ngamma * ngamma)), yssqu = double(nfactp),
               Cfixed = double(1), Csparse = double(1), CfacNum = fresh_int(1L), nCfac = fresh_int(1L),
               aovTbl = double(1), apstvar = double(1), converge = fresh_int(1L),
               trArray = double((control$maxiter + 2L) * (ngamma + 3L)), errtxt = raw(80),
               license = "", where = ""),
    design = design
  )
}

#' @export
print.tarnel <- function(x, ...) {
  cat("tarnel model:", deparse(x$call$fixed), "\n")
  cat(sprintf("  %d records, %d equations (response included), %.0f nonzeros in the design\n",
              x$records, x$neq, as.double(x$nonzero)))
  if (!is.null(x$design)) cat(sprintf("  design kept: %d x %d\n", nrow(x$design), ncol(x$design)))
  cat("  Estimation of variance parameters is not available yet.\n")
  invisible(x)
}
