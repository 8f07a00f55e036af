# The commands of the project. Each sets up what it needs, packages included, and then does its
# job; the building itself is CMake's (see CMakePresets.json).

BUILD := build
NEED := scripts/setup

.PHONY: all run demo test bench flood reach fuzz mips coverage mutants install lint format clean help

all: ## build the daemon and its front ends, optimised
	@$(NEED) build
	@cmake --preset release >/dev/null
	@cmake --build $(BUILD)

run: all ## the daemon in the foreground
	$(BUILD)/bin/cpuDefend $(ARGS)

demo: all ## hold a real flood, in network name spaces made for it (needs root)
	@$(NEED) demo
	@scripts/demo $(BUILD)/bin

test: ## everything that can be checked on this machine
	@$(NEED) test
	@scripts/test

bench: ## speed, memory, size
	@$(NEED) bench
	@scripts/bench

flood: ## the flood tests at full length, 10 s for each rate
	@$(NEED) test
	@cmake --preset test >/dev/null
	@cmake --build $(BUILD) >/dev/null
	@cd $(BUILD) && CPUDEFEND_FLOOD_FULL=1 ctest -L flood --output-on-failure

reach: ## does anything get around a policy: 1,000,000 frames of the seed SEED (1) (needs root)
	@$(NEED) test
	@cmake --preset test >/dev/null
	@cmake --build $(BUILD) --target linux_reach_test >/dev/null
	@cd $(BUILD) && CPUDEFEND_REACH_FULL=1 CPUDEFEND_REACH_SEED=$(or $(SEED),1) ctest -L reach --output-on-failure

fuzz: ## fuzz each target for FUZZ_SECONDS (60) seconds
	@$(NEED) fuzz
	@scripts/fuzz $(or $(FUZZ_SECONDS),60)

mips: ## cross-build for 32-bit big-endian MIPS, test under user-mode emulation
	@$(NEED) test
	@scripts/test mips

coverage: ## line and branch coverage of the core
	@$(NEED) coverage
	@scripts/coverage

mutants: ## does a test notice what is broken on purpose? N of all mutations, drawn with SEED
	@$(NEED) test
	@scripts/mutants $(if $(N),-n $(N)) $(if $(SEED),-s $(SEED))

install: all ## install below DESTDIR and PREFIX (/usr/local)
	cmake --install $(BUILD) --prefix $(or $(PREFIX),/usr/local)

lint: ## formatting and static checks
	@$(NEED) lint
	@scripts/lint

format: ## bring all sources into the project's format
	@git ls-files '*.h' '*.cpp' '*.c' | xargs clang-format -i

clean: ## remove everything that was built
	rm -rf $(BUILD)

help: ## this list
	@sed -n 's/^\([a-z]*\):.*## /\1\t/p' $(MAKEFILE_LIST) | sort | expand -t 10
