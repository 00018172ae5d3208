# Peak resident memory of this R process around one step, for the
# benchmarks: the kernel's high-water mark (VmHWM) is reset before the step
# and read after it, so that each figure belongs to its own step.  Linux
# only; elsewhere the figure is NA.
reset_peak <- function() {
  if (file.exists("/proc/self/clear_refs")) try(cat("5", file = "/proc/self/clear_refs"), silent = TRUE)
  invisible(NULL)
}
peak_mb <- function() {
  if (!file.exists("/proc/self/status")) return(NA_real_)
  l <- grep("^VmHWM:", readLines("/proc/self/status"), value = TRUE)
  if (!length(l)) return(NA_real_)
  as.numeric(gsub("[^0-9]", "", l)) / 1024
}
# Runs `expr` and returns its elapsed seconds and the peak memory in MB.
timed <- function(expr) {
  invisible(gc())
  reset_peak()
  t <- system.time(expr)[["elapsed"]]
  c(time = t, peak_mb = peak_mb())
}
# Resident memory of the process in MB: the current size and the peak,
# which writing 5 to clear_refs resets (Linux).
rss <- function(field) {
  s <- tryCatch(readLines("/proc/self/status"), error = function(e) character())
  v <- grep(paste0("^", field, ":"), s, value = TRUE)
  if (!length(v)) return(NA_real_)
  as.numeric(gsub("[^0-9]", "", v)) / 1024
}
# Elapsed and CPU seconds of `expr`, and the growth of the resident peak.
measure <- function(expr) {
  gc()
  base <- rss("VmRSS")
  reset <- tryCatch({ cat("5", file = "/proc/self/clear_refs"); TRUE }, error = function(e) FALSE)
  t <- system.time(value <- expr)
  list(value = value, elapsed = t[["elapsed"]], cpu = t[["user.self"]] + t[["sys.self"]],
       peak = if (reset) rss("VmHWM") - base else NA_real_)
}
