# The commands of the house. Each one installs what it needs (on Debian 12), builds and runs.

PRESET ?= release
BUILD := build/$(PRESET)

.PHONY: all privacy test test-armhf test-armel test-arm64 build-armhf size size-armel size-arm64 \
        package package-armhf test-package abi-check abi-update test-browser demo records \
        lint lint-deep reference bench bench-smoke bench-build bench-fleet bench-reading fleet-demo \
        fleet-faults contract fuzz fuzz-long fuzz-build faults kills mutate soak clean

# What a build of the preset is asked for; the tests need it all, the demo does not.
DEMO := usage_stat_collector usage_stat_inspector usage_stat_sample reading_session send_event

all:
	scripts/setup build
	cmake --preset $(PRESET)
	cmake --build $(BUILD)

test:
	@scripts/announce "make test" $(BUILD) 60
	@$(MAKE) --no-print-directory all
	scripts/test $(PRESET)

# The same tests on emulated 32-bit ARM, a device build, and ARM and workstation side by side.
test-armhf: build-armhf
	cmake --preset release
	cmake --build --preset release --target usage_stat_collector
	scripts/test-device
	scripts/test armhf

build-armhf:
	scripts/setup build armhf
	scripts/sysroot armhf
	cmake --preset armhf
	cmake --build --preset armhf

# The library and its tests on other emulated processors than the device's.
test-armel test-arm64: test-%:
	scripts/setup build cross
	scripts/sysroot $*
	cmake --preset $*
	cmake --build --preset $*
	scripts/test $*

# What the library costs a device, and whether that is within its ceilings; size-armel and size-arm64
# say it for those.
size:
	scripts/setup build armhf
	scripts/sysroot armhf
	cmake --preset release
	cmake --build --preset release --target usage_stat
	cmake --preset armhf
	cmake --build --preset armhf --target usage_stat
	bench/size --check

size-armel size-arm64: size-%:
	scripts/setup build cross
	scripts/sysroot $*
	cmake --preset $*
	cmake --build --preset $* --target usage_stat
	bench/size --check $*

# Debian packages, in build/packages.
package:
	scripts/setup build package
	packaging/build build/packages

# The same for the device's processor, in build/packages-armhf.
package-armhf:
	scripts/setup build package armhf
	scripts/sysroot armhf
	packaging/build build/packages-armhf armhf

# They are made alike twice, have no fault that Debian's checks know, install, work and go away.
test-package: package
	packaging/reproduce build/packages
	packaging/check build/packages
	packaging/test build/packages

# Clang-tidy, over what has changed since it passed; deep, its analyzer takes twice the time.
lint lint-deep: lint%:
	scripts/setup build check
	cmake --preset asan
	scripts/check-tidy build/asan $(subst -,--,$*)

# The public header as pages, in build/reference/html.
reference:
	scripts/setup reference
	scripts/reference build/reference

abi-check abi-update: abi-%:
	scripts/setup build package
	cmake --preset abi
	cmake --build --preset abi
	scripts/abi $* build/abi

# The report in a real browser.
test-browser: all
	scripts/setup browser
	scripts/browser-test $(BUILD)

demo:
	@scripts/announce "make demo" $(BUILD) 5 $(DEMO)
	scripts/setup build
	cmake --preset $(PRESET)
	cmake --build $(BUILD) --target $(DEMO)
	examples/demo $(BUILD)

# What calls cost, in tables.
bench: bench-build
	bench/run build/bench

# Shows that the benchmarks run.
bench-smoke: bench-build
	bench/run build/bench --smoke

# What calls may cost at most, by counting.
contract: bench-build
	bench/contract build/bench

# What the fleet's side takes, beside PostgreSQL's own COPY.
bench-fleet: bench-build
	scripts/setup fleet
	bench/fleet build/bench

# What looks at a million records and more take.
bench-reading: bench-build
	bench/reading build/bench

bench-build:
	scripts/setup build bench
	cmake --preset bench
	cmake --build --preset bench

# Every fuzzer for ten seconds, or for ten minutes.
fuzz: fuzz-build
	fuzz/run build/asan 10

fuzz-long: fuzz-build
	fuzz/run build/asan 600

fuzz-build:
	scripts/setup build check
	cmake --preset asan
	cmake --build --preset asan --target fuzzers

# The documentation of the records, from the lists that write them.
records: all
	$(BUILD)/tools/inspector/usage-stat types -o markdown > docs/records.md

# What each field may tell about a person and at which level it leaves, from the same lists and the
# shipped policy.
privacy: all
	sed -i '/<!-- generated -->/q' docs/privacy.md
	$(BUILD)/fleet/uplink/usage-stat-uplink policy fleet/consent/policy.json -o markdown >> docs/privacy.md

# Two minutes of applications and collectors that come and go; descriptors and memory stay flat.
soak: all
	scripts/soak $(BUILD) 120

# What becomes of calls when memory, system calls and the collector fail.
faults: all
	scripts/faults $(BUILD)

# The collector killed at each of its writes, while it archives and while it upgrades.
kills: all
	USAGE_STAT_THOROUGH_TESTS=1 $(BUILD)/tests/faults/collector_kill_test

# Puts faults into a copy of the tree, one by one, and tells which tests see them. Takes a while.
mutate:
	scripts/setup build
	scripts/mutate

# Three devices, a broker and a database.
fleet-demo: all
	scripts/setup fleet
	scripts/fleet-demo $(BUILD)

# A fleet of which everything is killed at random; three minutes.
fleet-faults: all
	scripts/setup fleet
	scripts/fleet-faults $(BUILD)

clean:
	rm -rf build
