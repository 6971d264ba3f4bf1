#include "FdOutput.h"

#include <unistd.h>

#include <cerrno>

namespace kivctl {

FdOutput::FdOutput(android::base::unique_fd fd) : mFd(std::move(fd)) {
    setp(mBuffer.data(), mBuffer.data() + mBuffer.size());
}

FdOutput::~FdOutput() {
    flushBuffer();
}

bool FdOutput::flushBuffer() {
    const char* at = pbase();
    while (at < pptr()) {
        const ssize_t n = TEMP_FAILURE_RETRY(write(mFd.get(), at, pptr() - at));
        if (n <= 0) {
            // What the descriptor refuses is let go; nothing blocks on it.
            setp(mBuffer.data(), mBuffer.data() + mBuffer.size());
            return false;
        }
        at += n;
    }
    setp(mBuffer.data(), mBuffer.data() + mBuffer.size());
    return true;
}

FdOutput::int_type FdOutput::overflow(int_type c) {
    if (!flushBuffer()) return traits_type::eof();
    if (!traits_type::eq_int_type(c, traits_type::eof())) {
        *pptr() = traits_type::to_char_type(c);
        pbump(1);
    }
    return traits_type::not_eof(c);
}

int FdOutput::sync() {
    return flushBuffer() ? 0 : -1;
}

}  // namespace kivctl
