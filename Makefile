# Thin wrapper around CMake. `make demo` and `make test` install what is
# missing, configure, build and run.
BUILD      ?= build/release
ASAN_BUILD ?= build/asan
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_ARGS ?=

.PHONY: all deps build demo test test-asan bench clean

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

bench: build
	$(BUILD)/bench/clubtracker_bench --benchmark_counters_tabular=true

clean:
	rm -rf build
