// An output stream over a descriptor of kivctl's own, so that what kivctl
// prints is its own: the library writes a line of its own to standard output
// when its worker stops (deliberately; its text is fixed), and kivctl gives
// the library's standard output elsewhere.
#pragma once

#include <android-base/unique_fd.h>

#include <array>
#include <streambuf>

namespace kivctl {

class FdOutput : public std::streambuf {
  public:
    explicit FdOutput(android::base::unique_fd fd);
    ~FdOutput() override;
    FdOutput(const FdOutput&) = delete;
    FdOutput& operator=(const FdOutput&) = delete;

  protected:
    int_type overflow(int_type c) override;
    int sync() override;

  private:
    // Writes what is buffered; false when the descriptor refuses it.
    bool flushBuffer();

    android::base::unique_fd mFd;
    std::array<char, 4096> mBuffer;
};

}  // namespace kivctl
