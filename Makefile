# Convenience front end over CMake. `make test` is all a fresh Debian machine needs.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)
WERROR ?= $(if $(CI),ON,OFF)
CMAKE_FLAGS ?=

.PHONY: all deps configure build test bench install clean format

all: build

deps:
	@scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) \
	  -DTELLORA_WERROR=$(WERROR) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	@cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

bench: build
	@$(BUILD_DIR)/bench/bench_audiohash

clean:
	@rm -rf $(BUILD_DIR)

format:
	@git ls-files '*.c' '*.cc' '*.cpp' '*.h' '*.hpp' | xargs clang-format -i
