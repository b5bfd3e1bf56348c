# One command for each thing a newcomer wants. Missing Debian packages (packages.txt) are installed first.
PRESET ?= release
SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: packages build demo test bench install package package-test clean

packages:
	@missing=""; for package in $$(cat packages.txt) $(EXTRA_PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$package 2>/dev/null | grep -q 'install ok installed' || missing="$$missing $$package"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  $(SUDO) apt-get update -qq && DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq $$missing; \
	fi

build: packages
	cmake --preset $(PRESET)
	cmake --build --preset $(PRESET)

demo: build
	build/$(PRESET)/zephlore render scenes/courtyard --output build/demo.hdr --progress --quiet
	build/$(PRESET)/zephlore view build/demo.hdr demo.png
	@echo "the picture is demo.png"

test: build
	ctest --preset $(PRESET) -j 2

bench: build
	build/$(PRESET)/zp_bench

# Into PREFIX, by default /usr/local; DESTDIR is put before it.
PREFIX ?= /usr/local
install: build
	cmake --install build/$(PRESET) --prefix $(PREFIX)

# Debian packages. A build of its own, since they belong into /usr and the library into its folder for the processor.
package: packages
	cmake --preset release -B build/deb -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_SKIP_INSTALL_RPATH=ON \
	  -DZP_TESTS=OFF -DZP_BENCH=OFF
	cmake --build build/deb
	rm -rf build/package
	cd build/deb && cpack
	rm -rf build/package/_CPack_Packages
	@ls -sh1 $(CURDIR)/build/package/*.deb

# Installs the packages into a fresh Debian below TMPDIR, renders there, and builds and runs the examples.
package-test: EXTRA_PACKAGES := debootstrap
package-test: package
	$(SUDO) scripts/package-test.sh build/package

clean:
	rm -rf build demo.png
