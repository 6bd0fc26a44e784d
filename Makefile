# Set-up and the two everyday commands:
#   make run    build (Release) and run lyrt on the shipped example in run/
#   make test   build with bounds checking and warnings as errors, then run the tests
PACKAGES := g++ cmake make libopenblas-dev libgtest-dev googletest clang-format python3-ase python3-numpy python3-matplotlib
# The distributed build (make test builds it; make run does not need it).
MPI_PACKAGES := libopenmpi-dev openmpi-bin libscalapack-openmpi-dev libelpa-dev libdbcsr-dev gfortran
EXAMPLE ?= si8
JOBS ?= 2

.PHONY: run test bench bench-mpi fuzz mutate deps deps-mpi build-release build-test build-mpi release-mpi format layers clean

deps:
	@missing=""; for p in $(PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "Installing:$$missing"; \
	  SUDO=""; [ "$$(id -u)" -ne 0 ] && SUDO=sudo; \
	  $$SUDO apt-get update -qq && DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -qq $$missing; \
	fi

deps-mpi: deps
	@$(MAKE) --no-print-directory deps PACKAGES="$(MPI_PACKAGES)"

build-release: deps
	cmake -S . -B build/release -DCMAKE_BUILD_TYPE=Release -DLYRT_TESTS=OFF -DLYRT_OPENMP=ON >/dev/null
	cmake --build build/release -j $(JOBS)

build-test: deps
	cmake -S . -B build/test -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLYRT_BOUNDS_CHECK=ON -DLYRT_WERROR=ON >/dev/null
	cmake --build build/test -j $(JOBS)

run: build-release
	@rm -rf run/$(EXAMPLE) && mkdir -p run/$(EXAMPLE)
	@cp examples/$(EXAMPLE)/* run/$(EXAMPLE)/
	cd run/$(EXAMPLE) && ../../build/release/lyrt
	@echo "Outputs of example $(EXAMPLE) are in run/$(EXAMPLE)/ (OUTLYRT, ERRLYRT, timings, POSCONT)"
	@grep -E "^  (Potential|Tight-binding|Repulsive|Fermi|Energy gap)" run/$(EXAMPLE)/OUTLYRT

format:
	clang-format --dry-run --Werror $$(git ls-files 'src/*.cpp' 'src/*.hpp' 'tests/*.cpp' 'tests/*.hpp' 'bench/*.cpp' 'fuzz/*.cpp' 'fuzz/*.hpp')

# Every include points to its own layer (folder of src/) or a lower one.
layers:
	tools/check_layers.sh

# The optimised distributed build (MPI, ScaLAPACK, ELPA; one thread per process),
# free of warnings (its inlining shows some the test build does not): its own suite
# under mpirun on 1, 2 and 3 processes, the whole runs on several processes, and a
# smoke set of whole runs (the independent reference points) in its optimised code.
SMOKE := ^(distributed\.|DistributedRuns|Independent/ReferencePoints)
release-mpi: deps-mpi
	cmake -S . -B build/release-check -DCMAKE_BUILD_TYPE=Release -DLYRT_WERROR=ON -DLYRT_OPENMP=OFF -DLYRT_MPI=ON -DLYRT_TESTS=ON >/dev/null
	cmake --build build/release-check -j $(JOBS) --target lyrt test_distributed test_regression

# The distributed program alone (build/mpi/lyrt), to run as mpirun -np N build/mpi/lyrt.
build-mpi: deps-mpi
	cmake -S . -B build/mpi -DCMAKE_BUILD_TYPE=Release -DLYRT_OPENMP=OFF -DLYRT_MPI=ON -DLYRT_TESTS=OFF >/dev/null
	cmake --build build/mpi -j $(JOBS) --target lyrt

# The whole suite once, in the bounds-checked build; then the distributed build's
# own suite and the smoke set. ctest ends each part with its time per label.
test: build-test format layers release-mpi
	cd build/test && ctest --output-on-failure -j $(JOBS)
	cd build/release-check && ctest --output-on-failure -j $(JOBS) -R '$(SMOKE)'

# Mutation testing: a fixed list of planted faults (tools/mutations.txt), each built
# and run against the suite in a copy of the tree (build/mutate); prints killed or
# survived per fault and the score. Long (each survivor runs the whole suite); not
# part of make test. MUTATIONS=3,7 runs some of them.
mutate: deps
	python3 tools/mutate.py $(if $(MUTATIONS),--only $(MUTATIONS))

# Time of one static run of diamond Si cells of 64, 216 and 512 atoms, split by phase;
# then one dynamics step of Si 512 against a bare dsygvd of the same order; the
# kernel polynomial moments, k-point points, and single points through the socket
# against the file-based calculator.
bench: build-release
	cmake --build build/release -j $(JOBS) --target lyrt_bench lyrt_bench_md lyrt_bench_kpm lyrt_bench_kpt
	build/release/lyrt_bench $(BENCH_SIZES)
	build/release/lyrt_bench_md
	build/release/lyrt_bench_kpm
	build/release/lyrt_bench_kpt
	/usr/bin/python3 bench/bench_socket.py build/release/lyrt

# The distributed build on 1 and 2 processes: Si 1000 static point (dense path) and
# Si 512 kernel polynomial point, whole runs under mpirun, and the speed-up.
bench-mpi: build-mpi
	cmake --build build/mpi -j $(JOBS) --target lyrt_bench_mpi lyrt_bench_ls
	build/mpi/lyrt_bench_mpi $(BENCH_MPI_CASES)
	build/mpi/lyrt_bench_ls

# Fuzzing of the three input readers with libFuzzer (clang, address and undefined
# behaviour sanitizers), FUZZ_SECONDS each, seeded with the examples and the
# parameter sets; the corpora grow in build/fuzz/corpus/, what crashes or hangs is
# kept in build/fuzz/findings/. Paths are absolute: a target works in a folder of
# its own. Not part of make test.
FUZZ_SECONDS ?= 600
FUZZ_PACKAGES := clang libclang-rt-14-dev
fuzz: deps
	@$(MAKE) --no-print-directory deps PACKAGES="$(FUZZ_PACKAGES)"
	cmake -S . -B build/fuzz -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DLYRT_FUZZ=ON -DLYRT_TESTS=OFF -DLYRT_OPENMP=OFF >/dev/null
	cmake --build build/fuzz -j $(JOBS) --target fuzz_keywords fuzz_positions fuzz_params
	@mkdir -p build/fuzz/corpus/keywords build/fuzz/corpus/positions build/fuzz/corpus/params \
	  build/fuzz/findings
	@for f in examples/*/INLYRT; do cp $$f build/fuzz/corpus/keywords/$$(basename $$(dirname $$f)); done
	@for f in examples/*/POSLYRT; do cp $$f build/fuzz/corpus/positions/$$(basename $$(dirname $$f)); done
	@for f in tests/data/*.tbparam; do cp $$f build/fuzz/corpus/params/$$(basename $$f); done
	@for t in keywords positions params; do \
	  echo "fuzzing the $$t reader for $(FUZZ_SECONDS) s"; \
	  (cd build/fuzz && ./fuzz_$$t -max_total_time=$(FUZZ_SECONDS) -timeout=10 -rss_limit_mb=2048 \
	    -close_fd_mask=1 -artifact_prefix=$(CURDIR)/build/fuzz/findings/$$t- \
	    $(CURDIR)/build/fuzz/corpus/$$t > $$t.log 2>&1); \
	  tail -n 3 build/fuzz/$$t.log; \
	done

clean:
	rm -rf build run
