# Thin wrapper over CMake. `make run` builds, converts the bundled example scene and renders it;
# `make test` builds and runs every test.
BUILD      ?= build
ASAN_BUILD ?= build-asan
FUZZ_BUILD ?= build-fuzz
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
FUZZ_SECONDS ?= 60
# Ninja when the machine has it, make otherwise.
GENERATOR  ?= $(shell command -v ninja >/dev/null 2>&1 && echo Ninja || echo 'Unix Makefiles')

.PHONY: all build run test asan bench fuzz fuzz-run clean deps package

all: build

# podimport needs the Open Asset Import Library and qsnview EGL, OpenGL (Mesa, whose software
# rasteriser draws without a GPU) and libpng: installed here when missing and run as root
# (Debian); otherwise CMake leaves the tool out. A build configured before they came is configured
# again.
TOOL_PACKAGES ?= libassimp-dev libegl-dev libgl-dev libegl-mesa0 libgl1-mesa-dri libpng-dev
deps:
	@missing=$$(for p in $(TOOL_PACKAGES); do dpkg -s $$p >/dev/null 2>&1 || echo $$p; done); \
	  [ -z "$$missing" ] || [ "$$(id -u)" != 0 ] || \
	  { echo "Installing" $$missing; apt-get update -qq && \
	    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing >/dev/null; } || \
	  echo "$$missing could not be installed: podimport or qsnview is left out"
reconfigure-for-deps = @if grep -q '^assimp_DIR:PATH=.*NOTFOUND\|^PNG_LIBRARY_RELEASE:FILEPATH=.*NOTFOUND\|^OPENGL_egl_LIBRARY:FILEPATH=.*NOTFOUND' \
	  $(1)/CMakeCache.txt && [ -f /usr/include/assimp/Importer.hpp ] && [ -f /usr/include/png.h ] && \
	  [ -f /usr/include/EGL/egl.h ]; then cmake -S . -B $(1) >/dev/null; fi

$(BUILD)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD) -G "$(GENERATOR)" -DCMAKE_BUILD_TYPE=Release

build: deps $(BUILD)/CMakeCache.txt
	$(call reconfigure-for-deps,$(BUILD))
	cmake --build $(BUILD) -j $(JOBS)

run: build
	$(BUILD)/Korvex ./examples/example.pod
	@if [ -x $(BUILD)/qsnview ]; then $(BUILD)/qsnview examples/example.qsn examples/example.png; fi
	@ls -l examples/example.PODx examples/example.qsn $$([ -f examples/example.png ] && echo examples/example.png)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# The Debian package korvex_<version>_<arch>.deb of the tools and the CMake package, in $(BUILD).
package: build
	cd $(BUILD) && cpack -G DEB
	@ls -l $(BUILD)/korvex_*.deb

$(ASAN_BUILD)/CMakeCache.txt: | deps
	cmake -S . -B $(ASAN_BUILD) -G "$(GENERATOR)" -DCMAKE_BUILD_TYPE=Debug -DKORVEX_SANITIZE=ON -DKORVEX_BENCH=OFF

asan: deps $(ASAN_BUILD)/CMakeCache.txt
	$(call reconfigure-for-deps,$(ASAN_BUILD))
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j $(JOBS)

# The Google Benchmarks, then the whole pipeline on large generated scenes (bench/pipeline.sh;
# minutes, not part of `make test` or CI).
bench: build
	@for b in $(BUILD)/bench_*; do [ -x "$$b" ] && echo "== $$b" && "$$b" || true; done
	bench/pipeline.sh $(BUILD)

$(FUZZ_BUILD)/CMakeCache.txt:
	CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -G "$(GENERATOR)" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKORVEX_FUZZ=ON

fuzz: $(FUZZ_BUILD)/CMakeCache.txt
	cmake --build $(FUZZ_BUILD) -j $(JOBS)

# Runs every fuzz target for FUZZ_SECONDS on its corpus (starting from the seeds in fuzz/corpus/NAME).
# The targets' own output is closed (-close_fd_mask=3); libFuzzer and the sanitizers still report.
fuzz-run: fuzz
	@set -e; for src in fuzz/fuzz_*.cpp; do \
	  name=$$(basename $$src .cpp); \
	  mkdir -p $(FUZZ_BUILD)/corpus/$$name; \
	  [ -d fuzz/corpus/$$name ] && cp -n fuzz/corpus/$$name/* $(FUZZ_BUILD)/corpus/$$name/ 2>/dev/null || true; \
	  echo "== $$name for $(FUZZ_SECONDS) s"; \
	  $(FUZZ_BUILD)/$$name -max_total_time=$(FUZZ_SECONDS) -rss_limit_mb=2048 -timeout=10 \
	    -print_final_stats=1 -close_fd_mask=3 $(FUZZ_BUILD)/corpus/$$name; \
	done

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD)
