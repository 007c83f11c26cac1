# Tarvex: the two commands of the quick start, and the rest.
#
#   make demo     set up, build optimised, run dirclasp end to end
#   make test     set up, build with ASan+UBSan, run the whole test suite (CI)
#   make bench    optimised build, run every benchmark
#   make fuzz     build the libFuzzer targets with clang, run each briefly
#   make tsan     build with ThreadSanitizer, run the test suite
#   make format   clang-format every source
#   make install  install library, headers, dirclasp, man page (PREFIX=/usr/local)

JOBS         ?= $(shell nproc)
PREFIX       ?= /usr/local
FUZZ_SECONDS ?= 10
GENERATOR    := -G Ninja
RELEASE_DIR  := build/release
ASAN_DIR     := build/asan
TSAN_DIR     := build/tsan
FUZZ_DIR     := build/fuzz

CMAKE_CONFIGURE = cmake -S . $(GENERATOR) -Wno-dev --log-level=WARNING

.PHONY: all deps configure-release release demo test bench fuzz tsan format install clean

all: release

deps:
	@tools/install-deps

configure-release: deps
	@$(CMAKE_CONFIGURE) -B $(RELEASE_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	    -DTARVEX_JEMALLOC=ON -DCMAKE_INSTALL_PREFIX=$(PREFIX)

release: configure-release
	@cmake --build $(RELEASE_DIR) -j $(JOBS)

# Only what the demo runs: the library and the tool.
demo: configure-release
	@cmake --build $(RELEASE_DIR) -j $(JOBS) --target dirclasp
	@tools/demo $(RELEASE_DIR)/dirclasp

test: deps
	@$(CMAKE_CONFIGURE) -B $(ASAN_DIR) -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1" \
	    -DTARVEX_SANITIZE=address,undefined -DTARVEX_WERROR=ON -DTARVEX_BENCH=OFF
	@cmake --build $(ASAN_DIR) -j $(JOBS)
	@cd $(ASAN_DIR) && ctest --output-on-failure -j $(JOBS)

tsan: deps
	@$(CMAKE_CONFIGURE) -B $(TSAN_DIR) -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1" \
	    -DTARVEX_SANITIZE=thread -DTARVEX_BENCH=OFF
	@cmake --build $(TSAN_DIR) -j $(JOBS)
	@cd $(TSAN_DIR) && TSAN_OPTIONS="suppressions=$(CURDIR)/tests/tsan.supp halt_on_error=1" \
	    ctest --output-on-failure -j $(JOBS)

bench: release
	@for b in $(RELEASE_DIR)/bench/bench_*; do echo "== $$b"; $$b || exit 1; done
	@echo "== bench/scripts/dirclasp-vs-dotlockfile"
	@bench/scripts/dirclasp-vs-dotlockfile $(RELEASE_DIR)/dirclasp

fuzz: deps
	@$(CMAKE_CONFIGURE) -B $(FUZZ_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DTARVEX_FUZZ=ON
	@cmake --build $(FUZZ_DIR) -j $(JOBS)
	@tools/run-fuzzers $(FUZZ_DIR)/fuzz $(FUZZ_SECONDS)

format:
	@git ls-files '*.h' '*.cpp' | xargs clang-format -i

install: release
	@cmake --install $(RELEASE_DIR) --prefix $(PREFIX)

clean:
	@rm -rf build
