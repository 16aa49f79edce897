# The comparison run of the large-file figures in the README: the same Poisson log model fitted
# by R (data.table's fread, then glm and its summary) to a file of make_bench_csv. R is not a
# dependency of the project; install r-base-core and r-cran-data.table by hand to run it:
#   /usr/bin/time -v Rscript bench/fit_with_r.R FILE
suppressMessages(library(data.table))
file <- commandArgs(trailingOnly = TRUE)[1]
start <- proc.time()[["elapsed"]]
d <- fread(file, stringsAsFactors = TRUE)
read <- proc.time()[["elapsed"]]
fit <- glm(y ~ ., family = poisson(link = "log"), data = d)
s <- summary(fit)
done <- proc.time()[["elapsed"]]
cat(sprintf("records %d, read %.2f s, fit %.2f s, deviance %.6f\n", nrow(d), read - start, done - read,
            deviance(fit)))
