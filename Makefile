# SPDX-License-Identifier: MIT
# Every command of this checkout. Each installs what it needs first (packages.txt) and may be run again at any time.

PRESET ?= release
JOBS ?= $(shell nproc)
FUZZ_SECONDS ?= 60
export CTEST_OUTPUT_ON_FAILURE = 1

.PHONY: build test demo screenshots bench faults lab systems asan tsan lint fuzz packages install uninstall deb clean

# Installs the packages for these purposes, and builds the product and whatever else is asked for.
# $(call made,PURPOSE...[,OPTION...][,TARGET...])
define made
@packaging/install-packages.sh $(1)
cmake --preset $(PRESET) $(2)
cmake --build --preset $(PRESET) --parallel $(JOBS) --target product $(3)
endef

build:
	$(call made,build)

test:
	$(call made,build run test,-DBUILD_TESTING=ON,all)
	ctest --preset $(PRESET)

# Every test, and the main job in the lab; without systemd, whose limits for the helper the sanitizers cannot live with.
asan tsan:
	lab/demo.sh check
	@packaging/install-packages.sh build run test demo
	$(MAKE) --no-print-directory test PRESET=$@
	BUILD=build/$@ INIT=none lab/demo.sh

# Builds everything that there is, and reads the fuzzers as clang compiles them.
lint:
	$(call made,build run test bench fuzz lint,-DBUILD_TESTING=ON -DCORVALE_BENCH=ON,all)
	packaging/lint.sh

# Each fuzzer for FUZZ_SECONDS. What it finds stays in build/fuzzers/NAME-*.
fuzz:
	@packaging/install-packages.sh build fuzz
	cmake --preset fuzz
	cmake --build --preset fuzz --parallel $(JOBS)
	packaging/fuzz.sh build/fuzzers $(FUZZ_SECONDS)

# Asks first: whoever cannot have the lab need not wait for the build to hear it.
demo:
	lab/demo.sh check
	$(call made,build run demo)
	lab/demo.sh

# The pages of docs/, out of what the lab's screen shows. Fails when a colour in them is not the fixed one.
screenshots:
	lab/demo.sh check
	$(call made,build run demo lab)
	lab/demo.sh pictures
	cp build/demo/docs/*.png docs/

# Every figure that has a budget, some of them in the lab; fails when one is over it. Also in build/bench.json.
bench:
	lab/demo.sh check
	$(call made,build run demo bench,-DCORVALE_BENCH=ON,all)
	bench/figures.py

# Each part killed, stopped and restarted in each phase of a connection, what may stand in the way, and what
# the log says when a step fails; with systemd as the machine's first process, and without it.
faults:
	lab/demo.sh check
	$(call made,build run demo lab)
	lab/all.sh faults obstacles steps

# Every scenario of the lab, those of `make faults` included.
lab:
	lab/demo.sh check
	$(call made,build run demo lab package)
	lab/all.sh

# The package on Debian 12, 13 and testing, each booted with its own systemd, and the sources on Debian 13.
systems:
	@packaging/install-packages.sh demo lab systems
	$(MAKE) --no-print-directory deb
	lab/systems.sh

# The running system hears of it at once; any other place is only filled.
to_the_system = $(if $(patsubst %/,%,$(DESTDIR))$(filter-out /usr,$(patsubst %/,%,$(PREFIX))),,$(1))

install:
	$(call made,build run)
	umask 022; DESTDIR="$(DESTDIR)" cmake --install build $(if $(PREFIX),--prefix "$(PREFIX)")
	$(call to_the_system,packaging/debian/postinst configure)

uninstall:
	$(call made,build)
	$(call to_the_system,packaging/debian/prerm remove)
	DESTDIR="$(DESTDIR)" packaging/uninstall.sh build $(if $(PREFIX),--prefix "$(PREFIX)")
	$(call to_the_system,packaging/debian/postrm remove)

# build/corvale_VERSION_ARCHITECTURE.deb, and what lintian thinks of it.
deb:
	$(call made,build package)
	packaging/make-deb.sh build

packages:
	@packaging/install-packages.sh

clean:
	rm -rf build
