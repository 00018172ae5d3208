# Everyday commands.  `make demo` installs what the package needs and runs a
# demonstration; `make test` runs every test, of the engine and of R.
# The package installs into a library inside the checkout (.rlib), so that
# several checkouts on one machine never overwrite each other.

RLIB   ?= $(CURDIR)/.rlib
BUILD  ?= $(CURDIR)/build
JOBS   ?= 2
export R_LIBS := $(RLIB):$(R_LIBS)
RSCRIPT := Rscript --no-init-file

.PHONY: deps install demo test engine-test r-test sanitize check bench-deps clean

deps:
	bash .ci/deps.sh

install:
	mkdir -p $(RLIB)
	MAKEFLAGS=-j$(JOBS) R CMD INSTALL --preclean --no-multiarch -l $(RLIB) .

demo: deps install
	$(RSCRIPT) -e 'library(tarnel); tarnel_demo()'

engine-test:
	cmake -S tests/engine -B $(BUILD)/engine -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD)/engine -j$(JOBS)
	$(BUILD)/engine/engine_tests --gtest_brief=1

# The engine tests again under AddressSanitizer and UBSan.
sanitize:
	cmake -S tests/engine -B $(BUILD)/asan -DCMAKE_BUILD_TYPE=Debug -DTARNEL_SANITIZE=ON >/dev/null
	cmake --build $(BUILD)/asan -j$(JOBS)
	ASAN_OPTIONS=detect_leaks=0 $(BUILD)/asan/engine_tests --gtest_brief=1

r-test: install
	$(RSCRIPT) -e 'testthat::test_dir("tests/testthat", package = "tarnel", load_package = "installed", stop_on_failure = TRUE, reporter = testthat::ProgressReporter$$new(show_praise = FALSE))'

test: deps engine-test r-test

check: deps
	rm -rf $(BUILD)/check && mkdir -p $(BUILD)/check
	cd $(BUILD)/check && R CMD build --no-build-vignettes $(CURDIR) && \
	  _R_CHECK_FORCE_SUGGESTS_=false R CMD check --no-manual --no-tests tarnel_*.tar.gz
	@! grep -E "^(Status: .*(ERROR|WARNING))" $(BUILD)/check/tarnel.Rcheck/00check.log

# Peers used only by the benchmarks, not by the tests: nadiv (for
# bench/ainv.R) from CRAN into the checkout's library.  (sommer is not
# offered: its current release needs a newer Matrix than R 4.2 can take.)
bench-deps: deps install
	$(RSCRIPT) -e 'if (!requireNamespace("nadiv", quietly = TRUE)) install.packages("nadiv", lib = "$(RLIB)", repos = "https://cloud.r-project.org")'

clean:
	rm -rf $(BUILD) src/*/*.o src/*.o src/*.so
