# Quick start: 'make run' collects this machine, 'make test' runs every test.
BUILD      ?= build
ASAN_BUILD ?= build-asan
FUZZ_BUILD ?= build-fuzz
COVERAGE_BUILD ?= build-coverage
FUZZ_SECONDS ?= 300
FUZZ_TEST_SECONDS ?= 20
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
RUN_DIR    ?= $(BUILD)/run
CONF       ?= examples/quelvane.conf

# name:Debian architecture:triplet of each cross target
CROSS_TARGETS ?= aarch64:arm64:aarch64-linux-gnu armhf:armhf:arm-linux-gnueabihf s390x:s390x:s390x-linux-gnu

.PHONY: all deps deps-test build build-asan build-fuzz cross package run test test-normal test-asan test-fuzz test-cross test-package test-fleet fuzz bench coverage clean

all: build

deps:
	scripts/install-deps

deps-test:
	scripts/install-deps --test

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j $(JOBS)

build-asan: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DQUELVANE_SANITIZE=ON >/dev/null
	cmake --build $(ASAN_BUILD) -j $(JOBS)

build-fuzz: deps-test
	cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ -DQUELVANE_FUZZ=ON >/dev/null
	cmake --build $(FUZZ_BUILD) -j $(JOBS)

# build-<name>/quelvane for every cross target, with its tests.
cross: deps-test
	@set -e; for target in $(CROSS_TARGETS); do \
	    set -- $$(echo $$target | tr : ' '); \
	    scripts/cross-sysroot $$2 $$3; \
	    cmake -S . -B build-$$1 -DCMAKE_TOOLCHAIN_FILE=cmake/$$3.cmake -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null; \
	    cmake --build build-$$1 -j $(JOBS); \
	done

# Debian packages: build/quelvane_*_amd64.deb and the arm64 and armhf ones.
package: build cross
	cd $(BUILD) && cpack -G DEB >/dev/null
	cd build-aarch64 && cpack -G DEB >/dev/null
	cd build-armhf && cpack -G DEB >/dev/null
	ls $(BUILD)/*.deb build-aarch64/*.deb build-armhf/*.deb

test-package: package
	tests/package/test-package $(BUILD)/*.deb build-aarch64/*.deb build-armhf/*.deb

# The whole suite of every cross target under its emulator, the three side by
# side (their tests wait more than they compute), one test at a time each, so
# that the emulated timings stay near real ones; each log follows in turn.
test-cross: cross
	@set -e; pids=""; for target in $(CROSS_TARGETS); do \
	    name=$${target%%:*}; \
	    (cd build-$$name && ctest --output-on-failure > ctest.log 2>&1) & pids="$$pids $$!:$$name"; \
	done; failed=""; for p in $$pids; do \
	    wait $${p%%:*} || failed="$$failed $${p#*:}"; echo "== $${p#*:}"; cat build-$${p#*:}/ctest.log; \
	done; [ -z "$$failed" ] || { echo "test-cross: failed:$$failed"; exit 1; }

# The fleet playbook over sshd instances on loopback ports.
test-fleet: deps-test build
	tests/fleet/test-fleet $(BUILD)

# Collects this machine with the example configuration, every dataset, and
# lists the archive it made.
run: build
	rm -rf $(RUN_DIR) && mkdir -p $(RUN_DIR)/home
	QUELVANE_HOME=$(CURDIR)/$(RUN_DIR)/home $(BUILD)/quelvane -v -L A \
	    -f $(CONF) -a collection.zip -o $(RUN_DIR)/collection.zip
	unzip -l $(RUN_DIR)/collection.zip

test: test-normal test-asan test-fuzz test-cross test-package test-fleet

test-normal: deps-test build
	cd $(BUILD) && ctest -j $(JOBS) --output-on-failure

test-asan: deps-test build-asan
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 ctest -j $(JOBS) --output-on-failure

# Both harnesses side by side, each for $(1) seconds; new inputs go to the build
# directory, never into the seed corpus.
run-fuzzers = mkdir -p $(FUZZ_BUILD)/found-config $(FUZZ_BUILD)/found-options && \
	( $(FUZZ_BUILD)/fuzz_config -max_total_time=$(1) -close_fd_mask=3 -artifact_prefix=$(FUZZ_BUILD)/ -dict=fuzz/config.dict \
	    $(FUZZ_BUILD)/found-config fuzz/corpus/config & \
	  $(FUZZ_BUILD)/fuzz_options -max_total_time=$(1) -close_fd_mask=3 -artifact_prefix=$(FUZZ_BUILD)/ -dict=fuzz/options.dict \
	    $(FUZZ_BUILD)/found-options fuzz/corpus/options; s=$$?; wait $$! && exit $$s )

test-fuzz: build-fuzz
	$(call run-fuzzers,$(FUZZ_TEST_SECONDS))

fuzz: build-fuzz
	$(call run-fuzzers,$(FUZZ_SECONDS))

bench: deps-test build
	bench/run-bench $(BUILD)

# Line coverage of src/ by the whole native suite. A test that runs the tool
# under a file-size limit fails here only because the instrumentation
# cannot write its counts; the report is what counts.
coverage: deps-test
	cmake -S . -B $(COVERAGE_BUILD) -DCMAKE_BUILD_TYPE=Debug -DQUELVANE_COVERAGE=ON >/dev/null
	cmake --build $(COVERAGE_BUILD) -j $(JOBS)
	find $(COVERAGE_BUILD) -name '*.gcda' -delete
	cd $(COVERAGE_BUILD) && ctest -j $(JOBS) > ctest.log 2>&1 || grep -A30 'tests passed' ctest.log
	gcovr -r . --filter src/ $(COVERAGE_BUILD)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD) $(COVERAGE_BUILD) build-aarch64 build-armhf build-s390x
