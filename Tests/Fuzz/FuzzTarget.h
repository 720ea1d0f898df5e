// SPDX-License-Identifier: MIT
#ifndef FUZZTARGET_H
#define FUZZTARGET_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

/** Each target's one function, which the fuzzer and the replay call with one input after another.
 */
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

/** Ends the process with a message, which is a finding, unless the condition holds. */
inline void require(bool holds, const char *invariant)
{
    if (holds)
        return;
    std::fprintf(stderr, "this must hold, and does not: %s\n", invariant);
    std::abort();
}

/** An input that is taken apart from its front; behind its end come zeros and empty texts. */
class FuzzInput
{
public:
    FuzzInput() = default;
    FuzzInput(const std::uint8_t *data, std::size_t size)
        : _rest(reinterpret_cast<const char *>(data), size)
    {
    }

    bool isEmpty() const { return _rest.empty(); }

    unsigned byte() { return number(1); }

    /** From 0 to bound - 1. */
    unsigned below(unsigned bound) { return byte() % bound; }

    bool flag() { return byte() % 2 != 0; }

    /** A number of so many bytes, at most four, the lowest first. */
    std::uint32_t number(unsigned width)
    {
        std::uint32_t value = 0;
        const std::string_view digits = bytes(width);
        for (std::size_t i = digits.size(); i > 0; --i)
            value = value << 8 | static_cast<unsigned char>(digits[i - 1]);
        return value;
    }

    /** So many bytes, or what is left. */
    std::string_view bytes(std::size_t size)
    {
        const std::string_view taken = _rest.substr(0, size);
        _rest.remove_prefix(taken.size());
        return taken;
    }

    /** A text that its first byte tells the size of. */
    std::string_view shortText() { return bytes(byte()); }

    /** What stands in front of a byte, which is taken, too; all when there is none. */
    std::string_view upTo(char end)
    {
        const std::string_view taken = bytes(std::min(_rest.find(end), _rest.size()));
        bytes(1);
        return taken;
    }

    std::string_view rest() { return bytes(_rest.size()); }

private:
    std::string_view _rest;
};

#endif
