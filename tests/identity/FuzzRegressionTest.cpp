#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "fuzz/Targets.h"

namespace velmora::testing {
namespace {

namespace fs = std::filesystem;

// Every seed and every input a fuzzer once crashed on goes through its target again; the targets abort on a
// broken invariant and the sanitizer builds catch memory errors.
TEST(FuzzRegressionTest, SeedsAndFormerFindingsAllPassTheirTargets) {
    std::size_t replayed = 0;
    for (const char* set : {"corpus", "regressions"}) {
        for (const auto& targetDirectory : fs::directory_iterator(fs::path(VELMORA_FUZZ_DIR) / set)) {
            const auto target = fuzz::targetNamed(targetDirectory.path().filename().string());
            ASSERT_NE(target, nullptr) << "no fuzz target for " << targetDirectory.path();
            for (const auto& input : fs::directory_iterator(targetDirectory.path())) {
                if (input.path().filename().string().starts_with(".")) {
                    continue;
                }
                std::ifstream in(input.path(), std::ios::binary);
                const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
                target(bytes.data(), bytes.size());
                ++replayed;
            }
        }
    }
    EXPECT_GE(replayed, 22u) << "the seed corpora went missing";
}

}  // namespace
}  // namespace velmora::testing
