# Thin front end over CMake.  `make` builds, `make test` builds and runs every test.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)
PREFIX     ?= /usr/local
CMAKE_ARGS ?=

.PHONY: all test deps-test asan test-asan soak fuzz mutants coverage coverage-per-test demo install bench bench-peers clean

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

# Line and branch coverage of src/ and tools/ by the whole suite (the Python tests too),
# in a build tree of its own (-O0, gcov's counters): per folder and in total on the
# terminal, per file in $(COV_BUILD)/coverage.txt, line by line in
# $(COV_BUILD)/coverage/index.html.  Branches the compiler adds for exceptions are not
# counted; a count gcov prints torn is skipped, not fatal.  The report is printed even
# when a test fails; the target then fails too.
COV_BUILD ?= build-cov
GCOVR_ARGS = --root . --object-directory $(COV_BUILD) --filter 'src/' --filter 'tools/' \
  --exclude-throw-branches --exclude-unreachable-branches --gcov-ignore-parse-errors -j $(JOBS)
coverage: deps-test
	tools/deps.sh coverage
	cmake -S . -B $(COV_BUILD) -DKISAM_COVERAGE=ON -DCMAKE_BUILD_TYPE=Debug $(CMAKE_ARGS)
	cmake --build $(COV_BUILD) -j $(JOBS)
	find $(COV_BUILD) -name '*.gcda' -delete
	cd $(COV_BUILD) && { ctest --output-on-failure -j $(JOBS); echo $$? >ctest.rc; }
	@mkdir -p $(COV_BUILD)/coverage
	gcovr $(GCOVR_ARGS) --json-summary $(COV_BUILD)/coverage.json \
	  --txt $(COV_BUILD)/coverage.txt --html-details $(COV_BUILD)/coverage/index.html
	@python3 tools/coverage-summary.py $(COV_BUILD)/coverage.json
	@exit $$(cat $(COV_BUILD)/ctest.rc)

# The lines each test runs and those only it runs (a coverage build tree of the same
# kind; each test alone, about 10 min on two cores): $(COV_BUILD)/per-test.txt.
coverage-per-test: deps-test
	cmake -S . -B $(COV_BUILD) -DKISAM_COVERAGE=ON -DCMAKE_BUILD_TYPE=Debug $(CMAKE_ARGS)
	cmake --build $(COV_BUILD) -j $(JOBS)
	python3 tools/coverage-per-test.py $(COV_BUILD) $(JOBS)

# Fuzz targets (clang, libFuzzer, sanitizers) in their own tree, each run FUZZ_SECONDS.
FUZZ_BUILD   ?= build-fuzz
FUZZ_SECONDS ?= 180
fuzz:
	tools/deps.sh fuzz
	fuzz/run.sh $(FUZZ_BUILD) $(FUZZ_SECONDS)

# The mutation check (tools/mutants/): every planted fault of tools/mutants/mutants.toml
# in turn, in a build tree of its own, through the whole suite; then the faults the suite
# caught before it was folded (tools/mutants/before.tsv) that it misses now, which must
# be none.  Not part of `make test`: it takes about an hour on two cores.
# MUTANTS_ARGS passes options on, e.g. MUTANTS_ARGS='--only bt-split-count,rl-nowait'.
MUTANTS_BUILD ?= build-mutants
MUTANTS_OUT   ?= $(MUTANTS_BUILD)/mutants.tsv
MUTANTS_ARGS  ?=
mutants: deps-test
	python3 tools/mutants/run.py --tree . --build $(MUTANTS_BUILD) --jobs $(JOBS) \
	  --out $(MUTANTS_OUT) --logs $(MUTANTS_BUILD)/mutant-logs $(MUTANTS_ARGS)
	python3 tools/mutants/run.py --compare tools/mutants/before.tsv $(MUTANTS_OUT)

demo: all
	@if [ -x tools/demo.sh ]; then tools/demo.sh $(BUILD); else echo "demo: not available yet"; exit 1; fi

install: all
	cmake --install $(BUILD) --prefix $(PREFIX)

bench: all
	@ls $(BUILD)/bench 2>/dev/null || true

# The comparison with Berkeley DB, LMDB and SQLite (bench/peer_bench.cpp) in one run: the
# default set at PEER_RECORDS records (PEER_PROCS processes in the mixes), the durable
# set at PEER_DURABLE calls per writer (1 and PEER_WRITERS writers), and the system calls
# per call of both, counted under strace in a run of their own (PEER_SYSCALL_RECORDS
# records, fewer for a quicker count: a traced system call costs tens of microseconds);
# PEER_REPEAT runs of the timed sets, their median.  The tables go to the
# terminal and to PEER_OUT (peers.txt, and TSV files), the charts to PEER_OUT/default.png
# and PEER_OUT/durable.png.  The stores live under TMPDIR (else /tmp): the durable
# figures are those of the disk under it.
PEER_RECORDS   ?= 100000
PEER_CACHE_MIB ?= 32
PEER_PROCS     ?= 2
PEER_DURABLE   ?= 2000
PEER_WRITERS   ?= 4
PEER_SYSCALL_RECORDS ?= $(PEER_RECORDS)
PEER_REPEAT    ?= 1
PEER_OUT       ?= $(BUILD)/peers
bench-peers: all
	tools/deps.sh peers
	@[ -x $(BUILD)/bench/peer_bench ] || cmake -S . -B $(BUILD)
	cmake --build $(BUILD) -j $(JOBS) --target peer_bench
	@mkdir -p $(PEER_OUT)
	$(BUILD)/bench/peer_bench $(PEER_RECORDS) $(PEER_CACHE_MIB) $(PEER_PROCS) \
	  --syscalls --syscall-records $(PEER_SYSCALL_RECORDS) \
	  --durable $(PEER_DURABLE) --writers $(PEER_WRITERS) --repeat $(PEER_REPEAT) --out $(PEER_OUT) >$(PEER_OUT)/peers.txt; \
	  rc=$$?; cat $(PEER_OUT)/peers.txt; exit $$rc
	bench/chart.sh $(PEER_OUT)/default.tsv $(PEER_OUT)/default.png \
	  "$(PEER_RECORDS) records, $(PEER_CACHE_MIB) MiB cache: operations per second (higher is better)"
	bench/chart.sh $(PEER_OUT)/durable.tsv $(PEER_OUT)/durable.png \
	  "durable calls, $(PEER_DURABLE) per writer: calls per second, all writers (higher is better)"

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD) $(COV_BUILD)
