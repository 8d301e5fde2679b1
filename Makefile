# SPDX-License-Identifier: Apache-2.0
# The two set-up commands: `make demo` and `make test`. Both install what they
# need first (tools/setup.sh), so each works alone on a fresh Debian machine.

JOBS ?= $(shell nproc)
BUILD := build
ASAN_BUILD := build-asan
BENCH_BUILD := build/bench-build

# Tests and the demo run against a schema, registry and widget root inside the
# build tree; an installed library uses the fixed system paths.
SANDBOX_FLAGS = -DWIDGETENGINE_WERROR=ON \
  -DWIDGETENGINE_SCHEMA_PATH=$(CURDIR)/config/WidgetConfig.rng \
  -DWIDGETENGINE_DATABASE_DIR=$(CURDIR)/$(1)/sandbox/conf/ \
  -DWIDGETENGINE_WIDGET_ROOT=$(CURDIR)/$(1)/sandbox/widgets/

SANITIZE := -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer

.PHONY: all setup build test test-normal test-asan demo bench clean fuzz fuzz-ci fuzz-build \
  package package-test uninstall symbols cross cross-setup

all: build

setup:
	@bash tools/setup.sh

$(BUILD)/CMakeCache.txt: | setup
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(call SANDBOX_FLAGS,$(BUILD))

build: setup $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS)

test: setup test-normal test-asan

# The built-in registry folder and the widget root's parent, which the
# device's image provides: tests that leave WIDGET_PATH or YRA_DATA_PATH
# unset use them, in whatever order ctest runs them.
sandbox_dirs = mkdir -p $(1)/sandbox/conf

test-normal: build
	$(call sandbox_dirs,$(BUILD))
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

test-asan: setup
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug \
	  -DCMAKE_CXX_FLAGS="$(SANITIZE)" -DCMAKE_C_FLAGS="$(SANITIZE)" \
	  -DCMAKE_EXE_LINKER_FLAGS="$(SANITIZE)" -DCMAKE_SHARED_LINKER_FLAGS="$(SANITIZE)" \
	  $(call SANDBOX_FLAGS,$(ASAN_BUILD))
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	$(call sandbox_dirs,$(ASAN_BUILD))
	cd $(ASAN_BUILD) && export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 && \
	  ctest --output-on-failure -j $(JOBS)

demo: build
	bash tools/demo.sh $(BUILD)

bench: setup
	cmake -S . -B $(BENCH_BUILD) -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF \
	  -DWIDGETENGINE_BUILD_BENCHMARKS=ON $(call SANDBOX_FLAGS,$(BENCH_BUILD))
	cmake --build $(BENCH_BUILD) -j $(JOBS)
	mkdir -p build/bench
	bash bench/run.sh $(BENCH_BUILD) build/bench

# Fuzzing: every target of fuzz/ for FUZZ_SECONDS each (default 300), one
# after the other, starting from the seeds and from what earlier runs kept in
# build-fuzz/corpus/; findings land in build-fuzz/findings/<target>/.
# fuzz-ci is the short run that CI makes (30 s a target).
FUZZ_BUILD := build-fuzz
FUZZ_SECONDS ?= 300
FUZZ_FLAGS := -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer -g -O1

fuzz-build: setup
	cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
	  -DCMAKE_C_FLAGS="$(FUZZ_FLAGS)" -DCMAKE_CXX_FLAGS="$(FUZZ_FLAGS)" \
	  -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=address,undefined" \
	  -DBUILD_TESTING=OFF -DWIDGETENGINE_BUILD_TOOLS=OFF -DWIDGETENGINE_BUILD_FUZZERS=ON \
	  $(call SANDBOX_FLAGS,$(FUZZ_BUILD))
	cmake --build $(FUZZ_BUILD) -j $(JOBS)
	bash fuzz/seeds.sh $(FUZZ_BUILD) $(FUZZ_BUILD)/seeds

fuzz: fuzz-build
	bash fuzz/run.sh $(FUZZ_BUILD) $(FUZZ_SECONDS) $(FUZZ_TARGETS)

fuzz-ci: fuzz-build
	bash fuzz/run.sh $(FUZZ_BUILD) 30

# Debian packages of the committed tree, built with the device's fixed paths
# and Debian's hardening flags into build-package/: libwidgetengine1,
# libwidgetengine-dev, widgetctl, widget-browser and their -dbgsym packages.
# With ARCH (arm64 or armhf), for that architecture, into build-package-ARCH/.
PACKAGE_BUILD := build-package$(if $(ARCH),-$(ARCH))

package: setup
	@bash tools/package.sh $(PACKAGE_BUILD) $(ARCH)

# Builds the packages, runs lintian, builds the README's host against them
# and installs them over a registry that holds widgets (as root).
package-test: package
	bash tools/package-test.sh $(PACKAGE_BUILD)

# Cross build for ARCH (arm64, armhf or s390x): a sysroot of Debian's
# libraries for it (made once, kept in build-cross/sysroot-ARCH), Debian's
# cross compiler, and the whole suite under qemu-user.
ARCH ?=
CROSS_ARCHES := arm64 armhf s390x
CROSS_BUILD = build-cross/$(ARCH)
CROSS_SYSROOT = $(CURDIR)/build-cross/sysroot-$(ARCH)
CROSS_FLAGS = -DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/cmake/toolchains/$(ARCH).cmake \
  -DCMAKE_SYSROOT=$(CROSS_SYSROOT)

cross-setup:
	@case " $(CROSS_ARCHES) " in *" $(ARCH) "*) ;; \
	  *) echo "make cross: set ARCH to one of $(CROSS_ARCHES)" >&2; exit 2 ;; esac
	@bash tools/setup-cross.sh $(ARCH)
	@bash tools/cross-sysroot.sh $(ARCH) $(CROSS_SYSROOT)

cross: cross-setup
	cmake -S . -B $(CROSS_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CROSS_FLAGS) \
	  $(call SANDBOX_FLAGS,$(CROSS_BUILD))
	cmake --build $(CROSS_BUILD) -j $(JOBS)
	$(call sandbox_dirs,$(CROSS_BUILD))
	cd $(CROSS_BUILD) && ctest --output-on-failure -j $(JOBS)

# Removes what `cmake --install build` wrote (from its install manifest),
# below DESTDIR when it is set, as for the install.
uninstall:
	cmake --build $(BUILD) --target uninstall

# Writes packaging/libwidgetengine1.symbols anew from the built library, after
# a deliberate change of what it exports (`make package` checks the file).
symbols: build
	bash tools/update-symbols.sh $(BUILD)/libwidgetengine.so.1

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD) build-package* build-cross build-footprint
