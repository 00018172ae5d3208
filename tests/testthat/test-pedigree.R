# The relationship inverse against A formed independently by the tabular
# method: A[i, j] = w1 A[s, j] + w2 A[d, j] for j before i, and a diagonal
# given by the genetic model of each method.
tabular <- function(s, d, w1 = rep(0.5, length(s)), w2 = rep(0.5, length(s)), dg) {
  n <- length(s)
  A <- matrix(0, n, n)
  for (i in seq_len(n)) {
    if (i > 1) {
      j <- seq_len(i - 1)
      v <- numeric(i - 1)
      if (s[i] > 0) v <- v + w1[i] * A[s[i], j]
      if (d[i] > 0) v <- v + w2[i] * A[d[i], j]
      A[i, j] <- A[j, i] <- v
    }
    A[i, i] <- dg(i, A)
  }
  A
}
standard_diag <- function(s, d) function(i, A) 1 + if (s[i] > 0 && d[i] > 0) 0.5 * A[s[i], d[i]] else 0

# Parents of the sorted pedigree as row numbers.
parents <- function(ped) {
  list(s = match(ped$sire, ped$individual, nomatch = 0L),
       d = match(ped$dam, ped$individual, nomatch = 0L))
}

expect_inverse_of <- function(res, A, tol = 1e-9) {
  expect_s4_class(res$ainv, "dsCMatrix")
  expect_equal(unname(as.matrix(res$ainv)), unname(solve(A)), tolerance = tol)
  expect_equal(res$logdet, as.numeric(determinant(A)$modulus), tolerance = tol)
}

# A pedigree with inbreeding (full-sib and half-sib matings, a selfed row),
# unknown parents, parents without rows and rows out of order.
messy <- data.frame(
  id   = c("k", "e", "c", "h", "d", "f", "g", "j", "s"),
  sire = c("h", "c", "a", "f", "a", "e", "e", "h", "g"),
  dam  = c("j", "d", "b", "g", NA,  "d", "d", "g", "g"),
  stringsAsFactors = FALSE)

test_that("A-inverse equals solve() of the tabular A, with inbreeding and log-determinant", {
  out <- capture.output(res <- pedigree_inverse(messy))
  ped <- res$pedigree
  expect_setequal(ped$individual, c(messy$id, "a", "b"))
  p <- parents(ped)
  expect_true(all(p$s < seq_along(p$s)) && all(p$d < seq_along(p$d)))
  A <- tabular(p$s, p$d, dg = standard_diag(p$s, p$d))
  expect_inverse_of(res, A)
  expect_equal(unname(res$inbreeding), diag(A) - 1, tolerance = 1e-12)
  expect_true(any(res$inbreeding > 0.2))
  expect_identical(rownames(res$ainv), ped$individual)

  # The triple form: one record per nonzero of the lower triangle, rows in
  # order, each row's diagonal last.
  g <- matrix(res$giv$ainv, nrow = 3)
  expect_identical(res$giv$lcainv, ncol(g))
  expect_identical(res$giv$nainv, nrow(ped))
  expect_true(all(g[2, ] <= g[1, ]))
  last <- c(diff(g[1, ]) != 0, TRUE)
  expect_true(all(g[1, last] == g[2, last]))
  L <- as.matrix(res$ainv)
  L[upper.tri(L)] <- 0
  expect_identical(sum(L != 0), ncol(g))

  # Integer identities take the other sorting entry and give the same.
  num <- data.frame(id = match(messy$id, letters), sire = match(messy$sire, letters),
                    dam = match(messy$dam, letters, nomatch = 0L))
  capture.output(res2 <- pedigree_inverse(num))
  expect_identical(res2$pedigree$individual, match(ped$individual, letters))
  expect_equal(as.matrix(res2$ainv), as.matrix(res$ainv), ignore_attr = TRUE)
})

test_that("the sort is quiet unless asked; the moves come back, printed word for word when verbose", {
  ped <- data.frame(id = c("e", "c", "d"), sire = c("c", "a", "a"), dam = c("d", "b", "0"))
  expect_identical(capture.output(quiet_s <- pedigree_sort(ped)), character(0))
  out <- capture.output(s <- pedigree_sort(ped, verbose = TRUE))
  expect_identical(attr(quiet_s, "moves"), attr(s, "moves"))
  expect_identical(attr(s, "moves")$individual, c("c", "d", "a", "b", "a", "b"))
  expect_identical(attr(s, "moves")$action[1:3], c("moved (sire)", "moved (dam)", "inserted"))
  expect_identical(out, c(
    "Pedigree  order (P1): Individual \"c\" moved to record 1",
    "Pedigree  order (P2): Individual \"d\" moved to record 2",
    "Pedigree insert: Individual \"a\" inserted at record 3",
    "Pedigree insert: Individual \"b\" inserted at record 4",
    "Pedigree  order (P1): Individual \"a\" moved to record 1",
    "Pedigree  order (P2): Individual \"b\" moved to record 2"))
  expect_identical(s$individual, c("a", "b", "c", "d", "e"))
  expect_identical(capture.output(s2 <- pedigree_sort(s, verbose = TRUE)), character(0))
  expect_identical(nrow(attr(s2, "moves")), 0L)
  attr(s, "moves") <- attr(s2, "moves") <- NULL
  expect_identical(s2, s)
})

test_that("the other methods match their own tabular A", {
  ped <- data.frame(id = 1:12, sire = c(0, 0, 0, 1, 1, 4, 4, 6, 0, 8, 6, 10),
                    dam = c(0, 0, 0, 2, 2, 5, 3, 7, 0, 7, 0, 11))
  s <- ped$sire
  d <- ped$dam
  n <- nrow(ped)

  # Maternal grandsire in the third column.
  capture.output(r <- pedigree_inverse(ped, method = "mgs"))
  A <- tabular(s, d, w2 = rep(0.25, n),
               dg = function(i, A) 1 + if (s[i] > 0 && d[i] > 0) 0.25 * A[s[i], d[i]] else 0)
  expect_inverse_of(r, A)

  # Partial selfing of rows with a sire only.
  p <- 0.4
  one <- s > 0 & d == 0
  capture.output(r <- pedigree_inverse(ped, selfing = p))
  A <- tabular(s, d, w1 = ifelse(one, (1 + p) / 2, 0.5),
               dg = function(i, A) if (one[i]) 1 + p * A[s[i], s[i]] / 2 else standard_diag(s, d)(i, A))
  expect_inverse_of(r, A)
  expect_equal(unname(r$inbreeding), diag(A) - 1, tolerance = 1e-12)

  # Inbred lines: every line has a diagonal of 2.
  lines <- ped[ped$sire != ped$dam | ped$sire == 0, ]
  capture.output(r <- pedigree_inverse(lines, method = "inbred_lines"))
  A <- tabular(lines$sire, lines$dam, dg = function(i, A) 2)
  expect_inverse_of(r, A)

  # Generation values: founders' inbreeding, a sire-only row's own
  # inbreeding, and selfing generations after a cross.
  fg <- c(0.5, 0, 0.25, 0, 2, 0, 0, 0, 3, 1, 0.3, 0)
  capture.output(r <- pedigree_inverse(ped, fgen = fg))
  selfed <- function(f, k) { for (t in seq_len(k)) f <- (1 + f) / 2; f }
  Fown <- ifelse(fg >= 1, 1 - 0.5^fg, fg)
  A <- tabular(s, d, dg = function(i, A) {
    if (s[i] > 0 && d[i] > 0) 1 + selfed(0.5 * A[s[i], d[i]], if (fg[i] >= 1) fg[i] else 0)
    else 1 + Fown[i]
  })
  expect_inverse_of(r, A)
})

test_that("the X-linked inverse matches the tabular A of X chromosomes", {
  # 1 male: his dam's X only (A = 1/2); 2 female: her sire's X and half
  # of her dam's (A = 1 + A[s, d]).
  ped <- data.frame(id = 1:10, sire = c(0, 0, 1, 1, 3, 3, 5, 0, 1, 5),
                    dam = c(0, 0, 2, 2, 4, 4, 6, 0, 8, 0),
                    sex = c(1, 2, 1, 2, 1, 2, 2, 2, "F", "F"))
  capture.output(r <- pedigree_inverse(ped, method = "xlinked", sex = "sex"))
  sx <- ifelse(ped$sex %in% c("1"), 1, 2)
  A <- tabular(ped$sire, ped$dam, w1 = ifelse(sx == 1, 0, 1), w2 = rep(0.5, 10),
               dg = function(i, A) if (sx[i] == 1) 0.5 else
                 1 + if (ped$sire[i] > 0 && ped$dam[i] > 0) A[ped$sire[i], ped$dam[i]] else 0)
  expect_inverse_of(r, A)

  bad <- ped
  bad$sex[7] <- 3
  expect_error(capture.output(pedigree_inverse(bad, method = "xlinked", sex = "sex")),
               "Pedigree row 7: the X-linked method needs a sex code of 1 or 2 (individual \"7\")",
               fixed = TRUE)
})

test_that("genetic groups give the inverse of the QP transformation", {
  ped <- data.frame(id = c("G1", "G2", "a", "b", "c", "d", "e"),
                    sire = c(0, 0, "G1", "G1", "a", "a", "c"),
                    dam = c(0, 0, "G2", "G1", "b", "G2", "d"))
  capture.output(r <- pedigree_inverse(ped, groups = 2))
  expect_identical(r$pedigree$individual[1:2], c("G1", "G2"))
  ind <- r$pedigree[-(1:2), ]
  g <- match(ind$sire, c("G1", "G2"), 0)
  h <- match(ind$dam, c("G1", "G2"), 0)
  s <- ifelse(g > 0, 0, match(ind$sire, ind$individual, 0))
  d <- ifelse(h > 0, 0, match(ind$dam, ind$individual, 0))
  A <- tabular(s, d, dg = standard_diag(s, d))
  # Q: each individual's expected share of genes from each group.
  Q <- matrix(0, nrow(ind), 2)
  for (i in seq_len(nrow(ind))) {
    for (k in 1:2) {
      from <- function(par, grp) if (grp > 0) as.numeric(grp == k) else if (par > 0) Q[par, k] else 0
      Q[i, k] <- 0.5 * from(s[i], g[i]) + 0.5 * from(d[i], h[i])
    }
  }
  Ai <- solve(A)
  expected <- rbind(cbind(t(Q) %*% Ai %*% Q, -t(Q) %*% Ai), cbind(-Ai %*% Q, Ai))
  expect_equal(unname(as.matrix(r$ainv)), unname(expected), tolerance = 1e-9)
  expect_true(all(is.na(r$inbreeding[1:2])))
  expect_equal(r$logdet, as.numeric(determinant(A)$modulus), tolerance = 1e-9)

  # A group without progeny: a warning, or a constraint when asked.
  ped3 <- rbind(data.frame(id = "G3", sire = 0, dam = 0), ped)
  expect_warning(capture.output(pedigree_inverse(ped3, groups = c("G1", "G2", "G3"))),
                 "Empty Genetic Group 3", fixed = TRUE)
  expect_warning(capture.output(r3 <- pedigree_inverse(ped3, groups = c("G1", "G2", "G3"),
                                                       group_constraint = TRUE)),
                 "Empty Genetic Group 3 generated a Constraint", fixed = TRUE)
  expect_equal(unname(as.matrix(r3$ainv)[3, ]), c(1, 1, 0, rep(0, 5)))

  # Every individual needs a sire when groups are in use.
  ped$sire[5] <- 0
  expect_error(capture.output(pedigree_inverse(ped, groups = 2)),
               "first parent unknown in a pedigree with genetic groups (individual \"c\")",
               fixed = TRUE)
})

test_that("a store sized too small is enlarged without the user seeing it", {
  # Every row has two parents and a new mating pair: about four store slots
  # a row, more than the first size of three a row.
  set.seed(4)
  n <- 80
  s <- c(rep(0, 8), sapply(9:n, function(i) sample(i - 1, 1)))
  d <- c(rep(0, 8), sapply(9:n, function(i) sample(setdiff(seq_len(i - 1), s[i]), 1)))
  capture.output(r <- pedigree_inverse(data.frame(id = 1:n, sire = s, dam = d)))
  expect_gt(r$giv$lcainv, 3 * n + 1)
  expect_inverse_of(r, tabular(s, d, dg = standard_diag(s, d)))
})

test_that("bad pedigrees give clear errors", {
  cyc <- data.frame(id = c("x", "a", "b"), sire = c("a", "b", "a"), dam = c(0, 0, 0))
  expect_error(capture.output(pedigree_sort(cyc)),
               "Pedigree contains a cycle: individual \"[ab]\" is its own ancestor")
  expect_error(pedigree_sort(data.frame(id = c(1, 1), sire = 0, dam = 0)),
               "individual \"1\" appears in more than one row", fixed = TRUE)
  expect_error(pedigree_sort(data.frame(id = "a", sire = "a", dam = 0)),
               "individual \"a\" is its own parent", fixed = TRUE)
  expect_error(pedigree_sort(data.frame(id = c("a", NA), sire = 0, dam = 0)), "must be known")
  expect_error(pedigree_sort(data.frame(id = 1:2, sire = 0)), "at least three columns")
  expect_error(pedigree_inverse(messy, selfing = 2), "'selfing'")
  expect_error(pedigree_inverse(messy, method = "xlinked"), "needs 'sex'")
  expect_error(pedigree_inverse(messy, method = "xlinked", sex = rep(1, 9), fgen = rep(0, 9)),
               "cannot be combined")
  expect_error(.Call(tarnel:::C_pedigree, c(0L, 0L, 5L, 0L), double(0), 2L, 1, rep(0L, 8), c(0, 1)),
               "'lenai'")
  expect_error(.Call(tarnel:::C_pedigree, c(0L, 0L, 5L, 0L), double(0), 2L, 10, rep(0L, 8), c(0, 1)), NA)
  r <- .Call(tarnel:::C_pedigree, c(0L, 0L, 5L, 0L), double(0), 2L, 10, rep(0L, 8), c(0, 1))
  expect_identical(r$ifault, 11L)
  expect_error(.Call(tarnel:::C_sortpedigree, 1L, 1L, "a", c(7L, 0L, 0L), -1, NA_real_), NA)
  expect_match(.Call(tarnel:::C_sortpedigree, 1L, 1L, "a", c(7L, 0L, 0L), -1, NA_real_)$error,
               "not an identity")
})
