# One command for each thing a newcomer wants. Missing Debian packages (packages.txt) are installed first.
PRESET ?= release
SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

# What packages.txt lists, for everything, or for the program alone.
ALL_PACKAGES := $(shell sed '/^\#/d' packages.txt)
PROGRAM_PACKAGES := $(shell sed '/^\# Beyond/,$$d; /^\#/d' packages.txt)

.PHONY: dependencies build demo test bench docs scenes pictures install packages package-test farm-test blender-addon clean

dependencies:
	@missing=""; for package in $(or $(PACKAGES),$(ALL_PACKAGES)) $(EXTRA_PACKAGES); do \
	  dpkg-query -W -f='$${Status}' $$package 2>/dev/null | grep -q 'install ok installed' || missing="$$missing $$package"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  $(SUDO) apt-get update -qq && DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq $(APT_OPTIONS) $$missing; \
	fi

build: dependencies
	cmake --preset $(PRESET) -DZP_LEAN=OFF
	cmake --build --preset $(PRESET)

# No more than the picture takes: of a build that is there the program, else the program alone.
demo: PACKAGES := $(PROGRAM_PACKAGES)
demo: APT_OPTIONS := --no-install-recommends
demo: dependencies
	test -e build/$(PRESET)/build.ninja || cmake --preset $(PRESET) -DZP_LEAN=ON
	cmake --build --preset $(PRESET) --target zephlore
	build/$(PRESET)/zephlore render scenes/courtyard --output build/demo.hdr --progress --quiet
	build/$(PRESET)/zephlore view build/demo.hdr demo.png
	@echo "the picture is demo.png"

test: build
	ctest --preset $(PRESET) -j 2

bench: build
	build/$(PRESET)/zp_bench

# The manual, as HTML: the pages of docs/, the gallery's scenes, a search, and the interface.
docs: EXTRA_PACKAGES := doxygen python3-sphinx furo python3-myst-parser
docs: dependencies
	cmake --preset $(PRESET)
	cmake --build --preset $(PRESET) --target docs
	@echo "the documentation begins at build/docs/html/index.html"

# The models, pictures and hair of scenes/, made anew by their generators; fails if one differs from what was there.
scenes: dependencies
	scripts/scenes.sh

# The pictures of docs/, PICTURES of them or all; hours on a busy machine. Look at them before they are committed.
pictures: EXTRA_PACKAGES := imagemagick
pictures: build
	PRESET=$(PRESET) scripts/doc-pictures.sh $(PICTURES)

# Into PREFIX, by default /usr/local; DESTDIR is put before it.
PREFIX ?= /usr/local
install: build
	cmake --install build/$(PRESET) --prefix $(PREFIX)

# Debian packages of what git knows, as it stands, in build/packages.
packages: EXTRA_PACKAGES := debhelper dh-python lintian
packages: dependencies
	scripts/packages.sh build/packages

# Installs the packages into a fresh Debian below TMPDIR, renders there, and builds and runs the examples.
package-test: EXTRA_PACKAGES := debootstrap
package-test: packages
	$(SUDO) scripts/package-test.sh build/packages

# Renders on a farm of Slurm's within this machine, kills a node of it, and compares the pictures.
farm-test: EXTRA_PACKAGES := munge slurmctld slurmd slurm-client python3
farm-test: build
	$(SUDO) scripts/farm-test.sh build/$(PRESET)/zephlore scenes/courtyard

# The add-on for Blender, to be installed by its preferences.
blender-addon:
	@mkdir -p build
	@rm -f build/zephlore-blender.zip
	cd blender && cmake -E tar cf ../build/zephlore-blender.zip --format=zip zephlore/*.py
	@echo "the add-on is build/zephlore-blender.zip"

clean:
	rm -rf build demo.png
