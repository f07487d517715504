# Front door. `make run` and `make test` install what they need (Debian 12, apt-get), build and
# run; nothing has to be installed by hand.
.PHONY: run test test-release test-asan test-tsan build deps bench clean

JOBS ?= 2

deps:
	bash scripts/install-deps.sh

build: deps
	cmake --preset release
	cmake --build --preset release -j$(JOBS)

# Checksums a small built-in sample with every algorithm (builds the library and the tool only).
run: deps
	cmake --preset release
	cmake --build --preset release -j$(JOBS) --target corvane-checksum
	./build/release/tools/corvane-checksum

test-release: build
	ctest --preset release -j$(JOBS)

test-asan: deps
	cmake --preset asan
	cmake --build --preset asan -j$(JOBS)
	ctest --preset asan -j$(JOBS)

test-tsan: deps
	cmake --preset tsan
	cmake --build --preset tsan -j$(JOBS) --target corvane_concurrency_tests corvane-checksum
	ctest --preset tsan -j$(JOBS)

# libFuzzer targets under clang with ASan+UBSan (the library's objects instrumented too; the tests,
# benchmarks and the tool are not built here), each run for 30 s on a copy of its seed corpus.
.PHONY: test-fuzz
test-fuzz: deps
	cmake -S . -B build/fuzz -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DCORVANE_BUILD_FUZZ=ON \
	  -DCORVANE_BUILD_TESTS=OFF -DCORVANE_BUILD_BENCH=OFF -DCORVANE_BUILD_TOOLS=OFF
	cmake --build build/fuzz -j$(JOBS) --target corvane_fuzzers
	bash scripts/run-fuzzers.sh 30

# Release suite, then the whole suite under ASan+UBSan, then the concurrency suite under TSan,
# then the fuzzers.
test: test-release test-asan test-tsan test-fuzz

bench: build
	bash bench/compare.sh

# corvane-checksum against sha256sum, md5sum, sha1sum, sha512sum, xxhsum and rhash on a big file
# and a tree of files (bench/cli-compare.sh; builds the library and the tool only).
.PHONY: bench-cli
bench-cli: deps
	cmake --preset release
	cmake --build --preset release -j$(JOBS) --target corvane-checksum
	bash bench/cli-compare.sh

clean:
	rm -rf build
