# Entry points for people and CI. Every target installs what is missing first, so each works on
# a fresh Debian 12 machine (as root, or with sudo available). These are the team's own builds,
# so compiler warnings are errors in all of them (KYR_WERROR); a plain cmake build keeps them
# warnings.

APT_PACKAGES := cmake ninja-build g++ pkg-config libjansson-dev libgtest-dev libgmock-dev \
                libbenchmark-dev libcli11-dev libmicrohttpd-dev python3
BUILD ?= build
CTEST_ARGS ?= --output-on-failure -j2
WERROR := -DKYR_WERROR=ON
# What the format check covers.
FORMAT_FILES = $(shell git ls-files src api tools examples tests bench hosts | grep -E '\.(c|cpp|h)$$')

.PHONY: all deps nginx-deps build run test asan tsan release format tidy fuzz fuzz-build bench nginx \
        bench-nginx demo clean

all: build

deps:
	@./.ci/install-deps $(APT_PACKAGES)

# nginx and nginx-dev, for the nginx module (hosts/nginx) and its tests. Where an init system
# runs services, installing the package starts its own server on port 80, which nothing here
# uses: one that this target installed is stopped again (a server that was there before is left
# alone).
nginx-deps:
	@fresh=; dpkg-query -W -f='$${Status}' nginx 2>/dev/null | grep -q "install ok installed" \
	  || fresh=1; \
	./.ci/install-deps nginx nginx-dev || { \
	  echo "nginx and nginx-dev cannot be installed: the nginx module's tests (nginx.*) need them"; \
	  exit 1; }; \
	if [ -n "$$fresh" ]; then \
	  sudo=; [ "$$(id -u)" -ne 0 ] && sudo=sudo; $$sudo service nginx stop >/dev/null 2>&1 || true; \
	fi

build: deps
	cmake -S . -B $(BUILD) -G Ninja $(WERROR)
	cmake --build $(BUILD)

# The main job: kyrroute loads the example cell and shows where each example request goes.
run: build
	$(BUILD)/tools/kyrroute/kyrroute --server-name shop_n1_webserver1 route \
	    --doc examples/cell/cell.json --requests examples/cell/requests.txt

# The whole suite, the nginx module's end-to-end tests (nginx.*) included: the module is built
# in $(BUILD) too (from then on with the default target), which costs its first build about half
# a minute. Without nginx those tests fail and say why.
test: deps nginx-deps
	cmake -S . -B $(BUILD) -G Ninja $(WERROR) -DKYR_BUILD_NGINX_MODULE=ON
	cmake --build $(BUILD)
	cd $(BUILD) && ctest $(CTEST_ARGS)

# AddressSanitizer + UndefinedBehaviorSanitizer over the whole suite.
asan: deps
	cmake -S . -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKYR_SANITIZE=address \
	      -DKYR_BUILD_BENCHMARKS=OFF $(WERROR)
	cmake --build build-asan
	cd build-asan && ctest $(CTEST_ARGS)

# ThreadSanitizer over the concurrency suites.
tsan: deps
	cmake -S . -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKYR_SANITIZE=thread \
	      -DKYR_BUILD_BENCHMARKS=OFF $(WERROR)
	cmake --build build-tsan
	cd build-tsan && ctest $(CTEST_ARGS) -R Concurrency

# The Release configuration a packager builds (-O3), with g++ and with clang, everything
# included (benchmarks too), warning-free.
release: deps
	@./.ci/install-deps clang-14
	cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release $(WERROR)
	cmake --build build-release
	CC=clang-14 CXX=clang++-14 cmake -S . -B build-release-clang -G Ninja \
	      -DCMAKE_BUILD_TYPE=Release $(WERROR)
	cmake --build build-release-clang

# Every source file as the checked-in .clang-format writes it.
format:
	@./.ci/install-deps clang-format-14 git
	@echo "clang-format-14 --dry-run -Werror over $(words $(FORMAT_FILES)) files"
	@clang-format-14 --dry-run -Werror $(FORMAT_FILES)

# clang-tidy with the checked-in .clang-tidy over the library; any finding fails.
tidy: deps
	@./.ci/install-deps clang-tidy-14
	cmake -S . -B build-release -G Ninja -DCMAKE_BUILD_TYPE=Release $(WERROR)
	git ls-files 'src/*.cpp' | xargs -P2 -n8 clang-tidy-14 -p build-release --quiet \
	      --extra-arg=-Wno-unknown-warning-option

# Every parser of outside input under libFuzzer (clang) with ASan+UBSan: the rule language
# (fuzz_lang), routing documents (fuzz_documents), the request and response fields
# (fuzz_request) and the publisher replies the built-in HTTP client reads (fuzz_http_response),
# each for FUZZ_SECONDS from its checked-in seeds, with a working corpus and crash artifacts of
# its own under build-fuzz/. The inputs that once crashed the library (tests/fuzz/crashes) are
# seeds too, so each is tried again on every run. Every fuzzer runs even when an earlier one
# failed; any crash, leak or hang fails the target after printing the end of that fuzzer's log.
FUZZ_SECONDS ?= 60
FUZZERS := lang documents request http_response
FUZZ_BIN_lang := tests/lang/fuzz_lang
FUZZ_SEEDS_lang := tests/lang/corpus
FUZZ_ARGS_lang := -max_len=4096
FUZZ_BIN_documents := tests/fuzz/fuzz_documents
FUZZ_SEEDS_documents := tests/fuzz/documents tests/fuzz/crashes tests/data
FUZZ_ARGS_documents := -max_len=16384 -dict=tests/fuzz/documents.dict
FUZZ_BIN_request := tests/fuzz/fuzz_request
FUZZ_SEEDS_request := tests/fuzz/request
FUZZ_ARGS_request := -max_len=512 -len_control=0 -dict=tests/fuzz/request.dict
FUZZ_BIN_http_response := tests/fuzz/fuzz_http_response
FUZZ_SEEDS_http_response := tests/fuzz/http_response tests/fuzz/crashes
FUZZ_ARGS_http_response := -max_len=65536 -dict=tests/fuzz/http_response.dict

fuzz: fuzz-build
	@$(MAKE) --no-print-directory -j1 -k $(addprefix fuzz-run-,$(FUZZERS))

fuzz-build: deps
	@./.ci/install-deps clang-14 libclang-rt-14-dev
	CC=clang-14 CXX=clang++-14 cmake -S . -B build-fuzz -G Ninja -DCMAKE_BUILD_TYPE=Debug \
	      -DKYR_SANITIZE=address -DKYR_FUZZ=ON -DKYR_BUILD_BENCHMARKS=OFF $(WERROR)
	cmake --build build-fuzz --target $(addprefix fuzz_,$(FUZZERS))

# One fuzzer (after fuzz-build): make fuzz-run-documents FUZZ_SECONDS=600
fuzz-run-%:
	@mkdir -p build-fuzz/corpus-$* build-fuzz/artifacts-$*
	@echo "fuzz_$*: $(FUZZ_SECONDS) s"
	@UBSAN_OPTIONS=print_stacktrace=1 build-fuzz/$(FUZZ_BIN_$*) -max_total_time=$(FUZZ_SECONDS) \
	      -rss_limit_mb=2048 -timeout=10 $(FUZZ_ARGS_$*) \
	      -artifact_prefix=build-fuzz/artifacts-$*/ build-fuzz/corpus-$* $(FUZZ_SEEDS_$*) \
	      </dev/null >build-fuzz/fuzz-$*.log 2>&1 \
	  || { awk '/ERROR|runtime error|ALARM/ && !at { at = NR } at && NR < at + 40' \
	           build-fuzz/fuzz-$*.log; tail -4 build-fuzz/fuzz-$*.log; \
	       echo "fuzz_$* FAILED (log: build-fuzz/fuzz-$*.log)"; exit 1; }
	@grep -E '^#[0-9]+[[:space:]]+DONE' build-fuzz/fuzz-$*.log | tail -1

bench: build
	$(BUILD)/bench/kyr_bench

# The nginx module (hosts/nginx) alone: installs nginx and nginx-dev, builds
# ngx_http_kyr_module.so in $(BUILD) (from then on with the default target) and runs its
# end-to-end tests.
nginx: deps nginx-deps
	cmake -S . -B $(BUILD) -G Ninja $(WERROR) -DKYR_BUILD_NGINX_MODULE=ON
	cmake --build $(BUILD) --target nginx_module
	cd $(BUILD) && ctest $(CTEST_ARGS) -R '^nginx\.'

# The nginx module at work (examples/nginx-demo.sh): kyrpublish with a copy of the example cell,
# three backends and nginx with the module on free loopback ports; affinity, editions, a reject,
# a redirect and a live edit of the cell. Stops everything it started.
demo: deps nginx-deps
	cmake -S . -B $(BUILD) -G Ninja $(WERROR) -DKYR_BUILD_NGINX_MODULE=ON
	cmake --build $(BUILD) --target nginx_module kyrpublish
	examples/nginx-demo.sh $(BUILD)

# Load benchmark of the nginx module against nginx's own least_conn and HAProxy's leastconn
# with cookie affinity (bench/nginx_load.sh; ROUNDS, SECONDS_PER_RUN, CONNECTIONS). wrk and
# haproxy are installed here only; a haproxy service the install starts is stopped again.
bench-nginx: deps nginx-deps
	@fresh=; dpkg-query -W -f='$${Status}' haproxy 2>/dev/null | grep -q "install ok installed" \
	  || fresh=1; \
	./.ci/install-deps wrk haproxy || exit 1; \
	if [ -n "$$fresh" ]; then \
	  sudo=; [ "$$(id -u)" -ne 0 ] && sudo=sudo; $$sudo service haproxy stop >/dev/null 2>&1 || true; \
	fi
	cmake -S . -B $(BUILD) -G Ninja $(WERROR) -DKYR_BUILD_NGINX_MODULE=ON
	cmake --build $(BUILD) --target nginx_module
	bench/nginx_load.sh $(BUILD)

clean:
	rm -rf build build-asan build-tsan build-fuzz build-release build-release-clang
