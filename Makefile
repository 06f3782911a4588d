# Thin front end over CMake.  `make` builds, `make test` builds and runs every test.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)
PREFIX     ?= /usr/local
CMAKE_ARGS ?=

.PHONY: all test deps-test asan test-asan soak fuzz demo install bench clean

all: $(BUILD)/.configured
	cmake --build $(BUILD) -j $(JOBS)

# A build tree counts as configured only once CMake has finished: a configure that
# failed removes its cache, so the next `make` configures again instead of building in
# a half-made tree.  The Debian packages the tool (and, with GoogleTest, the tests) need
# are installed first (tools/deps.sh: as root, or it prints the command and stops).
$(BUILD)/.configured:
	tools/deps.sh build $(if $(wildcard /usr/include/gtest/gtest.h),test)
	@rm -f $@
	cmake -S . -B $(BUILD) -DCMAKE_INSTALL_PREFIX=$(PREFIX) $(CMAKE_ARGS) \
	  || { rm -f $(BUILD)/CMakeCache.txt; exit 1; }
	@touch $@

test: deps-test
	@$(MAKE) --no-print-directory all
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# What the tests need, also in a tree configured before they were installed.
deps-test:
	@tools/deps.sh --check build test >/dev/null || { tools/deps.sh build test && rm -f $(BUILD)/.configured; }

# The same tests with AddressSanitizer and UndefinedBehaviorSanitizer.
test-asan asan: deps-test
	cmake -S . -B $(ASAN_BUILD) -DKISAM_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug $(CMAKE_ARGS)
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=0:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest --output-on-failure -j $(JOBS)

# Processes killed under load, at length: KILLS kills in each of the two kill tests
# (10,000 in all by default), every worker's calls checked; then ABANDON_CALLS calls of
# which many are abandoned part way by a signal handler's jump; then BACKUPS backups of a
# file under concurrent writers, each checked sound and a prefix of the writers' calls
# (the longest pause of the writers is printed); then CRASH_IMAGES disk images that a
# power cut could leave, in the default mode and as many in the durable mode, each
# restarted and checked (the figures per kind of image are printed).
KILLS ?= 5000
BACKUPS ?= 300
ABANDON_CALLS ?= 1000000
CRASH_IMAGES ?= 50000
soak: all
	cd $(BUILD) && KISAM_KILLS=$(KILLS) ./tests/kill_mp_test
	cd $(BUILD) && KISAM_ABANDON_CALLS=$(ABANDON_CALLS) ./tests/abandon_mp_test
	cd $(BUILD) && KISAM_BACKUPS=$(BACKUPS) ./tests/backup_mp_test
	cd $(BUILD)/tests && KISAM_CRASH_IMAGES=$(CRASH_IMAGES) ./crash_image_test --gtest_filter='CrashImage.D*Mode'

# Fuzz targets (clang, libFuzzer, sanitizers) in their own tree, each run FUZZ_SECONDS.
FUZZ_BUILD   ?= build-fuzz
FUZZ_SECONDS ?= 180
fuzz:
	tools/deps.sh fuzz
	fuzz/run.sh $(FUZZ_BUILD) $(FUZZ_SECONDS)

demo: all
	@if [ -x tools/demo.sh ]; then tools/demo.sh $(BUILD); else echo "demo: not available yet"; exit 1; fi

install: all
	cmake --install $(BUILD) --prefix $(PREFIX)

bench: all
	@ls $(BUILD)/bench 2>/dev/null || true

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD)
