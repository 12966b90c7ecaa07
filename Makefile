# Newcomer entry points: `make run` and `make test`.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
SIM_DIR    ?= $(CURDIR)/.kivsim

DEB_PACKAGES = g++ cmake make pkg-config libusb-dev libgtest-dev googletest \
               libbenchmark-dev tmux tshark clang libclang-rt-14-dev \
               umockdev libumockdev-dev libumockdev0 python3-labgrid

.PHONY: all deps build run test sanitize bench fuzz clean

all: build

deps:
	@missing=""; for p in $(DEB_PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$p 2>/dev/null | grep -q "ok installed" || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "Installing:$$missing"; \
	  SUDO=""; [ "$$(id -u)" -ne 0 ] && SUDO=sudo; \
	  $$SUDO env DEBIAN_FRONTEND=noninteractive apt-get update -qq && \
	  $$SUDO env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $$missing; \
	fi

$(BUILD)/Makefile: CMakeLists.txt
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null

build: deps $(BUILD)/Makefile
	cmake --build $(BUILD) -j $(JOBS)

# Only the tool itself: the tests, benchmarks and fuzz replays are built by `make build`.
run: deps $(BUILD)/Makefile
	cmake --build $(BUILD) -j $(JOBS) --target kivtool
	KIVTOOL_SIM=$${KIVTOOL_SIM:-$(SIM_DIR)} $(BUILD)/kivtool

test: build
	cd $(BUILD) && ctest -j $(JOBS) --output-on-failure --timeout 300

sanitize: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DKIV_SANITIZE=ON >/dev/null
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest -j $(JOBS) --output-on-failure --timeout 600

bench: build
	@for b in $(BUILD)/bench_*; do [ -x "$$b" ] && "$$b"; done

FUZZ_BUILD ?= build-fuzz

# libFuzzer targets (clang, address and undefined-behaviour sanitizers) in $(FUZZ_BUILD);
# fuzz/run.sh runs them. The same targets are replayed on their seeds by `make test`.
fuzz: deps
	cmake -S fuzz -B $(FUZZ_BUILD) -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
	  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(FUZZ_BUILD) -j $(JOBS)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) build-fuzz
