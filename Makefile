# The two commands of the README: `make test` and `make demo`.
PRESET ?= default
BUILD_DIR = build/$(PRESET)
JOBS ?= $(shell nproc)
WERROR = $(if $(CI),ON,OFF)

.PHONY: all deps configure build test demo asan tsan bench clean format

all: build

deps:
	@scripts/install-deps

configure: deps
	@cmake --preset $(PRESET) -DJOV_WERROR=$(WERROR) >/dev/null

build: configure
	@cmake --build --preset $(PRESET) -j $(JOBS)

test: build
	@ctest --preset $(PRESET) -j $(JOBS)

demo: build
	@scripts/demo $(BUILD_DIR)

asan:
	@$(MAKE) --no-print-directory test PRESET=asan

tsan:
	@$(MAKE) --no-print-directory test PRESET=tsan

bench:
	@$(MAKE) --no-print-directory build PRESET=release
	@bench/run build/release

format:
	@clang-format -i $$(git ls-files '*.hpp' '*.cpp')

clean:
	rm -rf build
