# Entry points for people: `make demo` runs the main job, `make test` the tests. Both set up
# what the machine lacks first (scripts/deps.sh), then configure and build.
BUILD_DIR ?= build
CMAKE_FLAGS ?=
JOBS ?= $(shell nproc)
CTEST_FLAGS ?= --output-on-failure -j $(JOBS)
# `make demo DEMO_FLAGS=--forever` keeps the demo running until Ctrl-C.
DEMO_FLAGS ?=
# `make fuzz FUZZ_SECONDS=600` fuzzes each target longer.
FUZZ_SECONDS ?= 60

.PHONY: all deps configure build test demo sanitize-test tsan-test cross-build cross-test \
        cross-install bench fuzz format format-check install clean regress regress-update

all: build

deps:
	@bash scripts/deps.sh

configure: deps
	@cmake -S . -B $(BUILD_DIR) -G Ninja $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	@cd $(BUILD_DIR) && ctest $(CTEST_FLAGS)

demo: build
	@bash scripts/demo.sh $(BUILD_DIR) $(DEMO_FLAGS)

# Recorded sessions (tests/sessions/) replayed against the real service; `regress-update`
# rewrites their expected output (docs/tools.md, "Record, replay and regress").
regress: build
	@bash scripts/regress.sh --build $(BUILD_DIR)

regress-update: build
	@bash scripts/regress.sh --update --build $(BUILD_DIR)

# The same tests under AddressSanitizer/UBSan and under ThreadSanitizer, in their own trees.
sanitize-test: deps
	@$(MAKE) --no-print-directory test BUILD_DIR=build-asan CMAKE_FLAGS="$(CMAKE_FLAGS) -DSANITIZE=address,undefined -DBUILD_BENCHMARKS=OFF"

tsan-test: deps
	@$(MAKE) --no-print-directory test BUILD_DIR=build-tsan CMAKE_FLAGS="$(CMAKE_FLAGS) -DSANITIZE=thread -DBUILD_BENCHMARKS=OFF"

# The recorder's own target, 32-bit ARM (armhf): built with Debian's cross toolchain against
# Debian's armhf libraries (scripts/deps-armhf.sh), the whole suite run through qemu-arm.
# `make cross-install PREFIX=<dir>` gives the tree to copy to a recorder, with the SDK.
ARMHF_BUILD_DIR ?= build-armhf
cross-build:
	@bash scripts/deps-armhf.sh
	@cmake -S . -B $(ARMHF_BUILD_DIR) -G Ninja -DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/toolchain-armhf.cmake \
	  -DBUILD_BENCHMARKS=OFF $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(ARMHF_BUILD_DIR) -j $(JOBS)

cross-test: cross-build
	@cd $(ARMHF_BUILD_DIR) && ctest $(CTEST_FLAGS)

cross-install: cross-build
	@cmake --install $(ARMHF_BUILD_DIR) --prefix $(or $(PREFIX),$(CURDIR)/install-armhf)

# `make bench`: a Release build in build-release/, every figure next to its baseline measured in
# the same run, one table (bench/run_bench.py; docs/performance.md). BENCH_FLAGS: --idle-seconds
# N, --no-callgrind, --update-baseline.
BENCH_FLAGS ?=
bench:
	@bash scripts/deps.sh valgrind strace
	@cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS) >/dev/null
	@cmake --build build-release -j $(JOBS)
	@/usr/bin/python3 bench/run_bench.py build-release $(BENCH_FLAGS)

# The libFuzzer targets (clang, AddressSanitizer, UBSan), each run FUZZ_SECONDS from its seeds.
fuzz: deps
	@CMAKE_FLAGS="$(CMAKE_FLAGS)" bash scripts/fuzz.sh build-fuzz $(FUZZ_SECONDS) $(JOBS)

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

format-check:
	@git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror

install: build
	@cmake --install $(BUILD_DIR) --prefix $(or $(PREFIX),$(CURDIR)/install)

clean:
	@rm -rf build build-asan build-tsan build-armhf build-release install install-armhf
