// The part of SYCL 2020 that the operators use, for CPU threads. Names and behaviour are those of the standard;
// extensions are in sycl::ext::orrery (see ext.hpp). A queue runs a kernel inside submit, in order.
#pragma once

// SYCL_LANGUAGE_VERSION stays undefined: c10::Half would take it for a compiler with a sycl::half to convert to.
// ORRERY_PLAIN_SYCL leaves out the next macro, so that sources compile as with any other SYCL implementation.
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
