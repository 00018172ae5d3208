#' A demonstration of tarnel
#'
#' Fits a split-plot model to the \code{split_plot} data shipped with the
#' package: varieties on whole plots within blocks, nitrogen levels on the
#' sub-plots, with random blocks and whole plots, and prints the summary.
#'
#' @return The fit, invisibly.
tarnel_demo <- function() {
  tarnel_about()
  cat("\nSplit-plot trial: yield ~ variety * nitrogen_level, random blocks and whole plots\n\n")
  env <- new.env()
  utils::data("split_plot", package = "tarnel", envir = env)
  data <- env$split_plot
  fit <- tarnel(yield ~ variety * nitrogen_level, random = ~ block + wholeplot, data = data)
  print(summary(fit))
  invisible(fit)
}
