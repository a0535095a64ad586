# The two commands a newcomer needs: `make demo` runs the simulated router, `make test` runs
# every test. Both install the Debian packages they need first (run as root). `make arm-test`
# builds for the router and tests that build under emulation.
BUILD ?= build
JOBS ?= $(shell nproc)

ARM_BUILD ?= build-arm
# Tests qemu-arm cannot run, with the reasons: tests/qemu-excluded.txt.
ARM_EXCLUDE = $(shell sed -e '/^\#/d' -e '/^[[:space:]]*$$/d' -e 's/[[:space:]].*//' \
                          tests/qemu-excluded.txt | paste -sd '|')

.PHONY: test demo deps build arm-test arm-build arm-deps

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

demo: build
	@echo "make demo: the simulated router is not built yet; nothing to run."

build: deps
	cmake -S . -B $(BUILD)
	cmake --build $(BUILD) -j $(JOBS)

deps:
	tools/install-deps $(BUILD)

# The router's build: 32-bit ARM, static, size-optimised; its size report (tools/size-report;
# --record adds a history line), then its unit tests under qemu-arm in the same test root.
arm-test: arm-build
	tools/size-report $(ARM_BUILD)
	@echo "arm-test: left out under qemu-arm (tests/qemu-excluded.txt):"
	@sed -e '/^#/d' -e '/^[[:space:]]*$$/d' -e 's/^/    /' tests/qemu-excluded.txt
	@cd $(ARM_BUILD) && echo "arm-test: $$(ctest -N -R '$(ARM_EXCLUDE)' | sed -n 's/^Total Tests: //p') tests left out"
	cd $(ARM_BUILD) && ctest --output-on-failure -j $(JOBS) -E '$(ARM_EXCLUDE)'

arm-build: arm-deps
	cmake -S . -B $(ARM_BUILD) -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabi.cmake \
	    -DCMAKE_BUILD_TYPE=MinSizeRel -DFAILOVER_SMALL=ON -DFAILOVER_STATIC=ON \
	    -DFAILOVER_CJSON_SOURCE=$(abspath $(ARM_BUILD))/deps/cjson-src
	cmake --build $(ARM_BUILD) -j $(JOBS)

arm-deps:
	tools/install-deps $(ARM_BUILD)
	tools/install-deps-arm $(ARM_BUILD)
