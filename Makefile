# Thin wrapper around CMake. `make demo` and `make test` install what is
# missing, configure, build and run.
BUILD      ?= build/release
ASAN_BUILD ?= build/asan
TSAN_BUILD ?= build/tsan
FUZZ_BUILD ?= build/fuzz
FUZZ_SECONDS ?= 30
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_ARGS ?=

.PHONY: all deps build demo test test-asan test-tsan fuzz fuzz-run bench clean

all: build

deps:
	@bash scripts/install-deps.sh

$(BUILD)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(CMAKE_ARGS)

build: deps $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS)

demo: build
	$(BUILD)/tools/clubtrack/clubtrack demo

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

test-asan: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCLUBTRACKER_SANITIZE=ON \
	  -DCLUBTRACKER_BUILD_BENCH=OFF $(CMAKE_ARGS)
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 CLUBTRACKER_SANITIZED=1 \
	  ctest --output-on-failure -j $(JOBS)

# The tests that run the parallel loops (head sizes, spin-axis search,
# inliers, Find on a swing), under ThreadSanitizer, against a oneTBB built
# with it from Debian's source package (scripts/tsan-tbb.sh).
TSAN_TESTS ?= test_head_area test_spin_axis test_find test_analysis_swing test_golden
TSAN_TBB   ?= $(TSAN_BUILD)-tbb
test-tsan: deps
	bash scripts/tsan-tbb.sh $(TSAN_TBB)
	cmake -S . -B $(TSAN_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCLUBTRACKER_TSAN=ON \
	  -DCLUBTRACKER_BUILD_BENCH=OFF -DCLUBTRACKER_BUILD_PYTHON=OFF \
	  -DTBB_DIR=$(abspath $(TSAN_TBB))/lib/cmake/TBB $(CMAKE_ARGS)
	cmake --build $(TSAN_BUILD) -j $(JOBS) --target $(TSAN_TESTS)
	set -e; for t in $(TSAN_TESTS); do \
	  LD_LIBRARY_PATH=$(abspath $(TSAN_TBB))/lib OPENCV_FOR_THREADS_NUM=1 \
	  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$(CURDIR)/scripts/tsan.supp" \
	  CLUBTRACKER_SANITIZED=1 $(TSAN_BUILD)/tests/$$t --gtest_brief=1; done

# libFuzzer targets, built with clang; `make fuzz-run` runs each for
# FUZZ_SECONDS over its seed corpus (fuzz/corpus/<name>).
fuzz: deps
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCLUBTRACKER_FUZZ=ON -DCLUBTRACKER_BUILD_TESTS=OFF -DCLUBTRACKER_BUILD_BENCH=OFF $(CMAKE_ARGS)
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target fuzz_option_file fuzz_frame_name fuzz_find fuzz_recording

fuzz-run: fuzz
	bash scripts/fuzz.sh $(FUZZ_BUILD)/fuzz $(FUZZ_SECONDS)

bench: build
	$(BUILD)/bench/clubtracker_bench --benchmark_counters_tabular=true
	$(BUILD)/bench/clubtracker_bench_memory --benchmark_counters_tabular=true --benchmark_filter=default_swing
	$(BUILD)/bench/clubtracker_bench_memory --benchmark_counters_tabular=true --benchmark_filter=far_swing

clean:
	rm -rf build
