# The structure functions users write inside the random and residual
# formulae.  They are read by the parsers, never evaluated.

#' Variance structures in tarnel formulae
#'
#' These functions describe variance structures inside the \code{random} and
#' \code{residual} formulae of \code{\link{tarnel}}; they are never evaluated
#' by R.  Each wraps one factor and says how the effects (or residuals) at its
#' levels are correlated.  Written as an interaction, \code{cov_a(f):cov_b(g)}
#' is the direct product of the two structures, \code{f} running slowest; a
#' bare factor in such a product stands for an identity.
#'
#' \describe{
#'   \item{\code{cov_id(f)}}{identity.}
#'   \item{\code{cov_diag(f)}}{a variance for each level of \code{f}.}
#'   \item{\code{cov_us(f)}}{unstructured: every variance and covariance.}
#'   \item{\code{cov_ar1(f)}, \code{cov_ar2(f)}, \code{cov_ar3(f)}}{autoregressive
#'     correlations of order 1 to 3 along the levels of \code{f}.}
#'   \item{\code{cov_ma1(f)}, \code{cov_ma2(f)}, \code{cov_arma(f)}}{moving average
#'     of order 1 or 2, and ARMA(1,1).}
#'   \item{\code{cov_sar(f)}, \code{cov_sar2(f)}}{symmetric autoregressions.}
#'   \item{\code{cov_cor(f)}, \code{cov_corb(f)}, \code{cov_corg(f)}}{uniform,
#'     banded and general correlations.}
#'   \item{\code{cov_known(f, K, inverse = NA)}}{random formula only: a known
#'     covariance matrix between the levels of \code{f}, times a variance
#'     (the animal model with a relationship matrix, a genomic relationship
#'     matrix).  \code{K} is the matrix itself (\code{inverse = FALSE}) or
#'     its inverse (\code{inverse = TRUE}); the default \code{NA} takes the
#'     result of \code{\link{pedigree_inverse}} as the inverse and any other
#'     matrix as the matrix itself.  \code{K} is a symmetric numeric matrix
#'     or a Matrix object whose row names name the levels of \code{f}: every
#'     value of \code{f} must have a row, rows with no records are kept as
#'     effects without data, and the effects come in the order of \code{K}.
#'     A dense matrix given as the matrix is inverted in R and must be
#'     positive definite; a sparse inverse is used as it stands.  It may
#'     also be one factor of a direct product, for example
#'     \code{cov_us(env):cov_known(animal, A)} (genetic covariances across
#'     environments), \code{cov_diag(env):cov_known(animal, A)}, or
#'     \code{site:cov_known(animal, A)} (one variance, independent across
#'     sites); there it carries the term's variance only when no other
#'     factor has one.}
#'   \item{\code{het(f)}}{residual formula only: a separate residual variance
#'     for each level of \code{f}.}
#'   \item{\code{coefs(f, terms, cov = "us")}}{random formula only: random
#'     coefficients of the one-sided formula \code{terms} (for example
#'     \code{~ age}, intercept included unless removed) for each level of
#'     \code{f}, with an unstructured (\code{"us"}) or diagonal
#'     (\code{"diag"}) covariance matrix between the coefficients.}
#' }
#' A correlation structure given \code{het = TRUE} gets a variance for each
#' level as well.  A random term whose structures hold no variance gets one
#' overall variance.
#'
#' @param f a factor column of the data (a numeric column is read as a factor).
#' @param het add a variance for each level to a correlation structure.
#' @param terms a one-sided formula of covariates.
#' @param cov \code{"us"} or \code{"diag"}.
#' @param K a known covariance matrix, or its inverse, with the levels of
#'   \code{f} as row names; or the result of \code{\link{pedigree_inverse}}.
#' @param inverse \code{TRUE} when \code{K} is the inverse, \code{FALSE}
#'   when it is the matrix itself, \code{NA} to decide by its class.
#' @return These functions signal an error when called outside a formula.
#' @name tarnel_structures
#' @aliases cov_id cov_diag cov_us cov_ar1 cov_ar2 cov_ar3 cov_ma1 cov_ma2 cov_arma cov_sar cov_sar2 cov_cor cov_corb cov_corg cov_known het coefs
NULL

#' @rdname tarnel_structures
cov_id <- function(f) term_only("cov_id")
#' @rdname tarnel_structures
cov_diag <- function(f) term_only("cov_diag")
#' @rdname tarnel_structures
cov_us <- function(f) term_only("cov_us")
#' @rdname tarnel_structures
cov_ar1 <- function(f, het = FALSE) term_only("cov_ar1")
#' @rdname tarnel_structures
cov_ar2 <- function(f, het = FALSE) term_only("cov_ar2")
#' @rdname tarnel_structures
cov_ar3 <- function(f, het = FALSE) term_only("cov_ar3")
#' @rdname tarnel_structures
cov_ma1 <- function(f, het = FALSE) term_only("cov_ma1")
#' @rdname tarnel_structures
cov_ma2 <- function(f, het = FALSE) term_only("cov_ma2")
#' @rdname tarnel_structures
cov_arma <- function(f, het = FALSE) term_only("cov_arma")
#' @rdname tarnel_structures
cov_sar <- function(f, het = FALSE) term_only("cov_sar")
#' @rdname tarnel_structures
cov_sar2 <- function(f, het = FALSE) term_only("cov_sar2")
#' @rdname tarnel_structures
cov_cor <- function(f, het = FALSE) term_only("cov_cor")
#' @rdname tarnel_structures
cov_corb <- function(f, het = FALSE) term_only("cov_corb")
#' @rdname tarnel_structures
cov_corg <- function(f, het = FALSE) term_only("cov_corg")
#' @rdname tarnel_structures
cov_known <- function(f, K, inverse = NA) term_only("cov_known")
#' @rdname tarnel_structures
het <- function(f) term_only("het")
#' @rdname tarnel_structures
coefs <- function(f, terms, cov = "us") term_only("coefs")
