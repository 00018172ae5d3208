library(testthat)
library(tarnel)

test_check("tarnel")
