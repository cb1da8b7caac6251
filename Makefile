# Entry points for people and CI. Every target installs what is missing first, so each works on
# a fresh Debian 12 machine (as root, or with sudo available).

APT_PACKAGES := cmake ninja-build g++ pkg-config libjansson-dev libgtest-dev libgmock-dev \
                libbenchmark-dev
BUILD ?= build
CTEST_ARGS ?= --output-on-failure -j2

.PHONY: all deps build test asan tsan bench clean

all: build

deps:
	@./.ci/install-deps $(APT_PACKAGES)

build: deps
	cmake -S . -B $(BUILD) -G Ninja
	cmake --build $(BUILD)

test: build
	cd $(BUILD) && ctest $(CTEST_ARGS)

# AddressSanitizer + UndefinedBehaviorSanitizer over the whole suite.
asan: deps
	cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKYR_SANITIZE=address \
	      -DKYR_BUILD_BENCHMARKS=OFF
	cmake --build build-asan
	cd build-asan && ctest $(CTEST_ARGS)

# ThreadSanitizer over the concurrency suites.
tsan: deps
	cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKYR_SANITIZE=thread \
	      -DKYR_BUILD_BENCHMARKS=OFF
	cmake --build build-tsan
	cd build-tsan && ctest $(CTEST_ARGS) -R Concurrency

bench: build
	$(BUILD)/bench/kyr_bench

clean:
	rm -rf build build-asan build-tsan
