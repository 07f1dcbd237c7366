# Two commands on a bare Debian machine: `make demo` shows a hang report, `make test` builds and passes the tests.

PREFIX ?= /usr/local
JOBS ?= $(shell nproc)
# How often a test is run: `REPEAT=until-fail:50` looks for one that fails now and then.
REPEAT ?= until-fail:1

SOURCES = $(shell git ls-files '*.h' '*.cpp' '*.c')

.PHONY: all demo test test-asan test-tsan bench fuzz soak format format-check lint install clean

all: build/release/.configured
	cmake --build --preset release -j $(JOBS)

build/%/.configured:
	scripts/setup build
	cmake --preset $* >/dev/null
	@touch $@

# HOST=memory shows the host that takes too much memory instead of the one that hangs.
HOST ?= hang
demo: all
	scripts/demo build/release $(HOST)

test: 
	scripts/setup test
	cmake --preset dev >/dev/null
	cmake --build --preset dev -j $(JOBS)
	ctest --preset dev -j $(JOBS) --repeat $(REPEAT)

# Leaks are not looked for: hosts end in the middle of a report, and some of the tested ones leak on purpose.
test-asan: export ASAN_OPTIONS = detect_leaks=0
test-asan test-tsan: test-%:
	scripts/setup test
	cmake --preset $* >/dev/null
	cmake --build --preset $* -j $(JOBS)
	ctest --preset $* -j $(JOBS) --repeat $(REPEAT)

bench:
	scripts/setup bench
	cmake --preset bench >/dev/null
	cmake --build --preset bench -j $(JOBS)
	scripts/bench build/bench

fuzz:
	scripts/setup fuzz
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz -j $(JOBS)
	scripts/fuzz build/fuzz

# A GTK application under the monitor for SOAK_MINUTES (30): memory, reports, descriptors, exit.
soak: export SOAK_MINUTES ?= 30
soak: all
	scripts/setup test
	scripts/soak build/release

format:
	scripts/setup lint
	@clang-format -i $(SOURCES)

format-check:
	scripts/setup lint
	@clang-format --dry-run --Werror $(SOURCES)

lint: format-check
	scripts/setup test
	cmake --preset dev >/dev/null
	scripts/lint build/dev

install: all
	cmake --install build/release --prefix $(PREFIX)

clean:
	rm -rf build
