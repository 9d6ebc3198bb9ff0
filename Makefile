# Thin wrapper over CMake. `make run` builds and converts the bundled example scene;
# `make test` builds and runs every test.
BUILD      ?= build
ASAN_BUILD ?= build-asan
FUZZ_BUILD ?= build-fuzz
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
FUZZ_SECONDS ?= 60
# Ninja when the machine has it, make otherwise.
GENERATOR  ?= $(shell command -v ninja >/dev/null 2>&1 && echo Ninja || echo 'Unix Makefiles')

.PHONY: all build run test asan bench fuzz fuzz-run clean assimp

all: build

# podimport needs the Open Asset Import Library: installed here when missing and run as root
# (Debian); otherwise CMake leaves podimport out. A build configured before the library came is
# configured again.
ASSIMP_HEADER ?= /usr/include/assimp/Importer.hpp
assimp:
	@[ -f $(ASSIMP_HEADER) ] || [ "$$(id -u)" != 0 ] || \
	  { echo "Installing libassimp-dev for podimport"; apt-get update -qq && \
	    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq libassimp-dev >/dev/null; } || \
	  echo "libassimp-dev could not be installed: podimport is left out"
reconfigure-for-assimp = @if [ -f $(ASSIMP_HEADER) ] && \
	  grep -q '^assimp_DIR:PATH=.*NOTFOUND' $(1)/CMakeCache.txt; then cmake -S . -B $(1) >/dev/null; fi

$(BUILD)/CMakeCache.txt: | assimp
	cmake -S . -B $(BUILD) -G "$(GENERATOR)" -DCMAKE_BUILD_TYPE=Release

build: assimp $(BUILD)/CMakeCache.txt
	$(call reconfigure-for-assimp,$(BUILD))
	cmake --build $(BUILD) -j $(JOBS)

run: build
	$(BUILD)/Korvex ./examples/example.pod
	@ls -l examples/example.PODx examples/example.qsn

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

$(ASAN_BUILD)/CMakeCache.txt: | assimp
	cmake -S . -B $(ASAN_BUILD) -G "$(GENERATOR)" -DCMAKE_BUILD_TYPE=Debug -DKORVEX_SANITIZE=ON -DKORVEX_BENCH=OFF

asan: assimp $(ASAN_BUILD)/CMakeCache.txt
	$(call reconfigure-for-assimp,$(ASAN_BUILD))
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
