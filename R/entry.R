# The fourteen objects of the model-fit entry, in their plainest form.
#
# `entry_defaults()` gives a complete, valid set for a model with no terms;
# the model front end fills in what a model needs.  Keeping the defaults in
# one place means every list element the engine reads exists with its type.

#' @noRd
entry_defaults <- function(datafr = double(), lbin = 1L, nrow = 0L) {
  # Every vector the engine writes is made here and bound to nothing else:
  # the entry refuses vectors that R may share.
  list(
    datafr = as.double(datafr),
    iarg = c(as.integer(lbin), as.integer(nrow), 1L, 1L, integer(12)),
    dpmv = NA_real_,
    inter = list(inter = matrix(0L, 4, 0), flev = integer(), nlev = integer(),
                 IBV = matrix(0L, 0, 0), JBV = matrix(0, 0, 0), neword = integer(),
                 submds = integer(), submod = 0L, faconst = double(), points = double(),
                 neq = integer(1), neqd = 0L, facnam = character()),
    struc = list(struc = matrix(0L, 15, 0), nspat = 0L, nrsect = matrix(0L, 3, 0),
                 gammas = double(1), tgamma = integer(), printGammas = integer(), tyfact = integer(),
                 gmcstr = integer(), nfrstg = integer(1)),
    ainv = list(nainv = 0L, lcainv = integer(), llainv = integer(), ainv = double()),
    glm = list(id = 1L, link = 1L, glmphi = 1, thrlevels = integer()),
    predict = list(npred = integer(1), nfinmd = integer(), pvals = double(), lpvals = integer(),
                   lpwts = integer(), prdvals = matrix(0, 0, 5), nptabl = integer(),
                   npfact = integer(), ivals = integer(), vpvmat = double(),
                   avsed = double(), pvtext = raw(0)),
    constr = list(ngmcon = 0L, gequal = integer(), gmcon = double()),
    mbfList = list(mbfAddr = integer(), mbfX = double()),
    control = list(workspace = 1e5, pworkspace = 1e4, maxiter = c(20L), knots = 0L,
                   nsppoints = 0L, stepsize = c(1), splstp = 0, splinescale = 0, trace = 0L,
                   Ftest = 0L, design = 0L),
    aiopt = integer(100),
    trn = entry_results(),
    design = matrix(0, 0, 0)
  )
}

#' @noRd
entry_results <- function(neq = 0L, ngamma = 0L, nrow = 0L, maxiter = 20L) {
  list(prvgam = double(ngamma + 1L), score = double(ngamma + 1L), loglik = double(1),
       soln = double(neq), vsoln = double(neq), resid = double(nrow),
       linearPredictors = double(nrow), hat = double(nrow), sigma2 = double(1), deviance = double(1),
       nedf = integer(1), nwv = integer(1), noeff = integer(max(1L, neq)), nsing = integer(1),
       ai = double(max(1L, ngamma * (ngamma + 1L) / 2L)), yssqu = double(max(1L, neq)),
       Cfixed = double(1), Csparse = double(1), CfacNum = integer(1), nCfac = integer(1),
       aovTbl = double(1), apstvar = double(1), converge = integer(1),
       trArray = double((ngamma + 3L) * (maxiter + 2L)),
       errtxt = as.raw(rep(32L, 80L)), license = "", where = "")
}

#' @noRd
call_entry <- function(args) {
  status <- .Call(C_ctrn, args$datafr, args$iarg, args$dpmv, args$inter, args$struc,
                  args$ainv, args$glm, args$predict, args$constr, args$mbfList,
                  args$control, args$aiopt, args$trn, args$design)
  list(status = status, errtxt = engine_error_text(args$trn$errtxt))
}
