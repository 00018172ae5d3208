# The engine's console.  During a fit everything the engine prints is kept
# in a log that goes with the fit (`fit$log`); it reaches the screen only
# when the run is traced.  The engine's own messages (its notices and
# warnings) reach the user once each, as R warnings, word for word.

# Runs `expr` (a call of the model-fit entry) with the engine's text routed
# into a log.  Returns the value of `expr` with the log as attribute "log".
with_engine_console <- function(expr, trace, progress, trn, stride) {
  .Call(C_console_begin, isTRUE(trace), isTRUE(progress), trn, as.integer(stride))
  log <- NULL
  on.exit(if (is.null(log)) .Call(C_console_end))
  value <- expr
  log <- .Call(C_console_end)
  attr(value, "log") <- log
  value
}

# Whether a fit shows the live progress line: the control setting, else
# options(tarnel.progress), else on in interactive sessions.
progress_wanted <- function(control) {
  p <- control$progress
  if (is.null(p)) p <- getOption("tarnel.progress", interactive())
  isTRUE(p)
}

# The engine's messages in a log: the lines of its message store, printed as
# a severity label and the text ("Notice: NonPosDef US matrix modified"),
# each distinct line once, in the order of first appearance.
engine_notices <- function(log) {
  if (!length(log) || !nzchar(log)) return(character())
  lines <- strsplit(paste(log, collapse = ""), "\n", fixed = TRUE)[[1L]]
  hits <- trimws(grep("^ *(Note|Notice|Warning): ", lines, value = TRUE))
  # A notice repeated with other numbers (one an iteration) is given once,
  # as it last stood.
  key <- gsub("[-+0-9.eE]+", "#", hits)
  hits[!duplicated(key, fromLast = TRUE)]
}

# Gives each engine message as one R warning.  `shown`: messages the fit
# reports in its own print (the note on the log-likelihood of a generalised
# model), which need no warning.
warn_engine_notices <- function(log, shown = character()) {
  for (m in setdiff(engine_notices(log), shown)) warning(sprintf("tarnel engine: %s", m), call. = FALSE)
  invisible(NULL)
}

#' The engine's log of a fit
#'
#' Everything the engine printed while fitting, kept with the fit.
#' @param fit a \code{"tarnel"} fit.
#' @return The log as one character string, printed with \code{cat()} when
#'   called for its side effect.
#' @noRd
engine_log <- function(fit) {
  if (is.null(fit$log)) "" else fit$log
}
