#include <workspace_browser/viewmodel/TextAlphabeticalSortComparator.hpp>

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace workspace_browser_startup {

namespace {

// The order compares, position by position, the byte's lower-case form (only A to Z change,
// taken as a signed byte so that 0x80 and above come before ASCII) and then whether the byte
// is upper case. That pair is different for every byte value, so the pairs of two strings first
// differ exactly where their bytes first differ, and the whole comparison reduces to one table
// look-up at the first differing byte. This gives each byte its pair as a single number.
constexpr std::array<std::uint16_t, 256> makeSortKeys() {
    std::array<std::uint16_t, 256> keys{};
    for (int byte = 0; byte < 256; ++byte) {
        const bool upper = byte >= 'A' && byte <= 'Z';
        const int lower = upper ? byte + ('a' - 'A') : byte;
        const int signedLower = lower >= 128 ? lower - 256 : lower;
        keys[static_cast<std::size_t>(byte)] =
            static_cast<std::uint16_t>((signedLower + 128) * 2 + (upper ? 1 : 0));
    }
    return keys;
}

constexpr std::array<std::uint16_t, 256> kSortKeys = makeSortKeys();

// Lower case before upper case, signed bytes, letters between the punctuation around them.
static_assert(kSortKeys['a'] < kSortKeys['A'] && kSortKeys['A'] < kSortKeys['b']);
static_assert(kSortKeys[0xC3] < kSortKeys[0x00] && kSortKeys[0x80] < kSortKeys[0xFF]);
static_assert(kSortKeys['_'] < kSortKeys['a'] && kSortKeys['Z'] < kSortKeys['{']);

std::uint16_t keyOf(char byte) noexcept {
    return kSortKeys[static_cast<unsigned char>(byte)];
}

std::uint64_t load8(const char* p) noexcept {
    std::uint64_t word;
    std::memcpy(&word, p, sizeof word);
    return word;
}

// Index of the lowest-addressed differing byte in two 8-byte words that differ.
std::size_t firstDifferingByte(std::uint64_t x, std::uint64_t y) noexcept {
    const std::uint64_t diff = x ^ y;
    if constexpr (std::endian::native == std::endian::little) {
        return static_cast<std::size_t>(std::countr_zero(diff)) / 8;
    } else {
        return static_cast<std::size_t>(std::countl_zero(diff)) / 8;
    }
}

// True when a comes before b in ascending order.
bool lessAscending(std::string_view a, std::string_view b) noexcept {
    const std::size_t common = std::min(a.size(), b.size());
    const char* pa = a.data();
    const char* pb = b.data();
    std::size_t i = 0;
    for (; i + 8 <= common; i += 8) {
        const std::uint64_t x = load8(pa + i);
        const std::uint64_t y = load8(pb + i);
        if (x != y) {
            const std::size_t at = i + firstDifferingByte(x, y);
            return keyOf(pa[at]) < keyOf(pb[at]);
        }
    }
    for (; i < common; ++i) {
        if (pa[i] != pb[i]) {
            return keyOf(pa[i]) < keyOf(pb[i]);
        }
    }
    return a.size() < b.size();
}

} // namespace

bool TextAlphabeticalSortComparator::operator()(std::string_view a,
                                                std::string_view b) const noexcept {
    // Descending is the exact reverse at every step of the comparison (greater lower-case
    // form, upper case first, longer first), so it is ascending with the operands swapped.
    return ascending ? lessAscending(a, b) : lessAscending(b, a);
}

} // namespace workspace_browser_startup
