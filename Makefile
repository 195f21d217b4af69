# The three things a developer does: run the app, test everything, measure.
# Each one installs what is missing first, then builds incrementally with Ninja.
BUILD_DIR ?= build
BUILD_TYPE ?= RelWithDebInfo
# The Qt-free libraries and their tests again, under AddressSanitizer and UBSan.
SANITIZED_DIR ?= build-asan
JOBS ?= $(shell nproc)

.PHONY: run test test-sanitized bench build build-sanitized bootstrap configure configure-sanitized

run: build
	@scripts/run-app $(BUILD_DIR)

# The whole suite, then the sanitized one; either failing fails the target.
test: build
	cd $(BUILD_DIR) && ctest --output-on-failure --parallel $(JOBS) $(CTEST_ARGS)
	@$(MAKE) --no-print-directory test-sanitized

test-sanitized: build-sanitized
	cd $(SANITIZED_DIR) && ctest --output-on-failure --parallel $(JOBS) $(CTEST_ARGS)

build-sanitized: configure-sanitized
	cmake --build $(SANITIZED_DIR) --parallel $(JOBS)

configure-sanitized: bootstrap
	@test -f $(SANITIZED_DIR)/build.ninja || cmake -S . -B $(SANITIZED_DIR) -G Ninja \
		-DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DQUILLMERE_SANITIZED_CORE=ON

bench: build
	@scripts/run-benchmarks $(BUILD_DIR)

build: configure
	cmake --build $(BUILD_DIR) --parallel $(JOBS)

configure: bootstrap
	@test -f $(BUILD_DIR)/build.ninja || cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE)

bootstrap:
	@scripts/bootstrap
