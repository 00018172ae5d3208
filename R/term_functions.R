# Functions that stand for model terms inside a tarnel formula.  They are
# read from the formula, never called: the engine forms their values.

term_only <- function(name) {
  stop(sprintf("'%s()' describes a model term and can only be used inside a tarnel() formula", name),
       call. = FALSE)
}

#' Model term functions for tarnel formulae
#'
#' These functions describe model terms inside the formulae of
#' \code{\link{tarnel}}; they are never evaluated by R.  The engine forms their
#' values record by record.  Each may be combined with others in interactions
#' (\code{a:b}, \code{a*b}, \code{a/b}).
#'
#' \describe{
#'   \item{\code{tr_log(x, offset = 0)}}{log(x + offset); values at or below 0 are missing.}
#'   \item{\code{tr_exp(x, offset = 0)}}{exp(x + offset); missing when |x + offset| exceeds 35.}
#'   \item{\code{tr_sqrt(x, offset = 0)}}{sqrt(x + offset); negative arguments are missing.}
#'   \item{\code{tr_inv(x, offset = 0)}}{1 / (x + offset); a zero argument is missing.}
#'   \item{\code{tr_sin(x, period)}, \code{tr_cos(x, period)}}{sin or cos of 2 pi x / period.}
#'   \item{\code{tr_pow(x, power, offset = 0)}}{(x + offset)^power, with power in steps of
#'     0.001; for powers other than 1, 2 and 3 an argument below 1e-9 gives 0.}
#'   \item{\code{above(x, value)}, \code{below(x, value)}}{1 when x is above (below) the value, else 0.}
#'   \item{\code{at(f, levels)}}{indicators of the given levels of factor f; in an
#'     interaction, \code{at(f, levels):x} fits x separately within each given level of f.}
#'   \item{\code{grp(f, groups)}}{a factor of groups of the levels of f; \code{groups} is a
#'     named list of level vectors, levels in no group give no entry.}
#'   \item{\code{opoly(x, degree)}}{orthonormal polynomials of degrees 1 to \code{degree} in
#'     x, of unit length over the records with x present.}
#'   \item{\code{helmert(f)}}{Helmert contrasts of factor f (one column fewer than levels).}
#'   \item{\code{rec(factor = FALSE)}}{the record number as a covariate, or with
#'     \code{factor = TRUE} a factor with one level a record.}
#'   \item{\code{marker(id, scores, k)}}{the score of marker \code{k} (a column of the
#'     matrix \code{scores}, rows named by the levels of factor \code{id}) of each
#'     record's individual; scores lie in steps of 1/80 from -1 to 2.}
#' }
#'
#' @param x a numeric column of the data.
#' @param offset a number added to x before the function is applied.
#' @param period the period of the sine or cosine.
#' @param power the power.
#' @param value the constant compared with.
#' @param f a factor column of the data.
#' @param levels levels of \code{f}.
#' @param groups a named list of vectors of levels of \code{f}.
#' @param degree the highest degree.
#' @param factor whether the record index is a factor.
#' @param id a factor column naming the individual of each record.
#' @param scores a numeric matrix, individuals by markers.
#' @param k the marker: a column number or name of \code{scores}.
#' @return These functions signal an error when called outside a formula.
#' @name tarnel_terms
#' @aliases tr_log tr_exp tr_sqrt tr_inv tr_sin tr_cos tr_pow above below at grp opoly helmert rec marker
NULL

#' @rdname tarnel_terms
tr_log <- function(x, offset = 0) term_only("tr_log")
#' @rdname tarnel_terms
tr_exp <- function(x, offset = 0) term_only("tr_exp")
#' @rdname tarnel_terms
tr_sqrt <- function(x, offset = 0) term_only("tr_sqrt")
#' @rdname tarnel_terms
tr_inv <- function(x, offset = 0) term_only("tr_inv")
#' @rdname tarnel_terms
tr_sin <- function(x, period) term_only("tr_sin")
#' @rdname tarnel_terms
tr_cos <- function(x, period) term_only("tr_cos")
#' @rdname tarnel_terms
tr_pow <- function(x, power, offset = 0) term_only("tr_pow")
#' @rdname tarnel_terms
above <- function(x, value) term_only("above")
#' @rdname tarnel_terms
below <- function(x, value) term_only("below")
#' @rdname tarnel_terms
at <- function(f, levels) term_only("at")
#' @rdname tarnel_terms
grp <- function(f, groups) term_only("grp")
#' @rdname tarnel_terms
opoly <- function(x, degree) term_only("opoly")
#' @rdname tarnel_terms
helmert <- function(f) term_only("helmert")
#' @rdname tarnel_terms
rec <- function(factor = FALSE) term_only("rec")
#' @rdname tarnel_terms
marker <- function(id, scores, k) term_only("marker")

# Engine codes of the transformations, with the name of their constant.
transform_codes <- list(
  tr_log = -21L, tr_exp = -19L, tr_sqrt = -18L, tr_inv = -20L,
  tr_sin = -16L, tr_cos = -17L, above = -22L, below = -23L, tr_pow = -30L
)
