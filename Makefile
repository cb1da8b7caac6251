# Entry points for people and CI. Every target installs what is missing first, so each works on
# a fresh Debian 12 machine (as root, or with sudo available).

APT_PACKAGES := cmake ninja-build g++ pkg-config libjansson-dev libgtest-dev libgmock-dev \
                libbenchmark-dev libcli11-dev
BUILD ?= build
CTEST_ARGS ?= --output-on-failure -j2

.PHONY: all deps build run test asan tsan fuzz bench clean

all: build

deps:
	@./.ci/install-deps $(APT_PACKAGES)

build: deps
	cmake -S . -B $(BUILD) -G Ninja
	cmake --build $(BUILD)

# The main job: kyrroute loads the example cell and shows where each example request goes.
run: build
	$(BUILD)/tools/kyrroute/kyrroute --server-name shop_n1_webserver1 route \
	    --doc examples/cell/cell.json --requests examples/cell/requests.txt

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

# The rule language under libFuzzer (clang) with ASan+UBSan, for FUZZ_SECONDS, starting from the
# seed rules in tests/lang/corpus. Any crash, hang or leak fails the run.
FUZZ_SECONDS ?= 60
fuzz: deps
	@./.ci/install-deps clang-14 libclang-rt-14-dev
	CC=clang-14 CXX=clang++-14 cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=Debug \
	      -DKYR_SANITIZE=address -DKYR_FUZZ=ON -DKYR_BUILD_BENCHMARKS=OFF
	cmake --build build-fuzz --target fuzz_lang
	mkdir -p build-fuzz/corpus-lang
	build-fuzz/tests/lang/fuzz_lang -max_total_time=$(FUZZ_SECONDS) -max_len=4096 \
	      build-fuzz/corpus-lang tests/lang/corpus 2>build-fuzz/fuzz.log \
	  || { tail -50 build-fuzz/fuzz.log; exit 1; }
	@tail -3 build-fuzz/fuzz.log

bench: build
	$(BUILD)/bench/kyr_bench

clean:
	rm -rf build build-asan build-tsan
