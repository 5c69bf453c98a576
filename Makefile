# make demo    text from a real model through the operators        make build     environment and package
# make test    all tests                                           make scalar    kernel tests, one strand per work-item
# make bench   every operator against what one would use instead   make sanitize  all tests under ASan and UBSan
# make format  clang-format on all sources                         make clean     removes builds, keeps .venv
# make sanitize-threads   tests of launches under ThreadSanitizer   make check    syntax check with the other compiler
# make wheel   a wheel for any x86-64 with AVX2, in dist/          make levels    the loader of such a wheel, for its tests
#
# MARCH=x86-64-v3 builds for that instruction set instead of this machine's; ARGS="..." is passed on to pytest or bench.
# CXX=clang++ builds with that compiler (make clean first if another one has built here); CHECK_CXX names the
# one that checks.

SHELL := /bin/bash
PYTHON := .venv/bin/python
export PATH := $(CURDIR)/.venv/bin:$(PATH)
PROMPT ?= What is photosynthesis?
# Two processes whatever the machine: each test runs kernels on two threads, and some need gigabytes.
ALL_TESTS = -n 2 --dist loadfile

CPP := $(shell find . \( -name .git -o -name .venv -o -name build -o -name tests \) -prune -o \
         \( -name '*.cpp' -o -name '*.h' -o -name '*.hpp' \) -print)
PACKAGE := $(CPP) $(wildcard orrery/*.py orrery/quantizers/*.py orrery/data/* host/orrery_host/*.py \
             */py.typed */*/py.typed orrery_ops-stubs/* cmake/* host/levels/*) \
             CMakeLists.txt host/CMakeLists.txt module/exports.map pyproject.toml LICENSE
NATIVE_TESTS := $(wildcard tests/native/*.cpp tests/native/*.h)
KERNEL_TESTS = $(addprefix tests/,test_linear_xpu_kernel.py test_row_pairs.py test_super_block.py test_grid.py \
                 test_q8_1.py test_linear_dense.py test_dequantize.py test_batch_forward.py test_dotgrid.py \
                 test_fused_qkv.py test_fused_mlp.py test_bmm_xpu_kernel.py test_sdp.py test_sdp_causal.py \
                 test_sdp_fp8.py test_kv.py test_norm.py test_rope.py \
                 test_add_norm_fusion.py test_rope_xpu.py test_rwkv.py test_moe.py)

.PHONY: demo test check build wheel levels bench scalar sanitize sanitize-threads format clean
.DELETE_ON_ERROR:

demo: build
	@$(PYTHON) -m orrery generate --format q4_0 --chat --tokens 100 $(ARGS) '$(PROMPT)'

build: build/installed

.venv/installed: requirements.txt tools/setup.sh tools/compilers.sh
	@tools/setup.sh
	@touch $@

build/installed: .venv/installed tools/install.sh $(PACKAGE)
	@tools/install.sh
	@touch $@

# Adds the modules that only the tests import, from the same objects; nothing of the package is compiled twice.
test: build
	$(if $(ARGS),,@tools/check.sh)
	$(if $(ARGS),,@$(MAKE) --no-print-directory levels)
	@cmake --build build/install
	PYTHONPATH=$(CURDIR)/build/install/python $(PYTHON) -m pytest $(or $(ARGS),$(ALL_TESTS))
	$(if $(ARGS),,@$(MAKE) --no-print-directory scalar)

wheel: .venv/installed
	@tools/wheel.sh $(ARGS)

levels: .venv/installed
	@cmake --preset levels
	@cmake --build --preset levels --target orrery_ops orrery_host_C orrery_host_python

check: .venv/installed
	@tools/check.sh

scalar: .venv/installed
	@cmake --preset scalar $(if $(MARCH),-DORRERY_MARCH=$(MARCH))
	@cmake --build --preset scalar --target orrery_ops orrery_host_C orrery_host_python orrery_dispatch orrery_launch
	PYTHONPATH=$(CURDIR)/build/scalar/python $(PYTHON) -m pytest $(or $(ARGS),$(ALL_TESTS) $(KERNEL_TESTS))

sanitize: .venv/installed
	@tools/sanitize.sh asan $(ARGS)

sanitize-threads: .venv/installed
	@tools/sanitize.sh tsan $(ARGS)

bench: build
	@$(PYTHON) -m bench $(ARGS)

format: .venv/installed
	@clang-format -i $(CPP) $(NATIVE_TESTS)

clean:
	rm -rf build
