#include "tests/support/LibraryTest.h"

#include <cstdlib>
#include <string>

#include "velmora/support/CoreLogger.h"

namespace velmora::testing {

void LibraryTest::SetUp() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") + "/velmora-test-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr) << "cannot create a temporary directory";
    root = pattern;

    environment = platform::Environment{};
    environment.applicationDomainName = "velmora-tests";
    environment.dataDirectory = root / "data";
    environment.cachesDirectory = root / "caches";
    environment.documentsDirectory = root / "documents";
    std::filesystem::create_directories(*environment.documentsDirectory);
    reinstallEnvironment();

    LoggerConfig::setLogger(std::make_shared<CapturingLogger>(logs));
    CoreLogger::setLogLevel(LogLevel::debug);
    CoreLogger::setEnabled(true);
}

void LibraryTest::reinstallEnvironment() {
    auto capture = logs;
    environment.logSink = [capture](std::string_view line) { capture->append(std::string(line)); };
    platform::Environment::install(environment);
}

void LibraryTest::TearDown() {
    CoreLogger::setEnabled(false);
    LoggerConfig::setLogger(nullptr);
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
}

}  // namespace velmora::testing
