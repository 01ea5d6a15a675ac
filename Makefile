# Quick start: 'make run' collects this machine, 'make test' runs every test.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
RUN_DIR    ?= $(BUILD)/run
CONF       ?= examples/quelvane.conf

.PHONY: all deps build build-asan run test test-normal test-asan bench clean

all: build

deps:
	scripts/install-deps

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j $(JOBS)

build-asan: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DQUELVANE_SANITIZE=ON >/dev/null
	cmake --build $(ASAN_BUILD) -j $(JOBS)

# Collects this machine with the example configuration, every dataset, and
# lists the archive it made.
run: build
	rm -rf $(RUN_DIR) && mkdir -p $(RUN_DIR)/home
	QUELVANE_HOME=$(CURDIR)/$(RUN_DIR)/home $(BUILD)/quelvane -v -L A \
	    -f $(CONF) -a collection.zip -o $(RUN_DIR)/collection.zip
	unzip -l $(RUN_DIR)/collection.zip

test: test-normal test-asan

test-normal: build
	cd $(BUILD) && ctest -j $(JOBS) --output-on-failure

test-asan: build-asan
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 ctest -j $(JOBS) --output-on-failure

bench: build
	bench/run-bench $(BUILD)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
