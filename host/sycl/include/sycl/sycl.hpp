// The part of SYCL 2020 that the operators use, for CPU threads. Names and behaviour are those of the standard; what
// the standard lacks stands in sycl::ext::orrery (see ext.hpp). A queue runs a kernel inside submit, in order.
#pragma once

// SYCL_LANGUAGE_VERSION stays undefined: c10::Half takes it for a compiler whose own sycl::half it may convert to.
// ORRERY_PLAIN_SYCL leaves the macro out: sources then take the ways that they take with any other implementation.
#ifndef ORRERY_PLAIN_SYCL
#define SYCL_EXT_ORRERY_HOST 1
#endif

#include "exception.hpp"
#include "half.hpp"
#include "handler.hpp"
#include "local_accessor.hpp"
#include "math.hpp"
#include "native.hpp"
#include "nd_item.hpp"
#include "queue.hpp"
#include "range.hpp"
#include "stream.hpp"
