#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "tests/support/LogCapture.h"
#include "tests/support/Printers.h"
#include "velmora/platform/Environment.h"

namespace velmora::testing {

// Base fixture: fresh data, caches and documents directories under a new temporary folder, installed in the
// platform environment; the platform log and the library's logger (on, at debug) captured in `logs`.
// Done in the constructor, so that stores held as members of derived fixtures already see it.
class LibraryTest : public ::testing::Test {
  protected:
    LibraryTest();
    ~LibraryTest() override;

    // Installs the environment again after a test changed a field of `environment`.
    void reinstallEnvironment();

    std::filesystem::path root;
    platform::Environment environment;
    std::shared_ptr<LogCapture> logs = std::make_shared<LogCapture>();
};

}  // namespace velmora::testing
