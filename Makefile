# Entry points for a fresh Debian machine (./setup.sh installs make first):
#   make run    install what is missing, build the library and the tools,
#               serve examples/device with paramd on 127.0.0.1
#   make test   install what is missing, build, run every test
#   make deb    Debian packages for this machine; make deb-arm64 for the board
#   make test-aarch64  the whole suite as a cross build for the board, under qemu
BUILD    ?= build
TYPE     ?= RelWithDebInfo
JOBS     ?= $(shell nproc)
RUN_DIR  ?= /tmp/paramd-rw
LOGLEVEL ?= 3
BIND     ?= 127.0.0.1
# What a minimal Debian lacks for building, testing and packaging; one name a
# line so that additions stay one-line changes.
PACKAGES := \
  g++ \
  cmake \
  make \
  pkg-config \
  libcjson-dev \
  libgtest-dev \
  libbenchmark-dev \
  iproute2 \
  procps \
  help2man \
  systemd \
  libcpp-httplib-dev \
  chromium \
  chromium-driver \
  python3-selenium \
  valgrind \
  ansible-core \
  lintian

.PHONY: all deps configure build run mutation test test-repeat test-asan test-tsan bench clean deb deb-arm64 web coverage test-size

all: build

deps:
	@missing=""; for p in $(PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  SUDO=$$( [ "$$(id -u)" = 0 ] || echo sudo ); \
	  $$SUDO apt-get update -qq && DEBIAN_FRONTEND=noninteractive $$SUDO apt-get install -y -qq $$missing; \
	fi

configure: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=$(TYPE) $(CMAKE_ARGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

# Only what serving needs: the library and the two tools.
run: configure
	cmake --build $(BUILD) -j $(JOBS) --target paramd paramctl
	mkdir -p $(RUN_DIR)
	$(BUILD)/tools/paramd --ro examples/device --rw $(RUN_DIR) --log-level $(LOGLEVEL) \
	  --conf-save --bind $(BIND)

# The settings web page: paramd on loopback with paramweb in front of it.
# Ctrl-C stops both, paramd with its forced save.
WEB_LISTEN ?= 127.0.0.1:8080
web: configure
	cmake --build $(BUILD) -j $(JOBS) --target paramd paramctl paramweb
	mkdir -p $(RUN_DIR)
	@trap 'kill -INT $$pd; kill -TERM $$pw' INT TERM; \
	$(BUILD)/tools/paramd --ro examples/device --rw $(RUN_DIR) --bind $(BIND) --conf-save --log-level $(LOGLEVEL) & pd=$$!; \
	$(BUILD)/tools/paramweb --listen $(WEB_LISTEN) --map examples/device/www2json.json & pw=$$!; \
	echo "settings pages: http://$(WEB_LISTEN)/  (Ctrl-C stops paramd and paramweb)"; \
	wait $$pd; kill -TERM $$pw 2>/dev/null; wait $$pd; wait $$pw

# Tests that use port 6800 run in a private network namespace where the
# system allows one (tests/netns.sh); otherwise they need the port free, and
# the check stops the run before the build.
test: configure
	@tests/netns.sh --check
	cmake --build $(BUILD) -j $(JOBS)
	ctest --test-dir $(BUILD) -j $(JOBS) --output-on-failure

# The whole suite N times in a row (default 30), stopping at the first red
# run; beside stress-ng when STRESS=1. How flakiness is hunted down here.
N ?= 30
test-repeat: configure
	@tests/netns.sh --check
	cmake --build $(BUILD) -j $(JOBS)
	@if [ "$(STRESS)" = 1 ]; then stress-ng --cpu 2 --timeout 0 >/dev/null 2>&1 & echo $$! > $(BUILD)/stress.pid; fi; \
	status=0; for i in $$(seq 1 $(N)); do \
	  if ctest --test-dir $(BUILD) -j $(JOBS) >$(BUILD)/repeat.log 2>&1; then echo "run $$i of $(N): green"; \
	  else echo "run $$i of $(N): red"; grep -E '\*\*\*|Failed|Timeout' $(BUILD)/repeat.log | tail -5; status=1; break; fi; \
	done; [ -f $(BUILD)/stress.pid ] && kill $$(cat $(BUILD)/stress.pid) && rm -f $(BUILD)/stress.pid; exit $$status

# The write-fault sweep takes about four minutes under ASan on a quiet
# machine: twice the per-test time, so it holds beside a CPU hog too.
test-asan:
	$(MAKE) test BUILD=build-asan TYPE=Debug CMAKE_ARGS="-DPARA_SANITIZE=address,undefined -DPARA_TEST_TIMEOUT=120"

# ThreadSanitizer slows the fault and power-cut sweeps about tenfold.
test-tsan:
	$(MAKE) test BUILD=build-tsan TYPE=Debug CMAKE_ARGS="-DPARA_SANITIZE=thread -DPARA_TEST_TIMEOUT=240"

# Line and branch coverage of the library, common/ and the tools after the
# whole suite ran once. Atomic counters: the worker and host threads would
# otherwise race on them and leave negative counts. The suite runs in a
# private network and mount namespace so that port 6800 and /tmp are its own.
# The export check is left out: the profiling runtime exports names of its own.
COV_BUILD := build-coverage
COV_FLAGS := --coverage -fprofile-update=atomic
coverage:
	$(MAKE) deps PACKAGES="$(PACKAGES) gcovr util-linux iproute2"
	cmake -S . -B $(COV_BUILD) -DCMAKE_BUILD_TYPE=Debug \
	  -DCMAKE_C_FLAGS="$(COV_FLAGS)" -DCMAKE_CXX_FLAGS="$(COV_FLAGS)" \
	  -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage \
	  -DPARA_TEST_TIMEOUT=300 $(CMAKE_ARGS)
	cmake --build $(COV_BUILD) -j $(JOBS)
	find $(COV_BUILD) -name '*.gcda' -delete
	SUDO=$$( [ "$$(id -u)" = 0 ] || echo sudo ); \
	$$SUDO unshare -mn --propagation private sh -c 'case "$$(pwd -P)/" in /tmp/*) ;; *) mount -t tmpfs tmpfs /tmp;; esac && \
	  ip link set lo up && \
	  ctest --test-dir $(COV_BUILD) -j $(JOBS) --output-on-failure -E "^Exports\."'; rc=$$?; \
	gcovr --root . --object-directory $(COV_BUILD) \
	  --exclude '(.*/)?(tests|fuzz|bench|examples|build[^/]*)/' \
	  --print-summary -o $(COV_BUILD)/coverage.txt && exit $$rc

# Mutation score: N mutants of the library drawn with SEED, each built in
# build-mutation/ and run against the whole suite (slow: about a minute each).
SEED ?= 1
mutation:
	python3 tests/mutation.py $(N) $(SEED)

# Hand-written test lines against the rest of the hand-written sources
# (tools/test-size.sh says what counts); fails above 0.35.
test-size:
	@sh tools/test-size.sh

# Cross build for the board (AArch64): Debian's cross compilers, the arm64
# multiarch cJSON, GoogleTest from source, the tests run under qemu-user.
AARCH64_BUILD    ?= build-aarch64
AARCH64_PACKAGES := cmake make pkg-config gcc-aarch64-linux-gnu g++-aarch64-linux-gnu \
                    qemu-user googletest libcjson-dev:arm64 libstdc++6:arm64

.PHONY: deps-aarch64 test-aarch64

deps-aarch64:
	@dpkg --print-foreign-architectures | grep -qx arm64 || { \
	  echo "adding architecture arm64"; \
	  SUDO=$$( [ "$$(id -u)" = 0 ] || echo sudo ); \
	  $$SUDO dpkg --add-architecture arm64; \
	}
	@$(MAKE) --no-print-directory deps PACKAGES="$(AARCH64_PACKAGES)"

test-aarch64: deps-aarch64
	cmake -S . -B $(AARCH64_BUILD) -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
	  -DCMAKE_BUILD_TYPE=$(TYPE) $(CMAKE_ARGS)
	cmake --build $(AARCH64_BUILD) -j $(JOBS)
	ctest --test-dir $(AARCH64_BUILD) -j $(JOBS) --output-on-failure

clean:
	rm -rf build build-*

# Debian packages libpara1, libpara-dev and para-tools (CPack, prefix /usr)
# in $(DEB_BUILD); deb-arm64 cross-builds the same for the board (CMake
# picks the multiarch library directory only for native builds).
DEB_BUILD       ?= build-deb
DEB_ARM64_BUILD ?= build-deb-arm64

deb: deps
	cmake -S . -B $(DEB_BUILD) -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
	  -DPARA_BUILD_TESTS=OFF $(CMAKE_ARGS)
	cmake --build $(DEB_BUILD) -j $(JOBS)
	cd $(DEB_BUILD) && cpack -G DEB
	@ls -1 $(DEB_BUILD)/*.deb

deb-arm64: deps-aarch64
	@$(MAKE) --no-print-directory deps PACKAGES=help2man
	cmake -S . -B $(DEB_ARM64_BUILD) -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake \
	  -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DPARA_BUILD_TESTS=OFF \
	  -DCMAKE_INSTALL_LIBDIR=lib/aarch64-linux-gnu $(CMAKE_ARGS)
	cmake --build $(DEB_ARM64_BUILD) -j $(JOBS)
	cd $(DEB_ARM64_BUILD) && cpack -G DEB
	@ls -1 $(DEB_ARM64_BUILD)/*.deb

# Benchmarks: builds with PARA_BUILD_BENCH, starts Redis itself for the peer figure.
bench:
	$(MAKE) deps PACKAGES="$(PACKAGES) redis-server"
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DPARA_BUILD_BENCH=ON -DPARA_BUILD_TESTS=OFF
	cmake --build build-bench -j $(JOBS) --target para_bench
	build-bench/bench/para_bench $(if $(RESULTS),--results bench/results.md)

# make fuzz: builds the libFuzzer targets with clang-14 (ASan + UBSan) and
# runs each for FUZZ_SECONDS on a working copy of its seed corpus under
# $(FUZZ_BUILD)/work/<target> (the committed corpus is never written).
# FUZZ_TARGETS picks targets, FUZZ_ARGS passes extra libFuzzer flags
# (e.g. FUZZ_ARGS=-runs=10000000). A crash stops the run; its input is in
# $(FUZZ_BUILD)/work/<target>/artifacts. fuzz_datagram runs in fork mode:
# every set request with an unseen key adds it to a .conf store for good, so
# one long-lived process slows down as its stores grow; fresh child
# processes keep the rate up.
FUZZ_BUILD    ?= build-fuzz
FUZZ_SECONDS  ?= 60
FUZZ_TARGETS  ?= $(sort $(notdir $(wildcard fuzz/corpus/fuzz_*)))
FUZZ_ARGS     ?=
FUZZ_PACKAGES := clang-14 libclang-rt-14-dev cmake make pkg-config libcjson-dev

.PHONY: fuzz fuzz-build

fuzz-build:
	$(MAKE) deps PACKAGES="$(FUZZ_PACKAGES)"
	cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_CXX_COMPILER=clang++-14 -DCMAKE_C_COMPILER=clang-14 \
	  -DPARA_BUILD_FUZZ=ON -DPARA_BUILD_TESTS=OFF -DPARA_BUILD_TOOLS=OFF
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target fuzz_all

fuzz: fuzz-build
	@set -e; for t in $(FUZZ_TARGETS); do \
	  work=$(FUZZ_BUILD)/work/$$t; \
	  mkdir -p $$work/corpus $$work/artifacts; \
	  cp -n fuzz/corpus/$$t/* $$work/corpus/ 2>/dev/null || true; \
	  mode=; [ $$t = fuzz_datagram ] && mode=-fork=1; \
	  echo "== $$t: $(FUZZ_SECONDS) s, corpus $$work/corpus"; \
	  $(FUZZ_BUILD)/fuzz/$$t -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 $$mode \
	    -artifact_prefix=$$work/artifacts/ $(FUZZ_ARGS) $$work/corpus 2>$$work/log || \
	    { tail -n 60 $$work/log; echo "$$t failed: see $$work/artifacts"; exit 1; }; \
	  grep -E '^stat::number_of_executed_units|DONE|^#[0-9]+:|exiting' $$work/log | tail -n 2; \
	done
