# One command for each thing a newcomer wants. Missing Debian packages (packages.txt) are installed first.
PRESET ?= release
SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: packages build demo test bench docs clean

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

# HTML of the interface and of docs/.
docs: EXTRA_PACKAGES := doxygen
docs: packages
	cmake --preset $(PRESET)
	cmake --build --preset $(PRESET) --target docs
	@echo "the documentation begins at build/docs/html/index.html"

clean:
	rm -rf build demo.png
