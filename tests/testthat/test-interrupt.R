# An interrupt during a long fit ends it with an R condition, and the session
# goes on to fit again.  The fit runs in a child R process that is sent
# SIGINT while it is busy (about 2 s into a fit that takes well over 10 s).
test_that("an interrupted fit stops with a condition and the session fits again", {
  # Not on CRAN's checks (R CMD check without NOT_CRAN): it needs a child
  # process and some seconds of CPU.
  skip_if(nzchar(Sys.getenv("_R_CHECK_PACKAGE_NAME_")) && !identical(Sys.getenv("NOT_CRAN"), "true"), "On CRAN")
  skip_on_os("windows")
  dir <- tempfile("interrupt")
  dir.create(dir)
  on.exit(unlink(dir, recursive = TRUE), add = TRUE)
  pidfile <- file.path(dir, "pid")
  outfile <- file.path(dir, "out")
  script <- file.path(dir, "child.R")
  writeLines(c(
    "suppressPackageStartupMessages(library(tarnel))",
    "set.seed(3)",
    "n <- 150000L; na <- 15000L; nb <- 3000L",
    "d <- data.frame(A = factor(sample(na, n, TRUE)), B = factor(sample(nb, n, TRUE)))",
    "d$y <- rnorm(na)[d$A] + rnorm(nb)[d$B] + rnorm(n)",
    sprintf("writeLines(as.character(Sys.getpid()), %s)", deparse(pidfile)),
    "t0 <- Sys.time()",
    "got <- tryCatch({ tarnel(y ~ 1, random = ~ A + B, data = d); 'finished' },",
    "  error = function(e) paste('error:', conditionMessage(e)),",
    "  interrupt = function(e) 'interrupt')",
    "cat('FIRST', got, '\\n')",
    "cat('SECONDS', format(as.numeric(Sys.time() - t0, units = 'secs')), '\\n')",
    "small <- data.frame(y = c(5, 7, 6, 9, 8, 12, 10, 11, 4, 6, 5, 8), g = factor(rep(1:4, 3)))",
    "f2 <- tarnel(y ~ 1, random = ~ g, data = small)",
    "cat('SECOND', is.finite(as.numeric(logLik(f2))), '\\n')"), script)
  libs <- paste(.libPaths(), collapse = .Platform$path.sep)
  rscript <- file.path(R.home("bin"), "Rscript")
  system2(rscript, shQuote(script), stdout = outfile, stderr = outfile, wait = FALSE,
          env = paste0("R_LIBS=", shQuote(libs)))
  waited <- 0
  while (!file.exists(pidfile) || !length(readLines(pidfile, warn = FALSE))) {
    Sys.sleep(0.1)
    waited <- waited + 0.1
    if (waited > 30) fail("the child R process did not start its fit")
  }
  pid <- as.integer(readLines(pidfile))
  on.exit(tools::pskill(pid, tools::SIGKILL), add = TRUE)
  Sys.sleep(2)
  tools::pskill(pid, tools::SIGINT)
  out <- character()
  for (k in 1:150) {
    Sys.sleep(0.1)
    out <- readLines(outfile, warn = FALSE)
    if (any(grepl("^SECOND ", out))) break
  }
  first <- grep("^FIRST ", out, value = TRUE)
  expect_length(first, 1L)
  if (identical(first, "FIRST finished ")) skip("the fit ended before the interrupt arrived")
  # The fit stopped on the interrupt: as the engine's error, or as R's own
  # interrupt condition when the signal arrived while R code was running.
  expect_true(grepl("Interrupted by the user", first, fixed = TRUE) || grepl("FIRST interrupt", first),
              info = paste(out, collapse = "\n"))
  # It stopped promptly, not at the end of a long step.
  secs <- as.numeric(sub("^SECONDS ", "", grep("^SECONDS ", out, value = TRUE)))
  expect_lt(secs, 5)
  expect_true(any(grepl("^SECOND TRUE", out)), info = paste(out, collapse = "\n"))
})
