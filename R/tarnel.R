# The front end: tarnel() reads the model, builds the term table and the
# variance structures, and calls the engine's model-fit entry.

#' Options of a tarnel run
#'
#' @param workspace size of the engine's main work array in 8-byte words;
#'   \code{NULL} sizes it from the data.
#' @param max_workspace the largest work array that a retry after a shortage
#'   may ask for, in 8-byte words.
#' @param maxiter iteration limit of the fit.
#' @param trace print the engine's start and finish lines and the iteration log.
#' @param progress show a live line of progress during fits that take more
#'   than a couple of seconds; \code{NULL} takes \code{getOption("tarnel.progress")},
#'   which defaults to \code{interactive()}.
#' @param keep_order for models of more than 5,000 equations: keep the order
#'   of the equations in the file \code{EQNORD.BIN} of the working directory
#'   and use it again in a later fit of the same model and work array, which
#'   saves the search for an order.
#' @param sparse_fixed a fixed factor (or interaction of factors) with at
#'   least this many levels is put among the sparse equations with the
#'   random terms; smaller ones, and every term with covariates, stay in the
#'   dense block.  \code{Inf} keeps every fixed term dense.
#' @return A list of options.
#' @export
tarnel_control <- function(workspace = NULL, max_workspace = 1e9, maxiter = 20L, trace = FALSE,
                           keep_order = FALSE, progress = NULL, sparse_fixed = 500L) {
  # Work arrays are counted in 8-byte words; 1e15 words is far beyond any
  # machine, and below it every count is exact in a double.
  if (!is.null(workspace)) check_number(workspace, "workspace", 1, 1e15)
  check_number(max_workspace, "max_workspace", 1, 1e15)
  check_number(maxiter, "maxiter", 1, 10000, whole = TRUE)
  check_flag(trace, "trace")
  check_flag(keep_order, "keep_order")
  if (!is.null(progress)) check_flag(progress, "progress")
  if (!identical(sparse_fixed, Inf)) check_number(sparse_fixed, "sparse_fixed", 2, .Machine$integer.max, whole = TRUE)
  list(workspace = workspace, max_workspace = max_workspace, maxiter = as.integer(maxiter),
       keep_order = keep_order, trace = trace, progress = progress, sparse_fixed = as.double(sparse_fixed))
}

#' Linear mixed models by REML with tarnel
#'
#' Fits a linear mixed model by residual maximum likelihood (REML) with the
#' average information algorithm.  See the Rd page for the details.
#' @export
tarnel <- function(fixed, random = NULL, residual = NULL, data, weights = NULL, subset = NULL, start = NULL,
                   constrain = NULL, equal = NULL, lincon = NULL,
                   na_response = c("drop", "keep", "estimate"), na_design = c("fail", "zero"),
                   keep_design = FALSE, control = tarnel_control(), family = NULL, offset = NULL) {
  na_response <- match.arg(na_response)
  # An offset given as an argument joins the fixed formula as offset(),
  # so that it is read, kept and used in predictions like one written there.
  oexpr <- substitute(offset)
  if (!is.null(oexpr)) fixed <- add_offset_term(fixed, oexpr)
  na_design <- match.arg(na_design)
  wexpr <- substitute(weights)
  if (inherits(fixed, "formula") && length(fixed) == 3L && !is.null(multi_response_names(fixed[[2L]])) &&
      is.null(family)) {
    if (!is.null(wexpr)) tstop("weights with several responses are not available yet")
    if (!is.data.frame(data)) tstop("'data' must be a data frame, not %s", show_value(data))
    env <- environment(fixed)
    if (is.null(env)) env <- parent.frame()
    return(tarnel_multi(match.call(), fixed, random, residual, data, substitute(subset), start, constrain, equal,
                        lincon, control, env, na_design))
  }
  data <- validate_args(fixed, random, residual, data, if (is.character(wexpr)) wexpr, start, constrain, equal, lincon,
                        na_response)
  control <- check_control(control)
  check_trait_use(fixed, random, residual, data)
  env <- environment(fixed)
  if (is.null(env)) env <- parent.frame()
  formulae <- list(fixed = fixed, random = random, residual = residual)
  glm <- NULL
  if (!is.null(family)) {
    # A generalised response (proportions, cbind(successes, failures), a
    # two-level factor) becomes a numeric column, and the group sizes its
    # weights column.
    wcol <- NULL
    if (!is.null(wexpr)) {
      data[[".tarnel_weights"]] <- if (is.character(wexpr)) data[[wexpr]] else eval(wexpr, data, env)
      wcol <- ".tarnel_weights"
    }
    g <- glm_prepare(family, fixed, data, wcol, env, na_response)
    fixed <- g$fixed; data <- g$data; wexpr <- g$weights; glm <- g$glm
  }
  sexpr <- substitute(subset)
  if (isTRUE(glm$ordinal)) {
    # One row a record and threshold.
    ox <- ordinal_expand(glm, fixed, data, sexpr, env)
    fixed <- ox$fixed; data <- ox$data; sexpr <- ox$subset
  }
  prep <- prepare_data(fixed, random, data, wexpr, sexpr, env, subtract_offset = is.null(glm))
  if (isTRUE(glm$ordinal)) {
    glm$code_user <- prep$data_user[[".ord_code"]]
    # The offset enters as polr's does, with the sign of x'beta.
    if (!is.null(prep$offset)) {
      prep$offset <- -prep$offset
      prep$data[[offset_name]] <- prep$offset
    }
  }
  if (!is.null(glm)) {
    # The response and group sizes of the records the subset keeps.
    glm$y <- prep$data_user[[".glm_y"]]
    glm$n <- if (is.null(prep$data_user[[".glm_n"]])) rep(1, prep$n_user) else prep$data_user[[".glm_n"]]
  }
  fixed <- prep$fixed
  random <- prep$random
  data <- prep$data
  yname <- var_name(fixed[[2L]], "the response")
  data_column(data, yname)
  resid <- parse_residual(residual, data, env)
  if (!is.null(prep$weights) && resid$kind != "identity")
    tstop("weights together with a het() or grid residual structure are not available yet")
  arranged <- arrange_records(data, resid, yname, drop_missing = na_response == "drop")
  arranged$n0 <- prep$n_user
  # On a grid every missing response gets an equation of its own, which
  # takes it out of the likelihood while the record keeps its place.
  if (resid$kind == "grid" && anyNA(arranged$data[[yname]])) na_response <- "estimate"
  model <- parse_model(fixed, random, resid, arranged$data, prep$weights, na_response, na_design, env)
  model$generalised <- !is.null(glm)
  # Records in the rows of the user's data (after any subset).
  arranged$rows <- prep$kept[arranged$rows]
  check_missing_design(model, arranged, na_design)
  # A generalised model adds its offset to the linear predictor in the
  # engine, which reads it from a data column of its own.
  if (!is.null(glm) && !is.null(prep$offset)) model$offset_column <- add_columns(model$store, "offset", arranged$data[[offset_name]])
  model <- diagnose_model(model, scale = is.null(glm))
  table <- build_term_table(model, control$sparse_fixed)
  struc <- glm_struc(glm, model, table, build_struc(model, table))
  struc <- apply_constraints(struc, start, constrain, equal, lincon)
  out <- run_ctrn(model, table, struc, keep_design = keep_design, control = control)
  log <- out$log
  fit <- assemble_fit(out, model, table, struc, arranged, control)
  if (needs_polish(fit)) {
    # Stopped while the log-likelihood still moved: go on from the
    # estimates, where the steps are short and the test is tight.
    first <- fit$iterations
    first_deviance <- -out$args$trn$deviance[1L + seq_len(nrow(first))]
    struc <- apply_constraints(glm_struc(glm, model, table, build_struc(model, table)), fit$gammas, constrain, equal, lincon)
    out <- run_ctrn(model, table, struc, keep_design = keep_design, control = control)
    log <- paste0(log, out$log)
    fit <- assemble_fit(out, model, table, struc, arranged, control)
    it <- fit$iterations
    if (nrow(it)) it$iteration <- it$iteration + nrow(first)
    fit$iterations <- rbind(first, it)
    out$previous_deviance <- first_deviance
  }
  fit$call <- match.call()
  fit$log <- log
  fit <- finish_fit(fit, out, arranged, prep, formulae)
  fit <- glm_finish(fit, glm, out)
  if (isTRUE(control$trace))
    message(sprintf("tarnel: REML log-likelihood %.4f (the engine's lines above leave out the 2 pi term: %.4f)",
                    fit$loglik_standard, fit$loglik))
  if (isTRUE(glm$ordinal)) fit <- ordinal_design(fit, glm)
  fit <- finish_fixed(fit, fixed)
  if (isTRUE(glm$ordinal)) fit <- ordinal_finish(fit, glm)
  warn_engine_notices(log, shown = if (!is.null(glm)) "Note: The LogLik value is unsuitable for comparing GLM models")
  warn_fit(fit)
  fit
}

# The fixed formula with offset(expr) added.
add_offset_term <- function(fixed, oexpr) {
  env <- environment(fixed)
  f <- fixed
  f[[3L]] <- call("+", fixed[[3L]], call("offset", oexpr))
  environment(f) <- env
  f
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

# Words for the whole fit: the design, the equations with room for fill,
# the dense block and the working variates.  A first guess only: a shortage
# is retried with more.
fit_workspace <- function(nrow, table, ngamma) {
  nnz <- nrow * (1 + sum(as.double(table$maxent)))
  neq <- as.double(table$inter$neq)
  neqd <- as.double(table$inter$neqd)
  ceiling(design_workspace(nrow, table) + 6 * nnz + 40 * neq + 3 * neqd * neqd +
            4 * ngamma * (ngamma + neq) + 2e5)
}

shortage <- function(status, text) {
  (status == -1L && grepl("Insufficient workspace", text, fixed = TRUE)) ||
    grepl("Out of memory: forming design", text, fixed = TRUE) ||
    grepl("Not enough space", text, fixed = TRUE) || status == 6L
}

#' @noRd
# Calls the model-fit entry, with more workspace after a shortage.  Returns
# the argument lists as the engine left them.
run_ctrn <- function(model, table, struc, keep_design, control) {
  nrow <- model$nrow
  ntrt <- if (is.null(model$ntrt)) 1L else model$ntrt
  ws <- if (is.null(control$workspace)) fit_workspace(nrow * ntrt, table, struc$ngamma) + sum(struc$ainv$words) + sum(struc$extra_workspace) else control$workspace
  log <- character()
  progress <- progress_wanted(control)
  repeat {
    args <- ctrn_args(model, table, struc, keep_design, control, ws)
    status <- with_engine_console(
      .Call(C_ctrn, args$datafr, args$iarg, args$dpmv, args$inter, args$struc, args$ainv,
            args$glm, args$predict, args$constr, args$mbfList, args$control, args$aiopt,
            args$trn, args$design),
      trace = control$trace, progress = progress, trn = args$trn, stride = struc$ngamma + 3L)
    log <- c(log, attr(status, "log"))
    attr(status, "log") <- NULL
    text <- engine_error_text(args$trn$errtxt)
    if (status != 0L && shortage(status, text)) {
      # A shortage is retried with more room, silently unless tracing.
      if (ws * 4 > control$max_workspace)
        stop(sprintf("tarnel: %s: a work array of %.0f words was not enough, and 4 times that exceeds the limit of %.0f words (tarnel_control(max_workspace =))",
                     if (nzchar(text)) text else "Insufficient workspace", ws, control$max_workspace), call. = FALSE)
      ws <- ws * 4
      if (isTRUE(control$trace)) message(sprintf("tarnel: retrying with a work array of %.0f words", ws))
      next
    }
    # 300005: a generalised fit stopped at the bounds of its link, reported as a warning
    if (status != 0L && status != 300005L) engine_failure(status, text, args, model, struc, notes = engine_notices(log))
    break
  }
  records <- args$aiopt[63L]
  if (records > 0L && records != nrow * ntrt)
    stop(sprintf("tarnel: the engine formed %d rows where %d were expected", records, nrow * ntrt), call. = FALSE)
  list(args = args, status = status, text = text, workspace = ws, records = records, keep_design = isTRUE(keep_design),
       nonzero = args$aiopt[64L], neq = args$inter$neq[1], log = paste(log, collapse = ""))
}

fresh_int <- function(n) integer(n)
fresh_copy <- function(v) { out <- vector(typeof(v), length(v)); out[] <- v; attributes(out) <- attributes(v); out }

# The fourteen objects of the model-fit entry.  Every vector the engine
# writes into is freshly allocated here, never shared with another object:
# the locals that built them are removed before the list goes back, so that
# the list holds the only reference.
# The run keeps the whole design when asked, else none of it (the fit
# forms its fixed columns sparse by a pass of the design alone);
# `kept_columns` sets another count.  With `predict` (a request and its
# work-array size) the run forms prediction tables.
ctrn_args <- function(model, table, struc, keep_design, control, workspace, predict = NULL, kept_columns = NULL) {
  data <- table$data
  nrow <- model$nrow
  lbin <- ncol(data)
  neq <- table$inter$neq[1]
  neqd <- table$inter$neqd[1]
  ngamma <- length(struc$gammas) - 1L
  nfactp <- length(table$inter$neword)
  # Several responses: a design row for each record and trait.
  ntrt <- if (is.null(model$ntrt)) 1L else as.integer(model$ntrt)
  nrows <- nrow * ntrt
  iarg <- fresh_int(16L)
  # Conditional (marginal) tests of the fixed terms are always asked for.
  ocol <- if (is.null(model$offset_column)) 0L else model$offset_column
  iarg[1:16] <- c(lbin, nrow, ntrt, ntrt, table$nycol, model$weights_column, ocol, 0L, 0L, 1L, 0L, 0L, sum(table$inter$inter[1L, ] == -3L), 0L, 0L, 0L)
  aiopt <- fresh_int(100L)
  aiopt[2L] <- 11L                                            # minimum-degree ordering
  if (isTRUE(control$keep_order)) {
    aiopt[4L] <- 1L                                           # the order file ...
    aiopt[32L] <- 8L                                          # ... on its unit
  }
  if (!is.null(struc$glm_weights)) aiopt[8L] <- struc$glm_weights  # the working weights of a generalised model
  if (!is.null(struc$glm$thrlevels)) iarg[8L] <- struc$glm$thrlevels[1L]  # rows a record of an ordinal model
  aiopt[61L] <- table$mvact                                   # missing response action
  aiopt[62L] <- if (model$na_design == "zero") 1L else 0L      # missing design values
  inter <- table$inter
  inter$neq <- fresh_int(1L)
  inter$neq[1] <- neq
  inter$neqd <- fresh_int(1L)
  inter$neqd[1] <- neqd
  inter$submod <- fresh_int(1L)
  inter$submds <- fresh_int(nfactp)
  maxiter <- fresh_int(1L)
  maxiter[1] <- control$maxiter
  # The fixed-effect columns of the design are always kept (fitted values
  # X b); all of them when asked.
  ncol_kept <- if (ntrt > 1L) 0L else if (!is.null(kept_columns)) kept_columns else if (isTRUE(keep_design)) neq - 1L else 0L
  design <- matrix(0, nrow, ncol_kept)
  attr(design, "xcol") <- seq_len(ncol_kept)
  es <- list(struc = fresh_copy(struc$struc), nspat = fresh_copy(0L), nrsect = fresh_copy(struc$nrsect),
             gammas = fresh_copy(struc$gammas), tgamma = fresh_copy(struc$tgamma),
             printGammas = fresh_copy(struc$printGammas), tyfact = fresh_copy(struc$tyfact),
             gmcstr = fresh_copy(struc$gmcstr), nfrstg = fresh_int(1L))
  es$nfrstg[1] <- 1L
  nC <- neqd * (neqd + 1) / 2
  if (nC > 2^31 - 1) tstop("the fixed part of the model has too many equations (%d)", neqd)
  Cfixed <- double(nC)
  Cfixed[1] <- 1
  # Scalars too are fresh copies: the engine writes some in place (the
  # step size, for one), and a literal constant must never be overwritten.
  fr <- fresh_copy
  out <- list(
    datafr = .Call(C_record_major, data),
    iarg = iarg,
    dpmv = c(tarnel_missing, 0),
    inter = inter,
    struc = es,
    ainv = list(nainv = fr(struc$ainv$nainv), lcainv = fr(struc$ainv$lcainv), llainv = fr(struc$ainv$llainv),
                ainv = fr(struc$ainv$ainv)),
    glm = lapply(glm_list(struc), fr),
    predict = list(npred = fresh_int(1L), nfinmd = fr(0L), pvals = fr(0), lpvals = fr(0L), lpwts = fr(0L),
                   prdvals = matrix(0, 1, 5), nptabl = integer(16), npfact = fr(0L), ivals = fr(0L),
                   vpvmat = fr(0), avsed = double(10), pvtext = raw(80)),
    constr = list(ngmcon = fresh_copy(struc$constr$ngmcon), gequal = fresh_copy(struc$constr$gequal),
                  gmcon = fresh_copy(struc$constr$gmcon)),
    mbfList = list(mbfAddr = fr(0L), mbfX = fr(0)),
    control = list(workspace = fr(as.double(workspace)), pworkspace = fr(0), maxiter = maxiter, knots = fr(0L),
                   nsppoints = fr(0L), stepsize = fr(1), splstp = fr(0), splinescale = fr(0),
                   trace = fr(as.integer(control$trace)), Ftest = fr(0L), design = fr(as.integer(ncol_kept > 0L))),
    aiopt = aiopt,
    trn = list(prvgam = double(ngamma + 1L), score = double(ngamma + 1L), loglik = double(1),
               soln = double(neq), vsoln = double(neq), resid = double(nrows),
               linearPredictors = double(nrows), hat = double(nrows), sigma2 = double(1),
               deviance = double(control$maxiter + 2L), nedf = fresh_int(1L), nwv = fresh_int(1L), noeff = fresh_int(max(1L, nfactp)),
               nsing = fresh_int(1L), ai = double(max(1, ngamma * (ngamma + 1) / 2)), yssqu = double(max(1L, nfactp)),
               Cfixed = Cfixed, Csparse = double(1), CfacNum = fresh_int(1L), nCfac = fresh_int(1L),
               aovTbl = double(7L * max(1L, nfactp)), apstvar = double(1), converge = fresh_int(1L),
               trArray = double((control$maxiter + 2L) * (ngamma + 3L)), errtxt = raw(80),
               license = "", where = ""),
    design = design
  )
  if (!is.null(predict)) {
    out$predict <- predict$request
    out$control$pworkspace <- fr(as.double(predict$pworkspace))
    out$control$design <- fr(0L)
  }
  rm(iarg, aiopt, maxiter, design, Cfixed, inter, es)
  out
}
