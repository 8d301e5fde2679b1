# SPDX-License-Identifier: Apache-2.0
# The two set-up commands: `make demo` and `make test`. Both install what they
# need first (tools/setup.sh), so each works alone on a fresh Debian machine.

JOBS ?= $(shell nproc)
BUILD := build
ASAN_BUILD := build-asan
BENCH_BUILD := build/bench-build

# Tests and the demo run against a schema, registry and widget root inside the
# build tree; an installed library uses the fixed system paths.
SANDBOX_FLAGS = \
  -DWIDGETENGINE_SCHEMA_PATH=$(CURDIR)/config/WidgetConfig.rng \
  -DWIDGETENGINE_DATABASE_DIR=$(CURDIR)/$(1)/sandbox/conf/ \
  -DWIDGETENGINE_WIDGET_ROOT=$(CURDIR)/$(1)/sandbox/widgets/

SANITIZE := -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer

.PHONY: all setup build test test-normal test-asan demo bench clean

all: build

setup:
	@bash tools/setup.sh

$(BUILD)/CMakeCache.txt: | setup
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(call SANDBOX_FLAGS,$(BUILD))

build: setup $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS)

test: setup test-normal test-asan

test-normal: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

test-asan: setup
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug \
	  -DCMAKE_CXX_FLAGS="$(SANITIZE)" -DCMAKE_C_FLAGS="$(SANITIZE)" \
	  -DCMAKE_EXE_LINKER_FLAGS="$(SANITIZE)" -DCMAKE_SHARED_LINKER_FLAGS="$(SANITIZE)" \
	  $(call SANDBOX_FLAGS,$(ASAN_BUILD))
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j $(JOBS)

demo: build
	bash tools/demo.sh $(BUILD)

bench: setup
	cmake -S . -B $(BENCH_BUILD) -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF \
	  -DWIDGETENGINE_BUILD_BENCHMARKS=ON $(call SANDBOX_FLAGS,$(BENCH_BUILD))
	cmake --build $(BENCH_BUILD) -j $(JOBS)
	mkdir -p build/bench
	bash bench/run.sh $(BENCH_BUILD) build/bench

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
