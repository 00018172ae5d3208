#!/usr/bin/env bash
# Installs, from Debian's packages, what building and testing tarnel needs
# and the machine lacks: R's development files, the standalone mathematical
# library, CMake, GoogleTest, testthat and the peer packages of the tests,
# and OpenBLAS: R then takes it as its BLAS (through Debian's alternatives),
# and the dense blocks of large models run on it, on every core.
set -euo pipefail
need=()
for p in r-base-dev r-mathlib libblas-dev libopenblas0-pthread cmake googletest libgtest-dev r-cran-testthat r-cran-matrix \
         r-cran-lme4 r-cran-nlme r-cran-broom.mixed r-cran-car r-cran-pbkrtest r-cran-lmertest \
         r-cran-emmeans r-cran-estimability r-cran-jsonlite r-cran-mass r-cran-mgcv r-cran-ordinal; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || need+=("$p")
done
if [ ${#need[@]} -gt 0 ]; then
  echo "installing: ${need[*]}"
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${need[@]}" >/dev/null
fi
