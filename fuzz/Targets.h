#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace velmora::fuzz {

// Each target feeds one input to a decoder of untrusted bytes and checks what must hold for every input;
// a violation aborts. Shared by the libFuzzer entry points and the regression test that replays the corpora.
void identityDecoder(const std::uint8_t* data, std::size_t size);
void keyedArchive(const std::uint8_t* data, std::size_t size);
void accessAnswer(const std::uint8_t* data, std::size_t size);
void userAnswers(const std::uint8_t* data, std::size_t size);
void settingsViews(const std::uint8_t* data, std::size_t size);

// The target of a corpus directory name ("identity_decoder", "keyed_archive"); null for any other.
using Target = void (*)(const std::uint8_t*, std::size_t);
Target targetNamed(std::string_view name);

}  // namespace velmora::fuzz
