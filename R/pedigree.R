# Pedigrees: ordering, and the inverse of the numerator relationship matrix.

# Identities that mark an unknown parent: for text identities "0", "", "NA"
# (and NA); for whole numbers 0 (and NA).  Negative numbers are refused: a
# code such as -1 for an unknown parent would otherwise become a founder
# that all its "offspring" share.
.unknown_text <- c("0", "", "NA")

# Reads a pedigree into identities and an optional fgen column.  Returns a
# list: ind, sire, dam (character, or integer when every identity is a
# whole number), integer_ids, unknown parents as "0" or 0L.
.read_pedigree <- function(pedigree, arg = "pedigree") {
  if (!(is.data.frame(pedigree) || is.matrix(pedigree)))
    stop("'", arg, "' must be a data frame or matrix with columns individual, sire and dam",
         call. = FALSE)
  if (ncol(pedigree) < 3L)
    stop("'", arg, "' must have at least three columns: individual, sire and dam", call. = FALSE)
  if (nrow(pedigree) < 1L) stop("'", arg, "' has no rows", call. = FALSE)
  cols <- lapply(1:3, function(k) {
    x <- if (is.data.frame(pedigree)) pedigree[[k]] else pedigree[, k]
    if (is.factor(x)) x <- as.character(x)
    x
  })
  whole <- function(x) {
    (is.numeric(x) || is.logical(x) && all(is.na(x))) &&
      all(is.na(x) | (is.finite(x) & x == round(x) & abs(x) < .Machine$integer.max))
  }
  integer_ids <- all(vapply(cols, whole, logical(1)))
  for (k in 1:3) {
    x <- cols[[k]]
    neg <- which(if (is.numeric(x)) !is.na(x) & x < 0 else grepl("^-[0-9.]+$", trimws(as.character(x))))
    if (length(neg))
      stop("'", arg, "': the ", c("individual", "sire", "dam")[k], " of row ", neg[1], " is ", x[neg[1]],
           "; negative identities are not allowed (an unknown parent is 0, NA, \"0\", \"\" or \"NA\")",
           call. = FALSE)
  }
  if (integer_ids) {
    cols <- lapply(cols, as.integer)
    ind <- cols[[1]]
    if (anyNA(ind) || any(ind == 0L))
      stop("individuals in '", arg, "' must be known: 0 and NA mark unknown parents only",
           call. = FALSE)
    cols[2:3] <- lapply(cols[2:3], function(x) { x[is.na(x)] <- 0L; x })
  } else {
    cols <- lapply(cols, function(x) {
      if (!is.character(x) && !is.numeric(x) && !is.logical(x))
        stop("identities in '", arg, "' must be character, factor or integer", call. = FALSE)
      x <- as.character(x)
      x <- trimws(x)
      x
    })
    ind <- cols[[1]]
    if (anyNA(ind) || any(ind %in% .unknown_text))
      stop("individuals in '", arg, "' must be known: \"0\", \"\", \"NA\" and NA mark unknown parents only",
           call. = FALSE)
    cols[2:3] <- lapply(cols[2:3], function(x) { x[is.na(x) | x %in% .unknown_text] <- "0"; x })
  }
  dup <- unique(ind[duplicated(ind)])
  if (length(dup))
    stop("individual", if (length(dup) > 1) "s", " ", paste0("\"", utils::head(dup, 5), "\"", collapse = ", "),
         if (length(dup) > 5) ", ...", " appear", if (length(dup) == 1) "s", " in more than one row of '",
         arg, "'", call. = FALSE)
  self <- which(ind == cols[[2]] | ind == cols[[3]])
  if (length(self))
    stop("individual \"", ind[self[1]], "\" is its own parent", call. = FALSE)
  list(ind = ind, sire = cols[[2]], dam = cols[[3]], integer_ids = integer_ids)
}

# A column of the pedigree, given as a name or number of a column or as a
# vector of one value a row.
.ped_column <- function(pedigree, x, arg) {
  if (is.null(x)) return(NULL)
  if (is.character(x) && length(x) == 1L && !is.null(colnames(pedigree)) &&
      x %in% colnames(pedigree)) {
    return(if (is.data.frame(pedigree)) pedigree[[x]] else pedigree[, x])
  }
  if (is.numeric(x) && length(x) == 1L && nrow(pedigree) != 1L) {
    if (x < 1 || x > ncol(pedigree) || x != round(x))
      stop("'", arg, "' names no column of 'pedigree'", call. = FALSE)
    return(if (is.data.frame(pedigree)) pedigree[[x]] else pedigree[, x])
  }
  if (length(x) != nrow(pedigree))
    stop("'", arg, "' must name a column of 'pedigree' or hold one value a row", call. = FALSE)
  x
}

.stop_engine <- function(text) stop(text, call. = FALSE)

#' Sort a pedigree
#'
#' Orders a pedigree so that every parent comes before its progeny and every
#' parent has a row of its own.  Parents that have no row are inserted, with
#' unknown parents, ahead of all others; individuals that appear as a parent
#' before their own row are moved forward.  Each insertion and move is
#' reported on the console.
#'
#' @param pedigree A data frame or matrix whose first three columns are the
#'   individual, its sire and its dam.  Identities may be character, factor
#'   or whole numbers.  An unknown parent is \code{NA}, \code{0} or, for
#'   text identities, \code{"0"} or \code{""}.  Rows may come in any order.
#' @param fgen Optional generation or selfing value of each row: the name or
#'   number of a column of \code{pedigree}, or a numeric vector with one
#'   value a row.  For a row with an unknown parent a value of 1 or more is a
#'   number of selfing generations and becomes the inbreeding coefficient
#'   \eqn{1 - 0.5^{fgen}}.
#' @param fgen_default The value of \code{fgen} for inserted parents and for
#'   rows with an unknown parent whose value is \code{NA}.
#' @return A data frame with columns \code{individual}, \code{sire},
#'   \code{dam} (and \code{fgen} when given), parents first.  Unknown
#'   parents are \code{0} for whole-number identities and \code{"0"} for
#'   text.
#' @seealso \code{\link{pedigree_inverse}}
#' @examples
#' ped <- data.frame(id = c("c", "d", "e"), sire = c("a", "a", "c"),
#'                   dam = c("b", "0", "d"))
#' pedigree_sort(ped)
pedigree_sort <- function(pedigree, fgen = NULL, fgen_default = NA_real_, verbose = FALSE) {
  p <- .read_pedigree(pedigree)
  fg <- .check_fgen(.ped_column(pedigree, fgen, "fgen"))
  if (!is.numeric(fgen_default) || length(fgen_default) != 1L || (!is.na(fgen_default) && !(fgen_default >= 0 && is.finite(fgen_default))))
    stop("'fgen_default' must be one number of 0 or more (or NA), not ", format(fgen_default), call. = FALSE)
  .check_verbose(verbose)
  res <- .sort_pedigree(p, if (is.null(fg)) NULL else as.double(fg), as.double(fgen_default), verbose)
  out <- res$pedigree
  attr(out, "moves") <- res$moves
  out
}

# fgen values are generation counts or inbreeding coefficients: numbers of
# 0 or more, NA where unknown.
.check_fgen <- function(fg) {
  if (is.null(fg)) return(NULL)
  if (!is.numeric(fg)) stop("'fgen' must be numeric", call. = FALSE)
  bad <- which(!is.na(fg) & (fg < 0 | !is.finite(fg)))
  if (length(bad))
    stop("'fgen' must be 0 or more (NA where unknown), not ", fg[bad[1]], " (row ", bad[1], ")", call. = FALSE)
  fg
}

.check_verbose <- function(verbose) {
  if (!is.logical(verbose) || length(verbose) != 1L || is.na(verbose))
    stop("'verbose' must be TRUE or FALSE", call. = FALSE)
}

# Runs a sorting entry with its console lines caught: they are shown only
# when asked, and come back as a table of the moves.
.sort_call <- function(expr, verbose) {
  # A file, not a text connection: a deep pedigree can make many thousands
  # of lines, and a text connection grows by copying.
  f <- tempfile("tarnel_sort")
  con <- file(f, open = "wt")
  sink(con)
  done <- FALSE
  on.exit({ if (!done) sink(); close(con); unlink(f) })
  value <- expr
  sink()
  done <- TRUE
  flush(con)
  lines <- readLines(f)
  if (verbose && length(lines)) cat(lines, sep = "\n")
  list(value = value, moves = .pedigree_moves(lines))
}

# The table of the insertions and moves in the order the sort made them:
# the individual, what was done and the record it went to.
.pedigree_moves <- function(lines) {
  ins <- startsWith(lines, "Pedigree insert: Individual \"")
  mov <- startsWith(lines, "Pedigree  order (P")
  lines <- lines[ins | mov]
  ins <- ins[ins | mov]
  # The identity lies between the first quote and the last, the record
  # after the last blank.
  first <- ifelse(ins, 30L, 35L)
  tail <- regexpr("\" (inserted at|moved to) record [0-9]+$", lines)
  kind <- substr(lines, 18L, 19L)
  data.frame(
    individual = substr(lines, first, tail - 1L),
    action = ifelse(ins, "inserted", ifelse(kind == "P1", "moved (sire)", "moved (dam)")),
    record = as.integer(sub("^.* ", "", lines)),
    stringsAsFactors = FALSE)
}

# Sorts a read pedigree.  Returns list(pedigree = data frame, integer_ids,
# moves).
.sort_pedigree <- function(p, fg, fgen_default, verbose = FALSE) {
  lped <- length(p$ind)
  unknown <- if (p$integer_ids) 0L else "0"
  lvls <- unique(c(p$ind, p$sire, p$dam))
  lvls <- lvls[lvls != unknown]
  nan <- length(lvls)
  col4 <- if (is.null(fg)) -1 else fg
  if (p$integer_ids) {
    codes <- integer(3L * nan)
    codes[seq_len(lped)] <- match(p$ind, lvls)
    codes[nan + seq_len(lped)] <- match(p$sire, lvls, nomatch = 0L)
    codes[2L * nan + seq_len(lped)] <- match(p$dam, lvls, nomatch = 0L)
    if (!is.null(fg)) col4 <- c(fg, rep(NA_real_, nan - lped))
    sc <- .sort_call(.Call(C_sortpedigree, lped, nan, as.character(lvls), codes, as.double(col4),
                           fgen_default), verbose)
    r <- sc$value
    if (nzchar(r$error)) .stop_engine(r$error)
    m <- r$pedigree
    out <- data.frame(individual = lvls[m[, 1]],
                      sire = c(0L, lvls)[m[, 2] + 1L],
                      dam = c(0L, lvls)[m[, 3] + 1L])
  } else {
    sc <- .sort_call(.Call(C_pdsort, lped, nan, lvls, c(p$ind, p$sire, p$dam), as.double(col4),
                           fgen_default), verbose)
    r <- sc$value
    if (nzchar(r$error)) .stop_engine(r$error)
    m <- r$pedigree
    out <- data.frame(individual = m[, 1], sire = m[, 2], dam = m[, 3])
  }
  if (!is.null(fg)) out$fgen <- r$fgen
  list(pedigree = out, integer_ids = p$integer_ids, moves = sc$moves)
}

# Sex codes: 1 male, 2 female; anything else 0, which the engine rejects.
.sex_code <- function(x) {
  if (is.factor(x)) x <- as.character(x)
  if (is.numeric(x)) {
    out <- ifelse(!is.na(x) & x %in% c(1, 2), x, 0)
  } else {
    s <- tolower(trimws(as.character(x)))
    out <- ifelse(s %in% c("m", "male", "1"), 1, ifelse(s %in% c("f", "female", "2"), 2, 0))
  }
  out[is.na(out)] <- 0
  as.double(out)
}

#' Inverse of the numerator relationship matrix
#'
#' Sorts a pedigree and forms the inverse of its numerator relationship
#' matrix \eqn{A}, with the inbreeding coefficient of each individual and
#' the log-determinant of \eqn{A}.  The inverse is returned as a sparse
#' symmetric matrix of the Matrix package and in the triple form the
#' model-fit entry takes.
#'
#' @inheritParams pedigree_sort
#' @param method \code{"standard"}; \code{"mgs"}: the third column of
#'   \code{pedigree} is the maternal grandsire instead of the dam;
#'   \code{"xlinked"}: the relationship of genes on the X chromosome (needs
#'   \code{sex}); \code{"inbred_lines"}: every individual is a fully inbred
#'   line, as in plant breeding, so that the diagonal of \eqn{A} is 2.
#' @param fgen Optional generation or selfing value of each row (see
#'   \code{\link{pedigree_sort}}).  When given, a founder's value is its
#'   inbreeding coefficient, a row with one known parent takes the value as
#'   its own inbreeding, and a row with both parents known and a value of 1
#'   or more is selfed that many generations after the cross.
#' @param sex For \code{method = "xlinked"}: the sex of each row (a column
#'   name or number, or a vector), as 1 or \code{"M"} (male) and 2 or
#'   \code{"F"} (female).  Parents without a row of their own take the sex
#'   of their role (sire male, dam female).
#' @param selfing Rate of selfing, from 0 to 1, of rows whose sire is known
#'   and dam unknown: such a row is taken as the offspring of its sire by
#'   partial selfing.  0 (the default) treats the dam as unknown.
#' @param line_inbreeding For \code{method = "inbred_lines"}: the inbreeding
#'   coefficient reported for each line.
#' @param groups Genetic groups: \code{NULL} for none, a number \code{k}
#'   (the first \code{k} rows of \code{pedigree} are groups), or the
#'   identities of the groups.  Groups have unknown parents and stand for
#'   the unknown parents of other individuals: every individual must then
#'   have a sire, real or group.  Group rows come first in the result.
#' @param group_constraint If \code{TRUE}, a genetic group with no progeny
#'   becomes a constraint that the groups since the previous empty group sum
#'   to zero; otherwise it is left as an empty row, with a warning.
#' @return A list of class \code{"tarnel_ainv"}:
#'   \item{ainv}{the inverse as a \code{dsCMatrix}, with the identities as
#'     dimnames, in the order of \code{pedigree};}
#'   \item{pedigree}{the sorted pedigree (groups first);}
#'   \item{inbreeding}{the inbreeding coefficient of each row, \code{NA}
#'     for groups;}
#'   \item{logdet}{the log-determinant of \eqn{A} over the individuals
#'     (groups excluded);}
#'   \item{giv}{the triple form: \code{nainv} (the order), \code{lcainv}
#'     (the number of records), \code{llainv} (the first word of the
#'     records, 1) and \code{ainv} (the records, three numbers each: row,
#'     column, value; one per nonzero of the lower triangle, by rows, each
#'     row's diagonal last);}
#'   \item{groups}{the number of genetic groups;}
#'   \item{empty_groups}{the number of groups with no progeny.}
#' @seealso \code{\link{pedigree_sort}}
#' @examples
#' ped <- data.frame(id = 1:6, sire = c(0, 0, 1, 1, 3, 3), dam = c(0, 0, 2, 2, 4, 4))
#' a <- pedigree_inverse(ped)
#' a$inbreeding
#' a$ainv
pedigree_inverse <- function(pedigree, method = c("standard", "mgs", "xlinked", "inbred_lines"),
                             fgen = NULL, fgen_default = NA_real_, sex = NULL, selfing = 0,
                             line_inbreeding = 1, groups = NULL, group_constraint = FALSE,
                             verbose = FALSE) {
  method <- match.arg(method)
  .check_verbose(verbose)
  p <- .read_pedigree(pedigree)
  fg <- .check_fgen(.ped_column(pedigree, fgen, "fgen"))
  if (!is.numeric(fgen_default) || length(fgen_default) != 1L || (!is.na(fgen_default) && !(fgen_default >= 0 && is.finite(fgen_default))))
    stop("'fgen_default' must be one number of 0 or more (or NA), not ", format(fgen_default), call. = FALSE)
  if (!is.numeric(selfing) || length(selfing) != 1L || is.na(selfing) || selfing < 0 || selfing > 1)
    stop("'selfing' must be one number from 0 to 1", call. = FALSE)
  if (!is.numeric(line_inbreeding) || length(line_inbreeding) != 1L || !is.finite(line_inbreeding))
    stop("'line_inbreeding' must be one number", call. = FALSE)
  if (!is.logical(group_constraint) || length(group_constraint) != 1L || is.na(group_constraint))
    stop("'group_constraint' must be TRUE or FALSE", call. = FALSE)
  sx <- NULL
  if (method == "xlinked" && !is.null(fgen))
    stop("'fgen' cannot be combined with method \"xlinked\"", call. = FALSE)
  if (method == "xlinked") {
    if (is.null(sex)) stop("method \"xlinked\" needs 'sex'", call. = FALSE)
    sx <- .sex_code(.ped_column(pedigree, sex, "sex"))
  }

  s <- .sort_pedigree(p, if (is.null(fg)) NULL else as.double(fg), as.double(fgen_default), verbose)
  ped <- s$pedigree
  unknown <- if (s$integer_ids) 0L else "0"

  # Genetic groups go first.
  ngrp <- 0L
  if (!is.null(groups)) {
    if (method %in% c("xlinked", "inbred_lines"))
      stop("genetic groups cannot be combined with method \"", method, "\"", call. = FALSE)
    gid <- if (is.numeric(groups) && length(groups) == 1L) {
      if (is.na(groups) || groups < 1 || groups > length(p$ind) || groups != round(groups))
        stop("'groups' must be a number of leading rows or the identities of the groups",
             call. = FALSE)
      p$ind[seq_len(groups)]
    } else {
      groups
    }
    gid <- if (s$integer_ids) as.integer(gid) else as.character(gid)
    at <- match(gid, ped$individual)
    if (anyNA(at))
      stop("group \"", gid[is.na(at)][1], "\" is not in the pedigree", call. = FALSE)
    if (anyDuplicated(gid)) stop("'groups' names a group twice", call. = FALSE)
    bad <- at[ped$sire[at] != unknown | ped$dam[at] != unknown]
    if (length(bad))
      stop("group \"", ped$individual[bad[1]], "\" must have unknown parents", call. = FALSE)
    ped <- ped[c(at, setdiff(seq_len(nrow(ped)), at)), , drop = FALSE]
    rownames(ped) <- NULL
    ngrp <- length(at)
  }
  nan <- nrow(ped)

  # Parents as row numbers.
  if (s$integer_ids) {
    sire <- match(ped$sire, ped$individual, nomatch = 0L)
    dam <- match(ped$dam, ped$individual, nomatch = 0L)
  } else {
    pm <- .Call(C_pmat, c(ped$individual, ped$sire, ped$dam), nan, nan)
    if (nzchar(pm$error)) .stop_engine(pm$error)
    sire <- pm$pedMat[, 1]
    dam <- pm$pedMat[, 2]
  }
  plist <- as.integer(rbind(sire, dam))

  fmode <- 0L
  fgsx <- double(0)
  if (!is.null(fg)) {
    fmode <- 1L
    fgsx <- ped$fgen
    fgsx[is.na(fgsx)] <- 0
  }
  if (method == "xlinked") {
    fgsx <- sx[match(ped$individual, p$ind)]
    inserted <- is.na(fgsx)
    if (any(inserted)) {
      ids <- ped$individual[inserted]
      as_sire <- ids %in% ped$sire
      as_dam <- ids %in% ped$dam
      fgsx[inserted] <- ifelse(as_sire & !as_dam, 1, ifelse(as_dam & !as_sire, 2, 0))
    }
  }
  iopt <- c(ngrp, 0L, fmode, as.integer(method == "xlinked"),
            if (group_constraint) 0L else -1L, as.integer(method == "inbred_lines"),
            as.integer(method == "mgs"), 0L)
  ropt <- c(as.double(selfing), as.double(line_inbreeding))

  # The row store needs one slot a row and one for each further nonzero: at
  # most two for a row with both parents (its own row and the parents'
  # pair) and one for a row with one; a constraint for an empty group can
  # add one for each group.  A full store is met by a larger one.
  both <- sum(sire > 0 & dam > 0)
  lenai <- nan + 3 * both + sum((sire > 0) != (dam > 0)) + ngrp * ngrp + 1
  limit <- .Machine$integer.max - 2
  repeat {
    r <- .Call(C_pedigree, plist, as.double(fgsx), nan, min(lenai, limit), iopt, ropt)
    if (r$ifault != 6L) break
    if (lenai >= limit) .stop_engine("pedigree is too large for the relationship inverse")
    lenai <- 2 * lenai
  }
  if (r$ifault != 0L) {
    txt <- r$messages[r$severity >= 4L]
    txt <- if (length(txt)) txt[1] else paste("pedigree fault", r$ifault)
    if (r$where > 0L) txt <- paste0(txt, " (individual \"", ped$individual[r$where], "\")")
    .stop_engine(txt)
  }
  for (m in r$messages) warning(m, call. = FALSE)

  # The records are by rows of the lower triangle, columns ascending: the
  # upper triangle by columns, which is the compressed form of Matrix.
  g <- r$ginv
  rows <- as.integer(g[1, ])
  ids <- as.character(ped$individual)
  ainv <- new("dsCMatrix", Dim = c(nan, nan), Dimnames = list(ids, ids), uplo = "U",
                       i = as.integer(g[2, ]) - 1L,
                       p = c(0L, cumsum(tabulate(rows, nbins = nan))),
                       x = g[3, ])
  inb <- r$inbreeding
  inb[seq_len(ngrp)] <- NA_real_
  names(inb) <- ids
  out <- list(ainv = ainv, pedigree = ped, inbreeding = inb, logdet = r$det,
              giv = list(nainv = nan, lcainv = as.integer(r$linv), llainv = 1L,
                         ainv = as.vector(g)),
              groups = ngrp, empty_groups = r$empty_groups, moves = s$moves)
  class(out) <- "tarnel_ainv"
  out
}

print.tarnel_ainv <- function(x, ...) {
  n <- nrow(x$ainv)
  cat("Inverse relationship matrix of", n - x$groups, "individuals")
  if (x$groups > 0) cat(" and", x$groups, "genetic groups")
  cat("\n")
  cat("Nonzeros in the lower triangle:", x$giv$lcainv, "\n")
  f <- x$inbreeding[!is.na(x$inbreeding)]
  if (length(f))
    cat("Inbreeding: mean", format(mean(f), digits = 4), " max", format(max(f), digits = 4),
        " inbred individuals", sum(f > 0), "\n")
  cat("log det(A):", format(x$logdet, digits = 8), "\n")
  invisible(x)
}
