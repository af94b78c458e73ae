# Entry points for a fresh Debian machine:
#   make run    install what is missing, build, serve examples/device with paramd
#   make test   install what is missing, build, run every test
BUILD    ?= build
TYPE     ?= RelWithDebInfo
JOBS     ?= $(shell nproc)
RUN_DIR  ?= /tmp/paramd-rw
LOGLEVEL ?= 6
PACKAGES := g++ cmake make pkg-config libcjson-dev libgtest-dev libbenchmark-dev

.PHONY: all deps build run test test-asan test-tsan bench clean

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

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=$(TYPE) $(CMAKE_ARGS)
	cmake --build $(BUILD) -j $(JOBS)

run: build
	mkdir -p $(RUN_DIR)
	$(BUILD)/tools/paramd --ro examples/device --rw $(RUN_DIR) --log-level $(LOGLEVEL)

test: build
	ctest --test-dir $(BUILD) -j $(JOBS) --output-on-failure

test-asan:
	$(MAKE) test BUILD=build-asan TYPE=Debug CMAKE_ARGS="-DPARA_SANITIZE=address,undefined"

test-tsan:
	$(MAKE) test BUILD=build-tsan TYPE=Debug CMAKE_ARGS="-DPARA_SANITIZE=thread"

clean:
	rm -rf build build-*

# Benchmarks: builds with PARA_BUILD_BENCH, starts Redis itself for the peer figure.
bench:
	$(MAKE) deps PACKAGES="$(PACKAGES) redis-server"
	cmake -S . -B build-bench -DCMAKE_BUILD_TYPE=Release -DPARA_BUILD_BENCH=ON -DPARA_BUILD_TESTS=OFF
	cmake --build build-bench -j $(JOBS) --target para_bench
	build-bench/bench/para_bench $(if $(RESULTS),--results bench/results.md)
