# The two commands a newcomer needs: `make demo` runs the simulated router, `make test` runs
# every test. Both install the Debian packages they need first (run as root). `make arm-test`
# builds for the router and tests that build under emulation; `make vendor-check` builds the
# firmware variant against a stand-in of the vendor's libraries.
BUILD ?= build
JOBS ?= $(shell nproc)

ARM_BUILD ?= build-arm
# Tests qemu-arm cannot run, with the reasons: tests/qemu-excluded.txt.
ARM_EXCLUDE = $(shell sed -e '/^\#/d' -e '/^[[:space:]]*$$/d' -e 's/[[:space:]].*//' \
                          tests/qemu-excluded.txt | paste -sd '|')

.PHONY: test demo sim-bench soak sim-build deps build arm-test arm-build arm-deps
.PHONY: sanitize-test sanitize-build fuzz vendor-check deb deb-check mutants

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# The simulated router (sim/README.md): the cable pulled and returned, in real time, about
# two and a half minutes; prints the table and where the table and the picture are.
demo: sim-build
	sim/run cable-pull --build $(BUILD)

# Outage figures (the cable-pull scenario in real time), then the CPU time and memory of the
# daemon's two processes over 15 minutes of idle daemon time run 10x accelerated, scaled to an hour.
sim-bench: sim-build
	sim/run cable-pull --build $(BUILD) --out $(BUILD)/sim-bench/cable-pull
	sim/run idle --build $(BUILD) --out $(BUILD)/sim-bench/idle --fast 10 --idle 900
	@cat $(BUILD)/sim-bench/idle/bench.txt

# 206 link flaps in the simulated router, 10x accelerated (about four minutes): fails when the
# daemon's descriptors, child processes or memory grow, or the router does not end on Ethernet.
soak: sim-build
	sim/run soak --build $(BUILD) --fast 10

# Only what the simulation runs, so that a first `make demo` builds in a minute or two.
sim-build: deps
	cmake -S . -B $(BUILD)
	cmake --build $(BUILD) -j $(JOBS) --target sim sleep_shim

build: deps
	cmake -S . -B $(BUILD)
	cmake --build $(BUILD) -j $(JOBS)

deps:
	tools/install-deps $(BUILD)

# The firmware build (-DFAILOVER_PLATFORM=vendor) with the host's compiler, against a throwaway
# sysroot whose libvesk_shared and libnat hold only the platform contract: fails when a program
# the firmware installs calls anything else, or the install holds other programs
# (tests/contract/vendor-check).
VENDOR_BUILD ?= build-vendor
vendor-check: deps
	JOBS=$(JOBS) tests/contract/vendor-check $(VENDOR_BUILD)

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

# Every test (unit, program, simulation) built with AddressSanitizer and
# UndefinedBehaviorSanitizer; any report fails its test. The settings are compiled in
# (tests/sanitize/defaults.c); ASAN_OPTIONS and UBSAN_OPTIONS add to them.
SAN_BUILD ?= build-asan
# The soak is left out: its memory figures measure the daemon, and ASan's quarantine holds
# freed memory on purpose.
sanitize-test: sanitize-build
	cd $(SAN_BUILD) && ctest --output-on-failure -j $(JOBS) -E '^SimSoak_FlapsLeaveNoGrowth$$'

sanitize-build:
	tools/install-deps $(SAN_BUILD)
	cmake -S . -B $(SAN_BUILD) -DFAILOVER_SANITIZE=ON -DFAILOVER_BENCHMARKS=OFF \
	    -DCMAKE_BUILD_TYPE=Debug
	cmake --build $(SAN_BUILD) -j $(JOBS)

# libFuzzer over every parser (tests/fuzz): FUZZ_RUNS inputs per target from its seed corpus;
# the first crash, leak or failed check stops it with the reproducer's path.
FUZZ_BUILD ?= build-fuzz
FUZZ_RUNS ?= 50000
fuzz:
	tools/install-deps $(FUZZ_BUILD) --fuzz
	cmake -S . -B $(FUZZ_BUILD) -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
	    -DFAILOVER_FUZZ=ON -DFAILOVER_TESTS=OFF
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target fuzz_targets
	tests/fuzz/run $(FUZZ_BUILD) $(FUZZ_RUNS)

# The Debian package of the host build (debian/, docs/DESIGN.md): DEB_BUILD/failover_*.deb.
DEB_BUILD ?= build-deb
deb:
	JOBS=$(JOBS) tools/deb-build $(DEB_BUILD)

# lintian (errors fail, warnings shown), then `apt install` of the package into a throwaway
# Debian 12 root (debootstrap) where its programs run and `systemd-analyze verify` checks the
# units. Needs root and the Debian mirror; prints its run time.
deb-check: deb
	tools/deb-check $(DEB_BUILD)

# Deliberate faults in the program code and which of them the tests catch (tests/README.md):
# seed 1, 150 mutants, each a rebuild and a test run; `tools/mutants compare` holds two runs
# against each other. Needs a clean `git status` in the program folders.
MUT_BUILD ?= build-mutants
mutants:
	tools/install-deps $(MUT_BUILD)
	/usr/bin/python3 tools/mutants run --seed 1 --count 150 --build $(MUT_BUILD) \
	    --out $(MUT_BUILD)/mutants.tsv --jobs $(JOBS)
