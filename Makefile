# Front door: each target installs what it needs, configures and builds.
.PHONY: all deps build demo test test-sanitize test-tsan bench fuzz clean

DEMO_ARGS ?= --seconds 10 --fps 30 --out demo-out

all: build

deps:
	@scripts/install-deps

build: deps
	cmake --preset default >/dev/null
	cmake --build --preset default

demo: build
	build/default/tools/qrl-record/qrl-record $(DEMO_ARGS)

test: build
	ctest --preset default

test-sanitize: deps
	cmake --preset asan >/dev/null
	cmake --build --preset asan
	ctest --preset asan

test-tsan: deps
	cmake --preset tsan >/dev/null
	cmake --build --preset tsan
	ctest --preset tsan

bench: deps
	cmake --preset release >/dev/null
	cmake --build --preset release
	scripts/run-benchmarks build/release

fuzz: deps
	scripts/run-fuzz

clean:
	rm -rf build demo-out
