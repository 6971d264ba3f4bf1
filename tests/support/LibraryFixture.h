// The library brought up through Manager::init against a fresh simulated
// modem holding a few profiles, with its log captured.
#pragma once

#include <gtest/gtest.h>

#include "CapturingLog.h"
#include "Manager.h"
#include "sim/SimModem.h"

namespace kiv::test {

class LibraryFixture : public testing::Test {
  protected:
    // Seeds profile 1 "internet" (V4V6, DEFAULT) and 2 "ims" (V6, IMS), both
    // persistent and not made by the library, then starts the library and
    // reads the table.
    void SetUp() override;

    static xalsim::SimModem& sim() { return xalsim::SimModem::instance(); }
    static Manager& manager() { return Manager::getInstance(); }

    // Starts (or restarts) the library and waits until it has connected.
    void startLibrary();
    // SetUp() again, for tests that run several cases from scratch.
    void startAfresh() {
        connections = 0;
        SetUp();
    }
    // Waits until the library has registered `count` times in all.
    void waitForConnection(size_t count);
    // Returns once every indication the modem sent has been handled.
    void settle();
    // The library's keys of every cached profile matching the filter.
    std::list<std::shared_ptr<IProfileKey>> find(const FilterProfileParams& filter) {
        return manager().filter(filter);
    }
    std::shared_ptr<IProfileKey> findOne(int profileId, TechType tech = TechType::TECH_3GPP);
    // The cache's entries and the echoes it awaits, as Manager::dump() shows them.
    static std::vector<std::string> cacheLines();
    static std::vector<std::string> pendingLines();
    // The modem's whole table as bytes, for telling whether anything changed.
    static std::string modemTable();

    size_t connections = 0;
    std::unique_ptr<ScopedLogCapture> log;
};

}  // namespace kiv::test
