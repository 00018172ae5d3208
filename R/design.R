# The design alone: the rows the engine forms for a model, without a fit,
# as a sparse matrix of one row a data record and one column an equation
# (the response's left out).  tarnel() reads its data the same way, so
# these are the rows its fit starts from.

#' @noRd
# The design of `fixed` (and `random`) in `data` by tarnel's own path: the
# data prepared and coded as for a fit, the engine's design pass, and its
# rows as a "dgCMatrix" with the equations' labels as column names.
# Records dropped for a missing response keep an empty row.
tarnel_design <- function(fixed, random = NULL, data, na_response = c("drop", "keep", "estimate"),
                          na_design = c("fail", "zero"), control = tarnel_control()) {
  na_response <- match.arg(na_response)
  na_design <- match.arg(na_design)
  data <- validate_args(fixed, random, NULL, data, NULL, NULL, NULL, NULL, NULL, na_response)
  control <- check_control(control)
  env <- environment(fixed)
  if (is.null(env)) env <- parent.frame()
  prep <- prepare_data(fixed, random, data, NULL, NULL, env)
  data <- prep$data
  yname <- var_name(prep$fixed[[2L]], "the response")
  data_column(data, yname)
  resid <- parse_residual(NULL, data, env)
  arranged <- arrange_records(data, resid, yname, drop_missing = na_response == "drop")
  model <- parse_model(prep$fixed, prep$random, resid, arranged$data, NULL, na_response, na_design, env)
  check_missing_design(model, arranged, na_design)
  model <- diagnose_model(model, scale = FALSE)
  table <- build_term_table(model)
  struc <- build_struc(model, table)
  X <- design_rows(model, table, struc, control)
  # Back in the rows of the data.
  if (!identical(arranged$rows, seq_len(nrow(prep$data))))
    X <- Matrix::sparseMatrix(i = arranged$rows[X@i + 1L], p = X@p, x = X@x, dims = c(nrow(prep$data), ncol(X)),
                              dimnames = dimnames(X))
  X
}

# The engine's design pass for a parsed model: the columns of its first
# `ncol` equations after the response (all of them by default), as a
# "dgCMatrix" with a row a record.  Retries with a larger work array after
# a shortage, as a fit does.  The engine's lines go to no log.
design_rows <- function(model, table, struc, control, ncol = as.integer(table$inter$neq) - 1L) {
  ws <- if (is.null(control$workspace)) design_workspace(model$nrow, table) else control$workspace
  ncol <- as.integer(ncol)
  repeat {
    args <- ctrn_args(model, table, struc, keep_design = FALSE, control = control, workspace = ws, kept_columns = 0L)
    out <- with_engine_console(.Call(C_design_rows, args, ncol), trace = FALSE, progress = FALSE,
                               trn = args$trn, stride = struc$ngamma + 3L)
    text <- engine_error_text(args$trn$errtxt)
    if (out$status != 0L && shortage(out$status, text)) {
      if (ws * 4 > control$max_workspace)
        tstop("%s: a work array of %.0f words was not enough, and 4 times that exceeds the limit of %.0f words (tarnel_control(max_workspace =))",
              if (nzchar(text)) text else "Insufficient workspace", ws, control$max_workspace)
      ws <- ws * 4
      next
    }
    if (out$status != 0L) engine_failure(out$status, text, args, model, struc)
    break
  }
  methods::new("dgCMatrix", i = out$i, p = out$p, x = out$x, Dim = c(as.integer(model$nrow), ncol),
               Dimnames = list(NULL, table$labels[seq_len(ncol)]))
}
