# Every command of this checkout. Each installs what it needs first (packages.txt) and may be run again at any time.

PRESET ?= release
JOBS ?= $(shell nproc)
export CTEST_OUTPUT_ON_FAILURE = 1

.PHONY: build test demo asan tsan lint packages install clean

build: packages
	cmake --preset $(PRESET)
	cmake --build --preset $(PRESET) --parallel $(JOBS)

test: build
	ctest --preset $(PRESET)

asan tsan: packages
	$(MAKE) --no-print-directory test PRESET=$@

lint: build
	packaging/lint.sh

demo: build
	lab/demo.sh

install: build
	DESTDIR="$(DESTDIR)" cmake --install build $(if $(PREFIX),--prefix "$(PREFIX)")

packages:
	@packaging/install-packages.sh packages.txt

clean:
	rm -rf build
