# The two commands of the README, and the few more documented after them.
BUILD ?= build
CMAKE_FLAGS ?=
PREFIX ?= /usr/local

.PHONY: run test bench fuzz install package build configure deps clean

run: build
	$(BUILD)/bin/zandor --board demo

# Every test but the package's, which installs and removes a system package (CI runs it).
test: build
	ctest --test-dir $(BUILD) --output-on-failure -j2 -LE '^package$$'

bench: configure
	cmake --build $(BUILD) --target benchmarks
	@for program in $(BUILD)/bench/*_bench $(BUILD)/bench/view_latency $(BUILD)/bench/listen_latency; do echo "== $$program"; $$(case $$program in *camera_bench) echo scripts/with-pipewire --;; esac) "$$program" || exit 1; done

# The fuzz targets (tests/fuzz), built with clang in build-fuzz and run FUZZ_SECONDS each.
FUZZ_SECONDS ?= 60
fuzz: deps
	FUZZ_SECONDS=$(FUZZ_SECONDS) scripts/fuzz

# Installs under PREFIX (default /usr/local); DESTDIR works as usual.
install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

# The Debian package build/zandor_<version>_amd64.deb, from the same rules as install, under /usr.
package: build
	cmake --build $(BUILD) --target package

build: configure
	cmake --build $(BUILD)

# Configures once; later runs only rebuild. Flags given on the command line configure again.
configure: deps
	@if [ ! -f $(BUILD)/build.ninja ] || [ -n "$(CMAKE_FLAGS)" ]; then \
		cmake -S . -B $(BUILD) -G Ninja $(CMAKE_FLAGS); \
	fi

deps:
	@scripts/install-deps

clean:
	rm -rf $(BUILD) build-asan build-tsan build-fuzz
