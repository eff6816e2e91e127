#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>

#include "velmora/platform/PropertyList.h"

namespace velmora::testing {

// Reads what is committed to a user-defaults file through a connection of its own, as a later launch would.
std::optional<PropertyValue> persistedValue(const std::filesystem::path& file, const std::string& suite,
                                            const std::string& key);
std::size_t persistedRowCount(const std::filesystem::path& file);

// Runs `body` in a forked child and returns its exit status (or 128 + the signal that ended it).
int runInChild(const std::function<void()>& body);

}  // namespace velmora::testing
