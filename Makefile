# Thin front end over CMake.  `make` builds, `make test` builds and runs every test.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)
PREFIX     ?= /usr/local
CMAKE_ARGS ?=

.PHONY: all test asan test-asan soak fuzz demo install bench clean

all: $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS)

$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD) -DCMAKE_INSTALL_PREFIX=$(PREFIX) $(CMAKE_ARGS)

test: all
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# The same tests with AddressSanitizer and UndefinedBehaviorSanitizer.
test-asan asan:
	cmake -S . -B $(ASAN_BUILD) -DKISAM_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug $(CMAKE_ARGS)
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=0:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest --output-on-failure -j $(JOBS)

# Processes killed under load, at length: KILLS kills in each of the two kill tests
# (10,000 in all by default), every worker's calls checked; prints the figures.
KILLS ?= 5000
soak: all
	cd $(BUILD) && KISAM_KILLS=$(KILLS) ./tests/kill_mp_test

# Fuzz targets (clang, libFuzzer, sanitizers) in their own tree, each run FUZZ_SECONDS.
FUZZ_BUILD   ?= build-fuzz
FUZZ_SECONDS ?= 180
fuzz:
	fuzz/run.sh $(FUZZ_BUILD) $(FUZZ_SECONDS)

demo: all
	@if [ -x tools/demo.sh ]; then tools/demo.sh $(BUILD); else echo "demo: not available yet"; exit 1; fi

install: all
	cmake --install $(BUILD) --prefix $(PREFIX)

bench: all
	@ls $(BUILD)/bench 2>/dev/null || true

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD)
