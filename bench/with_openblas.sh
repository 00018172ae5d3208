#!/bin/sh
# Runs a benchmark script with R's BLAS replaced by Debian's OpenBLAS, so
# that the dense blocks of tarnel and of its peers (CHOLMOD's supernodal
# factorisation, for instance) go through an optimised BLAS.  One thread
# unless OPENBLAS_NUM_THREADS says otherwise; both sides get the same.  The
# package is unpacked into bench/.openblas, not installed: the machine's
# BLAS stays as it is.
#
#   sh bench/with_openblas.sh bench/absorb.R [arguments of the script]
#   OPENBLAS_NUM_THREADS=2 sh bench/with_openblas.sh bench/animal_large.R 100000
set -e
here=$(cd "$(dirname "$0")" && pwd)
dir="$here/.openblas"
lib="$dir/usr/lib/x86_64-linux-gnu/openblas-pthread"
if [ ! -f "$lib/libblas.so.3" ]; then
  mkdir -p "$dir"
  (cd "$dir" && apt-get download libopenblas0-pthread >/dev/null 2>&1 && dpkg -x libopenblas0-pthread_*.deb .)
fi
[ -f "$lib/libblas.so.3" ] || { echo "could not unpack OpenBLAS into $dir" >&2; exit 1; }
LD_PRELOAD="$lib/libopenblas.so.0 $lib/libblas.so.3" OPENBLAS_NUM_THREADS=${OPENBLAS_NUM_THREADS:-1} Rscript "$@"
