# Builds the data sets in data/: simulated with fixed seeds.
# Run from the package root: Rscript data-raw/make_data.R

set.seed(20261121)

# A field trial: 12 varieties in 3 complete blocks laid out on a 6 x 6
# grid, with a nitrogen covariate, a spatial trend and a few missing plots.
nv <- 12; nb <- 3
field_trial <- do.call(rbind, lapply(seq_len(nb), function(b) {
  data.frame(block = b, variety = sample(seq_len(nv)))
}))
field_trial$row <- rep(1:6, each = 6)
field_trial$col <- rep(1:6, times = 6)
field_trial$nitrogen <- round(runif(nrow(field_trial), 40, 120))
veff <- rnorm(nv, 0, 0.6)
beff <- rnorm(nb, 0, 0.4)
field_trial$yield <- round(5 + veff[field_trial$variety] + beff[field_trial$block] +
  0.01 * field_trial$nitrogen + 0.05 * field_trial$row + rnorm(nrow(field_trial), 0, 0.35), 2)
field_trial$yield[c(7, 22)] <- NA
field_trial$block <- factor(paste0("B", field_trial$block))
field_trial$variety <- factor(sprintf("V%02d", field_trial$variety))
field_trial <- field_trial[, c("block", "variety", "row", "col", "nitrogen", "yield")]

# A split plot: 4 blocks, 3 varieties on whole plots, 4 nitrogen rates on
# subplots.
split_plot <- expand.grid(nitrogen = c(0, 40, 80, 120), variety = c("Gold", "Silver", "Bronze"),
                          block = paste0("I", 1:4), KEEP.OUT.ATTRS = FALSE)
split_plot <- split_plot[, c("block", "variety", "nitrogen")]
split_plot$wholeplot <- factor(paste(split_plot$block, split_plot$variety, sep = "."))
b <- rnorm(4, 0, 8)[as.integer(factor(split_plot$block))]
wp <- rnorm(12, 0, 6)[as.integer(split_plot$wholeplot)]
v <- c(Gold = 0, Silver = 6, Bronze = -4)[as.character(split_plot$variety)]
split_plot$yield <- round(80 + b + wp + v + 0.35 * split_plot$nitrogen - 0.0012 * split_plot$nitrogen^2 +
  rnorm(nrow(split_plot), 0, 5), 1)
split_plot$block <- factor(split_plot$block)
split_plot$variety <- factor(split_plot$variety, levels = c("Gold", "Silver", "Bronze"))
split_plot$nitrogen_level <- factor(split_plot$nitrogen)

# A pedigree with records: 10 founders, then three generations; each
# non-founder has a sire and a dam among earlier animals and one record.
ped <- data.frame(animal = 1:10, sire = NA_integer_, dam = NA_integer_, sex = rep(c("M", "F"), 5))
id <- 10L
for (g in 1:3) {
  males <- ped$animal[ped$sex == "M"]
  females <- ped$animal[ped$sex == "F"]
  n <- 16
  kids <- data.frame(animal = id + seq_len(n), sire = sample(males, n, TRUE), dam = sample(females, n, TRUE),
                     sex = rep(c("M", "F"), n / 2))
  ped <- rbind(ped, kids)
  id <- id + n
}
a <- numeric(nrow(ped))
for (i in seq_len(nrow(ped))) {
  s <- ped$sire[i]; d <- ped$dam[i]
  pa <- if (is.na(s)) 0 else a[s]
  ma <- if (is.na(d)) 0 else a[d]
  a[i] <- 0.5 * (pa + ma) + rnorm(1, 0, if (is.na(s)) 1 else sqrt(0.5))
}
pedigree_records <- ped
pedigree_records$herd <- factor(paste0("H", sample(1:4, nrow(ped), TRUE)))
pedigree_records$weight <- round(250 + 10 * a + c(H1 = 0, H2 = 8, H3 = -5, H4 = 3)[as.character(pedigree_records$herd)] +
  rnorm(nrow(ped), 0, 8), 1)
pedigree_records$weight[pedigree_records$animal <= 10] <- NA
pedigree_records$animal <- factor(pedigree_records$animal)
pedigree_records$sex <- factor(pedigree_records$sex)

save(field_trial, file = "data/field_trial.rda", compress = "xz")
save(split_plot, file = "data/split_plot.rda", compress = "xz")
save(pedigree_records, file = "data/pedigree_records.rda", compress = "xz")
