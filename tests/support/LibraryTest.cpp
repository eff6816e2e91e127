#include "tests/support/LibraryTest.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include "velmora/support/CoreLogger.h"

namespace velmora::testing {

LibraryTest::LibraryTest() {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern =
        std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") + "/velmora-test-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) {
        std::perror("LibraryTest: cannot create a temporary directory");
        std::abort();
    }
    root = pattern;

    environment = platform::Environment{};
    environment.applicationDomainName = "velmora-tests";
    environment.dataDirectory = root / "data";
    environment.cachesDirectory = root / "caches";
    environment.documentsDirectory = root / "documents";
    std::filesystem::create_directories(*environment.documentsDirectory);
    reinstallEnvironment();

    CoreLogger::setLogLevel(LogLevel::debug);
    CoreLogger::setEnabled(true);
}

void LibraryTest::reinstallEnvironment() {
    auto capture = logs;
    environment.logSink = [capture](LogLevel level, std::string_view line) {
        capture->append(level, std::string(line));
    };
    platform::Environment::install(environment);
}

LibraryTest::~LibraryTest() {
    CoreLogger::setEnabled(false);
    LoggerConfig::setLogger(nullptr);
    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
}

}  // namespace velmora::testing
