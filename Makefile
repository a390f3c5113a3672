# Front door: `make test` builds and runs every test, `make demo` runs the
# program on the examples. Both install the missing Debian packages first.
BUILD      ?= build
SANBUILD   ?= build-sanitize
TSANBUILD  ?= build-tsan
FUZZBUILD  ?= build-fuzz
FUZZ_SECONDS ?= 60
BUILD_TYPE ?= RelWithDebInfo
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
CTEST_ARGS ?= --output-on-failure
PROGRAM     = $(BUILD)/tools/phoneconduit
# Where `make install` puts the program, its catalogues and manual page;
# DESTDIR stages an install for packaging.
PREFIX     ?= /usr/local

# The build tool make runs below needs no "Entering directory" lines.
MAKEFLAGS  += --no-print-directory

.PHONY: all deps configure build install test demo bench test-sanitize test-tsan clean fuzz fuzz-short fuzz-build

all: build

deps:
	@./scripts/install-deps

configure: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

install: build
	@cmake --install $(BUILD) --prefix $(PREFIX)

test: build
	@ctest --test-dir $(BUILD) -j $(JOBS) $(CTEST_ARGS)

demo: build
	@./scripts/demo $(PROGRAM)

bench: build
	@for b in $(BUILD)/bench/bench_*; do [ -x "$$b" ] && "$$b"; done

test-sanitize: deps
	@cmake -S . -B $(SANBUILD) -DCMAKE_BUILD_TYPE=Debug -DPC_SANITIZE=ON -DPC_BENCHMARKS=OFF >/dev/null
	@cmake --build $(SANBUILD) -j $(JOBS)
	@ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir $(SANBUILD) -j $(JOBS) $(CTEST_ARGS)

# The whole suite under ThreadSanitizer; the benchmarks are not built there.
test-tsan: deps
	@cmake -S . -B $(TSANBUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPC_TSAN=ON -DPC_BENCHMARKS=OFF >/dev/null
	@cmake --build $(TSANBUILD) -j $(JOBS)
	@TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
	  ctest --test-dir $(TSANBUILD) -j $(JOBS) $(CTEST_ARGS)

# The libFuzzer targets (clang, AddressSanitizer, UndefinedBehaviorSanitizer).
# fuzz runs each for FUZZ_SECONDS, going on from what earlier runs found;
# fuzz-short (CI) runs a fixed number of inputs per target from the seeds with
# a fixed random seed, so that it gives the same answer on every machine and
# every run (eleven targets, about five minutes).
fuzz-build: deps
	@cmake -S . -B $(FUZZBUILD) -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPC_FUZZ=ON \
	  -DPC_TESTS=OFF -DPC_TOOLS=OFF -DPC_BENCHMARKS=OFF >/dev/null
	@cmake --build $(FUZZBUILD) -j $(JOBS)

fuzz: fuzz-build
	@FUZZ_SECONDS=$(FUZZ_SECONDS) ./scripts/fuzz $(FUZZBUILD)

fuzz-short: fuzz-build
	@FUZZ_RUNS=20 ./scripts/fuzz $(FUZZBUILD)

clean:
	rm -rf $(BUILD) $(SANBUILD) $(TSANBUILD) $(FUZZBUILD)
