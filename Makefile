# Convenience front end over CMake. `make demo` and `make test` are all a fresh Debian
# machine needs.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)
WERROR ?= $(if $(CI),ON,OFF)
CMAKE_FLAGS ?=
DEMO_ARGS ?=

.PHONY: all deps configure build demo test bench install clean format

all: build

deps:
	@scripts/install-deps.sh

# Line tables only (-g1): stack traces, profilers and valgrind still name file and
# line, and the Beast-heavy files compile a third faster than with full -g.
# Configure by hand for full debug information.
configure: deps
	@cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) \
	  -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG" \
	  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g1 -DNDEBUG" \
	  -DTELLORA_WERROR=$(WERROR) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

# Only what the demo runs: the server, the command-line client and the demo itself.
DEMO_TARGETS := tellora_server tellora_cli tellora_demo

demo: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target $(DEMO_TARGETS)
	@$(BUILD_DIR)/tools/demo/tellora-demo --server $(BUILD_DIR)/server/tellora-server \
	  --cli $(BUILD_DIR)/tools/tellora $(DEMO_ARGS)

test: build
	@cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

# The whole suite again under AddressSanitizer + UndefinedBehaviorSanitizer, and
# under ThreadSanitizer, each in its own build folder. -O1 keeps the stacks
# readable and the builds shorter; benchmarks are left out.
SANITIZER_CMAKE_FLAGS := -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTELLORA_WERROR=$(WERROR) \
  -DTELLORA_BUILD_BENCH=OFF -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -g1" \
  -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g1"

.PHONY: test-asan test-tsan
test-asan: deps
	@cmake -S . -B build-asan $(SANITIZER_CMAKE_FLAGS) -DTELLORA_SANITIZE=address >/dev/null
	@cmake --build build-asan -j $(JOBS)
	@cd build-asan && ctest --output-on-failure -j $(JOBS)

test-tsan: deps
	@cmake -S . -B build-tsan $(SANITIZER_CMAKE_FLAGS) -DTELLORA_SANITIZE=thread >/dev/null
	@cmake --build build-tsan -j $(JOBS)
	@cd build-tsan && ctest --output-on-failure -j $(JOBS)

# The SDK's end-to-end tests once more under valgrind memcheck (normal build).
.PHONY: test-valgrind
test-valgrind: build
	@scripts/valgrind-sdk.sh $(BUILD_DIR)

bench: build
	@$(BUILD_DIR)/bench/audiohash
	@$(BUILD_DIR)/bench/pipeline
	@$(BUILD_DIR)/bench/discovery

# Searching clients one tellora-server node serves (rounds of LOAD_CLIENTS).
LOAD_CLIENTS ?= 200,1000,2000

.PHONY: bench-load
bench-load: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target tellora_server bench_load
	@$(BUILD_DIR)/bench/load --clients $(LOAD_CLIENTS)

# The same through NODES servers (default 3) joined by a Redis the script starts.
.PHONY: bench-cluster
bench-cluster: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target tellora_server bench_load
	@LOAD_CLIENTS=$(LOAD_CLIENTS) scripts/bench-cluster.sh $(BUILD_DIR)

clean:
	@rm -rf $(BUILD_DIR)

format:
	@git ls-files '*.c' '*.cc' '*.cpp' '*.h' '*.hpp' | xargs clang-format -i

# The libFuzzer targets (clang, ASan and UBSan) in their own build folder, each run
# for FUZZ_SECONDS (60) on a copy of its corpus; fails on any finding.
FUZZ_BUILD_DIR ?= build-fuzz

.PHONY: fuzz-smoke
fuzz-smoke: deps
	@CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O2 -g1" -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g1" \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DTELLORA_FUZZ=ON \
	  -DTELLORA_WERROR=ON -DTELLORA_BUILD_TESTS=OFF -DTELLORA_BUILD_TOOLS=OFF \
	  -DTELLORA_BUILD_BENCH=OFF -DTELLORA_BUILD_EXAMPLES=OFF >/dev/null
	@cmake --build $(FUZZ_BUILD_DIR) -j $(JOBS) --target tellora_fuzzers
	@scripts/fuzz-smoke.sh $(FUZZ_BUILD_DIR)
