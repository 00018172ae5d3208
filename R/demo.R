#' A demonstration of tarnel
#'
#' Shows what the installed package is.  Later versions fit a model to a
#' data set shipped with the package.
#'
#' @return The text of \code{tarnel_about()}, invisibly.
tarnel_demo <- function() {
  tarnel_about()
}
