# The common chores. Everything is built below build/.

.PHONY: all packages release test hostile bench format lint clean

all: release

packages:
	@cmake/install-packages

release: packages
	@cmake --preset release >build/release.log 2>&1 || { cat build/release.log; exit 1; }
	@cmake --build --preset release
release: | build
build:
	@mkdir -p build

test: release
	@ctest --test-dir build/release --output-on-failure --no-tests=error -j "$$(getconf _NPROCESSORS_ONLN)"

# Attacks the built program for so many seconds; the seed that it prints repeats its choices.
SECONDS = 60
hostile: release
	@tests/hostile/run $(SECONDS) $(SEED)

# Benchmarks print figures, they do not pass or fail.
bench: release
	@for program in build/release/bench/*_bench; do echo "== $$program"; "$$program" || exit 1; done

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

lint:
	@cmake/install-packages --ci
	@.ci/check-format && .ci/check-layers && .ci/check-tidy

clean:
	rm -rf build
