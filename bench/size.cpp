// What the library adds to a host's download, against libcurl: the text of each shared library as size(1)
// counts it (every allocated section that is code or read-only: code, constants, the dynamic symbol and
// relocation tables, unwind tables), and its .text section (the code) alone. Both are read from the ELF
// section headers; stripping removes none of these sections, so they are the stripped libraries' figures.
//
// Usage: bench_size [LIBRARY [LIBCURL]]   (default: this build's libvelmora_core and the system's libcurl)
#include <elf.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "bench/BenchSupport.h"

namespace {

struct TextSizes {
    std::uint64_t text = 0;         // as size(1) counts it
    std::uint64_t textSection = 0;  // .text alone
};

// The sizes of a 64-bit ELF shared library, or why there are none.
std::optional<TextSizes> readTextSizes(const std::filesystem::path& file, std::string& error) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        error = "cannot be read";
        return std::nullopt;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    Elf64_Ehdr header;
    if (bytes.size() < sizeof header) {
        error = "is not an ELF file";
        return std::nullopt;
    }
    std::memcpy(&header, bytes.data(), sizeof header);
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64) {
        error = "is not a 64-bit ELF file";
        return std::nullopt;
    }
    if (header.e_type != ET_DYN) {
        error = "is not a shared library (the benchmark needs a build with BUILD_SHARED_LIBS=ON)";
        return std::nullopt;
    }
    if (header.e_shoff == 0 || std::size_t{header.e_shentsize} != sizeof(Elf64_Shdr)) {
        error = "has no section headers";
        return std::nullopt;
    }
    const auto sectionAt = [&](std::uint64_t index) -> std::optional<Elf64_Shdr> {
        const std::uint64_t offset = header.e_shoff + index * sizeof(Elf64_Shdr);
        if (offset > bytes.size() || bytes.size() - offset < sizeof(Elf64_Shdr)) {
            return std::nullopt;
        }
        Elf64_Shdr section;
        std::memcpy(&section, bytes.data() + offset, sizeof section);
        return section;
    };

    // With too many sections for the header's fields, the count and the names' index are in section 0.
    std::uint64_t count = header.e_shnum;
    std::uint64_t namesIndex = header.e_shstrndx;
    if (count == 0 || namesIndex == SHN_XINDEX) {
        const auto first = sectionAt(0);
        if (!first) {
            error = "has truncated section headers";
            return std::nullopt;
        }
        count = count == 0 ? first->sh_size : count;
        namesIndex = namesIndex == SHN_XINDEX ? first->sh_link : namesIndex;
    }
    const auto names = sectionAt(namesIndex);
    if (!names) {
        error = "has no section names";
        return std::nullopt;
    }

    TextSizes sizes;
    for (std::uint64_t i = 0; i < count; ++i) {
        const auto section = sectionAt(i);
        if (!section) {
            error = "has truncated section headers";
            return std::nullopt;
        }
        if ((section->sh_flags & SHF_ALLOC) == 0) {
            continue;
        }
        if ((section->sh_flags & SHF_EXECINSTR) != 0 || (section->sh_flags & SHF_WRITE) == 0) {
            sizes.text += section->sh_size;
        }
        const std::uint64_t nameOffset = names->sh_offset + section->sh_name;
        if (nameOffset < bytes.size()) {
            const char* name = bytes.data() + nameOffset;
            if (std::string_view(name, ::strnlen(name, bytes.size() - nameOffset)) == ".text") {
                sizes.textSection += section->sh_size;
            }
        }
    }
    return sizes;
}

std::optional<TextSizes> measure(const std::filesystem::path& given) {
    std::error_code failed;
    const std::filesystem::path file = std::filesystem::canonical(given, failed);
    std::string error = "does not exist";
    std::optional<TextSizes> sizes;
    if (!failed) {
        sizes = readTextSizes(file, error);
    }
    if (!sizes) {
        std::fprintf(stderr, "bench size: %s %s\n", given.c_str(), error.c_str());
        return std::nullopt;
    }
    std::printf("  %-30s text %8.3f MB   .text %8.3f MB   %s\n", file.filename().c_str(),
                static_cast<double>(sizes->text) / 1e6, static_cast<double>(sizes->textSection) / 1e6,
                file.c_str());
    return sizes;
}

}  // namespace

int main(int argc, char** argv) {
    const std::filesystem::path library = argc > 1 ? argv[1] : VELMORA_BENCH_LIBRARY;
    const std::filesystem::path libcurl = argc > 2 ? argv[2] : VELMORA_BENCH_LIBCURL;

    std::printf("size: the release shared library against libcurl (stripped figures; MB = 10^6 bytes)\n");
    const auto ours = measure(library);
    const auto theirs = measure(libcurl);
    if (!ours || !theirs || theirs->text == 0 || theirs->textSection == 0) {
        return 1;
    }
    velmora::bench::printRatio("text_vs_libcurl",
                               static_cast<double>(ours->text) / static_cast<double>(theirs->text));
    velmora::bench::printRatio("text_section_vs_libcurl", static_cast<double>(ours->textSection) /
                                                              static_cast<double>(theirs->textSection));
    return 0;
}
