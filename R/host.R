# Host entries: information about the package and small conversions that
# the front end uses.

#' @noRd
engine_error_text <- function(raw) {
  if (!length(raw)) return("")
  nul <- which(raw == as.raw(0))
  if (length(nul)) raw <- raw[seq_len(nul[1] - 1L)]
  sub("[[:space:]]+$", "", rawToChar(raw))
}

#' About tarnel
#'
#' Describes the installed package: where its functions are visible, the
#' architecture, the package version and the version of the compiled engine.
#'
#' @return A character string, invisibly; it is also printed.
tarnel_about <- function() {
  msg <- character(1)
  where <- tryCatch(dirname(getNamespaceInfo("tarnel", "path")), error = function(e) "")
  .Call(C_about, as.character(where), msg, R.version$arch,
        as.character(utils::packageVersion("tarnel")))
  cat(msg)
  invisible(msg)
}
