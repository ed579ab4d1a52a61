# The two commands of the README: `make test` and `make demo`; `make package` and `make docs`
# for those who install the library.
PRESET ?= default
BUILD_DIR ?= build/$(PRESET)
PACKAGE_DIR ?= build/package
JOBS ?= $(shell nproc)
WERROR = $(if $(CI),ON,OFF)
VERSION = $(shell grep -o 'libjov VERSION [0-9.]*' CMakeLists.txt | cut -d' ' -f3)
# What scripts/demo runs, as it lists them: the emulator and the examples (the library comes
# with them). The rest (tests, benchmarks, the CLI) is left to `make build`.
DEMO_TARGETS = $(shell scripts/demo --targets)

.PHONY: all deps configure build test demo asan tsan bench package docs clean format

all: build

deps:
	@scripts/install-deps

configure: deps
	@cmake --preset $(PRESET) -B $(BUILD_DIR) -DJOV_WERROR=$(WERROR) >/dev/null

build: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	@ctest --preset $(PRESET) -j $(JOBS)

demo: configure
	@cmake --build $(BUILD_DIR) -j $(JOBS) --target $(DEMO_TARGETS)
	@scripts/demo $(BUILD_DIR)

asan:
	@$(MAKE) --no-print-directory test PRESET=asan

tsan:
	@$(MAKE) --no-print-directory test PRESET=tsan

bench:
	@$(MAKE) --no-print-directory build PRESET=release
	@bench/run build/release

# Four Debian packages (library, -dev, emulator, CLI) in $(PACKAGE_DIR)/packages.
package: deps
	@cmake --preset package -B $(PACKAGE_DIR) -DJOV_WERROR=$(WERROR) >/dev/null
	@cmake --build $(PACKAGE_DIR) -j $(JOBS)
	@cd $(PACKAGE_DIR) && cpack --config CPackConfig.cmake >/dev/null
	@ls $(PACKAGE_DIR)/packages/*.deb

# API reference of the public headers in build/docs/html; any Doxygen warning fails.
docs:
	@scripts/install-docs-deps
	@mkdir -p build/docs
	@JOV_VERSION=$(VERSION) doxygen Doxyfile

# Each fuzz target for FUZZ_SECONDS (60 by default); new inputs and crashes go to build/fuzz.
fuzz:
	@scripts/install-fuzz-deps
	@cmake --preset fuzz >/dev/null
	@cmake --build --preset fuzz --target fuzz_all -j $(JOBS)
	@fuzz/run build/fuzz $(or $(FUZZ_SECONDS),60)

format:
	@clang-format -i $$(git ls-files '*.hpp' '*.cpp')

clean:
	rm -rf build
