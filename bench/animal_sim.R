# The simulated animal model shared by bench/animal.R and
# bench/animal_large.R: six generations, few sires (a tenth of the previous
# generation), dams from the rest, breeding values by the recursion
# a = (s + d)/2 + Mendelian sampling, one record on each animal after the
# first generation with a sex effect.  Returns the ids, the relationship
# inverse (pedigree_inverse) and the records.
simulate_animals <- function(nanim, va = 0.6, ve = 1, seed = 3) {
  set.seed(seed)
  ngen <- 6L
  per <- nanim %/% ngen
  id <- seq_len(per * ngen)
  gen <- rep(seq_len(ngen), each = per)
  sire <- dam <- integer(length(id))
  for (g in 2:ngen) {
    prev <- which(gen == g - 1L)
    now <- which(gen == g)
    sire[now] <- sample(prev[seq_len(length(prev) %/% 10)], length(now), TRUE)
    dam[now] <- sample(prev[-seq_len(length(prev) %/% 10)], length(now), TRUE)
  }
  ai <- pedigree_inverse(data.frame(id = id, sire = sire, dam = dam))
  a <- numeric(length(id))
  for (i in id) {
    pa <- if (sire[i] > 0) a[sire[i]] else 0
    ma <- if (dam[i] > 0) a[dam[i]] else 0
    mv <- if (sire[i] > 0 && dam[i] > 0) 0.5 else 1
    a[i] <- (pa + ma) / 2 + rnorm(1, sd = sqrt(mv * va))
  }
  rec <- id[gen >= 2L]
  d <- data.frame(animal = rec, sex = factor(sample(c("F", "M"), length(rec), TRUE)))
  d$y <- 10 + 0.5 * (d$sex == "M") + a[rec] + rnorm(length(rec), sd = sqrt(ve))
  list(id = id, ngen = ngen, ai = ai, data = d, sire = sire, a = a)
}
