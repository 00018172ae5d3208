test_that("about names the package and the engine", {
  out <- capture.output(msg <- tarnel_about())
  expect_match(msg, "^Mixed Models for S Language Environments\nAbout tarnel\\(\\)\nArch:  ")
  expect_match(msg, "Tarnel object library: tarnel engine")
})

test_that("small host entries convert as documented", {
  ok <- integer(1)
  .Call(tarnel:::C_canBeNumeric, c("1.5", "NA", "-2e3"), 3L, ok)
  expect_equal(ok, 1L)
  .Call(tarnel:::C_canBeNumeric, c("1.5", "", "x"), 3L, ok)
  expect_equal(ok, 0L)

  s <- character(3)
  .Call(tarnel:::C_int2char, s, c(65L, 0L, 122L), 3L)
  expect_equal(s, c("A", " ", "z"))

  tgt <- character(1)
  .Call(tarnel:::C_rTextCopy, tgt, "ab  cd   ", 1L, 9L)
  expect_equal(tgt, "ab  cd")

  d <- data.frame(Yield = 1, block = 2, Var = factor("a"), X2 = 3)
  expect_equal(.Call(tarnel:::C_a2i, d), c(1L, 4L))

  ai <- matrix(0, 2, 2)
  expect_equal(.Call(tarnel:::C_aimat, c(1, 2, 3), c(1, 1), c(1L, 1L), 1, 0L, ai), 0L)
  expect_equal(ai, matrix(c(1, 2, 2, 3), 2))
})

test_that("mvpatch sets the response where the mv column is positive", {
  inter <- matrix(c(0L, 0L, 1L, 0L, 0L, 0L, 2L, 0L), 4)
  dat <- c(5, 0, 6, 1, 7, 2)  # records (y, mv)
  .Call(tarnel:::C_mvpatch, c("y", "mv"), 1L, 2L, inter, c(1L, 2L), 1L, 2L, 3L, dat, 0)
  expect_equal(dat, c(5, 0, 0, 1, 0, 2))
})

test_that("the help entry never runs a command", {
  f <- tempfile(fileext = ".html")
  writeLines("<p>help</p>", f)
  expect_equal(.Call(tarnel:::C_Shelp, f, 1L), f)
  expect_error(.Call(tarnel:::C_Shelp, "ls; touch /tmp/x", 1L), "not a command")
  expect_error(.Call(tarnel:::C_Shelp, "/no/such/file.html", 1L), "no help file")
})

test_that("every entry rejects malformed arguments with an R error", {
  expect_error(.Call(tarnel:::C_about, 1, character(1), "x", "y"), "'where'")
  expect_error(.Call(tarnel:::C_aimat, 1:3, c(1, 1), 1:2, 1, 0L, matrix(0, 2, 2)), "'aivec'")
  expect_error(.Call(tarnel:::C_aimat, c(1, 2), c(1, 1), 1:2, 1, 0L, matrix(0, 2, 2)), "'aivec'")
  expect_error(.Call(tarnel:::C_canBeNumeric, "1", 5L, integer(1)), "'lenx'")
  expect_error(.Call(tarnel:::C_int2char, character(2), c(1L, 300L), 2L), "outside")
  expect_error(.Call(tarnel:::C_int2char, character(1), 1L, -1L), "'n'")
  expect_error(.Call(tarnel:::C_a2i, 1:3), "'data'")
  expect_error(.Call(tarnel:::C_mvpatch, "y", 1L, 1L, matrix(0L, 4, 1), 1L, 2L, 1L, 1L, 0, 0),
               "'nycol'")
  expect_error(.Call(tarnel:::C_rTextCopy, character(1), 3, 1L, 2L), "'source'")
  expect_error(.Call(tarnel:::C_Shelp, NULL, 1L), "'cmd'")
})

test_that("the model-fit entry names a missing or mistyped element", {
  base <- tarnel:::entry_defaults()
  run <- function(a) tarnel:::call_entry(a)
  expect_equal(run(tarnel:::entry_defaults())$status, -1L)  # no records: the fault exit
  lists <- c("inter", "struc", "ainv", "glm", "predict", "constr", "mbfList", "control", "trn")
  for (l in lists) {
    for (el in names(base[[l]])) {
      if (l == "trn" && el == "license") next  # fetched and not used
      a <- tarnel:::entry_defaults()
      a[[l]][[el]] <- NULL
      expect_error(run(a), paste0("'", el, "' of '", l, "'"), info = paste(l, el))
      a <- tarnel:::entry_defaults()
      a[[l]][[el]] <- list(1)
      expect_error(run(a), paste0("'", el, "'"), info = paste(l, el))
    }
  }
  a <- tarnel:::entry_defaults(); a$iarg <- 1:3
  expect_error(run(a), "'iarg'")
  a <- tarnel:::entry_defaults(); a$iarg <- as.double(base$iarg)
  expect_error(run(a), "'iarg'")
  a <- tarnel:::entry_defaults(); a$inter <- 1
  expect_error(run(a), "'inter' must be a named list")
  a <- tarnel:::entry_defaults(); a$datafr <- "x"
  expect_error(run(a), "'datafr'")
})

test_that("absurd sizes give errors or the workspace text, never a crash", {
  run <- function(a) tarnel:::call_entry(a)
  a <- tarnel:::entry_defaults(); a$control$workspace <- -1
  expect_error(run(a), "non-negative")
  a <- tarnel:::entry_defaults(); a$control$workspace <- NaN
  expect_error(run(a), "non-negative")
  a <- tarnel:::entry_defaults(); a$iarg[2] <- 1000000L  # more records than data
  expect_error(run(a), "'datafr'")
  a <- tarnel:::entry_defaults(); a$iarg[1] <- 0L
  expect_error(run(a), "columns per record")
  a <- tarnel:::entry_defaults(); a$inter$neword <- 5L; a$inter$submds <- 0L
  expect_error(run(a), "not in the term table")
  a <- tarnel:::entry_defaults(); a$control$workspace <- 1e30
  out <- capture.output(r <- run(a))
  expect_equal(r$status, -1L)
  expect_equal(r$errtxt, "Unable to allocate dynamic memory (workspace)")
  expect_true(any(grepl("Unable to allocate .* bytes of dynamic memory", out)))
})

test_that("vectors the engine writes must not be shared", {
  a <- tarnel:::entry_defaults()
  keep <- a$struc$gammas
  expect_error(tarnel:::call_entry(a), "'gammas' of 'struc' is shared")
})

test_that("the debug switch returns before the run", {
  a <- tarnel:::entry_defaults()
  a$iarg[16] <- 1L
  a$control$stepsize <- c(0.25)
  r <- tarnel:::call_entry(a)
  expect_equal(r$status, 0L)
  expect_equal(a$control$stepsize, 0.25)  # the run did not happen
  a <- tarnel:::entry_defaults()
  a$control$stepsize <- c(0.25)
  capture.output(r <- tarnel:::call_entry(a))
  expect_equal(a$control$stepsize, 0.5)  # the square root is stored back
})
