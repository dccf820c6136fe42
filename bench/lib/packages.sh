# Debian packages the benchmarks need beyond the build's own (RETRA_BUILD_PACKAGES):
# Google Benchmark for the micro-benchmarks; nginx and python3 drive the comparison.
RETRA_BENCH_PACKAGES=(libbenchmark-dev nginx-light python3)
