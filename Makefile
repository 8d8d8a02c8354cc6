# The commands: `make demo` (install what is missing, build, and show a file going
# from one computer to another), `make test` (build and run every test) and `make build`.
# See README.md.
BUILD      ?= build
ASAN_BUILD ?= build-asan
TSAN_BUILD ?= build-tsan
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 20
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=

SOURCES = $(shell git ls-files '*.h' '*.cc' 2>/dev/null)

.PHONY: all deps build compile demo test test-plain test-asan test-tsan fuzz fuzz-long soak bench format format-check tidy install clean

all: build

deps:
	@scripts/install-deps

$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTALLOWBOX_WERROR=ON $(CMAKE_ARGS)

# Builds with the packages already installed; `make build` installs what is missing
# first, and configures only after that.
compile: $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j$(JOBS)

build: deps
	$(MAKE) --no-print-directory compile

demo: build
	scripts/demo $(BUILD)

# Everything CI checks: formatting, the plain build with every test, the whole
# suite again under AddressSanitizer + UndefinedBehaviorSanitizer, the tests that
# exercise queues under ThreadSanitizer, and a short run of each fuzzer.
test: deps format-check test-plain test-asan test-tsan fuzz

test-plain: build
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)

test-asan: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DTALLOWBOX_WERROR=ON \
	  -DTALLOWBOX_SANITIZE=address+undefined $(CMAKE_ARGS)
	cmake --build $(ASAN_BUILD) -j$(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest --output-on-failure -j$(JOBS) \
	  -E install_activation_test

test-tsan: deps
	cmake -S . -B $(TSAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DTALLOWBOX_WERROR=ON \
	  -DTALLOWBOX_SANITIZE=thread $(CMAKE_ARGS)
	cmake --build $(TSAN_BUILD) -j$(JOBS) --target queue_tests transport_tests process_tests \
	  xpc_tests xpc_process_tests memory_tests
	cd $(TSAN_BUILD) && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$(CURDIR)/tests/tsan.supp \
	  ctest --output-on-failure -j$(JOBS) -L queues

# The reply parsers under libFuzzer, from the seed corpus of real replies; the
# legacy bridge's message decoder and conversions, from seed messages; the
# property-list reader, from preference suites; the predicate filter, from the
# service's lookups; and server paths through the folder facade, from placements
# of received files: each for FUZZ_SECONDS. What they find new is kept in
# $(FUZZ_BUILD)/corpus, xpc-corpus, plist-corpus, predicate-corpus and path-corpus.
fuzz: deps
	cmake -S tests/fuzz -B $(FUZZ_BUILD) -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(FUZZ_BUILD) -j$(JOBS)
	mkdir -p $(FUZZ_BUILD)/corpus $(FUZZ_BUILD)/xpc-corpus $(FUZZ_BUILD)/plist-corpus \
	  $(FUZZ_BUILD)/predicate-corpus $(FUZZ_BUILD)/path-corpus
	$(FUZZ_BUILD)/reply_parser_fuzzer -max_total_time=$(FUZZ_SECONDS) -timeout=10 \
	  -rss_limit_mb=2048 -max_len=4194304 -print_final_stats=1 $(FUZZ_BUILD)/corpus tests/fuzz/corpus
	$(FUZZ_BUILD)/xpc_message_fuzzer -max_total_time=$(FUZZ_SECONDS) -timeout=10 \
	  -rss_limit_mb=2048 -max_len=140000 -artifact_prefix=$(FUZZ_BUILD)/ -print_final_stats=1 \
	  $(FUZZ_BUILD)/xpc-corpus tests/fuzz/xpc-corpus
	$(FUZZ_BUILD)/property_list_fuzzer -max_total_time=$(FUZZ_SECONDS) -timeout=10 \
	  -rss_limit_mb=2048 -max_len=16384 -artifact_prefix=$(FUZZ_BUILD)/ -print_final_stats=1 \
	  $(FUZZ_BUILD)/plist-corpus tests/fuzz/plist-corpus
	$(FUZZ_BUILD)/predicate_fuzzer -max_total_time=$(FUZZ_SECONDS) -timeout=10 \
	  -rss_limit_mb=2048 -max_len=4096 -artifact_prefix=$(FUZZ_BUILD)/ -print_final_stats=1 \
	  $(FUZZ_BUILD)/predicate-corpus tests/fuzz/predicate-corpus
	$(FUZZ_BUILD)/confined_path_fuzzer -max_total_time=$(FUZZ_SECONDS) -timeout=10 \
	  -rss_limit_mb=2048 -max_len=4096 -artifact_prefix=$(FUZZ_BUILD)/ -print_final_stats=1 \
	  $(FUZZ_BUILD)/path-corpus tests/fuzz/path-corpus

# The same five for FUZZ_LONG_SECONDS each, growing the same corpora in $(FUZZ_BUILD).
fuzz-long: FUZZ_LONG_SECONDS ?= 600
fuzz-long:
	$(MAKE) fuzz FUZZ_SECONDS=$(FUZZ_LONG_SECONDS)

# The service run for 10,000 cycles of mixed work and failures at a 2-ms period
# (the test suite runs 1,500): memory, descriptors and threads stay flat, and
# every file ends where it belongs.
soak: build
	TALLOWBOX_SOAK_CYCLES=10000 $(BUILD)/bin/process_tests \
	  --gtest_filter='ServiceProcessTest.LongRunOfMixedWorkAndFailures*'

# What a cycle costs against its period, what moving large files through the real
# service costs beside curl, how fast small files move at the real period, and
# what memory many files and idle cycles leave behind, in one table that is also
# kept as CSV in bench/results/; the figures and targets are in
# bench/TransferBench.cc. It builds only the benchmarks and the service, and exits
# non-zero when a target is missed.
bench: deps
	$(MAKE) --no-print-directory $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j$(JOBS) --target transfer_bench
	$(BUILD)/bin/transfer_bench

format:
	clang-format -i $(SOURCES)

format-check: deps
	clang-format --dry-run --Werror $(SOURCES)

tidy: build
	run-clang-tidy -quiet -p $(BUILD) $(addprefix $(CURDIR)/,$(filter %.cc,$(SOURCES)))

# Installs what is built, building it first; it installs no packages.
install: compile
	cmake --install $(BUILD)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD) $(FUZZ_BUILD)
