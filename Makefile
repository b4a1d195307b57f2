# The commands of the house. Each one installs what it needs (on Debian 12), builds and runs.

PRESET ?= release
BUILD := build/$(PRESET)

.PHONY: all test test-armhf demo clean

all:
	scripts/setup build
	cmake --preset $(PRESET)
	cmake --build $(BUILD)

test: all
	ctest --preset $(PRESET)

test-armhf:
	scripts/setup build armhf
	scripts/armhf-sysroot
	cmake --preset armhf
	cmake --build --preset armhf
	ctest --preset armhf

demo: all
	examples/demo $(BUILD)

clean:
	rm -rf build
