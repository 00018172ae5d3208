# Readable names of variance parameters.  A parameter is named by its term
# and what it is within the term: "Subject: (Intercept)", "Subject: Days" and
# "Subject: cov((Intercept), Days)" for random coefficients,
# "cov_ar1(time):unit: time ar1" for a structure's correlation,
# "cov_ar1(time):unit: variance" for a term's overall variance.  The same
# names are used by the summary, VarCorr(), start and constrain.

structure_param_name <- function(g, s, k) {
  what <- s$names[k]
  if (identical(g$kind, "coefs"))
    return(list(name = paste0(g$factor, ": ", what), vgroup = g$factor))
  inner <- if (identical(what, "variance") || is.null(s$factor)) what else paste(s$factor, what)
  list(name = paste0(g$label, ": ", inner), vgroup = g$label)
}
