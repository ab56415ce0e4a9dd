#include <workspace_browser/viewmodel/DisplayedNumber.hpp>

#include <charconv>
#include <cstddef>
#include <limits>
#include <stdexcept>
#include <system_error>

namespace workspace_browser_startup {

namespace {

constexpr std::string_view kTimes = DisplayedNumber::kTimes;

constexpr std::int32_t kLowest = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kHighest = std::numeric_limits<std::int32_t>::max();

// White space as the C locale classifies it.
bool isSpace(char c) noexcept {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

bool isDigit(char c) noexcept {
    return c >= '0' && c <= '9';
}

// Reads one factor starting at p as the standard decimal conversion does: leading white space,
// an optional sign, then digits up to the first other character; no digits at all is an error.
// The multiplication sign stops every step, so reading on to the end of the whole text gives
// the same result as cutting out the piece first. `next` is set to where the digits end.
DisplayedNumber::Status readFactor(const char* p, const char* end, std::int32_t& out,
                                   const char*& next) noexcept {
    while (p != end && isSpace(*p)) {
        ++p;
    }
    // from_chars takes a minus sign itself but not a plus sign; a plus sign must be followed
    // directly by a digit, or "+-5" would read as -5.
    if (p != end && *p == '+') {
        ++p;
        if (p == end || !isDigit(*p)) {
            return DisplayedNumber::Status::invalidArgument;
        }
    }
    const auto [stop, error] = std::from_chars(p, end, out, 10);
    if (error == std::errc::invalid_argument) {
        return DisplayedNumber::Status::invalidArgument;
    }
    if (error == std::errc::result_out_of_range) {
        return DisplayedNumber::Status::outOfRange;
    }
    next = stop;
    return DisplayedNumber::Status::ok;
}

// The first multiplication sign at or after p, or nullptr. Displayed texts are a few bytes
// long, so a plain loop beats calling memchr.
const char* findTimes(const char* p, const char* end) noexcept {
    for (; end - p >= 2; ++p) {
        if (p[0] == kTimes[0] && p[1] == kTimes[1]) {
            return p;
        }
    }
    return nullptr;
}

} // namespace

DisplayedNumber::Result DisplayedNumber::parse(std::string_view text) noexcept {
    // Missing and not-a-number values sort with minus infinity, below every real number.
    if (text.empty() || text == "NaN" || text == "-Inf") {
        return {Status::ok, kLowest};
    }
    if (text == "Inf") {
        return {Status::ok, kHighest};
    }
    // A size is the product of its dimensions; the product wraps like 32-bit arithmetic
    // (unsigned here, where wrapping is defined).
    std::uint32_t product = 1;
    const char* p = text.data();
    const char* const end = p + text.size();
    for (;;) {
        std::int32_t factor = 0;
        const char* next = p;
        const Status status = readFactor(p, end, factor, next);
        if (status != Status::ok) {
            return {status, 0};
        }
        product *= static_cast<std::uint32_t>(factor);
        const char* sign = findTimes(next, end);
        if (sign == nullptr) {
            break;
        }
        p = sign + kTimes.size();
    }
    return {Status::ok, static_cast<std::int32_t>(product)};
}

std::int32_t DisplayedNumber::toInt(std::string_view text) {
    const Result result = parse(text);
    switch (result.status) {
    case Status::ok:
        break;
    case Status::invalidArgument:
        throw std::invalid_argument("stoi");
    case Status::outOfRange:
        throw std::out_of_range("stoi");
    }
    return result.value;
}

} // namespace workspace_browser_startup
