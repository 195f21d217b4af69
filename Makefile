# The three things a developer does: run the app, test everything, measure.
# Each one installs what is missing first, then builds incrementally with Ninja.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
JOBS ?= $(shell nproc)

.PHONY: run test bench build bootstrap configure

run: build
	@scripts/run-app $(BUILD_DIR)

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure --parallel $(JOBS) $(CTEST_ARGS)

bench: build
	@scripts/run-benchmarks $(BUILD_DIR)

build: configure
	cmake --build $(BUILD_DIR) --parallel $(JOBS)

configure: bootstrap
	@test -f $(BUILD_DIR)/build.ninja || cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE)

bootstrap:
	@scripts/bootstrap
