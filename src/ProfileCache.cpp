#include "ProfileCache.h"

#include <cstdlib>
#include <limits>

#include "LogWrapper.h"

namespace kiv {

namespace {

// Touched only on the worker thread.
unsigned long sNextToken = 0;

}  // namespace

unsigned long ProfileCache::generateToken() {
    if (sNextToken == std::numeric_limits<unsigned long>::max()) {
        KLOG(Fatal, "ProfileCache: token counter exhausted");
        abort();
    }
    return sNextToken++;
}

}  // namespace kiv
