# One command for each thing a newcomer wants. Missing Debian packages (packages.txt) are installed first.
PRESET ?= release
SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: packages build demo test bench docs scenes pictures install package package-test farm-test clean

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

# The manual, as HTML: the pages of docs/, the gallery's scenes, a search, and the interface.
docs: EXTRA_PACKAGES := doxygen python3-sphinx furo python3-myst-parser
docs: packages
	cmake --preset $(PRESET)
	cmake --build --preset $(PRESET) --target docs
	@echo "the documentation begins at build/docs/html/index.html"

# The models, pictures and hair of scenes/, made anew by their generators; fails if one differs from what was there.
scenes: packages
	scripts/scenes.sh

# The pictures of docs/, PICTURES of them or all; hours on a busy machine. Look at them before they are committed.
pictures: EXTRA_PACKAGES := imagemagick
pictures: build
	PRESET=$(PRESET) scripts/doc-pictures.sh $(PICTURES)

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

# Renders on a farm of Slurm's within this machine, kills a node of it, and compares the pictures.
farm-test: EXTRA_PACKAGES := munge slurmctld slurmd slurm-client python3
farm-test: build
	$(SUDO) scripts/farm-test.sh build/$(PRESET)/zephlore scenes/courtyard

clean:
	rm -rf build demo.png
